#include "QELselector.h"

#include "QELselRcv.h"
#include "QELselTimer.h"

#include <algorithm>
#include <cassert>
#include <ctime>
#include <unistd.h>

namespace {

constexpr std::int64_t microsPerSecond{1'000'000};
constexpr std::int64_t nanosPerMicro{1'000};

/// Returns the set, or null if it is empty: that costs the system less to look at.
fd_set* fill(fd_set& set, const std::map<std::int32_t, QELselRcv*>& entries) {
    if (entries.empty()) {
        return nullptr;
    }
    FD_ZERO(&set);
    for (const auto& [descriptor, receiver] : entries) {
        FD_SET(descriptor, &set);
    }
    return &set;
}

/// One more than the highest descriptor.
int countOf(const std::map<std::int32_t, QELselRcv*>& entries) {
    return entries.empty() ? 0 : entries.rbegin()->first + 1;
}

} // namespace

QELselector::~QELselector() {
    for (QELselRcv* receiver : receivers) {
        receiver->selector = nullptr;
        receiver->registeredWith = nullptr;
    }
    for (const TimerEntry& entry : timers) {
        if (entry.timer != nullptr) {
            entry.timer->selector = nullptr;
        }
    }
}

bool QELselector::addWrite(QELselRcv* receiver, std::int32_t descriptor) {
    return add(writeEntries, receiver, descriptor);
}

bool QELselector::addRead(QELselRcv* receiver, std::int32_t descriptor) {
    return add(readEntries, receiver, descriptor);
}

bool QELselector::addExcept(QELselRcv* receiver, std::int32_t descriptor) {
    return add(exceptEntries, receiver, descriptor);
}

void QELselector::removeWrite(const QELselRcv* receiver) {
    remove(writeEntries, receiver);
}

void QELselector::removeRead(const QELselRcv* receiver) {
    remove(readEntries, receiver);
}

void QELselector::removeExcept(const QELselRcv* receiver) {
    remove(exceptEntries, receiver);
}

bool QELselector::setTimer(QELselTimer* timer, std::uint64_t deadline) {
    assert(timer != nullptr); // which the list would take for a cancelled one
    const auto entry = std::ranges::find(timers, timer, &TimerEntry::timer);
    if (entry != timers.end()) {
        entry->deadline = deadline;
    } else {
        timer->cancel(); // on another dispatcher
        timers.push_back({timer, deadline});
        timer->selector = this;
    }
    timer->armed = deadline != 0;
    return true;
}

void QELselector::cancelTimer(QELselTimer* timer) {
    assert(timer != nullptr);
    const auto entry = std::ranges::find(timers, timer, &TimerEntry::timer);
    if (entry != timers.end()) {
        entry->timer->selector = nullptr;
        entry->timer->armed = false;
        entry->timer = nullptr; // not erased: fireTimers() may be walking the list
    }
}

void QELselector::setExitCode(std::int32_t code) {
    exitCode = code;
}

std::int32_t QELselector::runOnce() {
    fd_set writable;
    fd_set readable;
    fd_set exceptional;
    const int count =
        std::max({countOf(writeEntries), countOf(readEntries), countOf(exceptEntries)});
    const std::uint64_t deadline = earliestDeadline();
    exitCode = 0;

    timespec timeout{};
    if (deadline != 0) {
        const auto now = static_cast<std::uint64_t>(nowUs());
        const std::uint64_t remaining = now < deadline ? deadline - now : 0;
        timeout.tv_sec = static_cast<time_t>(remaining / microsPerSecond);
        timeout.tv_nsec = static_cast<long>(remaining % microsPerSecond) * nanosPerMicro;
    }
    fd_set* const toWrite = fill(writable, writeEntries);
    fd_set* const toRead = fill(readable, readEntries);
    fd_set* const toExcept = fill(exceptional, exceptEntries);
    int ready =
        pselect(count, toRead, toWrite, toExcept, deadline != 0 ? &timeout : nullptr, nullptr);
    if (ready < 0) {
        return resultFailed;
    }

    const std::int64_t now = nowUs();
    dispatch(writeEntries, toWrite, ready, now);
    dispatch(readEntries, toRead, ready, now);
    dispatch(exceptEntries, toExcept, ready, now);
    fireTimers(now);
    return exitCode;
}

std::int64_t QELselector::nowUs() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return std::int64_t{now.tv_sec} * microsPerSecond + now.tv_nsec / nanosPerMicro;
}

void QELselector::sleepUs(unsigned microseconds) {
    usleep(microseconds);
}

bool QELselector::add(Entries& entries, QELselRcv* receiver, std::int32_t descriptor) {
    assert(receiver != nullptr);
    if (entries.size() >= maxEntries || descriptor < 0 || descriptor >= descriptorLimit) {
        return false;
    }
    if (receiver->registeredWith != this) {
        if (receiver->registeredWith != nullptr) {
            receiver->registeredWith->forget(*receiver);
        }
        receivers.push_back(receiver);
        receiver->registeredWith = this;
    }
    entries[descriptor] = receiver;
    receiver->selector = this;
    return true;
}

void QELselector::remove(Entries& entries, const QELselRcv* receiver) {
    const auto entry = std::ranges::find(entries, receiver, &Entries::value_type::second);
    if (entry != entries.end()) {
        entries.erase(entry);
    }
}

/// For a receiver that goes or is about to be registered elsewhere: leaves its links as they are.
void QELselector::forget(QELselRcv& receiver) {
    for (Entries* entries : {&writeEntries, &readEntries, &exceptEntries}) {
        std::erase_if(*entries, [&](const auto& entry) { return entry.second == &receiver; });
    }
    std::erase(receivers, &receiver);
}

/// Also drops the cancelled timers. Returns 0 when no timer is armed.
std::uint64_t QELselector::earliestDeadline() {
    std::erase_if(timers, [](const TimerEntry& entry) { return entry.timer == nullptr; });
    std::uint64_t earliest = 0;
    for (const TimerEntry& entry : timers) {
        if (entry.deadline != 0 && (earliest == 0 || entry.deadline < earliest)) {
            earliest = entry.deadline;
        }
    }
    return earliest;
}

/// Callbacks may change the entries at will, so it walks a copy of the ready descriptors and looks
/// each of them up again. Stops looking when all that pselect counted are found.
void QELselector::dispatch(Entries& entries, const fd_set* ready, int& readyCount,
                           std::int64_t now) {
    scratch.clear();
    scratch.reserve(entries.size());
    for (auto entry = entries.begin(); ready != nullptr && readyCount > 0 && entry != entries.end();
         ++entry) {
        if (FD_ISSET(entry->first, ready)) {
            scratch.push_back(entry->first);
            --readyCount;
        }
    }
    for (const std::int32_t descriptor : scratch) {
        auto entry = entries.find(descriptor);
        if (entry == entries.end() || entry->second->onReady(now)) {
            continue;
        }
        entry = entries.find(descriptor);
        if (entry != entries.end()) {
            entry->second->selector = nullptr;
            entries.erase(entry);
        }
    }
}

/// By index, and reading the entry again after each call, because callbacks may lengthen the list.
void QELselector::fireTimers(std::int64_t now) {
    // NOLINTNEXTLINE(modernize-loop-convert): the list may grow during the walk.
    for (std::size_t i = 0; i < timers.size(); ++i) {
        QELselTimer* const timer = timers[i].timer;
        const std::uint64_t deadline = timers[i].deadline;
        if (timer == nullptr || deadline == 0 || deadline > static_cast<std::uint64_t>(now)) {
            continue;
        }
        timer->armed = false;
        timers[i].deadline = 0;
        const std::uint64_t next = timer->onTimer(now);
        if (next != 0 && timers[i].timer != nullptr) {
            timers[i].timer->armed = true;
            timers[i].deadline = next;
        }
    }
}
