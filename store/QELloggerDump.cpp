#include "QELloggerDump.h"

#include <array>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <memory>
#include <poll.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr const char* temporaryFile = "/tmp/logger.txt";
constexpr const char* compressedFile = "/tmp/logger.txt.gz";

struct FileCloser {
    // NOLINTNEXTLINE(cppcoreguidelines-owning-memory): called by the owner
    void operator()(std::FILE* file) const { std::fclose(file); }
};
using File = std::unique_ptr<std::FILE, FileCloser>;

/// Opens a file for writing, empty. It is looked at through its descriptor, and only then
/// truncated: what lies under the name may change at any time.
File create(const char* path) {
    // Neither follows a symbolic link nor waits for the reader of a FIFO.
    constexpr int flags = O_WRONLY | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
    constexpr mode_t everybody = 0666; // less the umask, as fopen(3)
    const int fd = ::open(path, flags, everybody);
    if (fd < 0) {
        return nullptr;
    }
    struct stat status {};
    const bool ours = ::fstat(fd, &status) == 0 && S_ISREG(status.st_mode) &&
                      status.st_nlink == 1 && ::ftruncate(fd, 0) == 0;
    File file(ours ? ::fdopen(fd, "w") : nullptr);
    if (!file) {
        ::close(fd);
    }
    return file;
}

} // namespace

QELloggerDump::~QELloggerDump() {
    if (jobPipe >= 0) {
        ::close(jobPipe);
    }
}

QELloggerDump::Result QELloggerDump::write(const std::list<QELloggerSyslogMsg>& messages,
                                           const char* path) {
    File file = create(path);
    if (!file) {
        return fileNotOpened;
    }
    for (const QELloggerSyslogMsg& record : messages) {
        const std::size_t length = record.raw.size();
        if (std::fwrite(record.raw.data(), 1, length, file.get()) != length ||
            std::fputc('\n', file.get()) == EOF) {
            return fileShort;
        }
    }
    // Closing writes what is still buffered.
    return std::fclose(file.release()) == 0 ? fileWritten : fileShort;
}

QELloggerDump::Result QELloggerDump::start(const std::list<QELloggerSyslogMsg>& messages,
                                           const char* target) {
    if (jobIsBusy()) {
        return fileBusy;
    }
    if (const Result written = write(messages, temporaryFile); written != fileWritten) {
        return written;
    }
    const std::string command = std::string("(gzip -f ") + temporaryFile + "; mv " + temporaryFile +
                                ".gz " + target + ".gz) &";
    if (jobPipe >= 0) {
        ::close(jobPipe);
    }
    std::array<int, 2> ends = {-1, -1};
    if (::pipe2(ends.data(), O_CLOEXEC) == 0) { // else the job runs unwatched
        ::fcntl(ends[1], F_SETFD, 0);           // for the shell and all that it runs
    }
    jobPipe = ends[0];
    const int status = std::system(command.c_str());
    if (ends[1] >= 0) {
        ::close(ends[1]);
    }
    return status == 0 ? fileWritten : fileNotCompressed;
}

bool QELloggerDump::jobIsBusy() const {
    if (jobPipe < 0) {
        return false;
    }
    // A job that has moved its file only has to end; if it failed, files are left when it ends.
    const bool moved = ::access(temporaryFile, F_OK) != 0 && ::access(compressedFile, F_OK) != 0;
    pollfd pipe{jobPipe, 0, 0};
    ::poll(&pipe, 1, 0);
    return !moved && (pipe.revents & POLLHUP) == 0;
}
