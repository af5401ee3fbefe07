#include "QELselRcv.h"
#include "QELselTimer.h"
#include "QELselector.h"

#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

namespace {

struct Condition {
    bool (QELselector::*add)(QELselRcv*, std::int32_t);
    void (QELselector::*remove)(const QELselRcv*);
    void (QELselRcv::*selRemove)();
};
const std::map<char, Condition> conditions{
    {'w', {&QELselector::addWrite, &QELselector::removeWrite, &QELselRcv::selRemoveWrite}},
    {'r', {&QELselector::addRead, &QELselector::removeRead, &QELselRcv::selRemoveRead}},
    {'x', {&QELselector::addExcept, &QELselector::removeExcept, &QELselRcv::selRemoveExcept}}};

/// Ascending; ready to be written to, to be read, and with urgent data.
const std::vector<int> descriptors = [] {
    const int listener = socket(AF_INET, SOCK_STREAM, 0), peer = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr address{};
    socklen_t length = sizeof address;
    EXPECT_EQ(listen(listener, 1) + getsockname(listener, &address, &length), 0);
    EXPECT_EQ(connect(peer, &address, length), 0);
    EXPECT_EQ(send(peer, "x!", 2, MSG_OOB), 2);
    pollfd arrival{accept(listener, nullptr, nullptr), POLLPRI, 0};
    EXPECT_EQ(poll(&arrival, 1, 60'000), 1);
    return std::vector{arrival.fd, dup(arrival.fd), dup(arrival.fd), dup(arrival.fd)};
}();

/// Two dispatchers, and receivers a to z and timers A to Z that play scripts on them. Words:
///   +ar0 -ar <ar   a waits to (r)ead descriptor 0; the dispatcher, a itself removes it; w, x alike
///   +T2 <T         T is given its deadline (0: none, 1: now, 2: just after), is cancelled
///   ~a ~T !a7 !T7  a, T is destroyed, sets exit code 7
///   :a+br1,>0      what a does when it is called next, and its result, which is 1 if not told
///   @ #            the other dispatcher is meant from now on; a new one replaces it
///   =aT.7          a cycle calls a, T and what ends its wait, and gives 7
///   ?aT*           a and T are linked to a dispatcher, T is armed
struct Stage {
    struct Player : QELselRcv, QELselTimer {
        Stage* stage;
        char name;
        Player(Stage* owner, char ownName) : stage(owner), name(ownName) {}
        bool onReady(std::int64_t now) override { return stage->called(name, now) != 0; }
        std::uint64_t onTimer(std::int64_t now) override { return stage->called(name, now); }
    };
    std::unique_ptr<QELselector> selector{new QELselector}, other{new QELselector};
    std::map<char, std::unique_ptr<Player>> players;
    std::map<char, std::string> actions;
    std::string calls; // who was called in this cycle
    std::int64_t now{1};

    Player& player(char name) {
        auto& found = players[name];
        return found ? *found : *(found = std::make_unique<Player>(this, name));
    }
    std::uint64_t called(char name, std::int64_t cycleTime) {
        EXPECT_TRUE(calls.empty() ? cycleTime >= now : cycleTime == now);
        calls += name;
        now = cycleTime;
        return play(std::exchange(actions[name], ""), ',');
    }
    std::uint64_t play(const std::string& script, char separator = ' ') {
        std::uint64_t result = 1;
        std::istringstream words(script);
        for (std::string word; std::getline(words, word, separator);) {
            const char what = word[0];
            const std::string rest = word.substr(1),
                              more = word.substr(std::min<std::size_t>(word.size(), 2));
            if (what == '=') {
                Player due(this, '.');
                selector->setTimer(&due, 1);
                calls.clear();
                now = QELselector::nowUs();
                const std::int32_t code = selector->runOnce();
                EXPECT_EQ(calls + (code != 0 ? std::to_string(code) : ""), rest) << script;
            } else if (what == '?') {
                std::string linked;
                for (const auto& [name, one] : players) {
                    const bool is = one->QELselRcv::selector || one->QELselTimer::selector;
                    linked += std::string(is ? 1 : 0, name) + (one->armed ? "*" : "");
                }
                EXPECT_EQ(linked, rest) << script;
            } else if (what == '>') {
                result = std::stoull(rest);
            } else if (what == '@') {
                selector.swap(other);
            } else if (what == '#') {
                selector = std::make_unique<QELselector>();
            } else if (what == '~') {
                players.erase(rest[0]);
            } else if (what == ':') {
                actions[rest[0]] = more;
            } else if (Player& one = player(rest[0]); what == '!') {
                one.name < 'a' ? one.QELselTimer::selExit(std::stoi(more))
                               : one.QELselRcv::selExit(std::stoi(more));
            } else if (one.name < 'a') {
                const auto set = [&](double time) {
                    selector->setTimer(&one, time == 0 ? 0 : now + std::int64_t(time) - 1);
                };
                what == '<' ? one.cancel() : set(std::stod(more));
            } else {
                const auto& [add, remove, selRemove] = conditions.at(more[0]);
                what == '<'   ? (one.*selRemove)()
                : what == '-' ? (*selector.*remove)(&one)
                              : void((*selector.*add)(&one, descriptors.at(more[1] - '0')));
            }
        }
        return result;
    }
};

TEST(Dispatch, WhatACallbackDoesHoldsInTheSameCycle) {
    for (const char* script : {
             "+T1 +fx1 +ex0 +dr1 +cr0 +bw1 +aw0 =abcdefT.",
             "+ar0 +br1 +cr2 :a>0 =abc. =bc. ?bc",
             "+ar0 +br1 +cr2 :a~a,>0 =abc. =bc. ?bc",
             "+ar0 +br1 +cr2 :a-br =ac. =ac. ?abc",
             "+ar0 +br1 +cr2 :a~b =ac. =ac. ?ac",
             "+ar0 +br1 +cr2 :a@,+br3,@ =ac. =ac. @ =b. <br =.",
             "+ar0 +br1 +cr2 :a+cr1 =acc. -cr =ac. ?abc",
             "+ar0 +br1 +cr2 :a+dr3,+br0,>0 =abc. =bcd. ?acd",
             "+ar0 +br1 +cr2 :a+dr3,+ew0,+fx0 =abc. =eabcdf.",
             "+aw0 +ar0 +ax0 <aw ? <aw <ar <ax =aa. @ +aw0 =a. @ =.",
             "+aw0 +ar0 +ax0 <ar ? <aw <ar <ax =aa. @ +ar0 =a. @ =.",
             "+aw0 +ar0 +ax0 <ax ? <aw <ar <ax =aa. @ +ax0 =a. @ =.",
             "+aw0 +ar0 +ax0 <ar ~a =.",
             "+ar0 +bw0 +T1e15 +U1e15 @ +br0 +U1 @ =a. # ?*U*b <ar @ =bU.",
             // Timers set while the list is walked.
             "+F1e15 +L1 +G1 +C1 :L>0 :G+S2,+E1,<C,>0 :E>0 =LG.E ?EF*GLS* =S.",
             "+T1e15 +T1 =T. ?T* +T0 =. ?T",
             "+T1 :T+T1,>-1 =T. ?T* =.",
             "+T1 :T<T,+T1e15 =T. ?T* =.",
             "+T1 :T~T =T. ? =.",
             "!a1 !T1 +ar0 +T1e15 !a99 =a. :a!a7,>0 =a.7 =.",
             "+ar0 :a!a-3146 =a.-3146 :a!a-3147 =a.-3147 :a!a-3148 =a.-3148 =a.",
             "+ar0 +T1 :a!a1 :T!T0 =aT. :a!a5 :T!T-3146 =aT.-3146",
         }) {
        Stage().play(script);
    }
}

TEST(Dispatch, DescriptorsOutsideTheSetsAndAnyWhenFullAreRefused) {
    for (const auto& condition : conditions) {
        Stage stage;
        const auto add = [&](char name, std::int32_t descriptor) {
            return (*stage.selector.*condition.second.add)(&stage.player(name), descriptor);
        };
        EXPECT_FALSE(add('a', -1) || add('a', 1024) || add('a', INT32_MIN) || add('a', INT32_MAX));
        stage.play("?");
        for (std::int32_t fd = 1023; fd >= 0; --fd) {
            ASSERT_TRUE(add('a', fd)) << fd;
        }
        EXPECT_FALSE(add('b', 5)) << "replaced an entry of a full map";
        stage.play(std::string("?a -a") + condition.first);
        EXPECT_TRUE(add('b', 0));
        EXPECT_FALSE(add('b', 0)) << "removed another entry than the lowest";
    }
}

TEST(Dispatch, AFailedCycleCallsNobodyAndForgetsNothing) {
    Stage stage;
    std::signal(SIGALRM, [](int) {});
    // Repeated, so that one arrives during the wait however slow the machine is.
    const itimerval interval{{0, 10'000}, {0, 10'000}};
    ASSERT_EQ(setitimer(ITIMER_REAL, &interval, nullptr), 0);
    for (int i = 0; i < 2; ++i) { // first with nothing to wait for
        EXPECT_EQ(stage.selector->runOnce(), -3148);
        EXPECT_EQ(errno, EINTR);
        stage.play("+T1e15");
    }
    std::signal(SIGALRM, SIG_IGN);
    const int closed = dup(descriptors[0]);
    stage.selector->addWrite(&stage.player('c'), closed);
    close(closed);
    stage.play("+ar0 +T1");
    EXPECT_EQ(stage.selector->runOnce(), -3148);
    EXPECT_EQ(errno, EBADF);
    EXPECT_EQ(stage.calls, "");
    stage.play("<cw =aT.");
}

TEST(Dispatch, WaitsUntilTheEarliestDeadlineThatIsStillSet) {
    Stage stage;
    EXPECT_FALSE(stage.player('E').setTimeout(1)) << "on no dispatcher yet";
    stage.play("+F1e15 +E1 +S1 +S0 +C1 <C");
    EXPECT_DEATH(stage.selector->setTimer(nullptr, 1), "timer != nullptr");
    EXPECT_DEATH(stage.selector->cancelTimer(nullptr), "timer != nullptr"); // as C's entry is
    const std::int64_t start = QELselector::nowUs();
    EXPECT_GE(std::chrono::steady_clock::now().time_since_epoch(),
              std::chrono::microseconds(start));
    EXPECT_TRUE(stage.player('E').setTimeout(1'020'000)); // of seconds and a part of one
    EXPECT_EQ(stage.selector->runOnce(), 0);
    EXPECT_GE(QELselector::nowUs(), start + 1'020'000);
    EXPECT_EQ(stage.calls, "E");
    QELselector::sleepUs(3'000);
    const auto monotonic = std::chrono::steady_clock::now().time_since_epoch();
    EXPECT_GE(monotonic, std::chrono::microseconds(start + 1'023'000));
    EXPECT_LE(monotonic, std::chrono::microseconds(QELselector::nowUs() + 1));
}

} // namespace
