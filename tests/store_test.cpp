// What the store does with texts and filters is compared with a reference in
// fuzz/viewerStore.cpp; here are known texts with their fields, and the files.

#include "QELloggerSyslogFmt.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using Store = QELloggerSyslogFmt;

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

TEST(Extraction, TextsWithoutAPriorityLeaveItUnchanged) {
    for (const char* message : {"", "<", "<x>", "text", "a<", "<1", "<12 a b c d"}) {
        std::int32_t facility = -5;
        std::int32_t severity = -6;
        EXPECT_EQ(Store::parsePriority(message, facility, severity), -1) << message;
        EXPECT_EQ(facility, -5);
        EXPECT_EQ(severity, -6);
    }
}

TEST(Files, HoldEveryMessageOrSayWhyNot) {
    Store store;
    store.addComponents(0, {"sip"});
    const std::string path = testing::TempDir() + "store_test_dump";
    const auto content = [&path] {
        std::ifstream file(path, std::ios::binary);
        return std::string(std::istreambuf_iterator<char>(file), {});
    };
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
    EXPECT_EQ(store.writeFile(path.c_str()), Store::fileWritten);
    EXPECT_EQ(content(), ""); // nothing is left of a longer one

    // A full disk, noticed by the close, or by a write already.
    store.append("<14>1 t d sip 1 - short");
    EXPECT_EQ(store.writeFile("/dev/full"), Store::fileShort);
    store.append("<14>1 t d sip 1 - " + std::string(100000, 'x'));
    EXPECT_EQ(store.writeFile("/dev/full"), Store::fileShort);
    EXPECT_EQ(std::remove(path.c_str()), 0);
}

/// On a fixed path: tests/CMakeLists.txt gives this test a /tmp of its own.
TEST(Dump, TellsThatItsFileOrItsJobFailed) {
    const char* path = "/tmp/logger.txt";
    Store store;
    store.append("<14>1 t d sip 1 - line");
    std::remove(path);
    ASSERT_EQ(symlink("/dev/full", path), 0);
    EXPECT_EQ(store.dumpToFile("target"), Store::fileNotOpened);
    ASSERT_EQ(std::remove(path), 0);
    EXPECT_EQ(store.dumpToFile("' no end of the quotation"), Store::fileNotCompressed);
    EXPECT_EQ(std::remove(path), 0);
}

} // namespace
