#pragma once

#include "QELselRcv.h"

#include <csignal>
#include <cstdint>

/// Has SIGTERM, SIGHUP, SIGINT and SIGQUIT end the viewer like a key, so that everything is put
/// back first: while it lives they are blocked and wait in a descriptor (signalfd(2)), which it
/// owns. No handler runs. What was ignored at the start stays ignored.
///
/// Create it before all that is to be put back: its destructor unblocks the signals and, if one has
/// come, lets it end the process, whose exit status tells it as ever.
class HVLoggerEndSignals : public QELselRcv {
  public:
    int caught = 0; ///< the signal that has come; 0 for none

    HVLoggerEndSignals();
    ~HVLoggerEndSignals() override;
    HVLoggerEndSignals(const HVLoggerEndSignals&) = delete;
    HVLoggerEndSignals& operator=(const HVLoggerEndSignals&) = delete;

    /// The descriptor to watch for reading; -1 if there was none to be had: nothing is blocked
    /// then.
    [[nodiscard]] int fd() const { return descriptor; }

    /// Whether one has come by now: for a callback that cannot wait for the next cycle.
    bool haveCome();

    /// Takes the signal; always true.
    bool onReady(std::int64_t nowUs) override;

  private:
    int descriptor;
    sigset_t before{};
};
