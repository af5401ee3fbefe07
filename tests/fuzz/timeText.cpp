// Texts into the readers of dates and times of day, the input's bytes as a record into the writers,
// and the input as a format of durations.

#include "QELdateTime.h"
#include "QELdateTimeParse.h"
#include "QELduration.h"
#include "check.h"

#include <cstring>

static constexpr std::int64_t refused = -77;

static std::int64_t parsed(bool (*parse)(const char*&, std::int64_t&), std::string_view text) {
    const auto exact = exactText(text);
    const char* cursor = exact.get();
    std::int64_t micros = refused;
    require(parse(cursor, micros) == (micros != refused), "only accepted text sets the result");
    require(cursor <= exact.get() + std::strlen(exact.get()), "no parser moves beyond the text");
    return micros;
}

void target(std::string_view input) {
    QELdateTime record;
    if (const std::int64_t date = parsed(parseDate, input); date != refused) {
        fromMicros(record, static_cast<std::uint64_t>(date));
        require(parsed(parseDate, formatDate(record, 0, true)) == date, "what is written is read");
    }
    if (const std::int64_t time = parsed(parseTime, input); time != refused) {
        fromMicros(record, static_cast<std::uint64_t>(time));
        require(parsed(parseTime, formatTime(record, 6, true, ':')) == time, "again, times too");
    }
    input.copy(reinterpret_cast<char*>(&record), sizeof record);
    formatDateTime(record, record.year, record.second, record.hour % 2 == 0);
    weekdayName(static_cast<unsigned>(record.weekday), record.day, 3);
    updateDerived(record);
    formatDuration({}, exactText(input).get());
}
