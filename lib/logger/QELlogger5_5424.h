#pragma once

#include "QELlogger5.h"

#include <cstddef>

/// Writes lines with the header of RFC 5424, stamped in UTC and of facility user (1):
/// "<14>1 2024-03-05T10:20:30.123Z dev01 sip 412 - Call setup done".
///
/// Departs from the RFC where the log collector does: a single "-" stands between PROCID and the
/// text, which is everything after the first " - "; names are written as they are, whatever their
/// length and even if empty; there is no byte-order mark.
///
/// Holds no state: may be used from any thread.
class QELlogger5_5424 final : public QELlogger5::Formatter {
  public:
    static constexpr std::size_t maxLine = 480; ///< bytes; what every receiver takes, RFC 5424, 6.1

    /// The line of a statement made now. A line longer than `maxLine` keeps its first 477 bytes and
    /// ends in "...".
    [[nodiscard]] std::string format(int severity, std::string_view hostName,
                                     std::string_view appName,
                                     std::string_view text) const override;

    /// The same for a statement made at the library time @p time.
    [[nodiscard]] static std::string formatAt(std::uint64_t time, int severity,
                                              std::string_view hostName, std::string_view appName,
                                              std::string_view text);
};
