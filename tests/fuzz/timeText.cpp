// Texts into the readers of dates and times of day, and as a format of durations.

#include "QELdateTimeParse.h"
#include "QELduration.h"
#include "check.h"

#include <cstring>

static void parsed(bool (*parse)(const char*&, std::int64_t&), std::string_view text) {
    const auto exact = exactText(text);
    const char* cursor = exact.get();
    std::int64_t micros = 0;
    parse(cursor, micros);
    require(cursor <= exact.get() + std::strlen(exact.get()), "no parser moves beyond the text");
}

void target(std::string_view input) {
    parsed(parseDate, input);
    parsed(parseTime, input);
    formatDuration({}, exactText(input).get());
}
