#include "HVLoggerTCPsockCli.h"
#include "QELloggerSyslogFmt.h"
#include "QELselector.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

const std::string header = "<14>1 t d sip 1 - ";
const std::string headerless = "<13>t t d sip 1 - z";
const std::string line = header + std::string(1000 - header.size(), 'x');

/// A viewer's store behind the reassembly; the clock and the timer are moved by hand.
struct Viewer : QELmediator {
    HVLoggerReassembly::Link link;
    HVLoggerReassembly reassembly{0};
    QELloggerSyslogFmt store;
    std::int64_t now = 1'000'000'000;

    Viewer() { store.addComponents(0, {"sip"}); }
    void notify(int /*destinationId*/, int /*messageType*/, void* payload) override {
        store.append(*static_cast<const std::string*>(payload));
    }
    std::int64_t silence() const { return reassembly.dueUs() == 0 ? 0 : reassembly.dueUs() - now; }
    void wait(std::int64_t us, bool missing = false) {
        now += us;
        if (silence() <= 0 && reassembly.isDue(missing, now)) {
            store.append(reassembly.release());
        }
    }
    void arrive(std::string_view batch, std::int64_t pauseUs) {
        wait(pauseUs);
        if (reassembly.isEndedBy(batch)) {
            store.append(reassembly.release());
        }
        store.append(reassembly.take(batch, link, now));
        reassembly.listen(now);
    }
    std::string shown() const {
        std::string all;
        store.allMessages(all, false);
        return all;
    }
};

TEST(Reassembly, NoCutLosesALine) {
    const std::string text = header + "a<1" + header + "b <14> 1" + header + "<" + header +
                             "c\n<134>1 - - sip 2 - - d" + header + std::string(40, 'x');
    for (std::size_t first = 1; first < text.size(); ++first) {
        for (std::size_t size = 1; size < text.size(); ++size) {
            Viewer viewer;
            viewer.link.segment = 1; // no piece is small enough to be whole
            for (std::size_t at = 0, end = first; at < text.size(); at = end, end += size) {
                viewer.arrive(text.substr(at, end - at), viewer.silence() - 1); // just in time
            }
            viewer.wait(viewer.silence());
            ASSERT_EQ(viewer.shown(), text) << first << ' ' << size;
            ASSERT_EQ(viewer.store.messages.size(), 6U) << first << ' ' << size;
        }
    }
}

TEST(Reassembly, KeepsOnlyWhatMayGoOnForAsLongAsTheLinkMayPause) {
    const struct {
        std::size_t segment;
        std::int64_t roundTripUs, pauseUs;
        std::vector<std::string> batches;
        std::size_t shown;      ///< messages
        std::int64_t silenceUs; ///< 0: nothing is kept
    } cases[] = {
        {1001, 50, 0, {line, line}, 2, 0}, // known to be smaller than segments can be
        {1000, 50, 0, {line + "<1", "4>1 t d sip 1 - "}, 1, 15'000},
        {1000, 50, 0, {line}, 0, 15'000},
        {1000, 50, 0, {line, "z" + header + header}, 2, 15'000},
        {1000, 50, 0, {line, std::string(HVLoggerReassembly::keptLimit, 'x')}, 1, 0},
        {9000, 50, 0, {line + "<"}, 1, 0},
        {9000, 50, 0, {line + line}, 1, 15'000}, // maybe a piece of a listing
        {1448, 50, 0, {headerless, headerless}, 2, 0},
        {1, 50, 0, {headerless, header}, 2, 0}, // not joined: it would be no message
        {1448, 50'000, 0, {"z"}, 0, 125'000},
        {1448, 1'000'000, 0, {"z"}, 0, 300'000},
        {1448, 50, 100'000, {"z", "late: learned"}, 0, 200'000},
        {1448, 50, 100'000, {"z", "late: learned", line + line}, 1, 175'000},
    };
    for (const auto& c : cases) {
        Viewer viewer;
        viewer.link = {c.segment, c.roundTripUs};
        for (const std::string& batch : c.batches) {
            viewer.arrive(batch, c.pauseUs);
            viewer.link.segment = 500;
        }
        EXPECT_EQ(viewer.store.messages.size(), c.shown);
        EXPECT_EQ(viewer.silence(), c.silenceUs);
        viewer.wait(300'000);
        viewer.arrive("z", 0); // what was shown last goes on: segments are smaller indeed
        viewer.arrive(line, 0);
        viewer.wait(2'000'000, true); // what is missing is waited for, but not for ever
        EXPECT_GT(viewer.silence(), 0);
        viewer.wait(1'000'000, true);
        EXPECT_EQ(viewer.silence(), 0);
    }
}

TEST(TcpClient, ReadsALimitedBatchAtOnceAndHandsOverEveryMessageWhole) {
    Viewer viewer;
    QELselector selector;
    HVLoggerTCPsockCli client(&viewer);
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
    client.fd = ends[0];
    std::string text;
    for (std::size_t n = 0; n < 100; ++n) {
        text += line + std::string(n, 'x');
    }
    selector.addRead(&client, client.fd);
    for (const std::string& batch : {headerless, text}) {
        ASSERT_EQ(send(ends[1], batch.data(), batch.size(), MSG_DONTWAIT), std::ssize(batch));
        ASSERT_EQ(selector.runOnce(), 0);
        ASSERT_FALSE(viewer.store.messages.empty()); // a short one is whole whatever is known
    }
    while (viewer.store.messages.size() < 101) { // the last one by the timer
        ASSERT_EQ(selector.runOnce(), 0);
        ASSERT_LE(client.rxData.size(), 0x4000U);
    }
    EXPECT_EQ(viewer.shown(), headerless + text);
    ASSERT_EQ(send(ends[1], header.data(), header.size(), 0), std::ssize(header));
    close(ends[1]); // which shows what was kept
    ASSERT_EQ(selector.runOnce() + selector.runOnce(), 0);
    EXPECT_EQ(viewer.store.messages.size(), 102U);
}

} // namespace
