#include "QELloggerSyslogFmt.h"

#include <gtest/gtest.h>

#include <array>
#include <csignal>
#include <cstdio>
#include <fcntl.h>
#include <fstream>
#include <functional>
#include <iostream>
#include <iterator>
#include <sstream>
#include <string>
#include <string_view>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace {

using Store = QELloggerSyslogFmt;
using Dump = QELloggerDump;

/// The stored messages' fields, all but the raw text, one message a line.
std::string stored(const std::string& text) {
    Store store;
    store.append(text);
    std::ostringstream fields;
    for (const QELloggerSyslogMsg& record : store.messages) {
        fields << record.facility << '|' << record.severity << '|' << record.appName << '|'
               << record.procId << '|' << record.timestamp << '|' << record.text << "|\n";
    }
    return fields.str();
}

TEST(Extraction, FieldsOfKnownTexts) {
    const struct {
        const char* text;
        const char* records;
    } cases[] = {
        {"<14>1 2024-03-05T10:20:30.123Z dev01 sip 412 - Call setup done",
         "1|6|sip|412|2024-03-05 10:20:30.123 |Call setup done|\n"},
        {"<11>1 2024-03-05T10:20:30+01:00 dev01 nmos 77 - link down<15>1 t dev01 router 9 - x\n",
         "1|3|nmos|77|2024-03-05 10:20:30+01:00|link down|\n1|7|router|9|t|x\n|\n"},
        {"<11>1 2024-03-05T10:20:30.123456+01:00 host sip - - [timeQuality tzKnown=\"1\"] by "
         "logger",
         "1|3|sip|-|2024-03-05 10:20:30.123456+01:00|- [timeQuality tzKnown=\"1\"] by logger|\n"},
        {"xx<14>1 t d sip - ok - -", "1|6|sip|-|t|ok - -|\n"},
        {"<14>Mar  5 10:20:30 dev01 app: a - b", "1|6|10:20:30|dev01||b|\n"},
        {"> <14 t d sip 1 - ok", "1|6|d|sip|<14|ok|\n"},
        {"<0>1 t d a p - ", "0|0|a|p|t||\n"},
        {"<999>1 ZTZ d a p - x", "124|7|a|p|   |x|\n"},
        {"<99999999999>1 t d a p - x", "268435455|7|a|p|t|x|\n"},
        {"<2147483647>1 t d a p - x", "268435455|7|a|p|t|x|\n"},
        {"<12<14>1 t d a p - x<15>1", "1|6|a|p|t|x|\n"},
        {"<14>1 t d a p - x<", "1|6|a|p|t|x<|\n"},
        {"<14>1 t d sip 412 ok", ""},
        {"<14>1", ""},
        {"text <", ""},
        {"", ""},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(stored(c.text), c.records) << c.text;
    }
}

TEST(Extraction, WhatIsNotFoundLeavesTheOutputUnchanged) {
    for (const char* message : {"", "<", "<x>", "text", "a<", "<1", "<12 a b c d"}) {
        std::int32_t facility = -5;
        std::int32_t severity = -6;
        std::string kept = "kept";
        EXPECT_EQ(Store::parsePriority(message, facility, severity), -1) << message;
        EXPECT_EQ(facility + severity, -11);
        EXPECT_EQ(Store::getProcId(message, kept) + Store::getText(message, kept), -2) << message;
        EXPECT_EQ(kept, "kept");
    }
}

TEST(Capacity, OneMessageIsDroppedForEachOneStoredBeyondIt) {
    Store store;
    store.addComponents(60, {});
    store.addComponents(0, {}); // leaves it at 60
    const auto storing = [&store](char name, std::size_t size) {
        store.append("<14>1 t d sip 1 - " + std::string(size - 18, name));
        std::string names;
        for (const QELloggerSyslogMsg& record : store.messages) {
            names += record.raw.back();
        }
        return names + ' ' + std::to_string(store.byteCount);
    };
    EXPECT_EQ(storing('a', 100), "a 100");
    EXPECT_EQ(storing('b', 20), "b 20");
    EXPECT_EQ(storing('c', 20), "bc 40");
    EXPECT_EQ(storing('d', 20), "bcd 60");
    EXPECT_EQ(storing('e', 50), "cde 90");
    EXPECT_EQ(storing('f', 20), "def 90");
    EXPECT_EQ(storing('g', 30), "efg 100");
    store.clear();
    EXPECT_EQ(storing('h', 40), "h 40");
}

/// What @p action prints on standard output.
std::string printed(const std::function<void()>& action) {
    std::ostringstream console;
    std::streambuf* const standardOutput = std::cout.rdbuf(console.rdbuf());
    action();
    std::cout.rdbuf(standardOutput);
    return console.str();
}

TEST(Filters, DecideWhatIsEchoedListedAndSentOnAndSayWhatTheyAre) {
    const std::pair<std::string, std::string> messages[] = {
        {"<6>1 2024-03-05T10:20:30Z d sip 412 - 0", "2024-03-05 10:20:30 sip 412-6: 0\r\n"},
        {"<11>1 tZ d nmos - 1\n", "t nmos --3: 1\n\r\n"},
        {"<9>1 t d ui 1 - 2", ""}, // of no known program
        {"<191>1 t d sip 1 - 3", "tsip 1-7: 3\r\n"},
        {"<192>1 t d sip 1 - 4", ""}}; // of no known facility
    const struct {
        void (*change)(Store& store);
        const char* told;
        std::string_view shown; // the first characters of the texts
    } cases[] = {
        {[](Store& s) { s.setMaxSeverity(6); }, "", "01"},
        {[](Store& s) { s.setMaxSeverity(8); }, "", "01"},
        {[](Store& s) { s.minSeverity = 6; }, "", "0"},
        {[](Store& s) { s.minSeverity = 0; }, "", "01"},
        {[](Store& s) { s.facilityFlags[1] = false; }, "", "0"},
        {[](Store& s) { s.setMaxSeverity(7); }, "", "03"},
        {[](Store& s) { s.disableComponent("sip"); }, "------ sip disabled\r\n", ""},
        {[](Store& s) { s.facilityFlags[1] = true; }, "", "1"},
        {[](Store& s) { s.enableComponent("ui"); }, "", "1"},
        {[](Store& s) { s.enableComponent("sip"); }, "------ sip enabled\r\n", "013"},
        {[](Store& s) { s.setAllComponents(false); }, "------ all disabled\r\n", ""},
        {[](Store& s) { s.addComponents(0, {"nmos"}); }, "", "1"},
        {[](Store& s) { s.setAllComponents(true); }, "------ all enabled\r\n", "013"},
    };
    Store store;
    Store silent; // consoleEcho is off
    for (Store* each : {&store, &silent}) {
        each->addComponents(0, {"sip", "nmos"});
    }
    store.consoleEcho = true;
    for (const auto& c : cases) {
        EXPECT_EQ(printed([&] { c.change(store); }), c.told);
        std::string all;
        std::string raw;
        std::string lines;
        for (const auto& [text, line] : messages) {
            all += text;
            if (c.shown.find(text[text.find(" - ") + 3]) != std::string_view::npos) {
                raw += text;
                lines += line;
            }
        }
        store.clear();
        EXPECT_EQ(printed([&] { store.append(all); }), lines) << c.shown;
        std::string listing = "left over";
        EXPECT_EQ(store.allMessages(listing, true), lines.size());
        EXPECT_EQ(listing, lines) << c.shown;
        EXPECT_EQ(store.allMessages(listing, false), raw.size());
        EXPECT_EQ(listing, raw) << c.shown;
        EXPECT_EQ(printed([&] { (c.change(silent), silent.append(all)); }), "");
    }
    EXPECT_EQ(printed([&] { Store::printLine(store.formatMessage(store.messages.front())); }),
              messages[0].second);
    EXPECT_EQ(store.newestRaw(), messages[4].first);
}

std::string contentOf(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

// The paths below are fixed: CMakeLists.txt gives this test a /tmp of its own.

TEST(Files, HoldEveryMessageOrSayWhyNot) {
    Store store;
    const char* const path = "/tmp/store_test_file";
    store.append("<14>1 t d ui 1 - unknown<14>1 t d sip 1 - line\n");
    std::ofstream(path) << std::string(1000, 'x'); // of which nothing is left
    EXPECT_EQ(store.writeFile(path), Dump::fileWritten);
    EXPECT_EQ(contentOf(path), "<14>1 t d ui 1 - unknown\n<14>1 t d sip 1 - line\n\n");
    EXPECT_EQ(store.writeFile("/no/such/folder"), Dump::fileNotOpened);

    // A full disk, noticed by the close, or by a write already.
    std::signal(SIGXFSZ, SIG_IGN);
    for (const std::size_t length : {10, 100000}) {
        store.append("<14>1 t d sip 1 - " + std::string(length, 'x'));
        setrlimit(RLIMIT_FSIZE, std::array{rlimit{length / 2, RLIM_INFINITY}}.data());
        EXPECT_EQ(store.writeFile(path), Dump::fileShort);
    }
    setrlimit(RLIMIT_FSIZE, std::array{rlimit{RLIM_INFINITY, RLIM_INFINITY}}.data());
}

TEST(Dumps, LeavePlantedFilesAsTheyAre) {
    const char* const victim = "/tmp/store_test_victim";
    const char* const planted = "/tmp/logger.txt";
    std::ofstream(victim) << "precious";
    const auto reader = [planted](int flags) {
        return mkfifo(planted, S_IRUSR | S_IWUSR) + open(planted, flags | O_NONBLOCK | O_CLOEXEC);
    };
    const std::function<int()> plants[] = {
        [&] { return symlink(victim, planted) - 1; }, [&] { return link(victim, planted) - 1; },
        [&] { return mkfifo(planted, S_IRUSR | S_IWUSR) - 1; }, [&] { return reader(O_RDONLY); },
        [&] {
            return reader(O_RDWR);
        }};
    Store store;
    store.append("<14>1 t d sip 1 - line");
    for (const auto& plant : plants) {
        const int fifo = plant();
        EXPECT_EQ(store.dumpToFile("/tmp/store_test_target"), Dump::fileNotOpened);
        char byte = 0;
        EXPECT_LE(read(fifo, &byte, 1), 0);
        close(fifo);
        EXPECT_EQ(std::remove(planted), 0);
        EXPECT_EQ(contentOf(victim), "precious");
    }
}

TEST(Dumps, WaitForTheLastJobToMoveItsFileOrToEnd) {
    Store store;
    store.append("<14>1 t d sip 1 - line");
    const char* const hold = "/tmp/store_test_hold"; // a job reads it before it ends
    ASSERT_EQ(mkfifo(hold, S_IRUSR | S_IWUSR), 0);
    const std::string reading = std::string("; read line <") + hold + "; true ";
    const auto release = [hold] {
        std::ofstream(hold) << "\n";
    };
    const auto dumpWhenFree = [&store](const std::string& target) {
        int result = Dump::fileBusy;
        for (int tries = 0; tries < 60'000 && result == Dump::fileBusy; ++tries) {
            usleep(1000);
            result = store.dumpToFile(target.c_str());
        }
        return result;
    };
    EXPECT_EQ(store.dumpToFile("' no end of the quotation"), Dump::fileNotCompressed);
    EXPECT_EQ(dumpWhenFree("/no/such/folder 2>/dev/null" + reading), Dump::fileWritten);
    EXPECT_EQ(store.dumpToFile("/tmp/store_test_first"), Dump::fileBusy);
    release();
    EXPECT_EQ(dumpWhenFree("/tmp/store_test_second.gz" + reading), Dump::fileWritten); // has ended
    EXPECT_EQ(dumpWhenFree("/tmp/store_test_third"), Dump::fileWritten);               // has moved
    release();
}

} // namespace
