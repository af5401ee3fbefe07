#pragma once

#include "QELselRcv.h"

#include <cstdint>

/// Notices that nobody reads standard output any more, so that a viewer in a pipeline ends with the
/// program it writes to and not only at its next line. Does not own the descriptor.
///
/// Works for pipes: their write end becomes readable, with an error, when the last reader has
/// closed (poll(2), POLLERR). Terminals and files need no watch.
class HVLoggerOutputWatch : public QELselRcv {
  public:
    bool readerGone = false;

    /// Whether the reader has gone now; for terminals and sockets too.
    static bool readerHasGone();

    /// The descriptor to watch for reading: standard output's; -1, which the dispatcher refuses,
    /// unless it is the write end of a pipe.
    static int fd();

    /// Sets readerGone; always false, there is nothing left to watch.
    bool onReady(std::int64_t nowUs) override;
};
