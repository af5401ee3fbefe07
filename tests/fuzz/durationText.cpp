// Spans and formats into the duration's text. The input is a mask of units, the eight bytes of a
// span, and the format; its bytes are also a record of their own.

#include "QELduration.h"
#include "QELgregorian.h"
#include "check.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
#include <iomanip>
#include <regex>
#include <sstream>
#include <string>

namespace {

constexpr std::string_view letters = "YMDhmsu";
using Fields = std::array<std::uint64_t, letters.size()>;

Fields fieldsOf(const QELduration& duration) {
    return {duration.years,   duration.months,  duration.days,        duration.hours,
            duration.minutes, duration.seconds, duration.microseconds};
}

/// The format language a second time, by the C++ library's means.
std::string reference(const Fields& fields, std::string format) {
    static const std::regex directive("%(?:([^YMDhmsuf])0*(\\d{1,5}))?([YMDhmsuf])");
    std::ostringstream text;
    for (int count = 0; count < 7 && format.find('%') != std::string::npos; ++count) {
        text << format.substr(0, format.find('%'));
        format.erase(0, format.find('%'));
        std::smatch match;
        if (!std::regex_search(format, match, directive, std::regex_constants::match_continuous)) {
            return {};
        }
        const int width = match[2].matched ? std::stoi(match[2]) : 0;
        if (width > 65'535) {
            return {};
        }
        if (match[3] == "f") {
            std::ostringstream fraction;
            fraction << std::setw(6) << std::setfill('0') << fields.back();
            text << fraction.str().substr(
                0, width >= 1 && width <= 5 ? static_cast<std::size_t>(width) : std::string::npos);
        } else {
            text << std::setfill(match[1].matched ? *match[1].first : ' ') << std::setw(width)
                 << static_cast<std::int64_t>(fields[letters.find(*match[3].first)]);
        }
        format.erase(0, static_cast<std::size_t>(match.length()));
    }
    return text.str() + format;
}

void write(const QELduration& duration, std::string_view format) {
    const auto exact = exactText(format);
    require(formatDuration(duration, exact.get()) == reference(fieldsOf(duration), exact.get()),
            "the text is what the format says");
}

/// Splits a span and checks that each selected unit holds what the larger ones leave.
QELduration split(std::int64_t micros, std::uint8_t mask) {
    constexpr std::uint64_t year = 31'556'952'000'000; // 365.2425 days
    constexpr Fields lengths = {year,      year / 12, 86'400'000'000, 3'600'000'000, 60'000'000,
                                1'000'000, 1};
    QELduration duration{.years = 9, .microseconds = 9};
    splitDuration(duration, micros, mask);
    require(duration.negative == (micros < 0), "the sign stands apart");
    const auto span = static_cast<std::uint64_t>(micros);
    std::uint64_t rest = micros < 0 ? 0 - span : span;
    const Fields fields = fieldsOf(duration);
    for (std::size_t unit = 0; unit < fields.size(); ++unit) {
        const bool selected = (mask & (unitYears >> unit)) != 0;
        rest -= fields[unit] * lengths[unit];
        require(selected ? rest < lengths[unit] : fields[unit] == 0,
                "a selected unit leaves less than itself, another is not used");
    }
    const bool whole = (mask & unitMicroseconds) != 0 && (mask & (unitYears | unitMonths)) == 0;
    require(!whole || durationMicros(duration) == micros, "the units make up the span");
    return duration;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size) {
    std::int64_t micros = 0;
    if (size < 1 + sizeof micros) {
        return 0;
    }
    std::memcpy(&micros, data + 1, sizeof micros);
    const std::string_view format = asText(data + 1 + sizeof micros, size - 1 - sizeof micros);
    write(split(micros, data[0]), format);
    QELduration record;
    std::memcpy(&record, data, std::min(size, sizeof(Fields)));
    write(record, format);
    return 0;
}
