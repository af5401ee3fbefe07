#include "QELloggerSyslogFmt.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstddef>
#include <iostream>
#include <limits>

namespace {

constexpr std::string_view textMark = " - ";
constexpr std::string_view lineEnd = "\r\n";

// Positions of the fields, counted in blanks from the start of the message.
constexpr std::size_t timestampToken = 1;
constexpr std::size_t appNameToken = 3;
constexpr std::size_t procIdToken = 4;

constexpr bool isDigit(char c) {
    return c >= '0' && c <= '9';
}

/// The tokens that fields are in.
using Tokens = std::array<std::string_view, procIdToken + 1>;

/// Finds them. @return how many there are: one counts only if the blank that ends it exists
std::size_t split(std::string_view message, Tokens& tokens) {
    std::size_t found = 0;
    for (std::size_t blank = 0; found < tokens.size(); message.remove_prefix(blank + 1)) {
        blank = message.find(' ');
        if (blank == std::string_view::npos) {
            break;
        }
        tokens[found++] = message.substr(0, blank);
    }
    return found;
}

int getToken(std::string_view message, std::size_t position, std::string& out) {
    Tokens tokens;
    if (split(message, tokens) <= position) {
        return -1;
    }
    out = tokens[position];
    return 0;
}

/// What separates date and time, and ends them, becomes a blank.
void showAsTime(std::string& timestamp) {
    std::replace_if(
        timestamp.begin(), timestamp.end(), [](char c) { return c == 'T' || c == 'Z'; }, ' ');
}

/// Appends the display line; the caller has checked the filters.
void appendLine(const QELloggerSyslogMsg& record, std::string& out) {
    std::array<char, std::numeric_limits<std::int32_t>::digits10 + 2> severity{};
    const auto end = std::to_chars(severity.begin(), severity.end(), record.severity).ptr;
    out.append(record.timestamp).append(record.appName).append(1, ' ').append(record.procId);
    out.append(1, '-').append(severity.begin(), end).append(": ").append(record.text);
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
    std::string echo; // written at once: a listing is thousands of lines
    if (consoleEcho) {
        echo.reserve(text.size());
    }
    auto component = components.cend();
    for (bool more = true; more;) {
        std::size_t start = 0;
        std::size_t end = text.size();
        more = findMessage(text, start, end);
        if (store(text.substr(start, end - start)) && consoleEcho &&
            passesFilters(messages.back(), component)) {
            appendLine(messages.back(), echo);
            echo.append(lineEnd);
        }
        text.remove_prefix(end);
    }
    if (!echo.empty()) {
        std::cout << echo;
    }
}

bool QELloggerSyslogFmt::store(std::string_view message) {
    QELloggerSyslogMsg& record = messages.emplace_back();
    if (!extract(message, record)) {
        messages.pop_back();
        return false;
    }
    if (byteCount + message.size() > capacity && messages.size() > 1) {
        byteCount -= static_cast<std::uint32_t>(messages.front().raw.size());
        messages.pop_front();
    }
    byteCount += static_cast<std::uint32_t>(message.size());
    return true;
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
    auto none = components.cend();
    return passesFilters(record, none);
}

/// Looked up only where the program changes: in a listing this is what costs most.
bool QELloggerSyslogFmt::passesFilters(const QELloggerSyslogMsg& record, Component& entry) const {
    if (entry == components.end() || entry->first != record.appName) {
        entry = components.find(record.appName);
    }
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
    std::cout << line << lineEnd;
}

std::size_t QELloggerSyslogFmt::allMessages(std::string& out, bool formatted) const {
    out.clear();
    out.reserve(byteCount);
    auto component = components.cend();
    for (const QELloggerSyslogMsg& record : messages) {
        if (!passesFilters(record, component)) {
            continue;
        }
        if (formatted) {
            appendLine(record, out);
            out.append(lineEnd);
        } else {
            out.append(record.raw);
        }
    }
    return out.size();
}

const std::string& QELloggerSyslogFmt::newestRaw() const {
    static const std::string none;
    return messages.empty() ? none : messages.back().raw;
}

int QELloggerSyslogFmt::writeFile(const char* path) const {
    return QELloggerDump::write(messages, path);
}

int QELloggerSyslogFmt::dumpToFile(const char* target) {
    return dump.start(messages, target);
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
    Tokens tokens;
    if (parsePriority(message, record.facility, record.severity) < 0 ||
        split(message, tokens) < tokens.size() || getText(message, record.text) != 0) {
        return false;
    }
    record.appName = tokens[appNameToken];
    record.procId = tokens[procIdToken];
    record.timestamp = tokens[timestampToken];
    showAsTime(record.timestamp);
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
    showAsTime(timestamp);
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
