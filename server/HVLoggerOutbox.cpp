#include "HVLoggerOutbox.h"

#include "QELselector.h"

#include <cerrno>
#include <cstdio>
#include <sys/socket.h>
#include <utility>

namespace {

/// An empty outbox keeps this much memory, for what comes next; more was for a backlog or a
/// listing.
constexpr std::size_t keptCapacity = 0x10000;

} // namespace

HVLoggerOutbox::HVLoggerOutbox(std::function<void()> whenSent) : sent(std::move(whenSent)) {}

void HVLoggerOutbox::append(std::string&& text) {
    if (empty() && text.size() > bytes.capacity()) {
        bytes = std::move(text); // a listing is large
        taken = 0;
        return;
    }
    // Before more memory is asked for, what has been sent makes room: once it is as much as the
    // rest, no byte is moved more than once for each byte sent.
    if (bytes.size() + text.size() > bytes.capacity() && taken >= size()) {
        bytes.erase(0, taken);
        taken = 0;
    }
    bytes.append(text);
}

bool HVLoggerOutbox::send(int descriptor, QELselector* dispatcher) {
    connection = descriptor;
    const bool waiting = selector != nullptr;
    if (!waiting && !empty()) {
        sendOnce();
        if (!empty() && dispatcher != nullptr) {
            dispatcher->addWrite(this, connection);
        }
    }
    return size() <= limit;
}

void HVLoggerOutbox::clear() {
    selRemoveWrite();
    bytes = {};
    taken = 0;
}

bool HVLoggerOutbox::onReady(std::int64_t /*nowUs*/) {
    sendOnce();
    if (!empty()) {
        return true;
    }
    sent();
    return false;
}

void HVLoggerOutbox::sendOnce() {
    const ssize_t count =
        ::send(connection, bytes.data() + taken, size(), MSG_DONTWAIT | MSG_NOSIGNAL);
    if (count >= 0) {
        taken += static_cast<std::size_t>(count);
    } else if (errno != EAGAIN && errno != EINTR) {
        std::perror("send");
        taken = bytes.size();
    }
    if (!empty()) {
        return;
    }
    taken = 0;
    bytes.clear();
    if (bytes.capacity() > keptCapacity) {
        bytes.shrink_to_fit();
    }
}
