// Texts to append to the viewer's store. Between two of them stand 0xFF and a byte: its low three
// bits say which filter to change, the next four with which number.

#include "QELloggerSyslogFmt.h"
#include "check.h"

#include <algorithm>
#include <iostream>
#include <vector>

using Store = QELloggerSyslogFmt;

static const std::string names[] = {"sip", "nmos", "a", ""};
static void (*const changes[])(Store&, unsigned) = {
    [](Store& s, unsigned number) { s.setMaxSeverity(number); },
    [](Store& s, unsigned number) { s.enableComponent(names[number % 4]); },
    [](Store& s, unsigned number) { s.disableComponent(names[number % 4]); },
    [](Store& s, unsigned number) { s.setAllComponents(number % 2 == 1); },
    [](Store& s, unsigned number) { s.addComponents(100 * number, {names[number % 4]}); },
    [](Store& s, unsigned number) {
        number > 12 ? s.clear() : s.append("<14>1 t d a p - x");
    }};

static void requireWhole(const Store& store) {
    std::string all;
    std::string shown;
    bool headed = true; // a text without a header is a message only while it stands alone
    for (const QELloggerSyslogMsg& record : store.messages) {
        std::size_t unused = 0;
        headed = headed && Store::findHeader(record.raw, unused, unused);
        all += record.raw;
        shown += store.passesFilters(record) ? record.raw : "";
    }
    require(store.byteCount == all.size(), "the bytes add up");
    std::string listing = "left over";
    require(store.allMessages(listing, false) == shown.size() && listing == shown,
            "the listing is what passes the filters");
    Store again;
    again.append(all);
    constexpr auto raw = &QELloggerSyslogMsg::raw;
    require(!headed || std::ranges::equal(again.messages, store.messages, {}, raw, raw),
            "cutting again gives the same messages");
}

void target(std::string_view input) {
    Store store;
    store.addComponents(0, {"sip", "nmos"});
    std::cout.rdbuf(nullptr); // where the echo goes
    store.consoleEcho = true;
    while (!input.empty()) {
        const std::size_t end = std::min(input.find('\xFF'), input.size());
        const std::vector<char> exact(input.begin(), input.begin() + end); // nothing behind its end
        store.append({exact.data(), exact.size()});
        const unsigned change =
            end + 1 < input.size() ? static_cast<unsigned char>(input[end + 1]) : 0x38;
        changes[(change & 7U) % std::size(changes)](store, change >> 3U & 15U);
        input.remove_prefix(std::min(input.size(), end + 2));
    }
    requireWhole(store);
}
