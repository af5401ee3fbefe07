// A viewer's commands into the server, through the dispatcher and a real connection. Each byte of
// the input is an event (Event) with a number in its low bits.

#include "HVLoggerTCPsockSrv.h"
#include "HVLoggerVocabulary.h"
#include "QELselTimer.h"
#include "QELselector.h"
#include "QELsockaddrUNX.h"
#include "check.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

namespace {

/// The high bits of an event; n is the number.
enum Event : unsigned {
    sendBytes = 0,   ///< the viewer sends the n bytes that follow in the input, in one batch
    sendLong = 1,    ///< the viewer sends the 4 bytes that follow and zeros up to 500 n bytes
    newMessage = 2,  ///< a message of n bytes has arrived
    setListing = 3,  ///< the store's listing is n bytes from now on, 200 n for n above 15, and for
                     ///< 31 more than a connection takes at once
    readSome = 4,    ///< the viewer reads up to 1000 n bytes
    readAll = 5,     ///< the viewer reads all there is
    leave = 6,       ///< the viewer closes, another one connects
    sendAndLeave = 7 ///< sendBytes and leave, both before the server looks
};
constexpr unsigned numberBits = 5;
constexpr std::size_t numberMask = (1U << numberBits) - 1;

/// Wakes the dispatcher at once, so that no cycle waits.
struct Tick : QELselTimer {
    std::uint64_t onTimer(std::int64_t /*nowUs*/) override { return 1; }
};

struct Mediator : QELmediator {
    std::string listing;
    std::string newest;
    int dumps = 0;

    void notify(int destinationId, int messageType, void* payload) override {
        require(destinationId == idListener, "all goes to the listener");
        switch (messageType) {
        case msgGetAllRaw:
            *static_cast<std::string*>(payload) = listing;
            break;
        case msgGetNewestRaw:
            *static_cast<std::string*>(payload) = newest;
            break;
        case msgWriteFile:
            ++dumps;
            require(std::strcmp(static_cast<const char*>(payload), "logger.txt") == 0,
                    "a dump request names its file");
            break;
        default:
            require(false, "nothing else is asked for");
        }
    }
};

/// A server with its viewer, and what that viewer is to be sent.
class Session {
  public:
    Session() : server(&mediator) {
        address.set(("*hvlogger.fuzz." + std::to_string(getpid())).c_str());
        require(server.open(AF_UNIX, SOCK_STREAM) == 0 && server.bind(address) == 0 &&
                    server.startListening() == 0,
                "the server listens");
        server.connFd = server.fd;
        selector.setTimer(&tick, 1);
        connectViewer();
    }

    /// Sends a batch, and has the viewer leave before the server looks or not.
    void send(std::string_view bytes, bool leaving) {
        require(bytes.empty() || viewer.send(bytes.data(), static_cast<unsigned>(bytes.size())) ==
                                     static_cast<int>(bytes.size()),
                "the server has read what was sent before");
        std::int32_t command = 0;
        if (bytes.size() >= sizeof command) {
            std::memcpy(&command, bytes.data(), sizeof command);
        }
        if (leaving) {
            viewer.close();
        }
        const int dumpsBefore = mediator.dumps;
        cycle();
        require(mediator.dumps == dumpsBefore + (command == HVLoggerTCPsock::cmdWriteFile ? 1 : 0),
                "a batch is its first command");
        if (leaving) {
            replaceViewer();
        } else if (command == HVLoggerTCPsock::cmdSendAll) {
            expect(mediator.listing);
        }
    }

    void announce(std::size_t length) {
        mediator.newest = nextText(length);
        server.forwardNewest();
        expect(mediator.newest);
    }

    void setListing(std::size_t length) { mediator.listing = nextText(length); }

    /// Reads what has come until that is @p limit bytes. @return how many
    std::size_t read(std::size_t limit) {
        std::vector<char> buffer(limit);
        const ssize_t got = ::recv(viewer.fd, buffer.data(), limit, MSG_DONTWAIT);
        const std::size_t count = got > 0 ? static_cast<std::size_t>(got) : 0;
        require(expected.compare(arrived, count, buffer.data(), count) == 0,
                "the viewer gets what was asked for, in order");
        arrived += count;
        return count;
    }

    void readAll() {
        do {
            cycle(); // what the connection can take now
        } while (read(expected.size()) > 0);
        require(arrived == expected.size(), "the viewer gets all that was asked for");
        expected.clear();
        arrived = 0;
    }

    void replaceViewer() {
        viewer.close();
        // Unread bytes make the first read of the server fail, the next one tells the end.
        for (int i = 0; i < 3 && server.state == HVLoggerTCPsockSrv::stateConnected; ++i) {
            cycle();
        }
        require(server.state == HVLoggerTCPsockSrv::stateListening, "a viewer's end is noticed");
        require(server.connFd == server.fd, "no descriptor is left over");
        connectViewer();
    }

  private:
    /// A text unlike those before, so that the viewer sees the order.
    std::string nextText(std::size_t length) {
        letter = letter == 'z' ? 'a' : static_cast<char>(letter + 1);
        return std::string(length, letter);
    }

    void connectViewer() {
        expected.clear();
        arrived = 0;
        require(viewer.open(AF_UNIX, SOCK_STREAM) == 0 && viewer.connect(address) == 0,
                "a viewer can connect");
        cycle();
        require(server.state == HVLoggerTCPsockSrv::stateConnected, "a viewer is accepted");
    }

    /// The server may hang up only on a viewer that leaves too much unread.
    void expect(const std::string& text) {
        expected += text;
        if (server.state != HVLoggerTCPsockSrv::stateConnected) {
            require(expected.size() - arrived > HVLoggerOutbox::limit,
                    "a viewer that reads is kept");
            connectViewer();
        }
    }

    /// One cycle as the server's mode runs it.
    void cycle() {
        selector.addRead(&server, server.getSelectFd());
        // The fuzzer's own alarm may interrupt the wait.
        while (selector.runOnce() != 0) {
            require(errno == EINTR, "the dispatcher goes on");
        }
    }

    Mediator mediator;
    QELselector selector;
    Tick tick;
    QELsockaddrUNX address;
    QELsockCONN viewer;
    HVLoggerTCPsockSrv server;
    std::string expected;
    std::size_t arrived = 0;
    char letter = 'a';
};

} // namespace

// In place of the C library's: a viewer that leaves is reported each time.
extern "C" void perror(const char* /*text*/) {}

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size) {
    Session session;
    std::string_view rest = asText(data, size);
    const auto take = [&rest](std::size_t count) {
        const std::string_view taken = rest.substr(0, count);
        rest.remove_prefix(taken.size());
        return taken;
    };
    while (!rest.empty()) {
        const unsigned event = static_cast<unsigned char>(take(1).front());
        const std::size_t number = event & numberMask;
        switch (event >> numberBits) {
        case sendBytes:
        case sendAndLeave:
            session.send(take(number), event >> numberBits == sendAndLeave);
            break;
        case sendLong: {
            std::string batch(take(sizeof(std::int32_t)));
            batch.resize(std::max<std::size_t>(batch.size(), 500 * number));
            session.send(batch, false);
            break;
        }
        case newMessage:
            session.announce(number);
            break;
        case setListing:
            session.setListing(number == numberMask ? 320'000 : number * (number < 16 ? 1 : 200));
            break;
        case readSome:
            session.read(1000 * number);
            break;
        case readAll:
            session.readAll();
            break;
        default:
            session.replaceViewer();
            break;
        }
    }
    session.readAll();
    return 0;
}
