#include "QELloggerSyslogFmt.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <deque>
#include <fstream>
#include <iostream>
#include <iterator>
#include <optional>
#include <random>
#include <regex>
#include <sstream>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace {

using Store = QELloggerSyslogFmt;

const std::vector<std::string> names = {"prothandler", "sip", "nmos", "router", "sap"};

/// What std::cout gets while this lives.
class CoutCapture {
  public:
    CoutCapture() : former(std::cout.rdbuf(captured.rdbuf())) {}
    ~CoutCapture() { std::cout.rdbuf(former); }
    CoutCapture(const CoutCapture&) = delete;
    CoutCapture& operator=(const CoutCapture&) = delete;
    std::string take() {
        std::string text = captured.str();
        captured.str("");
        return text;
    }

  private:
    std::ostringstream captured;
    std::streambuf* former;
};

std::string fieldsOf(const QELloggerSyslogMsg& record) {
    std::ostringstream fields;
    fields << record.facility << '|' << record.severity << '|' << record.appName << '|'
           << record.procId << '|' << record.timestamp << '|' << record.text << '|' << record.raw;
    return fields.str();
}

std::vector<std::string> stored(const std::string& text) {
    Store store;
    store.append(text);
    std::vector<std::string> records;
    std::transform(store.messages.begin(), store.messages.end(), std::back_inserter(records),
                   fieldsOf);
    return records;
}

TEST(Extraction, FieldsOfKnownTexts) {
    const std::string time = "2024-03-05T10:20:30.123Z";
    const std::string broken = "2024-03-05 10:20:30.123 ";
    const struct {
        std::string text;
        std::vector<std::string> records;
    } cases[] = {
        {"<14>1 " + time + " dev01 sip 412 - Call setup done",
         {"1|6|sip|412|" + broken + "|Call setup done|<14>1 " + time +
          " dev01 sip 412 - Call setup done"}},
        {"<11>1 " + time + " dev01 nmos 77 - link down<15>1 " + time +
             " dev01 router 9 - route added",
         {"1|3|nmos|77|" + broken + "|link down|<11>1 " + time + " dev01 nmos 77 - link down",
          "1|7|router|9|" + broken + "|route added|<15>1 " + time +
              " dev01 router 9 - route added"}},
        {"xx<14>1 t d sip 412 - ok", {"1|6|sip|412|t|ok|<14>1 t d sip 412 - ok"}},
        {"<14>1 t d sip 412 ok", {}},
        {"<14>1 t d sip - ok", {"1|6|sip|-|t|ok|<14>1 t d sip - ok"}},
        {"<14>Mar  5 10:20:30 dev01 app: a - b",
         {"1|6|10:20:30|dev01||b|<14>Mar  5 10:20:30 dev01 app: a - b"}},
        {"> <14 t d sip 1 - ok", {"1|6|d|sip|<14|ok|> <14 t d sip 1 - ok"}},
        {"<0>1 t d a p - ", {"0|0|a|p|t||<0>1 t d a p - "}},
        {"<999>1 ZTZ d a p - x", {"124|7|a|p|   |x|<999>1 ZTZ d a p - x"}},
        {"<99999999999>1 t d a p - x", {"268435455|7|a|p|t|x|<99999999999>1 t d a p - x"}},
        {"<2147483647>1 t d a p - x", {"268435455|7|a|p|t|x|<2147483647>1 t d a p - x"}},
        {"<14>1 2024-03-05T10:20:30+01:00 d a p - x",
         {"1|6|a|p|2024-03-05 10:20:30+01:00|x|<14>1 2024-03-05T10:20:30+01:00 d a p - x"}},
        {"<12<14>1 t d a p - x", {"1|6|a|p|t|x|<14>1 t d a p - x"}},
        {"<14>1", {}},
        {"", {}},
        {"<", {}},
        {"text <", {}},
        {"<14>1 t d a p - x<15>1", {"1|6|a|p|t|x|<14>1 t d a p - x"}},
        {"<14>1 t d a p - x<", {"1|6|a|p|t|x<|<14>1 t d a p - x<"}},
        {"<14>1 t d a p - one\n<14>1 t d a p - two\n",
         {"1|6|a|p|t|one\n|<14>1 t d a p - one\n", "1|6|a|p|t|two\n|<14>1 t d a p - two\n"}},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(stored(c.text), c.records) << c.text;
    }
}

TEST(Extraction, FailuresLeaveOutputsUnchanged) {
    std::string out = "before";
    std::int32_t facility = -5;
    std::int32_t severity = -6;
    for (const char* message : {"", "<", "<x>", "text", "a<", "<1", "<12 a b c d"}) {
        EXPECT_EQ(Store::parsePriority(message, facility, severity), -1) << message;
    }
    EXPECT_EQ(facility, -5);
    EXPECT_EQ(severity, -6);
    EXPECT_EQ(Store::getTimestamp("a b", out), -1);
    EXPECT_EQ(Store::getAppName("a b c d", out), -1);
    EXPECT_EQ(Store::getProcId("a b c d e", out), -1);
    EXPECT_EQ(Store::getText("a -b- c -", out), -1);
    EXPECT_EQ(out, "before");
}

/// Cutting and extraction, done once more with regular expressions.
std::vector<std::string> storedByRegex(const std::string& text) {
    static const std::regex header("<[0-9]+>[0-9]");
    std::vector<std::size_t> bounds;
    for (std::sregex_iterator it(text.begin(), text.end(), header); it != std::sregex_iterator();
         ++it) {
        bounds.push_back(static_cast<std::size_t>(it->position()));
    }
    if (bounds.empty()) {
        bounds.push_back(0);
    }
    bounds.push_back(text.size());
    static const std::regex fields(R"(^([^ ]*) ([^ ]*) ([^ ]*) ([^ ]*) ([^ ]*) )");
    static const std::regex priority(R"(^[^<]*<([0-9]+))");
    std::vector<std::string> records;
    for (std::size_t i = 0; i + 1 < bounds.size(); ++i) {
        const std::string message = text.substr(bounds[i], bounds[i + 1] - bounds[i]);
        std::smatch field;
        std::smatch number;
        const std::size_t mark = message.find(" - ");
        if (!std::regex_search(message, field, fields) ||
            !std::regex_search(message, number, priority) || mark == std::string::npos ||
            message.find('>') == std::string::npos) {
            continue;
        }
        const std::string digits = number[1];
        const long value =
            digits.size() > 10 ? 2147483647L : std::min(std::stol(digits), 2147483647L);
        records.push_back(fieldsOf({static_cast<std::int32_t>(value / 8),
                                    static_cast<std::int32_t>(value % 8), field[4], field[5],
                                    std::regex_replace(field[2].str(), std::regex("[TZ]"), " "),
                                    message.substr(mark + 3), message}));
    }
    return records;
}

TEST(Extraction, AgreesWithRegularExpressionsOnRandomTexts) {
    std::mt19937 random(20240305);
    const std::vector<std::string> pieces = {"<", ">",   "1",    "42",      "99999999999", " ", " ",
                                             " ", " - ", "<14>", "<14>1 ",  "a",           "T", "Z",
                                             "-", "\n",  "\t",   "<14>1 t", " d sip 4 - x"};
    std::size_t found = 0;
    for (int round = 0; round < 20000; ++round) {
        std::string text;
        for (auto n = random() % 40; n > 0; --n) {
            text += pieces[random() % pieces.size()];
        }
        const auto records = stored(text);
        ASSERT_EQ(records, storedByRegex(text)) << text;
        found += records.size();
    }
    EXPECT_GT(found, 10000U); // the texts were not all rubbish
}

/// The store, told naively: everything recomputed from a list of what went in.
struct Model {
    struct Entry {
        std::string raw;
        std::string line;
        std::string app;
        int facility = 0;
        int severity = 0;
    };
    std::deque<Entry> entries;
    std::size_t capacity = 0;
    std::map<std::string, bool> shown;
    int maxSeverity = 7;
    std::string echo;

    bool passes(const Entry& e) const {
        const auto it = shown.find(e.app);
        return it != shown.end() && it->second && e.facility < 24 && e.severity <= maxSeverity;
    }
    std::size_t bytes() const {
        std::size_t sum = 0;
        for (const Entry& e : entries) {
            sum += e.raw.size();
        }
        return sum;
    }
    void add(const Entry& e) {
        if (!entries.empty() && bytes() + e.raw.size() > capacity) {
            entries.pop_front();
        }
        entries.push_back(e);
        if (passes(e)) {
            echo += e.line + "\r\n";
        }
    }
    std::string listing(bool formatted) const {
        std::string all;
        for (const Entry& e : entries) {
            all += !passes(e) ? "" : formatted ? e.line + "\r\n" : e.raw;
        }
        return all;
    }
};

Model::Entry randomEntry(std::mt19937& random) {
    static const std::vector<std::string> apps = {"prothandler", "sip", "nmos", "router",
                                                  "sap",         "ui",  "SIP",  ""};
    const int priority = static_cast<int>(random() % 220);
    Model::Entry entry;
    entry.app = apps[random() % apps.size()];
    entry.facility = priority / 8;
    entry.severity = priority % 8;
    const std::string text(random() % 200, 'x');
    entry.raw = "<" + std::to_string(priority) + ">1 10:20Z dev01 " + entry.app + " 412 - " + text;
    entry.line = "10:20 " + entry.app + " 412-" + std::to_string(entry.severity) + ": " + text;
    return entry;
}

TEST(Store, BehavesAsTheModelOverRandomOperations) {
    std::mt19937 random(1);
    for (const std::uint32_t capacity : {1U, 100U, 1000U, 5000U}) {
        Store store;
        store.addComponents(0, names);
        EXPECT_EQ(store.capacity, 1048576U);
        store.addComponents(capacity, {"sip", "sip"});
        store.consoleEcho = true;
        Model model;
        model.capacity = capacity;
        for (const std::string& name : names) {
            model.shown[name] = true;
        }
        CoutCapture screen;
        for (int step = 0; step < 5000; ++step) {
            switch (random() % 12) {
            case 0:
                if (random() % 20 == 0) {
                    store.clear();
                    model.entries.clear();
                }
                break;
            case 1: {
                const auto level = static_cast<std::uint32_t>(random() % 10);
                store.setMaxSeverity(level == 9 ? 0xFFFFFFFFU : level);
                model.maxSeverity = level < 8 ? static_cast<int>(level) : model.maxSeverity;
                break;
            }
            case 2:
            case 3: {
                const std::string name = randomEntry(random).app;
                const bool value = random() % 2 == 0;
                value ? store.enableComponent(name) : store.disableComponent(name);
                if (model.shown.count(name) != 0) {
                    model.shown[name] = value;
                    model.echo += "------ " + name + (value ? " enabled\r\n" : " disabled\r\n");
                }
                break;
            }
            case 4: {
                const bool value = random() % 4 != 0;
                store.setAllComponents(value);
                for (auto& entry : model.shown) {
                    entry.second = value;
                }
                model.echo += value ? "------ all enabled\r\n" : "------ all disabled\r\n";
                break;
            }
            default: {
                std::string text;
                for (auto n = random() % 4; n > 0; --n) {
                    model.add(randomEntry(random));
                    text += model.entries.back().raw;
                }
                store.append(text);
            }
            }
            ASSERT_EQ(store.byteCount, model.bytes());
            ASSERT_EQ(store.messages.size(), model.entries.size());
            ASSERT_EQ(store.newestRaw(), model.entries.empty() ? "" : model.entries.back().raw);
            for (const bool formatted : {false, true}) {
                std::string out = "left over";
                const std::size_t length = store.allMessages(out, formatted);
                ASSERT_EQ(length, out.size());
                ASSERT_EQ(out, model.listing(formatted));
            }
        }
        EXPECT_EQ(screen.take(), model.echo);
    }
}

TEST(Store, RawListingCutsIntoTheSameMessages) {
    std::mt19937 random(7);
    for (int round = 0; round < 200; ++round) {
        Store first;
        first.addComponents(0, {"sip"});
        for (int n = 0; n < 30; ++n) {
            // Texts with header-like pieces: what the first cut made of them stays as it is.
            static const std::vector<std::string> pieces = {"<", "<1", "4>", "1", " - ", "\n", "x"};
            std::string text;
            for (auto length = random() % 12; length > 0; --length) {
                text += pieces[random() % pieces.size()];
            }
            first.append("<14>1 t d sip 1 - " + text);
        }
        std::string listing;
        first.allMessages(listing, false);
        Store second;
        second.append(listing);
        ASSERT_TRUE(std::equal(first.messages.begin(), first.messages.end(),
                               second.messages.begin(), second.messages.end(),
                               [](const auto& a, const auto& b) { return a.raw == b.raw; }));
    }
}

TEST(Files, HoldEveryMessageOrSayWhyNot) {
    Store store;
    store.addComponents(0, names);
    const std::string path = testing::TempDir() + "store_test_dump";
    const auto content = [&path] {
        std::ifstream file(path, std::ios::binary);
        return std::string(std::istreambuf_iterator<char>(file), {});
    };
    EXPECT_EQ(store.writeFile(path.c_str()), Store::fileWritten);
    EXPECT_EQ(content(), "");
    store.append("<14>1 t d ui 1 - unknown<14>1 t d sip 1 - line\n");
    store.disableComponent("sip");
    EXPECT_EQ(store.writeFile(path.c_str()), Store::fileWritten);
    EXPECT_EQ(content(), "<14>1 t d ui 1 - unknown\n<14>1 t d sip 1 - line\n\n");
    EXPECT_EQ(store.writeFile((path + "/below").c_str()), Store::fileNotOpened);

    // Planted by somebody else: neither written through nor waited for.
    const std::string planted = path + "_planted";
    std::remove(planted.c_str()); // left by a run that was cut short
    ASSERT_EQ(symlink(path.c_str(), planted.c_str()), 0);
    store.clear();
    EXPECT_EQ(store.writeFile(planted.c_str()), Store::fileNotOpened);
    EXPECT_NE(content(), "");
    EXPECT_EQ(std::remove(planted.c_str()), 0);
    ASSERT_EQ(mkfifo(planted.c_str(), S_IRUSR | S_IWUSR), 0);
    EXPECT_EQ(store.writeFile(planted.c_str()), Store::fileNotOpened);
    EXPECT_EQ(std::remove(planted.c_str()), 0);

    // A full disk, noticed by the close, or by a write already.
    store.append("<14>1 t d sip 1 - short");
    EXPECT_EQ(store.writeFile("/dev/full"), Store::fileShort);
    store.append("<14>1 t d sip 1 - " + std::string(100000, 'x'));
    EXPECT_EQ(store.writeFile("/dev/full"), Store::fileShort);
    EXPECT_EQ(std::remove(path.c_str()), 0);
}

} // namespace
