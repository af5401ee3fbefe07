#include "HVLoggerReassembly.h"
#include "HVLoggerTCPsockCli.h"
#include "HVLoggerVocabulary.h"
#include "QELloggerSyslogFmt.h"
#include "QELselector.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <limits>
#include <numeric>
#include <random>
#include <string>
#include <string_view>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

namespace {

const std::string header = "<14>1 t d sip 1 - ";

/// A viewer's store behind the reassembly; its clock and its timer are moved by hand.
struct Stream {
    HVLoggerReassembly::Link link;
    HVLoggerReassembly reassembly;
    QELloggerSyslogFmt store;
    std::int64_t now = 1'000'000'000;
    bool missing = false;

    void arrive(std::string_view batch, std::int64_t pauseUs = 0) {
        now += pauseUs;
        if (const std::int64_t due = reassembly.dueUs();
            due != 0 && now >= due && reassembly.isDue(missing, now)) {
            store.append(reassembly.release());
        }
        if (batch.empty()) {
            return;
        }
        if (reassembly.isEndedBy(batch)) {
            store.append(reassembly.release());
        }
        store.append(reassembly.take(batch, link, now));
        reassembly.listen(now);
    }
    std::int64_t silence() const { return reassembly.dueUs() == 0 ? 0 : reassembly.dueUs() - now; }
    std::vector<std::string> messages() const {
        std::vector<std::string> raw;
        for (const QELloggerSyslogMsg& message : store.messages) {
            raw.push_back(message.raw);
        }
        return raw;
    }
};

/// The messages of a text that arrives in pieces, each just in time behind the one before.
std::vector<std::string> inPieces(std::string_view text, const std::vector<std::size_t>& sizes) {
    Stream stream;
    stream.link.segment = 1; // no piece is small enough to be whole
    for (const std::size_t size : sizes) {
        stream.arrive(text.substr(0, size), stream.silence() - 1);
        text.remove_prefix(std::min(size, text.size()));
    }
    stream.arrive(text, 0);
    stream.arrive({}, HVLoggerReassembly::longestSilenceUs);
    return stream.messages();
}

TEST(Reassembly, NoCutLosesALine) {
    const std::string text = header + "a<1" + header + "b <14> 1" + header + "<" + header +
                             "c\n<134>1 - - sap 2 - - d" + header + std::string(40, 'x');
    const std::vector<std::string> whole = inPieces(text, {text.size()});
    ASSERT_EQ(whole.size(), 6U);
    for (std::size_t first = 0; first <= text.size(); ++first) {
        for (std::size_t second = 0; first + second <= text.size(); ++second) {
            ASSERT_EQ(inPieces(text, {first, second}), whole) << first << ' ' << second;
        }
    }
    EXPECT_EQ(inPieces(text, std::vector<std::size_t>(text.size(), 1)), whole);
}

TEST(Reassembly, KeepsOnlyWhatMayGoOn) {
    const std::string line = header + std::string(1000 - header.size(), 'x');
    const std::string other = header + "y";
    const struct {
        std::vector<std::string> batches;
        std::vector<std::size_t> shown; ///< lengths, before any silence
        bool keeps;
        std::size_t segment = 1448;
    } cases[] = {
        {{line}, {1000}, false},
        {{line}, {1000}, false, 1001},
        {{line}, {}, true, 1000},
        {{line, other}, {1000, other.size()}, false, 1000},
        {{line, "more"}, {}, true, 1000},
        {{line, "more", other}, {1004, other.size()}, false, 1000},
        {{line, "more" + other + other}, {1004, other.size()}, true, 1000},
        {{other + other}, {other.size(), other.size()}, false},
        {{line + line}, {1000}, true, 2001},
        {{line + std::string(1000, 'x')}, {2000}, false, 2001},
        {{"piece"}, {}, true},
        {{"piece" + other}, {}, true},
        {{"<13>Oct 1 10:00:00 d sip: 1 - z", other}, {31, other.size()}, false},
        // Segments have become smaller: the next one is known.
        {{line, "more", line}, {1000, 1000}, false, 1448},
        {{line + std::string(HVLoggerReassembly::keptLimit, 'x')}, {1000 + 65536}, false, 1000},
    };
    for (const auto& c : cases) {
        Stream stream;
        stream.link.segment = c.segment;
        for (const std::string& batch : c.batches) {
            stream.arrive(batch);
        }
        std::vector<std::size_t> shown;
        for (const std::string& message : stream.messages()) {
            shown.push_back(message.size());
        }
        EXPECT_EQ(shown, c.shown) << "case " << &c - cases;
        EXPECT_EQ(stream.silence() > 0, c.keeps) << "case " << &c - cases;
    }
}

TEST(Reassembly, SilenceFollowsTheLink) {
    for (const auto& [roundTripUs, silenceUs] :
         {std::pair{50LL, 15'000LL}, {50'000LL, 125'000LL}, {1'000'000LL, 300'000LL}}) {
        Stream stream;
        stream.link.roundTripUs = roundTripUs;
        stream.arrive(header);
        EXPECT_EQ(stream.silence(), silenceUs);
        stream.arrive({}, silenceUs);
        EXPECT_EQ(stream.silence(), 0);
    }
    Stream slow;
    slow.arrive(header);
    slow.arrive("more", 15'000);
    EXPECT_EQ(slow.silence(), 30'000);
    slow.arrive("late", 40'000);
    EXPECT_EQ(slow.silence(), 80'000);
    for (int quick = 0; quick < 50; ++quick) {
        slow.arrive("more");
    }
    EXPECT_EQ(slow.silence(), 15'000);
    slow.missing = true; // it is waited for, but not for ever
    slow.arrive({}, 15'000);
    slow.arrive({}, 2'000'000);
    EXPECT_EQ(slow.silence(), 15'000);
    slow.arrive({}, 1'000'000);
    EXPECT_EQ(slow.silence(), 0);
}

struct MediatorMock : QELmediator {
    MOCK_METHOD(void, notify, (int destinationId, int messageType, void* payload), (override));
};

TEST(TcpClient, ReadsALimitedBatchAtOnceAndHandsOverEveryMessageWhole) {
    MediatorMock mediator;
    QELloggerSyslogFmt store;
    EXPECT_CALL(mediator, notify(idStore, msgAddMessages, testing::_))
        .WillRepeatedly([&store](int, int, void* payload) {
            store.append(*static_cast<const std::string*>(payload));
        });
    QELselector selector;
    HVLoggerTCPsockCli client(&mediator);
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
    client.fd = ends[0];
    std::string text;
    for (std::size_t n = 0; n < 1000; ++n) {
        text += header + std::string(n % 200, 'x');
    }
    ASSERT_EQ(send(ends[1], text.data(), text.size(), MSG_DONTWAIT),
              static_cast<ssize_t>(text.size()));
    selector.addRead(&client, client.fd);
    while (store.messages.size() < 1000) { // the last one by the timer
        ASSERT_EQ(selector.runOnce(), 0);
        ASSERT_LE(client.rxData.size(), HVLoggerTCPsockCli::batchLimit);
    }
    QELloggerSyslogFmt whole;
    whole.append(text);
    EXPECT_TRUE(std::equal(whole.messages.begin(), whole.messages.end(), store.messages.begin(),
                           [](const auto& a, const auto& b) { return a.raw == b.raw; }));
    ASSERT_EQ(send(ends[1], header.data(), header.size(), 0), static_cast<ssize_t>(header.size()));
    ASSERT_EQ(selector.runOnce(), 0);
    EXPECT_EQ(store.messages.size(), 1000U); // may go on ...
    close(ends[1]);
    ASSERT_EQ(selector.runOnce(), 0);
    EXPECT_EQ(store.messages.size(), 1001U); // ... but not when the server has gone
    EXPECT_EQ(client.selector, nullptr);
}

} // namespace
