#include "HVLoggerListener.h"
#include "HVLoggerMediator.h"
#include "HVLoggerModes.h"
#include "HVLoggerTCPsockCli.h"
#include "HVLoggerTCPsockSrv.h"
#include "HVLoggerVocabulary.h"
#include "QELselector.h"
#include "QELsockaddr4.h"
#include "QELtokenBucket.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <string>
#include <sys/ioctl.h>
#include <thread>
#include <vector>

namespace {

using testing::_;

template <class Condition>
bool eventually(Condition condition) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        std::this_thread::yield();
    }
    return true;
}

TEST(TokenBucket, CountClimbsToOneBelowTheCapacity) {
    for (const auto& [capacity, highest] : {std::pair{10U, 9U}, {2U, 1U}, {1U, 0U}, {0U, 0U}}) {
        QELtokenBucket bucket;
        ASSERT_EQ(bucket.start(1'000'000, capacity), 0);
        EXPECT_EQ(bucket.periodNs, 1000U);
        EXPECT_TRUE(eventually([&, wanted = highest] { return bucket.tokens == wanted; }));
        bucket.stop();
        for (int more = 0; more < 3; ++more) {
            bucket.refill();
        }
        EXPECT_EQ(bucket.tokens, highest);
    }
}

TEST(TokenBucket, TakeStopsAtZero) {
    QELtokenBucket bucket;
    bucket.tokens = 620;
    const struct {
        std::uint32_t count;
        std::uint32_t left;
    } cases[] = {{0, 620}, {500, 120}, {500, 0}, {0, 0}, {0xFFFFFFFF, 0}};
    for (const auto& c : cases) {
        bucket.take(c.count);
        EXPECT_EQ(bucket.tokens, c.left);
    }
}

TEST(TokenBucket, StartsStopsAndRestartsWithItsCount) {
    QELtokenBucket bucket;
    bucket.stop();
    EXPECT_EQ(bucket.start(0, 100), -1);
    EXPECT_EQ(bucket.capacity, 0U);
    EXPECT_FALSE(bucket.running);
    ASSERT_EQ(bucket.start(10000, 100), 0);
    EXPECT_EQ(bucket.start(1, 5), -1);
    EXPECT_EQ(bucket.capacity, 100U);
    EXPECT_EQ(bucket.periodNs, 100000U);
    EXPECT_TRUE(eventually([&] { return bucket.tokens > 3; }));
    bucket.stop();
    bucket.stop();
    EXPECT_EQ(bucket.thread, nullptr);
    const std::uint32_t kept = bucket.tokens;
    EXPECT_GT(kept, 3U);
    ASSERT_EQ(bucket.start(10000, 100), 0);
    EXPECT_GE(bucket.tokens, kept);
    // Destroyed while it runs: its thread has ended when the destructor returns.
}

TEST(TokenBucket, RefillAndTakeAtTheSameMomentLoseNothing) {
    constexpr std::uint32_t each = 3'000'000;
    QELtokenBucket bucket;
    bucket.capacity = 0xFFFFFFFF;
    bucket.tokens = each;       // takes never find it empty
    std::atomic<int> ready = 0; // both start together
    const auto await = [&ready] {
        ++ready;
        while (ready < 2) {
        }
    };
    std::thread refilling([&] {
        await();
        for (std::uint32_t n = 0; n < each; ++n) {
            bucket.refill();
        }
    });
    await();
    for (std::uint32_t n = 0; n < each; ++n) {
        bucket.take(1);
    }
    refilling.join();
    EXPECT_EQ(bucket.tokens, each);
}

class MediatorMock : public QELmediator {
  public:
    MOCK_METHOD(void, notify, (int destinationId, int messageType, void* payload), (override));
};

TEST(Listener, RefusesDatagramsWhileTheLimiterIsEmpty) {
    testing::StrictMock<MediatorMock> mediator;
    HVLoggerListener listener(&mediator);
    const std::string line = "<14>1 t d sip 1 - text";
    EXPECT_CALL(mediator, notify(idTcpServer, msgNewMessage, nullptr)).Times(3);
    listener.onLogMessage(line.c_str(), 0); // stopped: always passes
    EXPECT_EQ(listener.messages.size(), 1U);
    listener.rateLimiter.running = true; // running, without the thread that would refill it
    listener.onLogMessage(line.c_str(), 0);
    EXPECT_EQ(listener.messages.size(), 1U);
    listener.rateLimiter.tokens = 1; // one token admits any length
    listener.onLogMessage(line.c_str(), 0);
    EXPECT_EQ(listener.messages.size(), 2U);
    EXPECT_EQ(listener.rateLimiter.tokens, 0U);
    listener.rateLimiter.tokens = 100; // what passes takes its length
    listener.onLogMessage(line.c_str(), 0);
    EXPECT_EQ(listener.rateLimiter.tokens, 100U - line.size());
    listener.rateLimiter.running = false;

    EXPECT_EQ(listener.startRateLimit(), 0);
    EXPECT_EQ(listener.rateLimiter.capacity, 1048576U);
    EXPECT_EQ(listener.rateLimiter.periodNs, 100000U);
}

TEST(Listener, PassesTheDumpRequestOnAndNothingElse) {
    testing::StrictMock<MediatorMock> mediator;
    HVLoggerListener listener(&mediator);
    std::string fileName;
    EXPECT_CALL(mediator, notify(idListener, msgWriteFile, _))
        .WillOnce([&fileName](int, int, void* payload) { fileName = static_cast<char*>(payload); });
    listener.onLogMessage("<14>1 t d sip 1 - xR4tNc8vLq2!&=^_x", 0);
    EXPECT_EQ(fileName, "logger.txt");
    EXPECT_TRUE(listener.messages.empty());
    HVLoggerListener alone(nullptr);
    alone.onLogMessage("<14>1 t d sip 1 - R4tNc8vLq2!&=^_", 0);
    alone.onLogMessage("<14>1 t d sip 1 - text", 0);
    EXPECT_EQ(alone.messages.size(), 1U);
}

TEST(LogServer, PrintsTextsThatNobodyListensTo) {
    QELlogger5srvSel server;
    testing::internal::CaptureStdout();
    server.onMessage("line", 4);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "line\n");
}

TEST(Mediator, MissingDestinationsAreReportedAndUnknownTypesIgnored) {
    const auto printed = [](HVLoggerMediator& mediator, int id, int type) {
        std::string text;
        testing::internal::CaptureStdout();
        mediator.notify(id, type, &text);
        std::cout.flush();
        return testing::internal::GetCapturedStdout();
    };
    HVLoggerMediator empty;
    for (int type = msgAddMessages; type <= msgTriggerRemoteDump; ++type) {
        for (const int id : {-1, 0, 1, 2, 3, 7}) {
            EXPECT_EQ(printed(empty, id, type),
                      "No valid object with id: " + std::to_string(id) + "\r\n");
        }
    }
    EXPECT_EQ(printed(empty, 0, 13), "");
    EXPECT_EQ(printed(empty, 0, -1), "");

    HVLoggerMediator mediator;
    QELloggerSyslogFmt store;
    QELloggerSyslogFmt later;
    HVLoggerTCPsockSrv server(&mediator);
    mediator.addComponent(idStore, &store);
    mediator.addComponent(idStore, &later);
    mediator.addComponent(idTcpServer, &server);
    mediator.addComponent(idListener, nullptr);
    EXPECT_EQ(mediator.getComponent(idStore), &store);
    EXPECT_EQ(printed(mediator, idTcpServer, msgWriteFile), "No valid object with id: 2\r\n");
    EXPECT_EQ(printed(mediator, idListener, msgGetNewestRaw), "No valid object with id: 1\r\n");
    store.append("<14>1 t d sip 1 - text");
    EXPECT_EQ(printed(mediator, idStore, msgReloadAll), ""); // no client to ask for more
    EXPECT_TRUE(store.messages.empty());
}

TEST(Mediator, NewestRawOfAnEmptyStoreLeavesTheTextAlone) {
    HVLoggerMediator mediator;
    HVLoggerListener listener(&mediator);
    mediator.addComponent(idListener, &listener);
    std::string text = "before";
    mediator.notify(idListener, msgGetNewestRaw, &text);
    EXPECT_EQ(text, "before");
    listener.append("<14>1 t d ui 1 - text");
    mediator.notify(idListener, msgGetNewestRaw, &text);
    EXPECT_EQ(text, "<14>1 t d ui 1 - text");
    mediator.notify(idListener, msgGetAllRaw, &text);
    EXPECT_EQ(text, "");
}

TEST(TcpComponents, RefuseWhatCannotBeTransferred) {
    HVLoggerMediator mediator;
    HVLoggerTCPsockSrv server(&mediator);
    char byte = 0;
    EXPECT_EQ(server.sendData(nullptr, 1), 0);
    EXPECT_EQ(server.sendData(&byte, 0), 0);
    EXPECT_EQ(server.sendData(&byte, 1), -1);
    EXPECT_EQ(server.receiveData(&byte, 1), -1);
    ASSERT_EQ(server.open(AF_INET, SOCK_STREAM), 0);
    server.connFd = server.fd;
    EXPECT_EQ(server.receiveData(nullptr, 1), -1);
    EXPECT_EQ(server.receiveData(&byte, -1), -1);
    EXPECT_EQ(server.sendData(&byte, 1), -2); // never connected: a broken pipe
    EXPECT_EQ(server.receiveData(&byte, 1), -2);
    EXPECT_FALSE(server.acceptViewer());
    EXPECT_EQ(server.state, HVLoggerTCPsockSrv::stateListening);
    server.state = 5;
    EXPECT_EQ(server.getSelectFd(), 0);
    EXPECT_TRUE(server.onReady(0));
}

/// A connected TCP pair whose segments are small, with the viewer's end in a client component.
struct ViewerLink {
    HVLoggerTCPsockCli client;
    QELsockBase server;

    explicit ViewerLink(QELmediator* mediator) : client(mediator) {
        QELsockCONN listener;
        QELsockaddr4 address = QELsockaddr4::loopback(0);
        sockaddr_in bound{};
        socklen_t length = sizeof bound;
        const int segment = 1000;
        EXPECT_EQ(listener.open(AF_INET, SOCK_STREAM), 0);
        EXPECT_EQ(listener.bind(address), 0);
        EXPECT_EQ(getsockname(listener.fd, reinterpret_cast<sockaddr*>(&bound), &length), 0);
        address.setPort(ntohs(bound.sin_port));
        EXPECT_EQ(listener.listen(1), 0);
        EXPECT_EQ(client.open(AF_INET, SOCK_STREAM), 0);
        EXPECT_EQ(client.setOption(IPPROTO_TCP, TCP_MAXSEG, &segment, sizeof segment), 0);
        EXPECT_EQ(client.connect(address), 0);
        EXPECT_EQ(listener.accept(server, nullptr), 0);
        const int on = 1;
        EXPECT_EQ(server.setOption(IPPROTO_TCP, TCP_NODELAY, &on, sizeof on), 0);
    }
    void send(const std::string& text) const {
        EXPECT_EQ(::send(server.fd, text.data(), text.size(), MSG_NOSIGNAL),
                  static_cast<ssize_t>(text.size()));
    }
    int unread() const {
        int count = 0;
        EXPECT_EQ(ioctl(client.fd, FIONREAD, &count), 0);
        return count;
    }
};

TEST(TcpClient, JoinsPiecesThatFollowEachOtherAndOnlyThose) {
    testing::StrictMock<MediatorMock> mediator;
    std::vector<std::string> batches;
    EXPECT_CALL(mediator, notify(idStore, msgAddMessages, _))
        .WillRepeatedly([&batches](int, int, void* payload) {
            batches.push_back(*static_cast<const std::string*>(payload));
        });
    ViewerLink link(&mediator);
    HVLoggerTCPsockCli& client = link.client;
    const std::string large = "<14>1 t d sip 1 - " + std::string(3000, 'x');

    // The second piece leaves as soon as the first was read; once in a few tries it is in time.
    bool joined = false;
    for (int attempt = 0; attempt < 1000 && !joined; ++attempt) {
        batches.clear();
        link.send(large.substr(0, 2000));
        std::thread rest([&] {
            EXPECT_TRUE(eventually([&] { return link.unread() == 0; }));
            link.send(large.substr(2000));
        });
        EXPECT_TRUE(client.onReady(QELselector::nowUs()));
        rest.join();
        joined = batches.front() == large;
        if (!joined) {
            EXPECT_TRUE(client.onReady(QELselector::nowUs()));
        }
    }
    EXPECT_TRUE(joined);

    // Less than a segment is whole: nothing is waited for, so a later piece is a batch of its own.
    batches.clear();
    link.send("<14>1 t d sip 1 - sh");
    EXPECT_TRUE(client.onReady(QELselector::nowUs()));
    link.send("ort");
    EXPECT_TRUE(client.onReady(QELselector::nowUs()));
    EXPECT_THAT(batches, testing::ElementsAre("<14>1 t d sip 1 - sh", "ort"));
}

TEST(TcpClient, CutsAnEndlessFlowAtTheStartOfAMessage) {
    testing::StrictMock<MediatorMock> mediator;
    std::vector<std::string> batches;
    EXPECT_CALL(mediator, notify(idStore, msgAddMessages, _))
        .WillRepeatedly([&batches](int, int, void* payload) {
            batches.push_back(*static_cast<const std::string*>(payload));
        });
    ViewerLink link(&mediator);
    HVLoggerTCPsockCli& client = link.client;
    link.send("<14>1 t d sip 1 - one<14>1 t d sip 1 - two<14>1 t d sip 1 - " +
              std::string(2000, 'x'));
    std::atomic<bool> flowing = true;
    std::thread flow([&] {
        while (flowing) {
            link.send("y");
        }
    });
    // A cycle that began long ago: its time for this batch is over.
    bool cut = false;
    for (int attempt = 0; attempt < 1000 && !cut; ++attempt) {
        EXPECT_TRUE(client.onReady(0));
        cut = batches.back().ends_with("two");
        if (!cut) { // the flow had paused: once more
            link.send("<14>1 t d sip 1 - two<14>1 t d sip 1 - " + std::string(2000, 'x'));
        }
    }
    flowing = false;
    flow.join();
    EXPECT_TRUE(cut);
    EXPECT_TRUE(client.onReady(QELselector::nowUs()));
    EXPECT_TRUE(batches.back().starts_with("<14>1 t d sip 1 - xxx"));
}

TEST(Signals, OnlyAnInterruptEndsTheServer) {
    onSignal(SIGTERM);
    EXPECT_TRUE(appRunning);
    onSignal(SIGINT);
    EXPECT_FALSE(appRunning);
    appRunning = true;
}

} // namespace
