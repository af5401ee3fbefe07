#pragma once

#include <ios>
#include <ostream>
#include <streambuf>
#include <string>
#include <string_view>

/// Stands between an output stream and a terminal: log text comes from anyone who can reach the
/// log port, and must not move the cursor, rename the window or type for the user. Installs itself
/// on the stream while it lives; owns neither the stream nor the buffer it writes to.
///
/// Passes on: TAB, LF, every other valid UTF-8 character (RFC 3629, section 4) that is no control
/// character, and a CR directly before or after a LF, which cannot overwrite anything. A direction
/// override or a line separator is a character like others.
///
/// Shows instead:
///   - other control characters up to U+001F, lone CR among them, and DEL in caret form: ESC is
///     `^[`, CR `^M`, NUL `^@`, DEL `^?`;
///   - U+0080 to U+009F as `\u` and four digits: `\u009B`;
///   - each byte that belongs to no valid character (stray, overlong, surrogate, above U+10FFFF,
///     cut off) as `\x` and two digits: `\x9B`, which an 8-bit terminal takes for ESC [.
///
/// How the text is cut into writes makes no difference: a CR or the beginning of a character at the
/// end of one write is kept, even over a flush, until the next byte tells what it is. Text that
/// needs no change is passed on in as few pieces as it came.
class HVLoggerTerminalFilter : public std::streambuf {
  public:
    /// @param filtered  the stream whose buffer is replaced; it must have one, and it must outlive
    ///                  this object
    explicit HVLoggerTerminalFilter(std::ostream& filtered);

    /// Shows what was kept and gives the stream its own buffer back; the stream's state stays.
    ~HVLoggerTerminalFilter() override;
    HVLoggerTerminalFilter(const HVLoggerTerminalFilter&) = delete;
    HVLoggerTerminalFilter& operator=(const HVLoggerTerminalFilter&) = delete;

  protected:
    /// @return @p count; 0, which makes the stream bad, when the stream's own buffer failed
    std::streamsize xsputn(const char* text, std::streamsize count) override;
    int_type overflow(int_type c) override;
    int sync() override;

  private:
    bool pass(std::string_view text);
    bool put(std::string_view text);

    std::ostream& stream;
    std::streambuf* target;     ///< the stream's own
    std::string kept;           ///< CR or an incomplete character, to be passed on or shown
    bool afterLineFeed = false; ///< whether the byte before it was a LF
};
