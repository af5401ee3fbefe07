// Texts to append to the viewer's store. Between two of them stand 0xFF and a byte: the store's new
// limit in tens of bytes, 0 to clear it.

#include "QELloggerSyslogFmt.h"
#include "check.h"

#include <algorithm>
#include <iostream>
#include <vector>

using Store = QELloggerSyslogFmt;

static void requireWhole(const Store& store) {
    std::string all;
    bool headed = true; // a text without a header is a message only while it stands alone
    for (const QELloggerSyslogMsg& record : store.messages) {
        std::size_t unused = 0;
        headed = headed && Store::findHeader(record.raw, unused, unused);
        all += record.raw;
    }
    require(store.byteCount == all.size(), "the bytes add up");
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
        const unsigned char limit = end + 1 < input.size() ? input[end + 1] : 255;
        limit == 0 ? store.clear() : store.addComponents(10U * limit, {});
        input.remove_prefix(std::min(input.size(), end + 2));
    }
    requireWhole(store);
}
