#pragma once

#include "QELloggerSyslogFmt.h"
#include "check.h"

#include <algorithm>
#include <cctype>
#include <cstddef>
#include <cstdint>
#include <list>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

/// What the message store is to hold: the same rules, written down a second time, simple and slow.
class StoreReference {
  public:
    std::list<QELloggerSyslogMsg> messages;
    std::size_t capacity = QELloggerSyslogFmt::defaultCapacity;

    static bool headerAt(std::string_view text, std::size_t position) {
        if (position >= text.size() || text[position] != '<') {
            return false;
        }
        const std::size_t end = text.find_first_not_of("0123456789", position + 1);
        return end != std::string_view::npos && end > position + 1 && text[end] == '>' &&
               end + 1 < text.size() && isDigit(text[end + 1]);
    }

    /// The messages that @p text holds, in order, stored or not.
    static std::vector<std::string_view> cut(std::string_view text) {
        std::vector<std::size_t> starts;
        for (std::size_t position = 0; position < text.size(); ++position) {
            if (headerAt(text, position)) {
                starts.push_back(position);
            }
        }
        if (starts.empty()) {
            return {text};
        }
        std::vector<std::string_view> pieces;
        for (std::size_t i = 0; i < starts.size(); ++i) {
            const std::size_t end = i + 1 < starts.size() ? starts[i + 1] : text.size();
            pieces.push_back(text.substr(starts[i], end - starts[i]));
        }
        return pieces;
    }

    /// Stores what @p text holds. @return the messages stored, those that are gone again included
    std::vector<QELloggerSyslogMsg> append(std::string_view text) {
        std::vector<QELloggerSyslogMsg> stored;
        for (const std::string_view piece : cut(text)) {
            QELloggerSyslogMsg record;
            if (!extract(piece, record)) {
                continue;
            }
            if (bytes() + piece.size() > capacity && !messages.empty()) {
                messages.pop_front();
            }
            messages.push_back(record);
            stored.push_back(std::move(record));
        }
        return stored;
    }

    std::size_t bytes() const {
        std::size_t sum = 0;
        for (const QELloggerSyslogMsg& record : messages) {
            sum += record.raw.size();
        }
        return sum;
    }

    void requireSame(const QELloggerSyslogFmt& store) const {
        require(store.byteCount == bytes(), "byteCount is the sum of the raw sizes");
        require(std::equal(messages.begin(), messages.end(), store.messages.begin(),
                           store.messages.end(), sameRecord),
                "the store holds the messages of the text");
        require(store.newestRaw() == (messages.empty() ? "" : messages.back().raw),
                "the newest message is the last one");
    }

  private:
    static bool isDigit(char c) { return std::isdigit(static_cast<unsigned char>(c)) != 0; }

    static bool sameRecord(const QELloggerSyslogMsg& a, const QELloggerSyslogMsg& b) {
        return a.facility == b.facility && a.severity == b.severity && a.appName == b.appName &&
               a.procId == b.procId && a.timestamp == b.timestamp && a.text == b.text &&
               a.raw == b.raw;
    }

    static bool extract(std::string_view message, QELloggerSyslogMsg& record) {
        std::vector<std::string> tokens{""};
        for (const char c : message) {
            if (c == ' ') {
                tokens.emplace_back();
            } else {
                tokens.back() += c;
            }
        }
        const std::size_t open = message.find('<');
        const std::size_t mark = message.find(" - ");
        // The last token has no blank behind it.
        if (tokens.size() < 6 || open == std::string_view::npos || open + 1 == message.size() ||
            !isDigit(message[open + 1]) || message.find('>') == std::string_view::npos ||
            mark == std::string_view::npos) {
            return false;
        }
        std::int64_t priority = 0;
        for (std::size_t i = open + 1; i < message.size() && isDigit(message[i]); ++i) {
            priority = std::min<std::int64_t>(priority * 10 + (message[i] - '0'), INT32_MAX);
        }
        std::string timestamp = tokens[1];
        for (char& c : timestamp) {
            c = c == 'T' || c == 'Z' ? ' ' : c;
        }
        record = {.facility = static_cast<std::int32_t>(priority / 8),
                  .severity = static_cast<std::int32_t>(priority % 8),
                  .appName = tokens[3],
                  .procId = tokens[4],
                  .timestamp = timestamp,
                  .text = std::string(message.substr(mark + 3)),
                  .raw = std::string(message)};
        return true;
    }
};
