#include "QELlogger5_3164.h"

#include "QELlogger5line.h"

std::string QELlogger5_3164::format(int severity, std::string_view hostName,
                                    std::string_view appName, std::string_view text) const {
    return formatAt(QELlogger5::utcNowUs(), severity, hostName, appName, text);
}

std::string QELlogger5_3164::formatAt(std::uint64_t time, int severity, std::string_view hostName,
                                      std::string_view appName, std::string_view text) {
    const QELlogger5::TimeParts utc = QELlogger5::breakDownUtc(time);
    QELlogger5line<maxLine> line;
    line.priority(severity);
    line.text(monthNames[static_cast<std::size_t>(utc.month)]);
    line.number(utc.day, 3, ' ');
    line.text(" ");
    line.timeOfDay(utc);
    line.text(" ");
    line.text(hostName);
    line.text(" ");
    line.number(utc.microsecond / 1000, 3);
    line.text(" ");
    line.text(appName);
    line.text(": ");
    line.text(text);
    return line.finish();
}
