#pragma once

#include "QELgregorian.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstddef>
#include <string>
#include <string_view>

/// Builds one line of at most @p limit bytes on the stack, so that only the finished line is
/// allocated and a text of any length costs no more than the limit.
template <std::size_t limit>
class QELlogger5line { // NOLINT(*-member-init): only what was written to the buffer is read
  public:
    /// Adds the priority, "<14>" for severity 6: messages of processes are of facility user (1).
    void priority(int severity) {
        constexpr int facilityUser = 1 << 3;
        text("<");
        number(severity | facilityUser);
        text(">");
    }

    /// Adds a text unchanged.
    void text(std::string_view piece) {
        const std::size_t count = std::min(piece.size(), buffer.size() - length);
        std::copy_n(piece.data(), count, buffer.data() + length);
        length += count;
    }

    /// Adds a number in decimal, filled from the left to at least @p width characters.
    void number(int value, int width = 1, char fill = '0') {
        if (length <= limit) {
            char* at = buffer.data() + length;
            for (int bound = 10; width > 1; bound *= 10, --width) {
                if (value < bound) {
                    *at++ = fill;
                }
            }
            at = std::to_chars(at, buffer.data() + buffer.size(), value).ptr;
            length = static_cast<std::size_t>(at - buffer.data());
        }
    }

    /// Adds the time of day as "10:20:30".
    void timeOfDay(const QELgregorianTime& time) {
        number(time.hour, 2);
        text(":");
        number(time.minute, 2);
        text(":");
        number(time.second, 2);
    }

    /// The line; one that would be longer than the limit is cut to it and ends in "...".
    std::string finish() {
        if (length > limit) {
            constexpr std::string_view mark = "...";
            length = limit - mark.size();
            text(mark);
        }
        return {buffer.data(), length};
    }

  private:
    std::array<char, limit + 16> buffer; // a number that begins within the limit always fits
    std::size_t length = 0;
};
