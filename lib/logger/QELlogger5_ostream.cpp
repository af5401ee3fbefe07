#include "QELlogger5_ostream.h"

#include <string>

QELlogger5_ostream::QELlogger5_ostream(std::ostream& stream) : out(&stream) {}

int QELlogger5_ostream::send(std::string_view line) {
    // Unformatted, so that a number base or width set on the stream does not get into the line.
    const std::string prefix = '[' + std::to_string(lineNumber) + "] ";
    out->write(prefix.data(), static_cast<std::streamsize>(prefix.size()));
    out->write(line.data(), static_cast<std::streamsize>(line.size()));
    lineNumber = static_cast<std::int32_t>(static_cast<std::uint32_t>(lineNumber) + 1); // may wrap
    out->flush();
    return 0;
}
