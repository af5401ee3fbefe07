#include "HVLoggerTerminalFilter.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <clocale>
#include <cstdio>
#include <cwchar>
#include <random>

namespace {

/// A terminal that keeps what it is sent, or has gone.
struct Screen : std::streambuf {
    std::string text;
    bool gone = false;

    std::streamsize xsputn(const char* bytes, std::streamsize count) override {
        text.append(bytes, gone ? 0 : static_cast<std::size_t>(count));
        return gone ? 0 : count;
    }
    int sync() override { return gone ? -1 : 0; }
};

/// What is shown of a text that is written in two pieces.
std::string onScreen(std::string_view text, std::size_t cut = 0) {
    Screen screen;
    std::ostream stream(&screen);
    {
        const HVLoggerTerminalFilter filter(stream);
        stream << text.substr(0, cut) << std::flush << text.substr(cut) << std::flush;
    }
    return screen.text;
}

const char* const decoder = std::setlocale(LC_CTYPE, "C.UTF-8");

std::string format(const char* form, unsigned value) {
    char text[16];
    return {text, static_cast<std::size_t>(std::snprintf(text, sizeof text, form, value))};
}

/// What should be on the screen, by the C library's decoder, with the whole text in view.
std::string expected(std::string_view text) {
    std::string shown;
    for (std::size_t at = 0, length = 0; at < text.size(); at += length) {
        wchar_t value = 0;
        std::mbstate_t state{};
        length = std::mbrtowc(&value, text.data() + at, text.size() - at, &state);
        if (length > 4 || value > 0x10FFFF) { // neither a character nor NUL
            length = 1;
            shown += format("\\x%02X", static_cast<unsigned char>(text[at]));
            continue;
        }
        length = std::max<std::size_t>(length, 1);
        if (value >= 0x80 && value <= 0x9F) {
            shown += format("\\u%04X", static_cast<unsigned>(value));
        } else if ((value < 0x20 || value == 0x7F) && value != '\t' && value != '\n' &&
                   (value != '\r' ||
                    (text.substr(at + 1, 1) != "\n" && (at == 0 || text[at - 1] != '\n')))) {
            shown += {'^', static_cast<char>(value == 0x7F ? '?' : '@' + value)};
        } else {
            shown += text.substr(at, length);
        }
    }
    return shown;
}

// The pieces that rules begin, end or differ at.
constexpr std::string_view borders{
    "\0\t\n\r\x1B A\x7F\x80\x8F\x90\x9F\xA0\xBF\xC0\xC1\xC2\xDF\xE0\xE1\xEC\xED\xEE\xEF"
    "\xF0\xF1\xF3\xF4\xF5\xF8\xFF",
    31};

TEST(TerminalFilter, EverySequenceOfBorderBytesIsTakenApartTheSameWay) {
    ASSERT_STREQ(decoder, "C.UTF-8");
    const std::size_t count = borders.size();
    for (std::size_t n = 0; n < count * count * count * count; ++n) {
        const std::string text = {borders[n % count], borders[n / count % count],
                                  borders[n / count / count % count],
                                  borders[n / count / count / count]};
        for (const std::string& padded : {text, text + "+++++++"}) { // short, and not
            ASSERT_EQ(onScreen(padded), expected(padded));
        }
    }
}

TEST(TerminalFilter, CutsBetweenWritesMakeNoDifference) {
    std::mt19937 random(4);
    std::string text;
    for (int i = 0; i < 3000; ++i) {
        text += borders[random() % borders.size()];
    }
    const std::string whole = expected(text);
    for (std::size_t cut = 0; cut <= text.size(); ++cut) {
        ASSERT_EQ(onScreen(text, cut), whole) << cut;
    }
    Screen screen;
    std::ostream stream(&screen);
    const HVLoggerTerminalFilter filter(stream);
    for (const char byte : text + ".") { // nothing is kept back behind the stop
        stream.put(byte);
    }
    EXPECT_EQ(screen.text, expected(text + "."));
}

TEST(TerminalFilter, FailuresReachTheStreamAndStay) {
    Screen screen;
    screen.gone = true;
    for (const std::string_view text : {"", "harmless", "\x1B", "\x1Bx", "x\r"}) {
        std::ostream stream(&screen);
        {
            const HVLoggerTerminalFilter filter(stream);
            stream << text << std::flush;
        }
        EXPECT_TRUE(stream.bad()) << text;
        EXPECT_EQ(stream.rdbuf(), &screen);
    }
    std::ostream stream(&screen);
    const HVLoggerTerminalFilter filter(stream);
    EXPECT_TRUE(stream.put('x').bad());
}

} // namespace
