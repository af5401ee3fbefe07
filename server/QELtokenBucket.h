#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <thread>

/// A rate limiter: a count of tokens that a thread, owned by the bucket while it runs, raises by
/// one each period and that the owner takes tokens from. Built stopped and empty; destroying it
/// stops it.
///
/// start(), stop() and take() are for one thread, the owner's; the counter may be read from any.
class QELtokenBucket {
  public:
    std::atomic<std::uint32_t> tokens = 0; ///< available now; keeps its value across stop and start
    std::uint32_t capacity = 0;            ///< the refill stops one below it
    std::uint32_t periodNs = 0;            ///< refill period in nanoseconds
    std::unique_ptr<std::thread> thread;   ///< the refill thread; null unless running
    std::atomic<bool> running = false;     ///< true from start() until stop()

    QELtokenBucket() = default;
    ~QELtokenBucket();
    QELtokenBucket(const QELtokenBucket&) = delete;
    QELtokenBucket& operator=(const QELtokenBucket&) = delete;

    /// Starts the refill thread.
    /// @param rate      tokens per second, at least 1; above 1,000,000 the thread never sleeps
    /// @param newCapacity  the count climbs to newCapacity - 1 at most
    /// @return 0; -1, with nothing changed, for rate 0 or a bucket that is running; -1, with the
    ///         bucket stopped, when the system has no thread to give
    int start(std::uint32_t rate, std::uint32_t newCapacity);

    /// The refill thread's body: sleeps one period and refills, until @p bucket is stopped. The
    /// sleep's overshoot keeps the real rate below the nominal one.
    static void refillLoop(QELtokenBucket& bucket);

    /// Adds one token unless the count would reach the capacity.
    void refill();

    /// Takes @p count tokens, or all there are if they are fewer. Never blocks, never fails.
    void take(std::uint32_t count);

    /// Ends the refill thread, within one period; nothing if the bucket is not running.
    void stop();
};
