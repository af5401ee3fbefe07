#pragma once

#include "QELselRcv.h"

#include <csignal>
#include <cstdint>

/// Has SIGTERM, SIGHUP, SIGINT and SIGQUIT end the viewer like a key, so that everything is put
/// back first: while it lives they are blocked and wait in a descriptor (signalfd(2)), which it
/// owns. No handler runs. What was ignored at the start stays ignored.
///
/// One that has come is never taken: the descriptor stays readable, so that nothing waits any more.
/// Create it before all that is to be put back: its destructor unblocks the signals, and the one
/// that waits ends the process, whose exit status tells it as ever.
class HVLoggerEndSignals : public QELselRcv {
  public:
    bool endRequested = false; ///< a signal has come

    HVLoggerEndSignals();
    ~HVLoggerEndSignals() override;
    HVLoggerEndSignals(const HVLoggerEndSignals&) = delete;
    HVLoggerEndSignals& operator=(const HVLoggerEndSignals&) = delete;

    /// The descriptor to watch for reading; -1 if there was none to be had: nothing is blocked
    /// then.
    [[nodiscard]] int fd() const { return descriptor; }

    /// Whether one has come by now, also since the last cycle.
    [[nodiscard]] bool haveCome() const;

    /// Sets endRequested; always true.
    bool onReady(std::int64_t nowUs) override;

  private:
    int descriptor;
    sigset_t before{};
};
