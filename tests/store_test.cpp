#include "QELloggerSyslogFmt.h"

#include <gtest/gtest.h>

#include <array>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <fstream>
#include <iostream>
#include <sstream>
#include <string>
#include <sys/resource.h>
#include <tuple>
#include <unistd.h>

namespace {

using Store = QELloggerSyslogFmt;
using Dump = QELloggerDump;

TEST(Extraction, FieldsOfKnownTexts) {
    const std::pair<const char*, const char*> cases[] = {
        // without the raw texts
        {"<11>1 t d nmos 7 - x<15>1 t d ui 9 - y\n", "1 3|nmos|7|t|x|\n1 7|ui|9|t|y\n|\n"},
        {"<11>1 t d sip - - [q tz=\"1\"] x", "1 3|sip|-|t|- [q tz=\"1\"] x|\n"},
        {"xx<14>1 t d sip - ok - -", "1 6|sip|-|t|ok - -|\n"},
        {"> <14 t d sip 1 - ", "1 6|d|sip|<14||\n"},
        {"<99999999999>1 t d a p - x", "268435455 7|a|p|t|x|\n"},
        {"<<13>x<14>1 t d a p - x<>1<", "1 6|a|p|t|x<>1<|\n"},
        {"<12 t d a p - x", ""},
        {"<14>1 t d sip 412 ok<15>1 t d a p - x", "1 7|a|p|t|x|\n"},
    };
    for (const auto& [text, records] : cases) {
        Store store;
        store.append(text);
        std::ostringstream fields;
        for (const auto& [facility, severity, app, id, time, words, raw] : store.messages) {
            fields << facility << ' ' << severity << '|' << app << '|' << id << '|' << time << '|'
                   << words << "|\n";
        }
        EXPECT_EQ(fields.str(), records) << text;
    }
}

TEST(Capacity, OneMessageIsDroppedForEachOneStoredBeyondIt) {
    Store store;
    store.addComponents(60, {});
    store.addComponents(0, {}); // leaves it at 60
    std::string held;           // after each message: which are left, and their bytes
    char name = 'a';
    for (const std::size_t size : {100, 40, 20, 70, 20, 30, 0, 40}) {
        size == 0 ? store.clear()
                  : store.append("<14>1 t d sip 1 - " + std::string(size - 18, name++));
        for (const QELloggerSyslogMsg& record : store.messages) {
            held += record.raw.back();
        }
        held += std::to_string(store.byteCount) + ' ';
    }
    EXPECT_EQ(held, "a100 b40 bc60 cd90 de90 ef50 0 g40 ");
}

TEST(Filters, DecideWhatIsEchoedListedAndSentOnAndSayWhatTheyAre) {
    const std::pair<std::string, std::string> messages[] = {
        {"<6>1 2024-03-05T10:20:30Z d sip 412 - 0", "2024-03-05 10:20:30 sip 412-6: 0\r\n"},
        {"<11>1 tZ d nmos - 1\n", "t nmos --3: 1\n\r\n"},
        {"<9>1 t d ui 1 - 2", ""},    // of no known program
        {"<192>1 t d sip 1 - 3", ""}, // of no known facility
        {"<191>1 t d sip 1 - 4", "tsip 1-7: 4\r\n"}};
    // A change, what it tells, and the texts of the messages that are then shown.
    const std::tuple<void (*)(Store&), const char*, std::string> cases[] = {
        {[](Store& s) { s.setMaxSeverity(6); }, "", "01"},
        {[](Store& s) { s.setMaxSeverity(8); }, "", "01"},
        {[](Store& s) { s.setMaxSeverity(7); }, "", "014"},
        {[](Store& s) { s.disableComponent("sip"); }, "------ sip disabled\r\n", "1"},
        {[](Store& s) { s.enableComponent("ui"); }, "", "1"},
        {[](Store& s) { s.enableComponent("sip"); }, "------ sip enabled\r\n", "014"},
        {[](Store& s) { s.setAllComponents(false); }, "------ all disabled\r\n", ""},
        {[](Store& s) { s.addComponents(0, {"nmos"}); }, "", "1"},
        {[](Store& s) { s.setAllComponents(true); }, "------ all enabled\r\n", "014"},
        {[](Store& s) { s.minSeverity = 6; }, "", "04"},
        {[](Store& s) { s.facilityFlags[0] = false; }, "", "4"}};
    std::ostringstream console;
    std::streambuf* const standardOutput = std::cout.rdbuf(console.rdbuf());
    for (const bool echo : {true, false}) {
        Store store;
        store.addComponents(0, {"sip", "nmos"});
        store.consoleEcho = echo;
        for (const auto& [change, told, shown] : cases) {
            std::string lines;
            store.clear();
            console.str("");
            change(store);
            for (const auto& [text, line] : messages) {
                lines += shown.find(text[text.find(" - ") + 3]) != std::string::npos ? line : "";
                store.append(text);
            }
            EXPECT_EQ(console.str(), echo ? told + lines : "") << shown;
            std::string listing = "left over";
            EXPECT_EQ(store.allMessages(listing, true), lines.size());
            EXPECT_EQ(listing, lines);
        }
        EXPECT_EQ(store.newestRaw(), messages[4].first);
        Store::printLine(store.formatMessage(store.messages.back()));
        EXPECT_TRUE(console.str().ends_with((echo ? messages[4].second : "") + messages[4].second));
    }
    std::cout.rdbuf(standardOutput);
}

std::string contentOf(const char* path) {
    return (std::ostringstream() << std::ifstream(path).rdbuf()).str();
}

// The paths below are fixed: CMakeLists.txt gives this test a /tmp of its own.

TEST(Dumps, LeavePlantedFilesAsTheyAre) {
    Store store;
    store.append("<14>1 t d sip 1 - line");
    std::ofstream("/tmp/victim") << "precious";
    for (const std::string command : {"ln -s victim ", "ln victim ", "mkfifo "}) {
        ASSERT_EQ(std::system(("cd /tmp && " + command + "logger.txt").c_str()), 0);
        EXPECT_EQ(store.dumpToFile("/tmp/target"), Dump::fileNotOpened) << command;
        const int reader = open("/tmp/logger.txt", O_RDWR | O_NONBLOCK);
        EXPECT_EQ(store.dumpToFile("/tmp/target"), Dump::fileNotOpened) << command;
        close(reader);
        EXPECT_EQ(contentOf("/tmp/victim"), "precious");
        EXPECT_EQ(unlink("/tmp/logger.txt"), 0);
    }
}

TEST(Dumps, WaitForTheLastJobToMoveItsFileOrToEnd) {
    Store store;
    const auto dumpWhenFree = [&store](const std::string& target) {
        while (store.dumpToFile(target.c_str()) == Dump::fileBusy) {
            usleep(1000);
        }
    };
    const std::string held = "; read line </tmp/hold; true "; // holds up the end of a job
    ASSERT_EQ(std::system("mkfifo /tmp/hold"), 0);
    EXPECT_EQ(store.dumpToFile("' no end of the quotation"), Dump::fileNotCompressed);
    dumpWhenFree("/no/such/folder 2>/dev/null" + held);
    EXPECT_EQ(store.dumpToFile("/tmp/target"), Dump::fileBusy);
    std::ofstream("/tmp/hold") << "\n";
    dumpWhenFree("/tmp/first.gz" + held); // the last job has ended
    dumpWhenFree("/tmp/second");          // it has moved its file
    std::ofstream("/tmp/hold") << "\n";
}

TEST(Files, HoldEveryMessageOrSayWhyNot) {
    Store store;
    store.append("<14>1 t d ui 1 - unknown<14>1 t d sip 1 - line\n");
    std::ofstream("/tmp/file") << std::string(1000, 'x'); // of which nothing is left
    EXPECT_EQ(store.writeFile("/tmp/file"), Dump::fileWritten);
    EXPECT_EQ(contentOf("/tmp/file"), "<14>1 t d ui 1 - unknown\n<14>1 t d sip 1 - line\n\n");
    // A full disk, noticed by the close, or by a write already.
    std::signal(SIGXFSZ, SIG_IGN);
    for (const rlim_t limit : {10, 50'000}) {
        store.append("<14>1 t d sip 1 - " + std::string(static_cast<std::size_t>(2 * limit), 'x'));
        setrlimit(RLIMIT_FSIZE, std::array{rlimit{limit, RLIM_INFINITY}}.data());
        EXPECT_EQ(store.dumpToFile("/tmp/target"), Dump::fileShort);
    }
}

} // namespace
