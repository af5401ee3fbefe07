#pragma once

#include <cstdint>

class QELselector;

/// A deadline that a QELselector watches, and what to do when it has come. Does not own the
/// dispatcher and is owned by its creator: the dispatcher only points to it.
///
/// Times are microseconds of QELselector::nowUs(); a deadline of 0 means none. Put the timer on a
/// dispatcher once with QELselector::setTimer(); from then on it can re-arm itself. Timer and
/// dispatcher may be destroyed in either order, and a timer also inside any callback, its own
/// included.
class QELselTimer {
  public:
    /// The dispatcher whose timer list holds this timer, or null. For reading only: the dispatcher
    /// sets it.
    QELselector* selector{nullptr};

    /// Whether a deadline is set that has not come yet. For reading only: the dispatcher sets it,
    /// and leaves it as it is when it is destroyed.
    bool armed{false};

    QELselTimer() = default;
    QELselTimer(const QELselTimer&) = delete;
    QELselTimer& operator=(const QELselTimer&) = delete;

    /// Cancels the timer.
    virtual ~QELselTimer();

    /// The deadline has come. The timer is disarmed before the call.
    ///
    /// @param nowUs  when the cycle began to dispatch
    /// @return the next deadline, absolute; one that has passed fires in the next cycle. 0 leaves
    ///         the timer as it is: disarmed, unless the callback has set a deadline itself.
    ///
    /// The result is ignored when the timer was cancelled during the call. The callback may call
    /// every operation of the dispatcher, except QELselector::runOnce(), and of receivers and other
    /// timers; it must not destroy the dispatcher.
    virtual std::uint64_t onTimer(std::int64_t nowUs) = 0;

    /// Sets the deadline, absolute; 0 disarms the timer but keeps it on its dispatcher.
    /// @return false, and nothing is done, when the timer is on no dispatcher.
    bool setDeadline(std::uint64_t deadline);

    /// Sets the deadline @p delay microseconds from now (modulo 2^64).
    /// @return false, and nothing is done, when the timer is on no dispatcher.
    bool setTimeout(std::uint64_t delay);

    /// Disarms the timer and takes it off its dispatcher, if it is on one.
    void cancel();

    /// Makes the running cycle of the dispatcher return @p code; see QELselector::setExitCode().
    /// Does nothing when #selector is null.
    void selExit(std::int32_t code) const;
};
