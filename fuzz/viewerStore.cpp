// Received bytes and filter changes into the viewer's store. The input is a row of texts to append;
// between two of them stand the byte 0xFF and one below 0x80, whose low three bits say what to do
// and the four above them with which number.

#include "QELloggerSyslogFmt.h"
#include "StoreReference.h"
#include "check.h"

#include <array>
#include <iostream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

namespace {

constexpr unsigned char mark = 0xFF;
const std::array<std::string, 4> names{"sip", "nmos", "a", ""};
constexpr std::array<std::uint32_t, 4> capacities{0, 1, 200, 1000};

/// The filters and the console output that the store is to have.
class ViewerReference : public StoreReference {
  public:
    std::map<std::string, bool> shown{{"sip", true}, {"nmos", true}};
    int maxSeverity = 7;
    bool echo = true;
    std::string console;

    void append(std::string_view text) {
        for (const QELloggerSyslogMsg& record : StoreReference::append(text)) {
            print(line(record));
        }
    }

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
    void print(const std::string& text) {
        if (echo) {
            console += text;
        }
    }
};

void change(unsigned operation, QELloggerSyslogFmt& store, ViewerReference& reference) {
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

/// A raw listing is what a server sends: another viewer must find the same messages in it.
void requireSameWhenSentOn(const QELloggerSyslogFmt& store) {
    QELloggerSyslogFmt sender;
    std::vector<std::string> raws;
    for (const QELloggerSyslogMsg& record : store.messages) {
        // One without a header of its own is a message only while it stands alone.
        if (StoreReference::headerAt(record.raw, 0)) {
            sender.append(record.raw);
            sender.addComponents(0, {record.appName});
            if (record.facility < static_cast<int>(QELloggerSyslogFmt::facilityCount)) {
                raws.push_back(record.raw);
            }
        }
    }
    std::string listing;
    sender.allMessages(listing, false);
    QELloggerSyslogFmt receiver;
    receiver.append(listing);
    require(raws.empty() ||
                std::equal(raws.begin(), raws.end(), receiver.messages.begin(),
                           receiver.messages.end(),
                           [](const std::string& raw, const QELloggerSyslogMsg& record) {
                               return raw == record.raw;
                           }),
            "a raw listing holds the same messages");
}

void requireOutputsKept(std::string_view text) {
    const std::string kept = "kept";
    for (const auto get : {QELloggerSyslogFmt::getAppName, QELloggerSyslogFmt::getProcId,
                           QELloggerSyslogFmt::getTimestamp, QELloggerSyslogFmt::getText}) {
        std::string out = kept;
        require(get(text, out) == 0 || out == kept, "what is not found leaves the output");
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size) {
    QELloggerSyslogFmt store;
    ViewerReference reference;
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
    reference.requireSame(store);
    require(console.str() == reference.console, "the console shows what passes the filters");
    std::string listing;
    std::string expected;
    for (const QELloggerSyslogMsg& record : reference.messages) {
        expected += reference.line(record);
    }
    require(store.allMessages(listing, true) == listing.size() && listing == expected,
            "the listing shows what passes the filters");
    requireSameWhenSentOn(store);
    return 0;
}
