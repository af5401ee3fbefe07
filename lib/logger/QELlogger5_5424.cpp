#include "QELlogger5_5424.h"

#include "QELlogger5line.h"

#include <unistd.h>

std::string QELlogger5_5424::format(int severity, std::string_view hostName,
                                    std::string_view appName, std::string_view text) const {
    return formatAt(QELlogger5::utcNowUs(), severity, hostName, appName, text);
}

std::string QELlogger5_5424::formatAt(std::uint64_t time, int severity, std::string_view hostName,
                                      std::string_view appName, std::string_view text) {
    const QELlogger5::TimeParts utc = QELlogger5::breakDownUtc(time);
    QELlogger5line<maxLine> line;
    line.priority(severity);
    line.text("1 ");
    line.number(utc.year);
    line.text("-");
    line.number(utc.month, 2);
    line.text("-");
    line.number(utc.day, 2);
    line.text("T");
    line.timeOfDay(utc);
    line.text(".");
    line.number(utc.microsecond / 1000, 3);
    line.text("Z ");
    line.text(hostName);
    line.text(" ");
    line.text(appName);
    line.text(" ");
    line.number(getpid()); // not kept, or a child would name its parent
    line.text(" - ");
    line.text(text);
    return line.finish();
}
