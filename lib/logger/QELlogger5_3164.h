#pragma once

#include "QELlogger5.h"

#include <array>
#include <cstddef>

/// Writes lines in the shape of RFC 3164, of facility user (1):
/// "<14>Mar  5 10:20:30 dev01 123 sip: Call setup done".
///
/// Departs from the RFC: the time is UTC, and its milliseconds stand between host and program name,
/// where a strict reader takes them for the tag. There is no process id; names are written as they
/// are.
///
/// Holds no state: may be used from any thread.
class QELlogger5_3164 final : public QELlogger5::Formatter {
  public:
    static constexpr std::size_t maxLine = 1024; ///< bytes; RFC 3164, 4.1

    /// Indexed by month, 1 to 12.
    static constexpr std::array<std::string_view, 13> monthNames = {
        "", "Jan", "Feb", "Mar", "Apr", "May", "Jun", "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};

    /// The line of a statement made now. A line longer than `maxLine` keeps its first 1021 bytes
    /// and ends in "...".
    [[nodiscard]] std::string format(int severity, std::string_view hostName,
                                     std::string_view appName,
                                     std::string_view text) const override;

    /// The same for a statement made at the library time @p time.
    [[nodiscard]] static std::string formatAt(std::uint64_t time, int severity,
                                              std::string_view hostName, std::string_view appName,
                                              std::string_view text);
};
