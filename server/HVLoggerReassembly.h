#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

/// Makes messages whole again for a viewer: what it reads ends wherever the network has cut it, and
/// a message that went to the store in two pieces would be lost. Keeps what may be only the
/// beginning of a message; owns that text and nothing else, neither socket nor timer.
///
/// A batch that begins with a header and is smaller than a segment is whole: it ends where a send
/// of the server did. So is, while nothing is kept, one that begins with a priority only, as old
/// devices write it. Of any other batch the last message is kept, since nothing in it tells its
/// end. That is told later, by
///   - a batch that begins with a header; one that does not is the next piece of what is kept;
///   - the end of the connection;
///   - a silence longer than the link may pause within a message: two and a half round trips, or
///     twice the longest pause seen lately, 15 to 300 ms; longer while something is known to be on
///     its way.
class HVLoggerReassembly {
  public:
    /// What the system knows of the connection (struct tcp_info).
    struct Link {
        std::size_t segment = 0;      ///< size of the segments that arrive, as far as is known
        std::int64_t roundTripUs = 0; ///< smoothed round-trip time
    };

    /// A segment of 1,500 bytes takes 12 ms at 1 Mbit/s.
    static constexpr std::int64_t shortestSilenceUs = 15'000;
    static constexpr std::int64_t longestSilenceUs = 300'000;
    /// For so long a segment that is known to be missing is waited for.
    static constexpr std::int64_t longestRepairUs = 3'000'000;
    /// More than this is no message: it is handed over, whole or not.
    static constexpr std::size_t keptLimit = 0x10000;
    /// What every usual path carries: IPv6 and tunnels leave at least 1,280 bytes, headers
    /// included.
    static constexpr std::size_t usualSegment = 1'200;

    /// @param least  segments count as so large until one that arrives is seen to be larger or a
    ///               message to be cut below; else each line longer than all before it would wait
    explicit HVLoggerReassembly(std::size_t least = usualSegment) : segment(least) {}

    /// Whether @p batch begins a message, which makes what is kept whole: release() that first,
    /// since what is without a header would be lost in front of this one.
    [[nodiscard]] bool isEndedBy(std::string_view batch) const;

    /// Takes what was read. @return what is whole, of what was kept and of the batch, maybe nothing
    std::string take(std::string_view batch, const Link& link, std::int64_t nowUs);

    /// To be told when everything was read and handed over: from now on silence is silence.
    void listen(std::int64_t nowUs);

    /// When what is kept counts as whole unless more has come, on nowUs' clock; 0: nothing is kept.
    [[nodiscard]] std::int64_t dueUs() const;

    /// To be asked at dueUs().
    /// @param missing  whether something has arrived behind what is still on its way
    /// @return false if there is more to wait for: dueUs() is later then
    bool isDue(bool missing, std::int64_t nowUs);

    /// Gives out what is kept.
    std::string release();

  private:
    [[nodiscard]] bool isWhole(std::string_view batch) const;

    std::string kept;           // begins with a header, unless only a piece has come
    std::size_t segment;        // the largest that was seen
    std::int64_t silenceUs = 0; // that counts as the end of a message
    std::int64_t pauseUs = 0;   // the longest within a message, lately
    std::int64_t quietSinceUs = 0;
    std::int64_t due = 0; // meaningful while something is kept
};
