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

using Parser = bool (*)(const char*&, std::int64_t&);

constexpr std::int64_t refused = -77;

/// What a parser makes of the text, or `refused`.
std::int64_t parsed(Parser parse, std::string_view text) {
    const auto exact = exactText(text);
    const char* cursor = exact.get();
    std::int64_t micros = refused;
    const bool accepted = parse(cursor, micros);
    require(cursor <= exact.get() + std::strlen(exact.get()), "no parser moves beyond the text");
    require(accepted == (micros != refused), "only accepted text sets the result");
    return micros;
}

void readNumberOf(std::string_view text) {
    const auto exact = exactText(text);
    const char* cursor = exact.get();
    std::uint32_t value = 99;
    const bool accepted = readNumber(cursor, value);
    const std::size_t digits = std::strspn(exact.get(), "0123456789");
    require(cursor == exact.get() + digits && accepted == (digits > 0), "a number is its digits");
    const std::uint64_t expected = digits == 0 ? 0 : std::strtoull(exact.get(), nullptr, 10);
    require(digits > 19 || value == static_cast<std::uint32_t>(expected), "a number is its value");
}

/// An accepted text is at least 0 and a multiple of `step` below `end`; written, it is read again.
void read(Parser parse, std::string_view text, std::int64_t step, std::int64_t end) {
    const std::int64_t micros = parsed(parse, text);
    if (micros == refused) {
        return;
    }
    require(micros >= 0 && micros < end && micros % step == 0, "a date is a day, a time within it");
    QELdateTime time;
    fromMicros(time, static_cast<std::uint64_t>(micros));
    for (const int style : {0, 1, 2}) {
        for (const bool padded : {false, true}) {
            require(parsed(parse, parse == parseDate ? formatDate(time, style, padded)
                                                     : formatTime(time, 6, padded, ':')) == micros,
                    "what is written is read again");
        }
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
    read(parseDate, text, microsPerDay, INT64_MAX);
    read(parseTime, text, 1, microsPerDay);
    if (QELdateTime record; size >= sizeof record) {
        std::memcpy(&record, data, sizeof record);
        write(record);
    }
    return 0;
}
