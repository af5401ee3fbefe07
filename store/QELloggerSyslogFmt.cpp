#include "QELloggerSyslogFmt.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <iostream>
#include <limits>
#include <memory>
#include <optional>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <utility>

namespace {

constexpr const char* temporaryDump = "/tmp/logger.txt";
constexpr const char* compressedDump = "/tmp/logger.txt.gz";
constexpr std::string_view textMark = " - ";

// Positions of the fields, counted in blanks from the start of the message.
constexpr int timestampToken = 1;
constexpr int appNameToken = 3;
constexpr int procIdToken = 4;

constexpr bool isDigit(char c) {
    return c >= '0' && c <= '9';
}

/// The k-th token, if the blank that ends it exists.
std::optional<std::string_view> token(std::string_view message, int k) {
    std::size_t begin = 0;
    for (;; --k) {
        const std::size_t blank = message.find(' ', begin);
        if (blank == std::string_view::npos) {
            return std::nullopt;
        }
        if (k == 0) {
            return message.substr(begin, blank - begin);
        }
        begin = blank + 1;
    }
}

int getToken(std::string_view message, int k, std::string& out) {
    const auto found = token(message, k);
    if (!found) {
        return -1;
    }
    out = *found;
    return 0;
}

/// Appends the display line; the caller has checked the filters.
void appendLine(const QELloggerSyslogMsg& record, std::string& out) {
    std::array<char, std::numeric_limits<std::int32_t>::digits10 + 2> severity{};
    const auto end = std::to_chars(severity.begin(), severity.end(), record.severity).ptr;
    out.append(record.timestamp).append(record.appName).append(1, ' ').append(record.procId);
    out.append(1, '-').append(severity.begin(), end).append(": ").append(record.text);
}

/// Owns a Unix-domain datagram socket, by which the end of a background job is noticed without
/// keeping a descriptor or a process for it: the job inherits a socket that has a name, and the
/// name is in use until the last process of the job has ended.
class JobSocket {
  public:
    explicit JobSocket(int flags) : fd(::socket(AF_UNIX, SOCK_DGRAM | flags, 0)) {}
    ~JobSocket() {
        if (fd >= 0) {
            ::close(fd);
        }
    }
    JobSocket(const JobSocket&) = delete;
    JobSocket& operator=(const JobSocket&) = delete;

    /// Takes a name of the kernel's choice (unix(7), autobind). @return the name; empty on failure
    [[nodiscard]] std::string takeName() const {
        sockaddr_un address{AF_UNIX, {}};
        socklen_t length = pathOffset;
        if (::bind(fd, generic(address), length) != 0) {
            return {};
        }
        length = sizeof address;
        return ::getsockname(fd, generic(address), &length) == 0
                   ? std::string(address.sun_path, length - pathOffset)
                   : std::string();
    }

    /// Whether some socket has the name.
    [[nodiscard]] bool finds(const std::string& name) const {
        sockaddr_un address{AF_UNIX, {}};
        name.copy(address.sun_path, sizeof address.sun_path);
        const auto length = static_cast<socklen_t>(pathOffset + name.size());
        return ::connect(fd, generic(address), length) == 0;
    }

  private:
    static constexpr socklen_t pathOffset = offsetof(sockaddr_un, sun_path);

    static sockaddr* generic(sockaddr_un& address) { return reinterpret_cast<sockaddr*>(&address); }

    int fd;
};

/// Whether the job has not yet moved the dump to its place. Once none of its files is left, it only
/// has to end; when files are left over from a job that failed, the name tells.
bool jobIsBusy(const std::string& jobName) {
    return !jobName.empty() &&
           (::access(temporaryDump, F_OK) == 0 || ::access(compressedDump, F_OK) == 0) &&
           JobSocket(SOCK_CLOEXEC).finds(jobName);
}

struct FileCloser {
    // NOLINTNEXTLINE(cppcoreguidelines-owning-memory): called by the owner
    void operator()(std::FILE* file) const { std::fclose(file); }
};
using File = std::unique_ptr<std::FILE, FileCloser>;

/// Opens a file for writing that may lie where everybody can plant something: neither a symbolic
/// link is followed nor a FIFO waited for.
File create(const char* path) {
    constexpr int flags = O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;
    constexpr mode_t everybody = 0666; // less the umask, as fopen(3)
    const int fd = ::open(path, flags, everybody);
    if (fd < 0) {
        return nullptr;
    }
    File file(::fdopen(fd, "w"));
    if (!file) {
        ::close(fd);
    }
    return file;
}

} // namespace

void QELloggerSyslogFmt::addComponents(std::uint32_t newCapacity,
                                       const std::vector<std::string>& names) {
    if (newCapacity != 0) {
        capacity = newCapacity;
    }
    for (const std::string& name : names) {
        components[name] = true;
    }
}

void QELloggerSyslogFmt::append(std::string_view text) {
    for (bool more = true; more;) {
        std::size_t start = 0;
        std::size_t end = text.size();
        more = findMessage(text, start, end);
        QELloggerSyslogMsg record;
        if (extract(text.substr(start, end - start), record)) {
            store(std::move(record));
        }
        text.remove_prefix(end);
    }
}

void QELloggerSyslogFmt::store(QELloggerSyslogMsg&& record) {
    const std::size_t length = record.raw.size();
    if (byteCount + length > capacity && !messages.empty()) {
        byteCount -= static_cast<std::uint32_t>(messages.front().raw.size());
        messages.pop_front();
    }
    byteCount += static_cast<std::uint32_t>(length);
    messages.push_back(std::move(record));
    if (consoleEcho && passesFilters(messages.back())) {
        printLine(formatMessage(messages.back()));
    }
}

void QELloggerSyslogFmt::clear() {
    messages.clear();
    byteCount = 0;
}

void QELloggerSyslogFmt::setMaxSeverity(std::uint32_t level) {
    if (level < severityCount) {
        maxSeverity = static_cast<std::int32_t>(level);
    }
}

void QELloggerSyslogFmt::enableComponent(std::string_view name) {
    setComponent(name, true);
}

void QELloggerSyslogFmt::disableComponent(std::string_view name) {
    setComponent(name, false);
}

void QELloggerSyslogFmt::setComponent(std::string_view name, bool value) {
    const auto entry = components.find(name);
    if (entry == components.end()) {
        return;
    }
    entry->second = value;
    if (consoleEcho) {
        std::cout << "------ " << name << (value ? " enabled\r\n" : " disabled\r\n");
    }
}

void QELloggerSyslogFmt::setAllComponents(bool value) {
    for (auto& entry : components) {
        entry.second = value;
    }
    if (consoleEcho) {
        std::cout << "------ all " << (value ? "enabled\r\n" : "disabled\r\n");
    }
}

bool QELloggerSyslogFmt::passesFilters(const QELloggerSyslogMsg& record) const {
    return passesFilters(record, components.find(record.appName));
}

bool QELloggerSyslogFmt::passesFilters(const QELloggerSyslogMsg& record, Component entry) const {
    const auto facility = static_cast<std::size_t>(record.facility);
    return entry != components.end() && entry->second && facility < facilityFlags.size() &&
           facilityFlags[facility] && minSeverity <= record.severity &&
           record.severity <= maxSeverity;
}

std::string QELloggerSyslogFmt::formatMessage(const QELloggerSyslogMsg& record) const {
    std::string line;
    if (passesFilters(record)) {
        appendLine(record, line);
    }
    return line;
}

void QELloggerSyslogFmt::printLine(std::string_view line) {
    std::cout << line << "\r\n";
}

std::size_t QELloggerSyslogFmt::allMessages(std::string& out, bool formatted) const {
    out.clear();
    out.reserve(byteCount);
    auto entry = components.end();
    for (const QELloggerSyslogMsg& record : messages) {
        // Looked up only where the program changes: in a listing this is what costs most.
        if (entry == components.end() || entry->first != record.appName) {
            entry = components.find(record.appName);
        }
        if (!passesFilters(record, entry)) {
            continue;
        }
        if (formatted) {
            appendLine(record, out);
            out.append("\r\n");
        } else {
            out.append(record.raw);
        }
    }
    return out.size();
}

std::string_view QELloggerSyslogFmt::newestRaw() const {
    return messages.empty() ? std::string_view{} : messages.back().raw;
}

int QELloggerSyslogFmt::writeFile(const char* path) const {
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

int QELloggerSyslogFmt::dumpToFile(const char* target) {
    if (jobIsBusy(jobName)) {
        return fileBusy;
    }
    const int written = writeFile(temporaryDump);
    if (written != fileWritten) {
        return written;
    }
    const std::string command = std::string("(gzip -f ") + temporaryDump + "; mv " + temporaryDump +
                                ".gz " + target + ".gz) &";
    const JobSocket inherited(0);
    jobName = inherited.takeName();
    return std::system(command.c_str()) == 0 ? fileWritten : fileNotCompressed;
}

bool QELloggerSyslogFmt::findHeader(std::string_view text, std::size_t& offset,
                                    std::size_t& length) {
    for (std::size_t start = text.find('<'); start != std::string_view::npos;
         start = text.find('<', start + 1)) {
        std::size_t end = start + 1;
        while (end < text.size() && isDigit(text[end])) {
            ++end;
        }
        if (end > start + 1 && end + 1 < text.size() && text[end] == '>' &&
            isDigit(text[end + 1])) {
            offset = start;
            length = end + 2 - start;
            return true;
        }
    }
    return false;
}

bool QELloggerSyslogFmt::findMessage(std::string_view text, std::size_t& start, std::size_t& end) {
    std::size_t offset = 0;
    std::size_t length = 0;
    if (!findHeader(text, offset, length)) {
        return false;
    }
    start = offset;
    end = text.size();
    const std::size_t body = offset + length;
    if (!findHeader(text.substr(body), offset, length)) {
        return false;
    }
    end = body + offset;
    return true;
}

bool QELloggerSyslogFmt::extract(std::string_view message, QELloggerSyslogMsg& record) {
    if (parsePriority(message, record.facility, record.severity) < 0 ||
        getAppName(message, record.appName) != 0 || getProcId(message, record.procId) != 0 ||
        getTimestamp(message, record.timestamp) != 0 || getText(message, record.text) != 0) {
        return false;
    }
    record.raw = message;
    return true;
}

int QELloggerSyslogFmt::parsePriority(std::string_view message, std::int32_t& facility,
                                      std::int32_t& severity) {
    const std::size_t open = message.find('<');
    if (open == std::string_view::npos || open + 1 == message.size() ||
        !isDigit(message[open + 1]) || message.find('>') == std::string_view::npos) {
        return -1;
    }
    std::int32_t priority = 0;
    const auto parsed =
        std::from_chars(message.data() + open + 1, message.data() + message.size(), priority);
    if (parsed.ec == std::errc::result_out_of_range) {
        priority = std::numeric_limits<std::int32_t>::max();
    }
    severity = priority % static_cast<std::int32_t>(severityCount);
    facility = (priority - severity) / static_cast<std::int32_t>(severityCount);
    return priority;
}

int QELloggerSyslogFmt::getAppName(std::string_view message, std::string& appName) {
    return getToken(message, appNameToken, appName);
}

int QELloggerSyslogFmt::getProcId(std::string_view message, std::string& procId) {
    return getToken(message, procIdToken, procId);
}

int QELloggerSyslogFmt::getTimestamp(std::string_view message, std::string& timestamp) {
    if (getToken(message, timestampToken, timestamp) != 0) {
        return -1;
    }
    std::replace_if(
        timestamp.begin(), timestamp.end(), [](char c) { return c == 'T' || c == 'Z'; }, ' ');
    return 0;
}

int QELloggerSyslogFmt::getText(std::string_view message, std::string& text) {
    const std::size_t mark = message.find(textMark);
    if (mark == std::string_view::npos) {
        return -1;
    }
    text = message.substr(mark + textMark.size());
    return 0;
}
