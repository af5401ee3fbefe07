// Datagrams into the log server and its listener. The input is a row of datagrams, each ended by
// the two bytes 0xFF 0x0A.

#include "HVLoggerListener.h"
#include "HVLoggerVocabulary.h"
#include "QELlogger5srvSel.h"
#include "StoreReference.h"
#include "check.h"

#include <cstdarg>
#include <cstring>
#include <sys/socket.h>
#include <syslog.h>

namespace {

constexpr std::string_view datagramEnd = "\xFF\n";
constexpr std::uint32_t smallCapacity = 600; // a few messages fill it

int linesLogged = 0;
std::string loggedIdentity;

class Mediator : public QELmediator {
  public:
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
class ReceivedText : public QELlogger5srvSel::Listener {
  public:
    std::string_view datagram;
    bool received = false;

    explicit ReceivedText(HVLoggerListener& next) : listener(next) {}

    void onLogMessage(const char* text, int length) override {
        received = true;
        std::string_view expected = datagram.substr(0, QELlogger5srv::receiveLimit);
        require(length == static_cast<int>(expected.size()), "the length is that of the datagram");
        if (expected.back() == '\n') {
            expected.remove_suffix(1);
        }
        require(std::memcmp(text, expected.data(), expected.size()) == 0 &&
                    text[expected.size()] == '\0',
                "the text is the datagram, cut at 5000 bytes and terminated");
        listener.onLogMessage(text, length);
    }

  private:
    HVLoggerListener& listener;
};

} // namespace

// In place of the C library's: the tests' messages are no business of the machine's system log.
// NOLINTBEGIN(readability-inconsistent-declaration-parameter-name): the C library's are reserved
extern "C" void openlog(const char* identity, int /*options*/, int /*facility*/) {
    loggedIdentity = identity;
}
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
    listener.addComponents(smallCapacity, {"sip", "nmos"});
    StoreReference reference;
    reference.capacity = smallCapacity;
    ReceivedText receivedText(listener);

    QELlogger5srvSel server;
    server.listener = &receivedText;
    int ends[2];
    require(socketpair(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0, ends) == 0, "there are sockets");
    QELsockBase sender;
    server.socket.fd = ends[0];
    sender.fd = ends[1];

    for (std::string_view rest = asText(data, size); !rest.empty();) {
        const std::string_view datagram = rest.substr(0, rest.find(datagramEnd));
        rest.remove_prefix(std::min(rest.size(), datagram.size() + datagramEnd.size()));

        const Mediator before = mediator;
        linesLogged = 0;
        receivedText.datagram = datagram;
        receivedText.received = false;
        require(send(sender.fd, datagram.data(), datagram.size(), 0) ==
                    static_cast<ssize_t>(datagram.size()),
                "the datagram is sent");
        require(server.onReady(0), "no datagram ends the reception");
        require(receivedText.received == !datagram.empty(),
                "each datagram that is not empty counts");
        if (datagram.empty()) {
            continue;
        }

        std::string_view text = datagram.substr(0, QELlogger5srv::receiveLimit);
        if (text.back() == '\n') {
            text.remove_suffix(1);
        }
        text = text.substr(0, text.find('\0'));
        const bool dump = text.find("R4tNc8vLq2!&=^_") != std::string_view::npos;
        require(mediator.dumps == before.dumps + (dump ? 1 : 0), "the marker asks for a dump");
        require(mediator.announced == before.announced + (dump ? 0 : 1), "others are announced");
        require(linesLogged == (dump ? 0 : 1), "each but a dump request is logged once");
        if (!dump) {
            reference.append(text);
        }
        reference.requireSame(listener);
    }
    return 0;
}
