#pragma once

#include "QELselRcv.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>

/// What a peer is to be sent and its connection has not taken yet: owns these bytes, not the
/// connection, on which it never waits. What a send leaves is sent as the connection becomes
/// writable, in order. Taking from the front moves an index, not the bytes behind.
class HVLoggerOutbox : public QELselRcv {
  public:
    /// What a connection may leave, at most.
    static constexpr std::size_t limit = 0x400000; // 4 MiB

    /// @param whenSent  called when writability has let the last byte go; may clear this outbox
    explicit HVLoggerOutbox(std::function<void()> whenSent);

    /// Puts the text behind what is there. Nothing is sent yet.
    void append(std::string&& text);

    /// Sends with one send(2), unless the connection is known to take nothing now. A connection
    /// that fails takes everything, with a report on standard error: its peer has gone, and reading
    /// will tell.
    /// @param descriptor  the connection, the same one until clear()
    /// @param dispatcher  where to wait until it takes the rest; null: nowhere, the next call tries
    ///                    again
    /// @return false when it leaves more than the limit
    bool send(int descriptor, QELselector* dispatcher);

    /// Drops what is left and watches the connection no longer; call it before that is closed.
    void clear();

    [[nodiscard]] std::size_t size() const { return bytes.size() - taken; }
    [[nodiscard]] bool empty() const { return size() == 0; }

    /// The connection is writable. @return whether something is left
    bool onReady(std::int64_t nowUs) override;

  private:
    void sendOnce();

    int connection = -1;
    std::string bytes;
    std::size_t taken = 0; // so many at the front of `bytes` have been sent
    std::function<void()> sent;
};
