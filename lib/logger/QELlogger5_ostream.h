#pragma once

#include "QELlogger5.h"

#include <cstdint>
#include <ostream>

/// Writes each line, numbered, to a stream that it does not own and that must outlive it.
class QELlogger5_ostream : public QELlogger5::Sender {
  public:
    explicit QELlogger5_ostream(std::ostream& stream);

    /// Writes "[1] " and the line, adds no line end, counts on, and flushes.
    /// @return 0; whether the stream took it, only the stream tells
    int send(std::string_view line) override;

    std::ostream* out;           ///< not owned
    std::int32_t lineNumber = 1; ///< of the next line
};
