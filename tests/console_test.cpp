#include "HVLoggerTerminalFilter.h"

#include <gtest/gtest.h>

#include <ostream>
#include <string>
#include <string_view>

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

TEST(TerminalFilter, ShowsWhatIsNoTextWhereverItStandsAndIsCut) {
    const std::pair<std::string_view, std::string_view> cases[] = {
        // shown as it is, if not told
        {"\t ~\n", ""},
        {{"\0\x1F", 2}, "^@^_"},
        {"\x7F", "^?"},
        {"\x1B[2J\n\x1B\r", "^[[2J\n^[^M"},
        {"\r\n \r \n\r", "\r\n ^M \n\r"},
        {"\r\r\n\r\r", "^M\r\n\r^M"},
        {"\r\xC2\xA0", "^M\xC2\xA0"},
        {"\xC2\xA0\xDF\xBF", ""},
        {"\xE0\xA0\x80\xE1\x80\xBF\xEC\xBF\x80\xED\x9F\xBF\xEE\x80\x80\xEF\xBF\xBF", ""},
        {"\xF0\x90\x80\x80\xF1\x80\xBF\xBF\xF3\xBF\x80\x80\xF4\x8F\xBF\xBF", ""},
        {"\xC2\x80\xC2\x9F", R"(\u0080\u009F)"},
        {"\x80\xBF\xC0\xA0\xC1\xBF\xFF", R"(\x80\xBF\xC0\xA0\xC1\xBF\xFF)"},
        {"\xF5\x80\x80\x80", R"(\xF5\x80\x80\x80)"},
        {"\xE0\x9F\xBF\xED\xA0\x80", R"(\xE0\x9F\xBF\xED\xA0\x80)"},
        {"\xF0\x8F\xBF\xBF\xF4\x90\x80\x80", R"(\xF0\x8F\xBF\xBF\xF4\x90\x80\x80)"},
        {"\xC2\x7F\xDF\xC0", R"(\xC2^?\xDF\xC0)"},
        {"\xE1\x80\x7F\xEF\xBF\xC0", R"(\xE1\x80^?\xEF\xBF\xC0)"},
        {"\xF1\x80\x80\x1B\xF4\x8F\xBF\xC2\xA0", "\\xF1\\x80\\x80^[\\xF4\\x8F\\xBF\xC2\xA0"},
        {"\xF0\x9F\x98", R"(\xF0\x9F\x98)"}};
    for (const auto& [text, told] : cases) {
        const std::string shown(told.empty() ? text : told);
        for (std::size_t n = 0; n < 32; ++n) { // eight bytes are looked at at a time
            const auto within = [n](std::string_view middle) {
                return std::string(n / 2, 'x').append(middle).append(n % 2 * 9, '+');
            };
            for (std::size_t cut = 0; cut <= within(text).size(); ++cut) {
                EXPECT_EQ(onScreen(within(text), cut), within(shown));
            }
        }
        Screen screen;
        std::ostream stream(&screen);
        const HVLoggerTerminalFilter filter(stream);
        for (const char byte : std::string(text) + '.') { // nothing is kept back behind the stop
            stream.put(byte);
        }
        EXPECT_EQ(screen.text, shown + '.');
    }
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
