#include "QELduration.h"

#include "QELgregorian.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <string_view>

namespace {

struct Unit {
    char letter;
    QELdurationUnit bit;
    std::uint64_t QELduration::*field;
    std::uint64_t micros;
};

constexpr std::uint64_t microsPerYear = 31'556'952 * microsPerSecond; // 365.2425 days

/// From the largest to the smallest, as a span is split.
constexpr std::array<Unit, 7> units = {{
    {'Y', unitYears, &QELduration::years, microsPerYear},
    {'M', unitMonths, &QELduration::months, microsPerYear / 12},
    {'D', unitDays, &QELduration::days, microsPerDay},
    {'h', unitHours, &QELduration::hours, microsPerHour},
    {'m', unitMinutes, &QELduration::minutes, microsPerMinute},
    {'s', unitSeconds, &QELduration::seconds, microsPerSecond},
    {'u', unitMicroseconds, &QELduration::microseconds, 1},
}};

constexpr int maxDirectives = 7;
constexpr std::size_t maxWidth = 65'535; // a width is memory: more is a mistake, not a wish

void fill(std::string& text, char character, std::size_t width, std::string_view value) {
    text.append(std::max(width, value.size()) - value.size(), character);
    text.append(value);
}

/// Appends the value of a directive. False for an unknown letter.
bool appendValue(std::string& text, const QELduration& duration, char letter, char fillCharacter,
                 std::size_t width) {
    if (letter == 'f') {
        std::string fraction;
        fill(fraction, '0', 6, std::to_string(duration.microseconds));
        text.append(fraction, 0, width >= 1 && width <= 5 ? width : std::string::npos);
        return true;
    }
    const auto* const unit = std::find_if(units.begin(), units.end(),
                                          [=](const Unit& each) { return each.letter == letter; });
    if (unit == units.end()) {
        return false;
    }
    const auto value = static_cast<std::int64_t>(duration.*unit->field);
    fill(text, fillCharacter, width, std::to_string(value));
    return true;
}

} // namespace

void clearDuration(QELduration& duration) {
    duration = {};
}

void splitDuration(QELduration& duration, std::int64_t micros, std::uint8_t mask) {
    clearDuration(duration);
    duration.negative = micros < 0;
    auto remaining = static_cast<std::uint64_t>(micros);
    if (duration.negative) {
        remaining = 0 - remaining;
    }
    for (const Unit& unit : units) {
        if ((mask & unit.bit) != 0) {
            duration.*unit.field = remaining / unit.micros;
            remaining %= unit.micros;
        }
    }
}

std::int64_t durationMicros(const QELduration& duration) {
    const std::uint64_t micros = duration.days * microsPerDay + duration.hours * microsPerHour +
                                 duration.minutes * microsPerMinute +
                                 duration.seconds * microsPerSecond + duration.microseconds;
    return static_cast<std::int64_t>(duration.negative ? 0 - micros : micros);
}

std::string formatDuration(const QELduration& duration, const char* format) {
    if (format == nullptr) {
        return {};
    }
    std::string text;
    std::string_view rest = format;
    for (int directive = 0; directive < maxDirectives; ++directive) {
        const std::size_t percent = rest.find('%');
        if (percent == std::string_view::npos) {
            break;
        }
        text.append(rest.substr(0, percent));
        rest.remove_prefix(percent + 1);
        if (rest.empty()) {
            return {};
        }
        if (!appendValue(text, duration, rest.front(), ' ', 0)) {
            // Not a unit, so a fill character, which a width and the unit must follow.
            const char* const end = rest.data() + rest.size();
            std::size_t width = 0;
            const auto [unit, error] = std::from_chars(rest.data() + 1, end, width);
            if (error != std::errc{} || width > maxWidth || unit == end ||
                !appendValue(text, duration, *unit, rest.front(), width)) {
                return {};
            }
            rest.remove_prefix(static_cast<std::size_t>(unit - rest.data()));
        }
        rest.remove_prefix(1);
    }
    return text.append(rest);
}
