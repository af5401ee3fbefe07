#include "QELselRcv.h"
#include "QELselTimer.h"
#include "QELselector.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <functional>
#include <memory>
#include <netinet/in.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/time.h>
#include <unistd.h>

namespace {

constexpr std::uint64_t longAgo = 1;
constexpr std::uint64_t never = UINT64_MAX; // armed, but not due in anyone's lifetime

/// What can be waited for, in the order of serving.
struct Condition {
    bool (QELselector::*add)(QELselRcv*, std::int32_t);
    void (QELselector::*remove)(const QELselRcv*);
    void (QELselRcv::*selRemove)();
};
constexpr std::array<Condition, 3> conditions{{
    {&QELselector::addWrite, &QELselector::removeWrite, &QELselRcv::selRemoveWrite},
    {&QELselector::addRead, &QELselector::removeRead, &QELselRcv::selRemoveRead},
    {&QELselector::addExcept, &QELselector::removeExcept, &QELselRcv::selRemoveExcept},
}};

std::string calls;      // who was called in this cycle
std::int64_t cycleTime; // what they were told

void note(char name, std::int64_t now) {
    EXPECT_TRUE(calls.empty() || now == cycleTime);
    calls += name;
    cycleTime = now;
}

// Both run copies of their actions, so that an action may destroy its own object.
struct Receiver : QELselRcv {
    using Action = std::function<bool()>;
    char name;
    Action action;
    explicit Receiver(
        char ownName, Action does = [] { return true; })
        : name(ownName), action(std::move(does)) {}
    bool onReady(std::int64_t now) override { return note(name, now), Action(action)(); }
};
struct Timer : QELselTimer {
    using Action = std::function<std::uint64_t()>;
    char name;
    Action action;
    explicit Timer(
        char ownName, Action does = [] { return longAgo; })
        : name(ownName), action(std::move(does)) {}
    std::uint64_t onTimer(std::int64_t now) override { return note(name, now), Action(action)(); }
};

/// A dispatcher whose cycles do not wait: a timer, noted as a dot, is always due.
struct Impatient : QELselector {
    Timer due{'.'};
    Impatient() { setTimer(&due, longAgo); }
    std::string cycle(std::int32_t expected = 0) {
        calls.clear();
        const std::int64_t before = nowUs();
        EXPECT_EQ(runOnce(), expected);
        EXPECT_GE(cycleTime, before);
        return calls;
    }
};

struct Dispatch : testing::Test {
    std::array<int, 4> fds{}; // ascending; ready to be written to, to be read, and with urgent data
    Impatient selector, elsewhere;

    Dispatch() {
        const int listener = socket(AF_INET, SOCK_STREAM, 0);
        const int peer = socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in in{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
        socklen_t length = sizeof in;
        auto* const address = reinterpret_cast<sockaddr*>(&in);
        EXPECT_EQ(bind(listener, address, length) + listen(listener, 1), 0);
        EXPECT_EQ(getsockname(listener, address, &length) + connect(peer, address, length), 0);
        EXPECT_EQ(send(peer, "x", 1, 0) + send(peer, "!", 1, MSG_OOB), 2);
        fds[0] = accept(listener, nullptr, nullptr);
        std::generate(fds.begin() + 1, fds.end(), [&] { return dup(fds[0]); });
        pollfd arrival{fds[0], POLLPRI, 0};
        EXPECT_EQ(poll(&arrival, 1, 60'000), 1);
        EXPECT_EQ(close(listener) + close(peer), 0);
    }
    ~Dispatch() override { std::ranges::for_each(fds, close); }
};

TEST_F(Dispatch, ServesWritingThenReadingThenExceptionsByDescriptorThenTimers) {
    std::array<Receiver, 6> r{Receiver('f'), Receiver('e'), Receiver('d'),
                              Receiver('c'), Receiver('b'), Receiver('a')};
    for (std::size_t i = 0; i < r.size(); ++i) { // backwards
        EXPECT_TRUE((selector.*conditions[2 - i / 2].add)(&r[i], fds[1 - i % 2]));
    }
    EXPECT_EQ(selector.cycle(), "abcdef.");
}

// a, b and c read the first three descriptors; d is not registered yet.
TEST_F(Dispatch, WhatACallbackDoesToReceiversHoldsInTheSameCycle) {
    std::array<std::unique_ptr<Receiver>, 4> receivers;
    auto &a = receivers[0], &b = receivers[1], &c = receivers[2], &d = receivers[3];
    const auto read = [&](auto& who, int i) {
        return selector.addRead(who.get(), fds.at(i));
    };
    struct Case {
        std::function<bool()> action;      // of a, in the first cycle
        std::string first, second, linkOf; // who is called, who has a link in the end
    };
    for (const Case& test : std::initializer_list<Case>{
             {[&] { return true; }, "abc.", "abc.", "abc "},
             {[&] { return false; }, "abc.", "bc.", " bc "},
             {[&] { return a->selRemoveRead(), true; }, "abc.", "bc.", " bc "},
             {[&] { return a.reset(), false; }, "abc.", "bc.", " bc "},
             {[&] { return selector.removeRead(b.get()), true; }, "ac.", "ac.", "abc "},
             {[&] { return b.reset(), true; }, "ac.", "ac.", "a c "},
             {[&] { return elsewhere.addRead(b.get(), fds[3]); }, "ac.", "ac.", "a c "},
             {[&] { return read(c, 1); }, "acc.", "acc.", "abc "},
             {[&] { return !read(b, 0); }, "abc.", "bc.", "a c "},
             {[&] { return a->selRemoveRead(), read(d, 3), !read(b, 0); }, "abc.", "bcd.", "  cd"},
             {[&] { return b->selRemoveRead(), read(b, 1); }, "abc.", "abc.", "abc "},
             {[&] { return read(d, 3); }, "abc.", "abcd.", "abcd"},
             {[&] { return selector.addWrite(d.get(), fds[0]); }, "abc.", "dabc.", "abcd"},
             {[&] { return selector.addExcept(d.get(), fds[0]); }, "abc.", "abcd.", "abcd"}}) {
        for (char name = 'a'; auto& receiver : receivers) {
            receiver = std::make_unique<Receiver>(name++);
        }
        EXPECT_TRUE(read(a, 0) && read(b, 1) && read(c, 2));
        a->action = [&] {
            return a->action = [] { return true; }, test.action();
        };
        EXPECT_EQ(selector.cycle(), test.first);
        EXPECT_EQ(selector.cycle(), test.second);
        std::string linked;
        for (const auto& receiver : receivers) {
            linked += receiver && receiver->selector == &selector ? receiver->name : ' ';
        }
        EXPECT_EQ(linked, test.linkOf) << test.first << test.second;
    }
}

TEST_F(Dispatch, AReceiverHasOneLinkForAllItsEntries) {
    for (const Condition& one : conditions) {
        Receiver receiver('r');
        for (const Condition& each : conditions) {
            (selector.*each.add)(&receiver, fds[0]);
        }
        (receiver.*one.selRemove)();
        EXPECT_EQ(receiver.selector, nullptr);
        for (const Condition& each : conditions) {
            (receiver.*each.selRemove)(); // has no link to act on
        }
        EXPECT_EQ(selector.cycle(), "rr.");
        (elsewhere.*one.add)(&receiver, fds[0]); // takes it off altogether
        EXPECT_EQ(selector.cycle() + elsewhere.cycle(), ".r.");
        for (const Condition& each : conditions) {
            (selector.*each.add)(&receiver, fds[0]);
        }
        (receiver.*one.selRemove)();
    } // destroyed while it has entries but no link
    EXPECT_EQ(selector.cycle(), ".");
}

TEST_F(Dispatch, DescriptorsOutsideTheSetsAndAnyWhenFullAreRefused) {
    for (const auto& [add, remove, selRemove] : conditions) {
        Receiver receiver('r'), other('o');
        for (const std::int32_t refused : {-1, INT32_MIN, 1024, INT32_MAX}) {
            EXPECT_FALSE((selector.*add)(&receiver, refused)) << refused;
        }
        EXPECT_EQ(receiver.selector, nullptr);
        for (std::int32_t fd = 1023; fd >= 0; --fd) {
            ASSERT_TRUE((selector.*add)(&receiver, fd)) << fd;
        }
        EXPECT_FALSE((selector.*add)(&other, 5)) << "replaced an entry of a full map";
        EXPECT_EQ(other.selector, nullptr);
        (selector.*remove)(&receiver);
        EXPECT_TRUE((selector.*add)(&other, 0));
        EXPECT_FALSE((selector.*add)(&other, 0)) << "removed another entry than the lowest";
    }
}

TEST_F(Dispatch, AnExitCodeIsTheLastOneOfTheCycleAndLastsForOneCycle) {
    for (const auto& [first, last] :
         {std::pair{7, 7}, {-3146, -3146}, {-3147, -3147}, {-3148, -3148}, {1, 0}, {5, -3146}}) {
        Receiver receiver('r', [&, code = first] { return receiver.selExit(code), false; });
        Timer timer('t', [&, code = last] { return timer.selExit(code), 0; });
        selector.addRead(&receiver, fds[0]);
        selector.setTimer(&timer, first == last ? 0 : longAgo);
        selector.setExitCode(99); // between cycles: lost
        selector.cycle(last);
        EXPECT_EQ(selector.cycle(), ".") << first << " outlived its cycle";
    }
}

TEST_F(Dispatch, AFailedCycleCallsNobodyAndForgetsNothing) {
    const int event = eventfd(0, 0);
    const int closed = dup(event);
    Receiver receiver('r'), gone('g');
    Timer timer('t');
    QELselector patient;
    calls.clear();
    std::signal(SIGALRM, [](int) {});
    // Repeated, so that one arrives during the wait however slow the machine is.
    const itimerval interval{{0, 10'000}, {0, 10'000}};
    ASSERT_EQ(setitimer(ITIMER_REAL, &interval, nullptr), 0);
    for (int i = 0; i < 2; ++i) { // first with nothing to wait for
        EXPECT_EQ(patient.runOnce(), -3148);
        EXPECT_EQ(errno, EINTR);
        patient.addRead(&receiver, event);
        patient.setTimer(&timer, never);
    }
    std::signal(SIGALRM, SIG_IGN);
    patient.addWrite(&gone, closed);
    close(closed);
    timer.setDeadline(longAgo);
    EXPECT_EQ(eventfd_write(event, 1), 0);
    EXPECT_EQ(patient.runOnce(), -3148);
    EXPECT_EQ(errno, EBADF);
    EXPECT_EQ(calls, "");
    gone.selRemoveWrite();
    EXPECT_EQ(patient.runOnce(), 0);
    EXPECT_EQ(calls, "rt");
    close(event);
}

TEST_F(Dispatch, TimersFireAtTheirDeadlineAndInListOrder) {
    Timer far('f'), soon('s'), exact('e'), cancelled('c'), late('l', [] { return 0; });
    Timer growing('g', [&] { // lengthens the list that is being walked
        selector.setTimer(&soon, static_cast<std::uint64_t>(cycleTime) + 1);
        selector.setTimer(&exact, static_cast<std::uint64_t>(cycleTime));
        exact.action = soon.action = [] {
            return 0;
        };
        return cancelled.cancel(), 0;
    });
    selector.setTimer(&far, never);
    selector.setTimer(&late, longAgo + 1);
    selector.setTimer(&growing, longAgo);
    selector.setTimer(&cancelled, longAgo);
    EXPECT_EQ(selector.cycle(), ".lge");
    EXPECT_EQ(selector.cycle(), ".s");

    // The disarmed and cancelled do not shorten the wait. It is more than a second, so that both
    // parts of the timeout count.
    selector.due.cancel();
    soon.setDeadline(longAgo);
    soon.cancel();
    const std::int64_t end = QELselector::nowUs() + 1'020'000;
    EXPECT_TRUE(exact.setTimeout(1'020'000));
    EXPECT_EQ(selector.cycle(), "e");
    EXPECT_GE(QELselector::nowUs(), end);
}

TEST_F(Dispatch, WhatACallbackDoesToItsOwnTimerHolds) {
    std::unique_ptr<Timer> t;
    struct Case {
        std::function<std::uint64_t()> action;
        bool attached, armed;
        std::string second; // who is called in the second cycle
    };
    for (const Case& test : std::initializer_list<Case>{
             {[&] { return 0; }, true, false, "."},
             {[&] { return longAgo; }, true, true, ".t"},
             {[&] { return t->setTimeout(0), 0; }, true, true, ".t"},
             {[&] { return t->setDeadline(longAgo), never; }, true, true, "."},
             {[&] { return t->setDeadline(0), 0; }, true, false, "."},
             {[&] { return t->cancel(), longAgo; }, false, false, "."},
             {[&] { return t->cancel(), selector.setTimer(t.get(), never), 1; }, true, true, "."},
             {[&] { return t.reset(), longAgo; }, false, false, "."}}) {
        t = std::make_unique<Timer>('t', [&] { return t->armed ? never : test.action(); });
        EXPECT_FALSE(t->setDeadline(longAgo)) << "on no dispatcher yet";
        selector.setTimer(t.get(), never);
        EXPECT_TRUE(t->armed);
        selector.setTimer(t.get(), longAgo); // moves the deadline, adds no second entry
        EXPECT_EQ(selector.cycle(), ".t");
        EXPECT_EQ(t && t->selector == &selector, test.attached);
        EXPECT_EQ(t && t->armed, test.armed);
        EXPECT_EQ(selector.cycle(), test.second);
    }
}

TEST_F(Dispatch, DispatchersMayGoBeforeWhatIsOnThem) {
    Receiver receiver('r'), moved('m');
    Timer timer('t'), movedTimer('n');
    auto gone = std::make_unique<Impatient>();
    gone->addRead(&receiver, fds[0]);
    gone->addWrite(&moved, fds[0]);
    gone->setTimer(&timer, never);
    gone->setTimer(&movedTimer, never);
    selector.addRead(&moved, fds[0]);
    selector.setTimer(&movedTimer, longAgo);
    EXPECT_EQ(gone->cycle(), "r.");
    gone.reset();
    EXPECT_TRUE(receiver.selector == nullptr && moved.selector == &selector);
    EXPECT_TRUE(timer.selector == nullptr && movedTimer.selector == &selector);
    EXPECT_EQ(selector.cycle(), "m.n");
}

TEST_F(Dispatch, NullTimersAreAssertedAgainst) {
    Timer cancelled('c');
    selector.setTimer(&cancelled, never);
    cancelled.cancel(); // leaves an entry that null would be taken for
    EXPECT_DEATH(selector.setTimer(nullptr, longAgo), "timer != nullptr");
    EXPECT_DEATH(selector.cancelTimer(nullptr), "timer != nullptr");
}

TEST(Clock, CountsMicrosecondsOfTheMonotonicClock) {
    const std::int64_t before = QELselector::nowUs();
    QELselector::sleepUs(3'000);
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    const std::int64_t between = now.tv_sec * 1'000'000LL + now.tv_nsec / 1'000;
    EXPECT_TRUE(before + 3'000 <= between && between <= QELselector::nowUs());
}

} // namespace
