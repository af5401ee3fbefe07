#include "QELselRcv.h"
#include "QELselTimer.h"
#include "QELselector.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <ctime>
#include <fcntl.h>
#include <functional>
#include <map>
#include <memory>
#include <netinet/in.h>
#include <optional>
#include <poll.h>
#include <random>
#include <string>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>
#include <vector>

namespace {

using testing::ElementsAre;

constexpr std::uint64_t longAgo = 1;
constexpr std::uint64_t never = UINT64_MAX; // armed, but not due in anyone's lifetime

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

struct Descriptors {
    std::vector<int> fds;
    Descriptors(std::initializer_list<int> descriptors) : fds(descriptors) {}
    Descriptors(const Descriptors&) = delete;
    ~Descriptors() { std::ranges::for_each(fds, close); }
};

/// One end of a connection: writable, and after feed() readable.
struct End : Descriptors {
    End() : Descriptors{-1, -1} {
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds.data()), 0);
    }
    [[nodiscard]] int fd() const { return fds[0]; }
    void feed() const { EXPECT_EQ(write(fds[1], "x", 1), 1); }
};

/// One end of a TCP connection over the loopback: has urgent data.
struct UrgentEnd : Descriptors {
    UrgentEnd()
        : Descriptors{socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0),
                      socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)} {
        sockaddr_in in{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
        socklen_t length = sizeof in;
        auto* address = reinterpret_cast<sockaddr*>(&in);
        EXPECT_EQ(bind(fds[0], address, length), 0);
        EXPECT_EQ(listen(fds[0], 1), 0);
        EXPECT_EQ(getsockname(fds[0], address, &length), 0);
        EXPECT_EQ(connect(fds[1], address, length), 0);
        fds.push_back(accept4(fds[0], nullptr, nullptr, SOCK_CLOEXEC));
        EXPECT_EQ(send(fds[1], "!", 1, MSG_OOB), 1);
        pollfd arrival{fd(), POLLPRI, 0};
        EXPECT_EQ(poll(&arrival, 1, 60'000), 1);
    }
    [[nodiscard]] int fd() const { return fds[2]; }
};

struct Dispatcher : testing::Test {
    std::vector<std::string> log;
    std::vector<std::int64_t> times;
    QELselector selector;

    /// An action that notes its call.
    auto note(const char* name, std::uint64_t result) {
        return [this, name, result](std::int64_t now) {
            log.emplace_back(name);
            times.push_back(now);
            return result;
        };
    }
};

TEST_F(Dispatcher, ServesWritersReadersExceptionsByDescriptorThenTimersInListOrder) {
    rlimit limit{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
    limit.rlim_cur = std::max<rlim_t>(limit.rlim_cur, QELselector::descriptorLimit);
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
    const UrgentEnd urgent; // a lower descriptor than the others
    const End low;
    const Descriptors high{fcntl(low.fd(), F_DUPFD_CLOEXEC, 1023)}; // the highest that fits
    ASSERT_EQ(high.fds[0], 1023);
    low.feed();
    Receiver write0(note("write 0", true));
    Receiver write1(note("write 1", true));
    Receiver read0(note("read 0", true));
    Receiver read1(note("read 1", true));
    Receiver except(note("except", true));
    Timer later(note("later", 0));
    Timer earlier(note("earlier", 0));

    selector.setTimer(&later, longAgo + 1);
    selector.setTimer(&earlier, longAgo);
    ASSERT_TRUE(selector.addExcept(&except, urgent.fd()));
    ASSERT_TRUE(selector.addRead(&read1, high.fds[0]));
    ASSERT_TRUE(selector.addRead(&read0, low.fd()));
    ASSERT_TRUE(selector.addWrite(&write1, high.fds[0]));
    ASSERT_TRUE(selector.addWrite(&write0, low.fd()));
    const std::int64_t before = QELselector::nowUs();
    ASSERT_EQ(selector.runOnce(), 0);
    EXPECT_THAT(
        log, ElementsAre("write 0", "write 1", "read 0", "read 1", "except", "later", "earlier"));
    EXPECT_THAT(times, testing::Each(times.front()));
    EXPECT_GE(times.front(), before);
}

/// A dispatcher and a plain model of it, side by side. Every callback first checks that it is the
/// one the model expects next, then changes registrations at random in both.
struct SideBySide {
    static constexpr std::size_t receiverCount = 5;
    using Entries = std::map<std::size_t, std::size_t>; // index of the end: of the receiver

    std::mt19937 random{20240229};
    std::array<End, 6> ends; // the even ones are readable, all are writable
    Impatient selector;
    std::array<std::unique_ptr<Receiver>, receiverCount> receivers;
    std::size_t calls{0};

    std::array<Entries, 2> entries; // for writing, for reading
    std::array<Entries, 2> watched; // the entries when the cycle began
    std::array<bool, receiverCount> linked{};
    std::size_t group{0}; // the one being served, and what is still to be looked at in it
    std::optional<Entries> snapshot;

    SideBySide() {
        for (std::size_t i = 0; i < ends.size(); i += 2) {
            ends[i].feed();
        }
        for (std::size_t id = 0; id < receiverCount; ++id) {
            create(id);
        }
    }

    std::size_t below(std::size_t limit) { return random() % limit; }

    void create(std::size_t id) {
        receivers[id] = std::make_unique<Receiver>([this, id](auto) { return called(id); });
    }

    void change() {
        const std::size_t id = below(receiverCount);
        const std::size_t which = below(2);
        const std::size_t what = below(8);
        QELselRcv* const receiver = receivers[id].get();
        Entries& model = entries[which];
        const auto first = std::ranges::find(model, id, &Entries::value_type::second);
        if (what == 0) { // the old one is destroyed
            create(id);
            for (Entries& either : entries) {
                std::erase_if(either, [id](const auto& entry) { return entry.second == id; });
            }
            linked[id] = false;
        } else if (what < 3) {
            const bool byReceiver = what == 1;
            if (byReceiver) {
                which == 0 ? receiver->selRemoveWrite() : receiver->selRemoveRead();
            } else {
                which == 0 ? selector.removeWrite(receiver) : selector.removeRead(receiver);
            }
            if (first != model.end() && (linked[id] || !byReceiver)) {
                model.erase(first);
            }
            linked[id] = linked[id] && !byReceiver;
        } else {
            const std::size_t end = below(ends.size());
            EXPECT_TRUE(which == 0 ? selector.addWrite(receiver, ends[end].fd())
                                   : selector.addRead(receiver, ends[end].fd()));
            model[end] = id;
            linked[id] = true;
        }
    }

    /// The end to be served next, in the group left in `group`.
    std::optional<std::size_t> next() {
        for (; group < entries.size(); ++group, snapshot.reset()) {
            if (!snapshot) {
                snapshot = entries[group];
            }
            while (!snapshot->empty()) {
                const std::size_t end = snapshot->extract(snapshot->begin()).key();
                const bool ready = watched[group].contains(end) && (group == 0 || end % 2 == 0);
                if (ready && entries[group].contains(end)) {
                    return end;
                }
            }
        }
        return std::nullopt;
    }

    bool called(std::size_t id) {
        ++calls;
        const std::optional<std::size_t> end = next();
        if (!end) {
            ADD_FAILURE() << "a call too many";
            return true;
        }
        EXPECT_EQ(entries[group][*end], id);
        for (std::size_t count = below(3); count > 0; --count) {
            change();
        }
        const bool keep = below(3) > 0;
        const auto entry = entries[group].find(*end);
        if (!keep && entry != entries[group].end()) {
            linked[entry->second] = false;
            entries[group].erase(entry);
        }
        return keep;
    }

    void cycle() {
        for (std::size_t count = below(4); count > 0; --count) {
            change();
        }
        watched = entries;
        group = 0;
        snapshot.reset();
        ASSERT_EQ(selector.runOnce(), 0);
        ASSERT_EQ(next(), std::nullopt) << "a ready receiver was not called";
        for (std::size_t id = 0; id < receiverCount; ++id) {
            ASSERT_EQ(receivers[id]->selector, linked[id] ? &selector : nullptr);
        }
    }
};

TEST(Dispatch, StaysRightWhileCallbacksRegisterReplaceRemoveAndDestroyReceivers) {
    constexpr std::size_t cycles = 20'000;
    SideBySide both;
    for (std::size_t i = 0; i < cycles && !testing::Test::HasFailure(); ++i) {
        both.cycle();
    }
    EXPECT_GT(both.calls, cycles);
}

TEST_F(Dispatcher, RefusesDescriptorsOutsideTheSetsAndAnyWhenFull) {
    using Add = bool (QELselector::*)(QELselRcv*, std::int32_t);
    using Remove = void (QELselector::*)(const QELselRcv*);
    const std::array<std::pair<Add, Remove>, 3> groups{{
        {&QELselector::addWrite, &QELselector::removeWrite},
        {&QELselector::addRead, &QELselector::removeRead},
        {&QELselector::addExcept, &QELselector::removeExcept},
    }};
    for (const auto& [add, remove] : groups) {
        Receiver receiver(note("", true));
        Receiver other(note("", true));
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
    const End end;
    end.feed();
    const std::vector<std::pair<std::int32_t, std::optional<std::int32_t>>> table{
        {7, {}},     {-1, {}},        {-3146, {}}, {-3147, {}},
        {-3148, {}}, {INT32_MIN, {}}, {1, 0},      {5, -3146}};
    for (const auto& [byReceiver, byTimer] : table) {
        Impatient selector;
        Receiver receiver([&, code = byReceiver](auto) { return receiver.selExit(code), false; });
        Timer timer([&, code = byTimer](auto) { return timer.selExit(*code), 0; });
        selector.addRead(&receiver, end.fd());
        if (byTimer) {
            selector.setTimer(&timer, longAgo);
        }
        selector.setExitCode(99); // between cycles: lost
        EXPECT_EQ(selector.runOnce(), byTimer.value_or(byReceiver));
        EXPECT_EQ(selector.runOnce(), 0) << byReceiver << " outlived its cycle";
    }
}

TEST_F(Dispatcher, FailsOnASignalAndKeepsRegistrationsAndTimers) {
    struct sigaction handler {};
    handler.sa_handler = [](int) {
    };
    ASSERT_EQ(sigaction(SIGALRM, &handler, nullptr), 0);
    // Repeated, so that one arrives during the wait however slow the machine is.
    itimerval interval{{0, 10'000}, {0, 10'000}};
    ASSERT_EQ(setitimer(ITIMER_REAL, &interval, nullptr), 0);
    const End end;
    Receiver receiver(note("receiver", true));
    Timer timer(note("timer", 0));
    for (int i = 0; i < 2; ++i) { // first with nothing to wait for
        errno = 0;
        EXPECT_EQ(selector.runOnce(), -3148);
        EXPECT_EQ(errno, EINTR);
        selector.addRead(&receiver, end.fd());
        selector.setTimer(&timer, never);
    }
    interval = {};
    ASSERT_EQ(setitimer(ITIMER_REAL, &interval, nullptr), 0);
    end.feed();
    EXPECT_EQ(selector.runOnce(), 0);
    EXPECT_THAT(log, ElementsAre("receiver"));
    EXPECT_TRUE(timer.armed);
}

TEST_F(Dispatcher, FailsOnAClosedDescriptorBeforeAnyCallback) {
    std::optional<End> closed(std::in_place);
    const End open;
    Receiver gone(note("gone", true));
    Receiver receiver(note("receiver", true));
    Timer timer(note("timer", 0));
    selector.addWrite(&gone, closed->fd());
    selector.addWrite(&receiver, open.fd());
    selector.setTimer(&timer, longAgo);
    closed.reset();
    EXPECT_EQ(selector.runOnce(), -3148);
    EXPECT_EQ(errno, EBADF);
    gone.selRemoveWrite();
    EXPECT_EQ(selector.runOnce(), 0);
    EXPECT_THAT(log, ElementsAre("receiver", "timer"));
}

TEST_F(Dispatcher, FiresTimersAtTheirDeadlineAndNotBefore) {
    const End quiet;
    Receiver receiver(note("receiver", true));
    Timer far(note("far", 0));
    Timer soon(note("soon", 0));
    Timer exact(note("exact", 0));
    Timer cancelled(note("cancelled", 0));
    Timer first([&](std::int64_t now) {
        cancelled.cancel();
        // The list that is being walked grows.
        selector.setTimer(&soon, static_cast<std::uint64_t>(now) + 1);
        selector.setTimer(&exact, static_cast<std::uint64_t>(now));
        return 0;
    });
    selector.addRead(&receiver, quiet.fd());
    selector.setTimer(&far, never);
    selector.setTimer(&first, longAgo);
    selector.setTimer(&cancelled, longAgo);
    ASSERT_EQ(selector.runOnce(), 0);
    EXPECT_THAT(log, ElementsAre("exact"));
    ASSERT_EQ(selector.runOnce(), 0);
    EXPECT_THAT(log, ElementsAre("exact", "soon"));

    // The disarmed and cancelled do not shorten the wait. It is more than a second, so that both
    // parts of the timeout count.
    selector.setTimer(&soon, longAgo);
    soon.cancel();
    EXPECT_FALSE(soon.armed);
    constexpr std::int64_t delay = 1'020'000;
    const std::int64_t before = QELselector::nowUs();
    ASSERT_TRUE(exact.setTimeout(delay));
    ASSERT_EQ(selector.runOnce(), 0);
    EXPECT_THAT(log, ElementsAre("exact", "soon", "exact"));
    EXPECT_GE(times.back(), before + delay);
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

TEST(Lifetime, ReceiverTimerAndDispatcherMayGoInAnyOrder) {
    enum Variant { registered, linkWithoutEntry, entryWithoutLink, movedAway, cameBack };
    const End end;
    Receiver other([](auto) { return true; });
    Impatient elsewhere;
    for (const auto variant :
         {registered, linkWithoutEntry, entryWithoutLink, movedAway, cameBack}) {
        std::array<int, 3> order{0, 1, 2};
        do {
            SCOPED_TRACE(std::to_string(variant) + testing::PrintToString(order));
            auto selector = std::make_unique<Impatient>();
            auto receiver = std::make_unique<Receiver>([](auto) { return true; });
            auto timer = std::make_unique<Timer>([](auto) { return longAgo; });
            const auto putOn = [&](QELselector& dispatcher) {
                dispatcher.addWrite(receiver.get(), end.fd());
                dispatcher.setTimer(timer.get(), longAgo);
            };
            putOn(*selector);
            if (variant == linkWithoutEntry) {
                selector->addWrite(&other, end.fd());
            } else if (variant == entryWithoutLink) {
                receiver->selRemoveRead();
            } else if (variant != registered) {
                putOn(elsewhere);
            }
            if (variant == cameBack) {
                putOn(*selector);
            }
            for (const int victim : order) {
                if (victim == 0) {
                    selector.reset();
                    QELselector* const left = variant == movedAway ? &elsewhere : nullptr;
                    EXPECT_TRUE(!receiver || receiver->selector == left);
                    EXPECT_TRUE(!timer || timer->selector == left);
                } else if (victim == 1) {
                    receiver.reset();
                } else {
                    timer.reset();
                }
                // Whoever is still called must still be there.
                EXPECT_EQ(selector ? selector->runOnce() : 0, 0);
                EXPECT_EQ(elsewhere.runOnce(), 0);
            }
        } while (std::ranges::next_permutation(order).found);
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
