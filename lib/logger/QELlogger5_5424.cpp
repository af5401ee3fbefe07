#include "QELlogger5_5424.h"

#include "QELlogger5line.h"

#include <atomic>
#include <sys/mman.h>
#include <unistd.h>

namespace {

/// A place for one process id that reads 0 in a new process, in whatever way that was forked: the
/// kernel empties it. Null where it cannot (Linux before 4.14).
pid_t* emptiedByFork() {
    void* page =
        mmap(nullptr, sizeof(pid_t), PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (page == MAP_FAILED) {
        return nullptr;
    }
    if (madvise(page, sizeof(pid_t), MADV_WIPEONFORK) != 0) {
        munmap(page, sizeof(pid_t));
        return nullptr;
    }
    return static_cast<pid_t*>(page);
}

pid_t* const keptProcessId = emptiedByFork(); // for the life of the process

/// getpid() without a system call per line, which would take longer than the rest of the line.
pid_t processId() {
    if (keptProcessId == nullptr) {
        return getpid();
    }
    const std::atomic_ref<pid_t> kept(*keptProcessId);
    pid_t id = kept.load(std::memory_order_relaxed);
    if (id == 0) {
        id = getpid();
        kept.store(id, std::memory_order_relaxed);
    }
    return id;
}

} // namespace

std::string QELlogger5_5424::format(int severity, std::string_view hostName,
                                    std::string_view appName, std::string_view text) const {
    return formatAt(QELlogger5::utcNowUs(), severity, hostName, appName, text);
}

std::string QELlogger5_5424::formatAt(std::uint64_t time, int severity, std::string_view hostName,
                                      std::string_view appName, std::string_view text) {
    const QELlogger5::TimeParts utc = QELlogger5::breakDownUtc(time);
    QELlogger5line<maxLine> line;
    line.priority(severity);
    line.text("1 ");
    line.number(utc.year);
    line.text("-");
    line.number(utc.month, 2);
    line.text("-");
    line.number(utc.day, 2);
    line.text("T");
    line.timeOfDay(utc);
    line.text(".");
    line.number(utc.microsecond / 1000, 3);
    line.text("Z ");
    line.text(hostName);
    line.text(" ");
    line.text(appName);
    line.text(" ");
    line.number(processId());
    line.text(" - ");
    line.text(text);
    return line.finish();
}
