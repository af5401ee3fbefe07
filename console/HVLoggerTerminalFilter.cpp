#include "HVLoggerTerminalFilter.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <utility>

namespace {

constexpr unsigned char deleteCharacter = 0x7F;
constexpr std::string_view digits = "0123456789ABCDEF";

/// Whether a byte is one of the graphic characters or the blank of US-ASCII.
constexpr bool isPrintable(char byte) {
    return byte >= ' ' && byte < static_cast<char>(deleteCharacter);
}

/// How many printable bytes a text starts with; may tell up to 7 too few. Eight at a time: nearly
/// everything is printable.
std::size_t printablePrefix(std::string_view text) {
    constexpr std::uint64_t each = 0x0101010101010101;
    constexpr std::uint64_t highBits = each * 0x80;
    std::size_t length = 0;
    for (std::uint64_t word = 0; text.size() - length >= sizeof word; length += sizeof word) {
        std::memcpy(&word, text.data() + length, sizeof word);
        // The high bit of a byte is set by itself from 0x80 on, by the subtraction under ' ', by
        // the addition for DEL. A borrow or a carry can only come from such a byte.
        if (((word | (word - each * ' ') | (word + each)) & highBits) != 0) {
            break;
        }
    }
    return length;
}

/// What a text starts with.
struct Piece {
    enum Kind { harmless, control, invalid, undecided } kind;
    std::size_t length;
};

constexpr bool isWithin(unsigned char byte, unsigned char lowest, unsigned char highest) {
    return lowest <= byte && byte <= highest;
}

/// The piece at the start of a text that starts with a byte above 0x7F.
Piece firstCharacter(std::string_view text) {
    const auto lead = static_cast<unsigned char>(text[0]);
    // RFC 3629, section 4: the lead byte gives the length and the bounds of the second byte.
    std::size_t length = 0;
    unsigned char lowest = 0x80;
    unsigned char highest = 0xBF;
    if (isWithin(lead, 0xC2, 0xDF)) {
        length = 2;
    } else if (isWithin(lead, 0xE0, 0xEF)) {
        length = 3;
        lowest = lead == 0xE0 ? 0xA0 : lowest;
        highest = lead == 0xED ? 0x9F : highest;
    } else if (isWithin(lead, 0xF0, 0xF4)) {
        length = 4;
        lowest = lead == 0xF0 ? 0x90 : lowest;
        highest = lead == 0xF4 ? 0x8F : highest;
    } else {
        return {Piece::invalid, 1};
    }
    for (std::size_t i = 1; i < std::min(length, text.size()); ++i) {
        if (!isWithin(static_cast<unsigned char>(text[i]), lowest, highest)) {
            return {Piece::invalid, 1};
        }
        lowest = 0x80;
        highest = 0xBF;
    }
    if (text.size() < length) {
        return {Piece::undecided, text.size()};
    }
    const bool isControl = lead == 0xC2 && static_cast<unsigned char>(text[1]) <= 0x9F;
    return {isControl ? Piece::control : Piece::harmless, length};
}

Piece firstPiece(std::string_view text, bool afterLineFeed) {
    const auto byte = static_cast<unsigned char>(text[0]);
    if (byte > deleteCharacter) {
        return firstCharacter(text);
    }
    if (isPrintable(text[0]) || byte == '\n' || byte == '\t') {
        return {Piece::harmless, 1};
    }
    if (byte == '\r') {
        if (!afterLineFeed && text.size() == 1) {
            return {Piece::undecided, 1};
        }
        return {afterLineFeed || text[1] == '\n' ? Piece::harmless : Piece::control, 1};
    }
    return {Piece::control, 1};
}

/// The visible form of a control character or of an invalid byte.
std::string visible(std::string_view piece, Piece::Kind kind) {
    const auto byte = static_cast<unsigned char>(piece.back());
    if (byte <= deleteCharacter) {
        constexpr unsigned char caretBit = 0x40;
        return {'^', static_cast<char>(byte ^ caretBit)};
    }
    std::string form = kind == Piece::control ? "\\u00" : "\\x";
    form += digits[byte / digits.size()];
    form += digits[byte % digits.size()];
    return form;
}

} // namespace

HVLoggerTerminalFilter::HVLoggerTerminalFilter(std::ostream& filtered)
    : stream(filtered), target(filtered.rdbuf(this)) {}

HVLoggerTerminalFilter::~HVLoggerTerminalFilter() {
    for (std::size_t i = 0; i < kept.size(); ++i) {
        const std::string_view byte = std::string_view(kept).substr(i, 1);
        put(visible(byte, Piece::invalid));
    }
    const auto state = stream.rdstate();
    stream.rdbuf(target);
    stream.setstate(state);
}

std::streamsize HVLoggerTerminalFilter::xsputn(const char* text, std::streamsize count) {
    std::string_view rest(text, static_cast<std::size_t>(count));
    while (!kept.empty() && !rest.empty()) {
        const std::string continued = std::exchange(kept, {}) + rest.front();
        rest.remove_prefix(1);
        if (!pass(continued)) {
            return 0;
        }
    }
    return pass(rest) ? count : 0;
}

HVLoggerTerminalFilter::int_type HVLoggerTerminalFilter::overflow(int_type c) {
    if (traits_type::eq_int_type(c, traits_type::eof())) {
        return traits_type::not_eof(c);
    }
    const char byte = traits_type::to_char_type(c);
    return xsputn(&byte, 1) == 1 ? c : traits_type::eof();
}

int HVLoggerTerminalFilter::sync() {
    return target->pubsync();
}

/// Passes on, shows or keeps each piece of the text.
bool HVLoggerTerminalFilter::pass(std::string_view text) {
    std::size_t harmless = 0; // bytes at the start that can be passed on
    while (harmless < text.size()) {
        if (isPrintable(text[harmless])) {
            harmless += std::max<std::size_t>(1, printablePrefix(text.substr(harmless)));
            afterLineFeed = false;
            continue;
        }
        const auto [kind, length] = firstPiece(text.substr(harmless), afterLineFeed);
        if (kind == Piece::harmless) {
            harmless += length;
            afterLineFeed = text[harmless - 1] == '\n';
            continue;
        }
        if (!put(text.substr(0, harmless))) {
            return false;
        }
        text.remove_prefix(std::exchange(harmless, 0));
        if (kind == Piece::undecided) {
            kept = text;
            return true;
        }
        if (!put(visible(text.substr(0, length), kind))) {
            return false;
        }
        text.remove_prefix(length);
        afterLineFeed = false;
    }
    return put(text);
}

bool HVLoggerTerminalFilter::put(std::string_view text) {
    const auto count = static_cast<std::streamsize>(text.size());
    return target->sputn(text.data(), count) == count;
}
