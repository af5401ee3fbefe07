// Datagrams into the log server and its listener. The input is a row of datagrams, each ended by
// the two bytes 0xFF 0x0A.

#include "HVLoggerListener.h"
#include "HVLoggerVocabulary.h"
#include "QELlogger5srvSel.h"
#include "check.h"

#include <algorithm>
#include <cstdarg>
#include <cstring>
#include <string_view>
#include <sys/socket.h>
#include <syslog.h>

namespace {

constexpr std::string_view datagramEnd = "\xFF\n";
constexpr std::uint32_t smallCapacity = 600; // a few messages fill it

int linesLogged = 0;

struct Mediator : QELmediator {
    int announced = 0;
    int dumps = 0;

    void notify(int destinationId, int messageType, void* payload) override {
        if (messageType == msgWriteFile) {
            ++dumps;
            require(destinationId == idListener &&
                        std::strcmp(static_cast<const char*>(payload), "logger.txt") == 0,
                    "a dump request names its file");
        } else {
            ++announced;
            require(destinationId == idTcpServer && messageType == msgNewMessage,
                    "nothing but dumps and messages is told");
        }
    }
};

/// Looks at what the server reads before the listener does.
struct ReceivedText : QELlogger5srvSel::Listener {
    HVLoggerListener& listener;
    std::string_view expected;
    int expectedLength = 0;
    bool received = false;

    explicit ReceivedText(HVLoggerListener& next) : listener(next) {}

    void onLogMessage(const char* text, int length) override {
        received = true;
        require(length == expectedLength, "the length is that of the datagram");
        require(std::memcmp(text, expected.data(), expected.size()) == 0 &&
                    text[expected.size()] == '\0',
                "the text is the datagram, cut at 5000 bytes and terminated");
        listener.onLogMessage(text, length);
    }
};

} // namespace

// In place of the C library's: the tests' messages are no business of the machine's system log.
// NOLINTBEGIN(readability-inconsistent-declaration-parameter-name): the C library's are reserved
extern "C" void openlog(const char* /*identity*/, int /*options*/, int /*facility*/) {}
extern "C" void closelog() {}
extern "C" void syslog(int priority, const char* format, ...) {
    ++linesLogged;
    require(priority >= 0, "the system log gets a valid priority");
    require(std::strcmp(format, "%s") == 0, "no received text is a format");
    std::va_list arguments;
    va_start(arguments, format);
    require(std::strlen(va_arg(arguments, const char*)) <= QELlogger5srv::receiveLimit,
            "the system log gets a text");
    va_end(arguments);
}
// NOLINTEND(readability-inconsistent-declaration-parameter-name)

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size) {
    Mediator mediator;
    HVLoggerListener listener(&mediator);
    listener.addComponents(smallCapacity, {});
    QELloggerSyslogFmt store; // gets what the listener is to store
    store.addComponents(smallCapacity, {});
    ReceivedText reader(listener);
    QELlogger5srvSel server;
    server.listener = &reader;
    int ends[2];
    require(socketpair(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0, ends) == 0, "there are sockets");
    QELsockBase sender;
    server.socket.fd = ends[0];
    sender.fd = ends[1];

    for (std::string_view rest = asText(data, size); !rest.empty();) {
        const std::string_view datagram = rest.substr(0, rest.find(datagramEnd));
        rest.remove_prefix(std::min(rest.size(), datagram.size() + datagramEnd.size()));
        std::string_view text = datagram.substr(0, QELlogger5srv::receiveLimit);
        reader.expectedLength = static_cast<int>(text.size());
        text.remove_suffix(text.ends_with('\n') ? 1 : 0);
        reader.expected = text;
        reader.received = false;
        text = text.substr(0, text.find('\0'));
        const bool dump = text.find("R4tNc8vLq2!&=^_") != std::string_view::npos;
        const bool line = !dump && !datagram.empty();
        if (line) {
            store.append(text);
        }

        const Mediator before = mediator;
        linesLogged = 0;
        require(send(sender.fd, datagram.data(), datagram.size(), 0) ==
                    static_cast<ssize_t>(datagram.size()),
                "the datagram is sent");
        require(server.onReady(0), "no datagram ends the reception");
        require(reader.received == !datagram.empty(), "each datagram that is not empty counts");
        require(mediator.dumps == before.dumps + (dump ? 1 : 0), "the marker asks for a dump");
        require(mediator.announced == before.announced + (line ? 1 : 0), "others are announced");
        require(linesLogged == (line ? 1 : 0), "each but a dump request is logged once");
        require(std::equal(listener.messages.begin(), listener.messages.end(),
                           store.messages.begin(), store.messages.end(),
                           [](const auto& a, const auto& b) { return a.raw == b.raw; }),
                "each but a dump request is stored, up to its first NUL");
    }
    return 0;
}
