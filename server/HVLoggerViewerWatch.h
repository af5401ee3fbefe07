#pragma once

#include "QELselTimer.h"

#include <cstdint>
#include <functional>

/// Whether a viewer still lives, told within a minute after it has vanished: its link or its
/// machine went down without a word. Does not own the connection.
///
/// A viewer that is silent is asked by keep-alive. One that is being sent something is not, and the
/// kernel alone would go on for a quarter of an hour; one that is paused, its receive window full,
/// is asked by window probes, which the kernel sends ever more rarely and for as long as it takes.
/// So this class looks every second whether the questions are answered. A viewer that is only
/// stopped stays: its kernel answers. So does one on a link that loses packets: several questions
/// in a row must be lost, here as with keep-alive, which is left to the kernel.
class HVLoggerViewerWatch : public QELselTimer {
  public:
    /// @param whenVanished  called when the viewer has vanished, after the last look at it
    explicit HVLoggerViewerWatch(std::function<void()> whenVanished);

    /// Watches the viewer on this connection until cancel().
    /// @param dispatcher  null: nothing but the connection's own keep-alive
    void start(int descriptor, QELselector* dispatcher);

    std::uint64_t onTimer(std::int64_t nowUs) override;

  private:
    int connection = -1;
    std::function<void()> vanished;
};
