#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <sys/select.h>
#include <vector>

class QELselRcv;
class QELselTimer;

/// Event loop of one thread: waits with pselect(2) until a registered descriptor is ready or a
/// timer is due, then calls the receivers and timers concerned. Owns neither the receivers, nor the
/// timers, nor the descriptors.
///
/// One cycle (runOnce()):
/// 1. wait for any registered descriptor, at most until the earliest deadline;
/// 2. call the receivers whose descriptor is writable, then those whose descriptor is readable,
///    then those with an exceptional condition (TCP urgent data), each group by ascending
///    descriptor;
/// 3. call the timers that are due, in the order in which they were put on the list.
///
/// Callbacks may register, remove, set and cancel whatever they like. A receiver removed by an
/// earlier callback of the cycle is not called; a descriptor registered during a cycle is watched
/// from the next one; a timer added by a timer's callback is looked at in the same cycle.
///
/// A receiver or timer is on one dispatcher at a time: putting it on another one takes it off the
/// first. Readiness is a state, not an event: a callback that leaves its input unread is called
/// again in the next cycle. No operation takes a null pointer (an assertion tells) or
/// may be called from another thread.
class QELselector {
  public:
    /// An exit code for a callback that has no other to give: "end the loop".
    static constexpr std::int32_t resultExit{-3146};
    /// Result of runOnce() when pselect failed.
    static constexpr std::int32_t resultFailed{-3148};

    /// Descriptors from 0 to below this fit the descriptor sets (1024).
    static constexpr std::int32_t descriptorLimit{FD_SETSIZE};
    /// The most entries there can be for each condition.
    static constexpr std::size_t maxEntries{1024};

    QELselector() = default;
    QELselector(const QELselector&) = delete;
    QELselector& operator=(const QELselector&) = delete;

    /// Detaches every receiver and timer that it still knows; calls none of them.
    ~QELselector();

    /// Has @p receiver called when @p descriptor can be written to. A receiver that is registered
    /// for the descriptor already is replaced, its link left as it is.
    /// @return false, and nothing changes, when 1024 descriptors are waiting to be written already
    ///         (the given one may be among them), or when the descriptor is not from 0 to 1023.
    bool addWrite(QELselRcv* receiver, std::int32_t descriptor);

    /// As addWrite(), when @p descriptor can be read without blocking.
    bool addRead(QELselRcv* receiver, std::int32_t descriptor);

    /// As addWrite(), when @p descriptor has an exceptional condition.
    bool addExcept(QELselRcv* receiver, std::int32_t descriptor);

    /// Erases the receiver's entry with the lowest descriptor, if it has any, from those waiting to
    /// write. Leaves its link as it is.
    void removeWrite(const QELselRcv* receiver);

    /// As removeWrite(), from those waiting to read.
    void removeRead(const QELselRcv* receiver);

    /// As removeWrite(), from those waiting for an exceptional condition.
    void removeExcept(const QELselRcv* receiver);

    /// Sets the deadline of @p timer, in microseconds of nowUs(), and puts it at the end of the
    /// timer list unless it is there already. 0 disarms it but keeps its place.
    /// @return true.
    bool setTimer(QELselTimer* timer, std::uint64_t deadline);

    /// Disarms @p timer and takes it off the list; does nothing when it is not there.
    void cancelTimer(QELselTimer* timer);

    /// Makes the running cycle return @p code when it ends; the last code of a cycle counts and 0
    /// withdraws it. A code set between cycles is lost.
    void setExitCode(std::int32_t code);

    /// Runs one cycle. Waits without limit when no timer is armed.
    /// @return 0; the exit code that a callback has set; or #resultFailed when pselect failed:
    ///         errno says why (EINTR after a signal, EBADF when a registered descriptor was
    ///         closed), no callback has been called and nothing has changed.
    std::int32_t runOnce();

    /// The monotonic clock (CLOCK_MONOTONIC of POSIX), in microseconds.
    static std::int64_t nowUs();

    /// Sleeps for @p microseconds; a signal cuts it short.
    static void sleepUs(unsigned microseconds);

  private:
    friend class QELselRcv;

    using Entries = std::map<std::int32_t, QELselRcv*>;

    struct TimerEntry {
        QELselTimer* timer;     ///< null: cancelled since the last cycle
        std::uint64_t deadline; ///< 0: not armed
    };

    bool add(Entries& entries, QELselRcv* receiver, std::int32_t descriptor);
    static void remove(Entries& entries, const QELselRcv* receiver);
    void forget(QELselRcv& receiver);
    std::uint64_t earliestDeadline();
    void dispatch(Entries& entries, const fd_set* ready, int& readyCount, std::int64_t now);
    void fireTimers(std::int64_t now);

    Entries writeEntries;
    Entries readEntries;
    Entries exceptEntries;
    std::vector<std::int32_t> scratch; ///< descriptors being served; kept for its storage
    std::vector<TimerEntry> timers;
    std::int32_t exitCode{0};
    /// Every receiver registered with this dispatcher: those with entries, and those that have none
    /// left but may still have their link.
    std::vector<QELselRcv*> receivers;
};
