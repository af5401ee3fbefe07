#include "QELlogger5.h"
#include "QELlogger5_5424.h"
#include "QELloggerSyslogFmt.h"

#include <gtest/gtest.h>

#include <array>
#include <random>
#include <string>
#include <string_view>
#include <unistd.h>
#include <vector>

namespace {

struct Statement {
    int severity;
    std::string host, app, text, line;
};

/// Statements of random words and of random texts with much that means something to a reader.
class Statements {
  public:
    Statement next() {
        Statement made{number(0, 7), word(), word(), text(), ""};
        made.line = QELlogger5_5424().format(made.severity, made.host, made.app, made.text);
        const std::size_t header = made.line.find(" - ") + 3;
        if (header + made.text.size() > QELlogger5_5424::maxLine) {
            made.text.resize(QELlogger5_5424::maxLine - header - 3);
            made.text += "...";
        }
        return made;
    }

  private:
    int number(int least, int most) { return std::uniform_int_distribution(least, most)(random); }

    std::string word() {
        std::string made;
        for (int left = number(0, 12); left > 0; --left) {
            made += static_cast<char>(number('0', 'z'));
        }
        return made;
    }

    std::string text() {
        static constexpr auto pieces =
            std::to_array<std::string_view>({" ", "-", " - ", "<", ">", "14", "<14>", "<14>1", "\n",
                                             "T", "Z", "Call setup done", "\xc3\xa4"});
        std::string made;
        for (int left = number(0, 1) == 0 ? number(0, 8) : number(0, 300); left > 0; --left) {
            if (number(0, 2) == 0) {
                made += pieces[static_cast<std::size_t>(
                    number(0, static_cast<int>(pieces.size()) - 1))];
            } else {
                made += static_cast<char>(number(-128, 127));
            }
        }
        return made;
    }

    std::mt19937 random{20240305};
};

TEST(RoundTrip, TheStoreReadsEveryFieldThatTheFormatterWrote) {
    Statements statements;
    for (int n = 0; n < 20'000; ++n) {
        const Statement made = statements.next();
        SCOPED_TRACE(made.line);
        const QELloggerSyslogFmt store;
        std::string app;
        std::string process;
        std::string timestamp;
        std::string text;
        std::int32_t facility = -1;
        std::int32_t severity = -1;
        ASSERT_EQ(store.parsePriority(made.line, facility, severity), 8 + made.severity);
        ASSERT_EQ(facility, 1);
        ASSERT_EQ(severity, made.severity);
        ASSERT_EQ(store.getAppName(made.line, app), 0);
        ASSERT_EQ(app, made.app);
        ASSERT_EQ(store.getProcId(made.line, process), 0);
        ASSERT_EQ(process, std::to_string(getpid()));
        ASSERT_EQ(store.getTimestamp(made.line, timestamp), 0);
        ASSERT_EQ(timestamp.size(), std::string("2024-03-05 10:20:30.123 ").size());
        ASSERT_EQ(store.getText(made.line, text), 0);
        ASSERT_EQ(text, made.text);
    }
}

TEST(RoundTrip, LinesBackToBackAreCutWhereTheyWereJoined) {
    Statements statements;
    std::vector<Statement> joined;
    std::string lines;
    while (joined.size() < 500) {
        Statement made = statements.next();
        std::size_t offset = 0;
        std::size_t length = 0;
        if (QELloggerSyslogFmt::findHeader(made.line.substr(1), offset, length)) {
            continue; // a header within the line starts another message, by design
        }
        lines += made.line;
        joined.push_back(std::move(made));
    }
    QELloggerSyslogFmt store;
    store.append(lines);
    ASSERT_EQ(store.messages.size(), joined.size());
    auto record = store.messages.begin();
    for (const Statement& made : joined) {
        EXPECT_EQ(record->raw, made.line);
        EXPECT_EQ(record->text, made.text);
        EXPECT_EQ(record->appName, made.app);
        EXPECT_EQ(record->severity, made.severity);
        ++record;
    }
}

} // namespace
