#pragma once

#include "QELloggerDump.h"
#include "QELloggerSyslogMsg.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <list>
#include <map>
#include <string>
#include <string_view>
#include <vector>

/// The message store: owns the log messages of one process in arrival order, bounded by a byte
/// capacity, together with the display filters that decide which of them are echoed to the console,
/// listed and sent on. The filters never decide what is stored.
///
/// How a text becomes stored messages:
///  1. findMessage() cuts it into messages, each from its own header to the next one. A header is
///     "<", the priority's digits, ">" and one version digit (RFC 5424, 6.2).
///  2. The get operations pull the fields out by counting single blanks; the message text is
///     whatever follows the first " - ". Structured data is not recognised.
///  3. A message whose fields are all there is stored, the oldest one making room; others are
///     skipped silently.
///
/// For one thread, the dispatcher's. Console output goes to std::cout, lines end with "\r\n" and
/// nothing is flushed here.
class QELloggerSyslogFmt {
  public:
    static constexpr std::uint32_t defaultCapacity = 0x100000; ///< 1 MiB
    static constexpr std::size_t facilityCount = 24;           ///< RFC 5424, table 1
    static constexpr std::uint32_t severityCount = 8;          ///< RFC 5424, table 2

    std::list<QELloggerSyslogMsg> messages;              ///< oldest first
    std::uint32_t capacity = defaultCapacity;            ///< byte cap of the store
    std::uint32_t byteCount = 0;                         ///< sum of the `raw` lengths of `messages`
    std::map<std::string, bool, std::less<>> components; ///< program name to display flag
    std::vector<bool> facilityFlags = std::vector<bool>(facilityCount, true); ///< per facility
    std::int32_t minSeverity = 0; ///< lowest severity displayed
    std::int32_t maxSeverity = 7; ///< highest severity displayed
    bool consoleEcho = false;     ///< print accepted messages and filter changes on standard output

    /// Sets the byte cap, where 0 leaves the present one, and adds @p names to the program filter,
    /// each switched on. Messages of other programs are stored but never displayed.
    void addComponents(std::uint32_t newCapacity, const std::vector<std::string>& names);

    /// Cuts @p text into messages and stores each one that parses, in order. At most one message,
    /// the oldest, is dropped for each one stored: when the total would exceed `capacity`. Nothing
    /// is carried over to the next call. Takes time linear in the text.
    void append(std::string_view text);

    /// Drops all messages; the filters stay.
    void clear();

    /// Displays severities up to and including @p level; a level above 7 is ignored.
    void setMaxSeverity(std::uint32_t level);

    /// Shows, or hides, the messages of the program @p name; a name that was not given to
    /// addComponents() is ignored.
    void enableComponent(std::string_view name);
    void disableComponent(std::string_view name);

    /// Shows (true) or hides (false) the messages of all programs of the filter.
    void setAllComponents(bool value);

    /// Whether @p record is displayed: its program is switched on, its facility is known and
    /// switched on, and its severity is in the displayed range.
    [[nodiscard]] bool passesFilters(const QELloggerSyslogMsg& record) const;

    /// The line that shows @p record on a console, without a line end; empty if the record does not
    /// pass the filters.
    [[nodiscard]] std::string formatMessage(const QELloggerSyslogMsg& record) const;

    /// Writes @p line and "\r\n" to standard output.
    static void printLine(std::string_view line);

    /// Lists the stored messages that pass the filters, oldest first: as display lines, each
    /// ended by "\r\n" (@p formatted), or as their raw texts back to back.
    /// @param out  receives the listing; its former content is lost
    /// @return length of the listing in bytes
    std::size_t allMessages(std::string& out, bool formatted) const;

    /// The raw text of the newest message, whether or not it passes the filters; empty if the store
    /// is. Valid until the store changes.
    [[nodiscard]] const std::string& newestRaw() const;

    /// Writes all messages, unfiltered, oldest first, to the file @p path: QELloggerDump::write().
    /// @return a QELloggerDump::Result
    int writeFile(const char* path) const;

    /// Writes all messages to a file and has it compressed in the background:
    /// QELloggerDump::start(). The result tells only that this was started. A relative @p target
    /// lands in the working directory.
    /// @return a QELloggerDump::Result
    int dumpToFile(const char* target);

    // Extraction. None touches the store; each leaves its outputs unchanged on failure.

    /// Finds the first header in @p text. @return false if there is none
    static bool findHeader(std::string_view text, std::size_t& offset, std::size_t& length);

    /// Finds the first message in @p text. The caller sets @p start to 0 and @p end to the text's
    /// length; they become the message's bounds. Without any header they stay, and the whole text
    /// counts as one message.
    /// @return true if another message begins at @p end
    static bool findMessage(std::string_view text, std::size_t& start, std::size_t& end);

    /// Reads the number after the first "<". @return the priority, or -1 if there is none
    static int parsePriority(std::string_view message, std::int32_t& facility,
                             std::int32_t& severity);

    /// The fields in the positions of APP-NAME, PROCID and TIMESTAMP (with every 'T' and 'Z' made a
    /// blank), and the text after the first " - ". @return 0, or -1 if the message has no such
    /// field
    static int getAppName(std::string_view message, std::string& appName);
    static int getProcId(std::string_view message, std::string& procId);
    static int getTimestamp(std::string_view message, std::string& timestamp);
    static int getText(std::string_view message, std::string& text);

  private:
    using Component = std::map<std::string, bool, std::less<>>::const_iterator;

    /// The same in a loop. @param entry  the former record's in `components`, or the end there;
    ///                                   becomes that of @p record
    [[nodiscard]] bool passesFilters(const QELloggerSyslogMsg& record, Component& entry) const;
    static bool extract(std::string_view message, QELloggerSyslogMsg& record);
    bool store(std::string_view message);
    void setComponent(std::string_view name, bool value);

    QELloggerDump dump;
};
