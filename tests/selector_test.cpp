#include "QELselRcv.h"
#include "QELselTimer.h"
#include "QELselector.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <ctime>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <netinet/in.h>
#include <optional>
#include <poll.h>
#include <random>
#include <set>
#include <string>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>
#include <utility>
#include <vector>

namespace {

using testing::ElementsAre;

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

// The callbacks run copies of the actions, so that an action may destroy its own object.
struct Receiver : QELselRcv {
    using Action = std::function<bool(std::int64_t)>;
    Action action;
    explicit Receiver(Action onCall) : action(std::move(onCall)) {}
    bool onReady(std::int64_t nowUs) override { return Action(action)(nowUs); }
};

struct Timer : QELselTimer {
    using Action = std::function<std::uint64_t(std::int64_t)>;
    Action action;
    explicit Timer(Action onCall) : action(std::move(onCall)) {}
    std::uint64_t onTimer(std::int64_t nowUs) override { return Action(action)(nowUs); }
};

/// A dispatcher whose cycles do not wait: the timer at the head of its list is always due.
struct Impatient : QELselector {
    Timer due{[](auto) {
        return longAgo;
    }};
    Impatient() { setTimer(&due, longAgo); }
};

/// One end of a TCP connection: writable, and once data has come readable or, if the data was sent
/// with MSG_OOB, in an exceptional condition.
struct End {
    std::array<int, 3> fds{}; // the first is the end
    explicit End(const std::string& data = "", int flags = 0) {
        std::ranges::generate(fds, [] { return socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0); });
        sockaddr_in in{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
        socklen_t length = sizeof in;
        auto* address = reinterpret_cast<sockaddr*>(&in);
        EXPECT_EQ(bind(fds[2], address, length) + listen(fds[2], 1), 0);
        EXPECT_EQ(getsockname(fds[2], address, &length) + connect(fds[1], address, length), 0);
        close(fds[0]);
        fds[0] = accept4(fds[2], nullptr, nullptr, SOCK_CLOEXEC);
        feed(data, flags);
    }
    ~End() { std::ranges::for_each(fds, close); }
    [[nodiscard]] int fd() const { return fds[0]; }
    void feed(const std::string& data, int flags = 0) const {
        EXPECT_EQ(send(fds[1], data.data(), data.size(), flags), ssize_t(data.size()));
        pollfd arrival{fd(), POLLIN | POLLPRI, 0};
        EXPECT_EQ(poll(&arrival, 1, data.empty() ? 0 : 60'000), data.empty() ? 0 : 1);
    }
};

/// A dispatcher and a plain model of it, side by side. Every callback first checks that it is the
/// one the model expects next, then changes registrations at random in both.
struct SideBySide {
    using Entries = std::map<int, std::size_t>; // descriptor: receiver

    std::mt19937 random{20240229};
    std::array<End, 6> ends{End(), End(), End("x"), End("x"), End("!", MSG_OOB), End("!", MSG_OOB)};
    std::array<std::set<int>, 3> ready; // for each condition
    Impatient elsewhere;
    std::unique_ptr<Impatient> selector;
    std::array<std::unique_ptr<Receiver>, 5> receivers;
    std::size_t calls{0};
    std::optional<std::int64_t> cycleTime;

    std::array<Entries, 3> entries;
    std::array<Entries, 3> watched; // the entries when the cycle began
    std::array<QELselector*, 5> links{};
    std::size_t group{0}; // the condition being served, and what is still to be looked at in it
    std::deque<int> queue;

    SideBySide() {
        for (std::size_t i = 0; i < ends.size(); ++i) {
            ready[0].insert(ends[i].fd());
            ready[i / 2].insert(ends[i].fd());
        }
        for (std::size_t id = 0; id < receivers.size(); ++id) {
            create(id);
        }
    }

    std::size_t below(std::size_t limit) { return random() % limit; }

    /// Also destroys the old one.
    void create(std::size_t id) {
        receivers[id] =
            std::make_unique<Receiver>([this, id](auto now) { return called(id, now); });
        leave(id, nullptr);
    }

    void leave(std::size_t id, QELselector* link) {
        for (Entries& each : entries) {
            std::erase_if(each, [id](const auto& entry) { return entry.second == id; });
        }
        links[id] = link;
    }

    void change() {
        const std::size_t id = below(receivers.size());
        const std::size_t which = below(conditions.size());
        const auto& [add, remove, selRemove] = conditions[which];
        const int fd = ends[below(ends.size())].fd();
        Receiver* const receiver = receivers[id].get();
        const std::size_t what = below(9);
        if (what == 0) {
            create(id);
        } else if (what == 1) {
            EXPECT_TRUE((elsewhere.*add)(receiver, fd));
            leave(id, &elsewhere);
        } else if (what < 4) {
            const auto first = std::ranges::find(entries[which], id, &Entries::value_type::second);
            if (first != entries[which].end() && (what == 2 || links[id] != nullptr)) {
                entries[which].erase(first);
            }
            if (what == 2) {
                (*selector.*remove)(receiver);
            } else {
                (receiver->*selRemove)();
                links[id] = nullptr;
            }
        } else {
            EXPECT_TRUE((*selector.*add)(receiver, fd));
            entries[which][fd] = id;
            links[id] = selector.get();
        }
    }

    /// The descriptor to be served next, for the condition left in `group`.
    std::optional<int> next() {
        while (!queue.empty() || group < conditions.size()) {
            if (queue.empty()) {
                enterGroup(group + 1);
                continue;
            }
            const int fd = queue.front();
            queue.pop_front();
            if (entries[group].contains(fd)) {
                return fd;
            }
        }
        return std::nullopt;
    }

    void enterGroup(std::size_t entered) {
        group = entered;
        if (group < conditions.size()) {
            for (const auto& [fd, id] : entries[group]) {
                if (watched[group].contains(fd) && ready[group].contains(fd)) {
                    queue.push_back(fd);
                }
            }
        }
    }

    bool called(std::size_t id, std::int64_t now) {
        ++calls;
        EXPECT_EQ(now, cycleTime.value_or(now));
        cycleTime = now;
        const std::optional<int> fd = next();
        if (!fd) {
            ADD_FAILURE() << "a call too many";
            return true;
        }
        EXPECT_EQ(entries[group][*fd], id);
        for (std::size_t count = below(3); count > 0; --count) {
            change();
        }
        const bool keep = below(3) > 0;
        const auto entry = entries[group].find(*fd);
        if (!keep && entry != entries[group].end()) {
            links[entry->second] = nullptr;
            entries[group].erase(entry);
        }
        return keep;
    }

    void cycle() {
        if (below(20) == 0 || !selector) {
            std::ranges::replace(links, selector.get(), nullptr);
            entries = {};
            selector = std::make_unique<Impatient>();
            selector->due.action = [this](auto) {
                EXPECT_EQ(next(), std::nullopt) << "a ready receiver was not called before timers";
                return longAgo;
            };
        }
        for (std::size_t count = below(4); count > 0; --count) {
            change();
        }
        watched = entries;
        enterGroup(0);
        const std::int64_t before = QELselector::nowUs();
        ASSERT_EQ(selector->runOnce(), 0);
        ASSERT_GE(cycleTime.value_or(before), before);
        cycleTime.reset();
        for (std::size_t id = 0; id < receivers.size(); ++id) {
            ASSERT_EQ(receivers[id]->selector, links[id]);
        }
    }
};

TEST(Dispatch, StaysRightWhateverBecomesOfReceiversAndDispatchers) {
    constexpr std::size_t cycles = 20'000;
    SideBySide both;
    for (std::size_t i = 0; i < cycles && !testing::Test::HasFailure(); ++i) {
        both.cycle();
    }
    EXPECT_GT(both.calls, cycles);
}

TEST(Dispatch, RefusesDescriptorsOutsideTheSetsAndAnyWhenFull) {
    for (const auto& [add, remove, selRemove] : conditions) {
        QELselector selector;
        Receiver receiver(nullptr);
        Receiver other(nullptr);
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

TEST(ExitCode, IsTheLastOneOfTheCycleAndLastsForOneCycle) {
    const End end("x");
    for (const auto& [byReceiver, byTimer] : {std::pair{7, 7},
                                              {-1, -1},
                                              {-3146, -3146},
                                              {-3147, -3147},
                                              {-3148, -3148},
                                              {1, 0},
                                              {5, -3146}}) {
        Impatient selector;
        Receiver receiver([&, code = byReceiver](auto) { return receiver.selExit(code), false; });
        Timer timer([&, code = byTimer](auto) { return timer.selExit(code), 0; });
        selector.addRead(&receiver, end.fd());
        selector.setTimer(&timer, byTimer == byReceiver ? 0 : longAgo);
        selector.setExitCode(99); // between cycles: lost
        EXPECT_EQ(selector.runOnce(), byTimer);
        EXPECT_EQ(selector.runOnce(), 0) << byReceiver << " outlived its cycle";
    }
}

struct Dispatcher : testing::Test {
    std::vector<std::string> log;
    QELselector selector;

    /// An action that notes its call.
    auto note(const char* name, std::uint64_t result = 0) {
        return [this, name, result](auto) {
            log.emplace_back(name);
            return result;
        };
    }
};

TEST_F(Dispatcher, AFailedCycleCallsNobodyAndForgetsNothing) {
    const End end;
    Receiver receiver(note("receiver", true));
    Timer timer(note("timer"));
    struct sigaction handler {};
    handler.sa_handler = [](int) {
    };
    ASSERT_EQ(sigaction(SIGALRM, &handler, nullptr), 0);
    // Repeated, so that one arrives during the wait however slow the machine is.
    itimerval interval{{0, 10'000}, {0, 10'000}};
    ASSERT_EQ(setitimer(ITIMER_REAL, &interval, nullptr), 0);
    for (int i = 0; i < 2; ++i) { // first with nothing to wait for
        errno = 0;
        EXPECT_EQ(selector.runOnce(), -3148);
        EXPECT_EQ(errno, EINTR);
        selector.addRead(&receiver, end.fd());
        selector.setTimer(&timer, never);
    }
    interval = {};
    ASSERT_EQ(setitimer(ITIMER_REAL, &interval, nullptr), 0);
    EXPECT_TRUE(timer.armed);

    Receiver gone(note("gone", true));
    selector.addWrite(&gone, End().fd());
    end.feed("x");
    timer.setDeadline(longAgo);
    EXPECT_EQ(selector.runOnce(), -3148);
    EXPECT_EQ(errno, EBADF);
    EXPECT_THAT(log, ElementsAre());
    gone.selRemoveWrite();
    EXPECT_EQ(selector.runOnce(), 0);
    EXPECT_THAT(log, ElementsAre("receiver", "timer"));
}

TEST_F(Dispatcher, FiresTimersAtTheirDeadlineAndInListOrder) {
    Timer far(note("far"));
    Timer soon(note("soon"));
    Timer exact(note("exact"));
    Timer cancelled(note("cancelled"));
    Timer late(note("late"));
    Timer first([&](std::int64_t now) {
        cancelled.cancel();
        // The list that is being walked grows.
        selector.setTimer(&soon, static_cast<std::uint64_t>(now) + 1);
        selector.setTimer(&exact, static_cast<std::uint64_t>(now));
        return 0;
    });
    selector.setTimer(&far, never);
    selector.setTimer(&late, longAgo + 1);
    selector.setTimer(&first, longAgo);
    selector.setTimer(&cancelled, longAgo);
    ASSERT_EQ(selector.runOnce(), 0);
    EXPECT_THAT(log, ElementsAre("late", "exact"));
    ASSERT_EQ(selector.runOnce(), 0);
    EXPECT_THAT(log, ElementsAre("late", "exact", "soon"));

    // The disarmed and cancelled do not shorten the wait. It is more than a second, so that both
    // parts of the timeout count.
    selector.setTimer(&soon, longAgo);
    soon.cancel();
    EXPECT_FALSE(soon.armed);
    constexpr std::int64_t delay = 1'020'000;
    const std::int64_t before = QELselector::nowUs();
    ASSERT_TRUE(exact.setTimeout(delay));
    ASSERT_EQ(selector.runOnce(), 0);
    EXPECT_EQ(log.back(), "exact");
    EXPECT_GE(QELselector::nowUs(), before + delay);
}

TEST(Timers, WhatACallbackDoesToItsOwnTimerHolds) {
    using Own = std::unique_ptr<Timer>;
    struct Case {
        const char* what;
        std::function<std::uint64_t(Own&, QELselector&)> action;
        bool attached, armed;
        int calls; // in two cycles
    };
    const std::vector<Case> table{
        {"returns 0", [](Own&, auto&) { return 0; }, true, false, 1},
        {"returns a past time", [](Own&, auto&) { return longAgo; }, true, true, 2},
        {"sets a timeout", [](Own& t, auto&) { return t->setTimeout(0), 0; }, true, true, 2},
        {"sets, then returns", [](Own& t, auto&) { return t->setDeadline(longAgo), never; }, true,
         true, 1},
        {"disarms", [](Own& t, auto&) { return t->setDeadline(0), 0; }, true, false, 1},
        {"cancels", [](Own& t, auto&) { return t->cancel(), longAgo; }, false, false, 1},
        {"cancels and comes back",
         [](Own& t, auto& s) { return t->cancel(), s.setTimer(t.get(), never), longAgo; }, true,
         true, 1},
        {"is destroyed", [](Own& t, auto&) { return t.reset(), longAgo; }, false, false, 1},
    };
    for (const auto& test : table) {
        SCOPED_TRACE(test.what);
        Impatient selector;
        int calls = 0;
        Own timer;
        timer = std::make_unique<Timer>([&](auto) {
            ++calls;
            EXPECT_FALSE(timer->armed);
            return test.action(timer, selector);
        });
        EXPECT_FALSE(timer->setDeadline(longAgo)) << "on no dispatcher yet";
        selector.setTimer(timer.get(), never);
        EXPECT_TRUE(timer->armed);
        selector.setTimer(timer.get(), longAgo); // moves the deadline, adds no second entry
        ASSERT_EQ(selector.runOnce(), 0);
        EXPECT_EQ(timer && timer->selector == &selector, test.attached);
        EXPECT_EQ(timer && timer->armed, test.armed);
        EXPECT_EQ(calls, 1);
        ASSERT_EQ(selector.runOnce(), 0);
        EXPECT_EQ(calls, test.calls);
    }
}

TEST(Timers, MayMoveAndGoBeforeOrAfterTheirDispatchers) {
    Impatient elsewhere;
    for (const bool moved : {false, true}) {
        for (const bool timerFirst : {false, true}) {
            auto selector = std::make_unique<Impatient>();
            auto timer = std::make_unique<Timer>([](auto) { return longAgo; });
            selector->setTimer(timer.get(), longAgo);
            if (moved) {
                elsewhere.setTimer(timer.get(), longAgo);
            }
            if (timerFirst) {
                timer.reset();
                EXPECT_EQ(selector->runOnce(), 0);
            } else {
                selector.reset();
                EXPECT_EQ(timer->selector, moved ? &elsewhere : nullptr);
            }
            EXPECT_EQ(elsewhere.runOnce(), 0);
        }
    }
}

TEST(Clock, CountsMicrosecondsOfTheMonotonicClock) {
    const std::int64_t before = QELselector::nowUs();
    QELselector::sleepUs(3'000);
    timespec middle{};
    ASSERT_EQ(clock_gettime(CLOCK_MONOTONIC, &middle), 0);
    const std::int64_t elapsed = middle.tv_sec * 1'000'000LL + middle.tv_nsec / 1'000 - before;
    EXPECT_GE(elapsed, 3'000);
    EXPECT_GE(QELselector::nowUs(), before + elapsed);
}

} // namespace
