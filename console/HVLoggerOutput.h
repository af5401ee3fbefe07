#pragma once

#include <array>
#include <ostream>
#include <streambuf>

/// The viewer's way to its screen: few large writes, and the patience for an output that takes
/// nothing now, whether or not another program has made it non-blocking (O_NONBLOCK belongs to all
/// who share a terminal or pipe). Installs itself on an output stream while it lives; owns neither
/// the stream nor the descriptor.
class HVLoggerOutput : public std::streambuf {
  public:
    /// @param buffered   the stream whose buffer is replaced; must outlive this object
    /// @param output     descriptor written to
    /// @param interrupt  descriptor that, once readable, ends the wait for an output that takes
    ///                   nothing: the stream turns bad, and what it holds is dropped
    HVLoggerOutput(std::ostream& buffered, int output, int interrupt);

    /// Writes what is left and gives the stream its own buffer back; the stream's state stays.
    ~HVLoggerOutput() override;
    HVLoggerOutput(const HVLoggerOutput&) = delete;
    HVLoggerOutput& operator=(const HVLoggerOutput&) = delete;

  protected:
    int_type overflow(int_type c) override;
    int sync() override;

  private:
    bool waitForRoom();

    std::ostream& stream;
    std::streambuf* formerly; ///< the stream's own
    int outputFd;             ///< -1 once interrupted
    int interruptFd;
    std::array<char, 0x4000> buffer{};
};
