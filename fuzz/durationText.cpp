// Spans and formats into the duration's text. The input is a mask of units, the eight bytes of a
// span, and the format; its bytes are also a record of their own.

#include "QELduration.h"
#include "QELgregorian.h"
#include "check.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>

namespace {

constexpr std::size_t maxWidth = 65'535;
constexpr int maxDirectives = 7;

/// The format language a second time, by the C library's means.
std::string reference(const QELduration& duration, const char* format) {
    std::string text;
    for (int directives = 0; *format != '\0'; ++format) {
        if (*format != '%' || directives == maxDirectives) {
            text += *format;
            continue;
        }
        ++directives;
        char fill = ' ';
        unsigned long width = 0;
        ++format;
        if (*format == '\0') {
            return {};
        }
        if (std::strchr("YMDhmsuf", *format) == nullptr) {
            fill = *format++;
            const std::size_t digits = std::strspn(format, "0123456789");
            errno = 0;
            width = std::strtoul(format, nullptr, 10);
            format += digits;
            if (digits == 0 || errno != 0 || width > maxWidth || *format == '\0') {
                return {};
            }
        }
        const std::uint64_t* field = nullptr;
        switch (*format) {
        case 'Y':
            field = &duration.years;
            break;
        case 'M':
            field = &duration.months;
            break;
        case 'D':
            field = &duration.days;
            break;
        case 'h':
            field = &duration.hours;
            break;
        case 'm':
            field = &duration.minutes;
            break;
        case 's':
            field = &duration.seconds;
            break;
        case 'u':
        case 'f':
            field = &duration.microseconds;
            break;
        default:
            return {};
        }
        std::array<char, 32> value{};
        if (*format == 'f') {
            std::snprintf(value.data(), value.size(), "%06llu",
                          static_cast<unsigned long long>(*field));
            text.append(value.data(), width >= 1 && width <= 5 ? width : std::strlen(value.data()));
        } else {
            std::snprintf(value.data(), value.size(), "%lld", static_cast<long long>(*field));
            const std::size_t length = std::strlen(value.data());
            text.append(std::max<std::size_t>(width, length) - length, fill).append(value.data());
        }
    }
    return text;
}

void write(const QELduration& duration, std::string_view format) {
    const auto exact = exactText(format);
    require(formatDuration(duration, exact.get()) == reference(duration, exact.get()),
            "the text is what the format says");
}

void split(std::int64_t micros, std::uint8_t mask) {
    QELduration duration;
    splitDuration(duration, micros, mask);
    require(duration.negative == (micros < 0), "the sign stands apart");
    const bool fixedUnits = (mask & (unitYears | unitMonths)) == 0;
    if (fixedUnits && (mask & unitMicroseconds) != 0) {
        require(durationMicros(duration) == micros, "the units make up the span");
    }
    const auto selected = [mask](std::uint64_t amount, QELdurationUnit unit) {
        return amount == 0 || (mask & unit) != 0;
    };
    require(selected(duration.years, unitYears) && selected(duration.months, unitMonths) &&
                selected(duration.days, unitDays) && selected(duration.hours, unitHours) &&
                selected(duration.minutes, unitMinutes) &&
                selected(duration.seconds, unitSeconds) &&
                selected(duration.microseconds, unitMicroseconds),
            "only the selected units are used");
    constexpr std::uint8_t all = 127;
    require((mask & all) != all ||
                (duration.months < 12 && duration.days < 31 && duration.hours < 24 &&
                 duration.minutes < 60 && duration.seconds < 60 &&
                 duration.microseconds < static_cast<std::uint64_t>(microsPerSecond)),
            "no unit holds a larger one");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size) {
    std::int64_t micros = 0;
    if (size < 1 + sizeof micros) {
        return 0;
    }
    const std::uint8_t mask = data[0];
    std::memcpy(&micros, data + 1, sizeof micros);
    split(micros, mask);
    const std::string_view format = asText(data + 1 + sizeof micros, size - 1 - sizeof micros);
    QELduration duration;
    splitDuration(duration, micros, mask);
    write(duration, format);

    std::array<std::uint64_t, 7> fields{};
    std::memcpy(fields.data(), data, std::min(size, sizeof fields));
    duration = {.years = fields[0],
                .months = fields[1],
                .days = fields[2],
                .hours = fields[3],
                .minutes = fields[4],
                .seconds = fields[5],
                .microseconds = fields[6],
                .negative = mask % 2 == 1};
    write(duration, format);
    durationMicros(duration);
    return 0;
}
