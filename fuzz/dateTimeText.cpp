// Texts into the readers of dates, times of day and numbers; and the input's bytes as a record into
// the writers.

#include "QELdateTime.h"
#include "QELdateTimeParse.h"
#include "QELgregorian.h"
#include "check.h"

#include <cstdint>
#include <cstring>
#include <string>

namespace {

constexpr std::int64_t unset = -77;

/// The result of a parser, with what holds for all of them checked.
struct Parsed {
    bool accepted = false;
    std::int64_t micros = unset;
    std::size_t length = 0;

    Parsed(bool (*parse)(const char*&, std::int64_t&), std::string_view text) {
        const auto exact = exactText(text);
        const char* cursor = exact.get();
        accepted = parse(cursor, micros);
        length = static_cast<std::size_t>(cursor - exact.get());
        require(length <= std::strlen(exact.get()), "no parser moves beyond the text");
        require(accepted || micros == unset, "refused text leaves the result");
    }
};

void readNumberOf(std::string_view text) {
    const auto exact = exactText(text);
    const char* cursor = exact.get();
    std::uint32_t value = 0;
    const bool accepted = readNumber(cursor, value);
    const std::size_t digits = std::strspn(exact.get(), "0123456789");
    require(cursor == exact.get() + digits && accepted == (digits > 0), "a number is its digits");
    const std::uint64_t expected =
        digits == 0 ? 0 : std::strtoull(std::string(text.substr(0, digits)).c_str(), nullptr, 10);
    require(digits > 19 || value == static_cast<std::uint32_t>(expected), "a number is its value");
}

void readDate(std::string_view text) {
    const Parsed parsed(parseDate, text);
    if (!parsed.accepted) {
        return;
    }
    require(parsed.micros >= 0 && parsed.micros % microsPerDay == 0,
            "a date is a day from 1601 on");
    QELdateTime time;
    fromMicros(time, static_cast<std::uint64_t>(parsed.micros));
    for (const int style : {0, 1, 2}) {
        for (const bool padded : {false, true}) {
            require(Parsed(parseDate, formatDate(time, style, padded)).micros == parsed.micros,
                    "a date that is written is read again");
        }
    }
}

void readTime(std::string_view text) {
    const Parsed parsed(parseTime, text);
    if (!parsed.accepted) {
        return;
    }
    require(parsed.micros >= 0 && parsed.micros < microsPerDay, "a time lies within a day");
    QELdateTime time;
    fromMicros(time, static_cast<std::uint64_t>(parsed.micros));
    for (const bool padded : {false, true}) {
        require(Parsed(parseTime, formatTime(time, 6, padded, ':')).micros == parsed.micros,
                "a time that is written is read again");
    }
}

void write(const QELdateTime& time) {
    for (const int style : {0, 1, 2, 3}) {
        const std::string date = formatDate(time, style, true);
        require(date.size() >= 8 && date.size() <= 32, "a date has three numbers");
        require(formatDateTime(time, style, time.second, true) ==
                    date + ' ' + formatTime(time, time.second, true, ':'),
                "both together are a date and a time");
    }
    formatTime(time, time.microsecond, time.hour % 2 == 0, static_cast<char>(time.minute));
    const auto weekday = static_cast<unsigned>(time.weekday);
    require(weekdayName(weekday, time.week, 0).empty() == (weekday > 6), "a week has seven days");
    weekdayName(weekday % 8, time.week, static_cast<unsigned>(time.day));
    daysInMonth(time);
    QELdateTime derived = time;
    updateDerived(derived);
    toMicros(derived);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size) {
    const std::string_view text = asText(data, size);
    readNumberOf(text);
    readDate(text);
    readTime(text);
    if (QELdateTime record; size >= sizeof record) {
        std::memcpy(&record, data, sizeof record);
        write(record);
    }
    return 0;
}
