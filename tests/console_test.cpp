#include "HVLoggerTerminalFilter.h"

#include <gtest/gtest.h>

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <initializer_list>
#include <ostream>
#include <random>
#include <string>
#include <string_view>

namespace {

/// A terminal that keeps what it is sent, or has gone.
struct Screen : std::streambuf {
    std::string text;
    int writes = 0;
    int flushes = 0;
    bool gone = false;

    std::streamsize xsputn(const char* bytes, std::streamsize count) override {
        writes += count > 0 ? 1 : 0;
        text.append(bytes, gone ? 0 : static_cast<std::size_t>(count));
        return gone ? 0 : count;
    }
    int sync() override {
        ++flushes;
        return gone ? -1 : 0;
    }
};

std::string onScreen(std::initializer_list<std::string_view> writes) {
    Screen screen;
    std::ostream stream(&screen);
    {
        const HVLoggerTerminalFilter filter(stream);
        for (const std::string_view text : writes) {
            stream << text << std::flush;
        }
    }
    return screen.text;
}

int shortestLength(std::uint32_t value) {
    return value < 0x80 ? 1 : value < 0x800 ? 2 : value < 0x10000 ? 3 : 4;
}

/// The value in the UTF-8 pattern of the given length, whether or not that is valid.
std::string encode(std::uint32_t value, int length) {
    if (length == 1) {
        return {static_cast<char>(value)};
    }
    std::string encoded(static_cast<std::size_t>(length), '\0');
    for (std::size_t i = encoded.size() - 1; i > 0; --i, value >>= 6) {
        encoded[i] = static_cast<char>(0x80 | (value & 0x3F));
    }
    encoded[0] = static_cast<char>((0xF00U >> length) | value);
    return encoded;
}

std::string format(const char* form, unsigned value) {
    char text[16];
    std::snprintf(text, sizeof text, form, value);
    return text;
}

/// What should be on the screen, by decoding, encoding and comparing, with the whole text in view.
std::string expected(std::string_view text) {
    std::string shown;
    for (std::size_t at = 0, length = 0; at < text.size(); at += length) {
        const auto lead = static_cast<unsigned char>(text[at]);
        length = lead < 0x80 ? 1 : static_cast<std::size_t>(std::countl_one(lead));
        const std::string_view character = text.substr(at, length);
        std::uint32_t value = lead & (length == 1 ? 0x7FU : 0x7FU >> length);
        for (const char byte : character.substr(1)) {
            value = value << 6 | (static_cast<unsigned char>(byte) & 0x3F);
        }
        if (length > 4 || value > 0x10FFFF || (value >= 0xD800 && value <= 0xDFFF) ||
            shortestLength(value) != static_cast<int>(length) ||
            encode(value, static_cast<int>(length)) != character) {
            length = 1;
            shown += format("\\x%02X", lead);
        } else if (value >= 0x80 && value <= 0x9F) {
            shown += format("\\u%04X", value);
        } else if ((value < 0x20 || value == 0x7F) && value != '\t' && value != '\n' &&
                   (value != '\r' ||
                    (text.substr(at + 1, 1) != "\n" && (at == 0 || text[at - 1] != '\n')))) {
            shown += '^';
            shown += static_cast<char>(value == 0x7F ? '?' : '@' + value);
        } else {
            shown += character;
        }
    }
    return shown;
}

// The pieces that rules begin, end or differ at.
constexpr std::string_view borders{
    "\0\t\n\r\x1B A\x7F\x80\x8F\x90\x9F\xA0\xBF\xC0\xC1\xC2\xDF\xE0\xE1\xEC\xED\xEE\xEF"
    "\xF0\xF1\xF3\xF4\xF5\xF8\xFF",
    31};

TEST(TerminalFilter, EveryCodePointPassesUnlessItControls) {
    for (std::uint32_t value = 0; value <= 0x110FFF; ++value) {
        const std::string text = "printed " + encode(value, shortestLength(value)) + "together";
        ASSERT_EQ(onScreen({text}), expected(text)) << std::hex << value;
    }
}

TEST(TerminalFilter, EverySequenceOfBorderBytesIsTakenApartTheSameWay) {
    const std::size_t count = borders.size();
    for (std::size_t n = 0; n < count * count * count * count; ++n) {
        const std::string text = {borders[n % count], borders[n / count % count],
                                  borders[n / count / count % count],
                                  borders[n / count / count / count]};
        ASSERT_EQ(onScreen({text}), expected(text));
    }
}

TEST(TerminalFilter, CutsBetweenWritesMakeNoDifference) {
    std::mt19937 random(4);
    std::string text;
    for (int i = 0; i < 1000; ++i) {
        text += borders[random() % borders.size()];
        const auto value = static_cast<std::uint32_t>(random() % 0x110000);
        text += random() % 2 == 0 ? "\r" : encode(value, shortestLength(value));
    }
    const std::string whole = onScreen({text});
    EXPECT_EQ(whole, expected(text));
    const std::string_view view = text;
    for (std::size_t at = 0; at <= view.size(); ++at) {
        ASSERT_EQ(onScreen({view.substr(0, at), view.substr(at)}), whole) << at;
    }
    Screen screen;
    std::ostream stream(&screen);
    const HVLoggerTerminalFilter filter(stream);
    for (const char byte : text + ".") { // nothing is kept back behind the stop
        stream.put(byte);
    }
    EXPECT_EQ(screen.text, expected(text + "."));
}

TEST(TerminalFilter, HarmlessTextGoesOutInOneWriteAndFlushesPass) {
    Screen screen;
    std::ostream stream(&screen);
    const HVLoggerTerminalFilter filter(stream);
    std::string listing;
    for (int i = 0; i < 10000; ++i) {
        listing += "2024-03-05 10:20:30.123 sip 412-6: Gr\u00FC\u00DFe\r\n";
    }
    stream << listing << std::flush;
    EXPECT_EQ(screen.writes, 1);
    EXPECT_EQ(screen.flushes, 1);
    EXPECT_EQ(screen.text, listing);
}

TEST(TerminalFilter, FailuresReachTheStreamAndStay) {
    Screen screen;
    screen.gone = true;
    for (const std::string_view text : {"", "harmless", "\x1B", "\x1Bx", "x\r"}) {
        std::ostream stream(&screen);
        {
            const HVLoggerTerminalFilter filter(stream);
            stream << text << std::flush;
            EXPECT_TRUE(stream.bad()) << text;
        }
        EXPECT_TRUE(stream.bad()) << text;
        EXPECT_EQ(stream.rdbuf(), &screen);
    }
    std::ostream stream(&screen);
    const HVLoggerTerminalFilter filter(stream);
    EXPECT_TRUE(stream.put('x').bad());
}

} // namespace
