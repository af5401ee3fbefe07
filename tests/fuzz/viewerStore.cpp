// Received bytes and filter changes into the viewer's store. The input is a row of texts to append;
// between two of them stand the byte 0xFF and one below 0x80, whose low three bits say what to do
// and the four above them with which number.

#include "QELloggerSyslogFmt.h"
#include "check.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <iostream>
#include <list>
#include <map>
#include <sstream>
#include <string>
#include <string_view>
#include <tuple>
#include <vector>

namespace {

constexpr unsigned char mark = 0xFF;
const std::array<std::string, 4> names{"sip", "nmos", "a", ""};
constexpr std::array<std::uint32_t, 4> capacities{0, 1, 200, 1000};
constexpr std::string_view digits = "0123456789";

/// What the store, its filters and the console are to hold: the same rules, written down a second
/// time, simple and slow.
class Reference {
  public:
    std::list<QELloggerSyslogMsg> messages;
    std::size_t capacity = QELloggerSyslogFmt::defaultCapacity;
    std::map<std::string, bool> shown{{"sip", true}, {"nmos", true}};
    int maxSeverity = 7;
    bool echo = true;
    std::string console;

    static bool headerAt(std::string_view text, std::size_t position) {
        const std::size_t end = text.find_first_not_of(digits, position + 1);
        return text.substr(position, 1) == "<" && end != std::string_view::npos &&
               end > position + 1 && text[end] == '>' && startsWithDigit(text.substr(end + 1));
    }

    void append(std::string_view text) {
        std::vector<std::size_t> bounds;
        for (std::size_t position = 0; position < text.size(); ++position) {
            if (headerAt(text, position)) {
                bounds.push_back(position);
            }
        }
        if (bounds.empty()) {
            bounds.push_back(0);
        }
        bounds.push_back(text.size());
        for (std::size_t i = 0; i + 1 < bounds.size(); ++i) {
            const std::string_view message = text.substr(bounds[i], bounds[i + 1] - bounds[i]);
            if (QELloggerSyslogMsg record; extract(message, record)) {
                if (bytes() + message.size() > capacity && !messages.empty()) {
                    messages.pop_front();
                }
                messages.push_back(record);
                print(line(record));
            }
        }
    }

    std::size_t bytes() const {
        std::size_t sum = 0;
        for (const QELloggerSyslogMsg& record : messages) {
            sum += record.raw.size();
        }
        return sum;
    }

    /// The record's line on the console; empty unless it passes the filters.
    std::string line(const QELloggerSyslogMsg& record) const {
        const auto entry = shown.find(record.appName);
        if (entry == shown.end() || !entry->second || record.facility > 23 ||
            record.severity > maxSeverity) {
            return {};
        }
        return record.timestamp + record.appName + " " + record.procId + "-" +
               std::to_string(record.severity) + ": " + record.text + "\r\n";
    }

    void show(const std::string& name, bool value) {
        if (const auto entry = shown.find(name); entry != shown.end()) {
            entry->second = value;
            print("------ " + name + (value ? " enabled\r\n" : " disabled\r\n"));
        }
    }

    void showAll(bool value) {
        for (auto& entry : shown) {
            entry.second = value;
        }
        print(value ? "------ all enabled\r\n" : "------ all disabled\r\n");
    }

  private:
    static bool startsWithDigit(std::string_view text) {
        return !text.empty() && digits.find(text[0]) != std::string_view::npos;
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
        const std::size_t text = message.find(" - ");
        // The last token has no blank behind it.
        if (tokens.size() < 6 || open == std::string_view::npos ||
            !startsWithDigit(message.substr(open + 1)) ||
            message.find('>') == std::string_view::npos || text == std::string_view::npos) {
            return false;
        }
        std::int64_t priority = 0;
        for (std::size_t i = open + 1; startsWithDigit(message.substr(i)); ++i) {
            priority = std::min<std::int64_t>(priority * 10 + (message[i] - '0'), INT32_MAX);
        }
        std::replace(tokens[1].begin(), tokens[1].end(), 'T', ' ');
        std::replace(tokens[1].begin(), tokens[1].end(), 'Z', ' ');
        record = {.facility = static_cast<std::int32_t>(priority / 8),
                  .severity = static_cast<std::int32_t>(priority % 8),
                  .appName = tokens[3],
                  .procId = tokens[4],
                  .timestamp = tokens[1],
                  .text = std::string(message.substr(text + 3)),
                  .raw = std::string(message)};
        return true;
    }

    void print(const std::string& text) {
        if (echo) {
            console += text;
        }
    }
};

void change(unsigned operation, QELloggerSyslogFmt& store, Reference& reference) {
    const unsigned number = operation >> 3;
    const std::string& name = names[number % names.size()];
    switch (operation & 7) {
    case 1:
        store.setMaxSeverity(number);
        reference.maxSeverity = number < 8 ? static_cast<int>(number) : reference.maxSeverity;
        break;
    case 2:
        store.enableComponent(name);
        reference.show(name, true);
        break;
    case 3:
        store.disableComponent(name);
        reference.show(name, false);
        break;
    case 4:
        store.setAllComponents(number % 2 == 1);
        reference.showAll(number % 2 == 1);
        break;
    case 5:
        store.clear();
        reference.messages.clear();
        break;
    case 6: {
        const std::uint32_t capacity = capacities[number / 4];
        store.addComponents(capacity, {name});
        reference.capacity = capacity != 0 ? capacity : reference.capacity;
        reference.shown[name] = true;
        break;
    }
    case 7:
        store.consoleEcho = !store.consoleEcho;
        reference.echo = !reference.echo;
        break;
    default: // only ends the text
        break;
    }
}

void requireOutputsKept(std::string_view text) {
    for (const auto get : {QELloggerSyslogFmt::getAppName, QELloggerSyslogFmt::getProcId,
                           QELloggerSyslogFmt::getTimestamp, QELloggerSyslogFmt::getText}) {
        std::string out = "kept";
        require(get(text, out) == 0 || out == "kept", "what is not found leaves the output");
    }
}

void requireSame(const QELloggerSyslogFmt& store, const Reference& reference) {
    const auto fields = [](const QELloggerSyslogMsg& record) {
        return std::tie(record.facility, record.severity, record.appName, record.procId,
                        record.timestamp, record.text, record.raw);
    };
    require(store.byteCount == reference.bytes(), "byteCount is the sum of the raw sizes");
    require(std::equal(store.messages.begin(), store.messages.end(), reference.messages.begin(),
                       reference.messages.end(),
                       [fields](const auto& a, const auto& b) { return fields(a) == fields(b); }),
            "the store holds the messages of the text");
    require(store.newestRaw() == (store.messages.empty() ? "" : store.messages.back().raw),
            "the newest message is the last one");

    std::string lines;
    std::string raw;
    std::size_t count = 0;
    bool headed = true; // one without a header is a message only while it stands alone
    for (const QELloggerSyslogMsg& record : reference.messages) {
        if (const std::string line = reference.line(record); !line.empty()) {
            lines += line;
            raw += record.raw;
            headed = headed && Reference::headerAt(record.raw, 0);
            ++count;
        }
    }
    std::string listing = "left over";
    require(store.allMessages(listing, true) == lines.size() && listing == lines,
            "the listing shows what passes the filters");
    require(store.allMessages(listing, false) == raw.size() && listing == raw,
            "the raw listing is what passes the filters");
    QELloggerSyslogFmt receiver;
    receiver.append(listing);
    require(!headed || count == 0 || receiver.messages.size() == count,
            "who is sent the raw listing finds the same messages in it");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size) {
    QELloggerSyslogFmt store;
    Reference reference;
    store.addComponents(0, {"sip", "nmos"});
    store.consoleEcho = true;
    std::ostringstream console;
    std::streambuf* const standardOutput = std::cout.rdbuf(console.rdbuf());

    for (std::size_t begin = 0; begin <= size;) {
        std::size_t end = begin;
        while (end < size && !(data[end] == mark && end + 1 < size && data[end + 1] < 0x80)) {
            ++end;
        }
        const std::string_view piece = asText(data + begin, end - begin);
        const std::vector<char> exact(piece.begin(), piece.end()); // nothing behind its end
        store.append({exact.data(), exact.size()});
        reference.append(piece);
        requireOutputsKept({exact.data(), exact.size()});
        if (end < size) {
            change(data[end + 1], store, reference);
        }
        begin = end + 2;
    }

    std::cout.rdbuf(standardOutput);
    require(console.str() == reference.console, "the console shows what passes the filters");
    requireSame(store, reference);
    return 0;
}
