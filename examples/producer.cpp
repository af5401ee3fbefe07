/// producer NAME [rounds [milliseconds]]
///
/// A process of the device as the log collector sees it: logs under the name NAME, one line of each
/// severity a round. One round unless told otherwise, and a second between two rounds.

#include "QELlogger5.h"
#include "QELlogger5_5424.h"
#include "QELlogger5_UDP.h"

#include <array>
#include <charconv>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <iostream>
#include <string>
#include <string_view>
#include <thread>
#include <unistd.h>

namespace {

constexpr std::uint16_t collectorPort = 50000;

/// What happens to the device, by severity.
constexpr std::array<std::string_view, 8> events = {
    "Power supply failing, shutting down",
    "Temperature 93 C, limit 85 C",
    "Flash memory worn out, settings are no longer stored",
    "Stream 239.10.0.4:5004 lost",
    "Clock 412 us behind the reference",
    "Configuration changed by operator",
    "Connection to 10.0.0.17 established",
    "Poll answered in 3 ms",
};

std::string hostName() {
    std::array<char, 256> name{};
    const bool known = gethostname(name.data(), name.size() - 1) == 0 && name[0] != '\0';
    return known ? name.data() : "localhost";
}

bool readNumber(std::string_view text, std::uint32_t& number) {
    const auto [end, error] = std::from_chars(text.begin(), text.end(), number);
    return error == std::errc() && end == text.end();
}

int fail(std::string_view reason) {
    std::cerr << "producer: " << reason << '\n';
    return EXIT_FAILURE;
}

} // namespace

int main(int argc, char** argv) {
    if (argc < 2 || argc > 4) {
        return fail("usage: producer NAME [rounds [milliseconds]]");
    }
    const std::string_view name = argv[1];
    if (name.empty() || name.find_first_of(" \t\n") != std::string_view::npos) {
        return fail("NAME must be one word");
    }
    std::uint32_t rounds = 0;
    if (argc > 2 && !readNumber(argv[2], rounds)) {
        return fail("the rounds must be a number from 0 to 4294967295");
    }
    std::uint32_t milliseconds = 1000;
    if (argc > 3 && !readNumber(argv[3], milliseconds)) {
        return fail("the milliseconds must be a number from 0 to 4294967295");
    }

    // What every process does to log: these five lines, then a stream and a flush a statement.
    QELlogger5_5424 formatter;
    QELlogger5_UDP sender;
    sender.open(collectorPort);
    QELlogger5 logger;
    logger.setup(hostName(), name, &formatter, &sender);

    if (sender.socket.fd < 0) {
        return fail("no socket to log with");
    }
    logger.maxSeverity = sevDebug; // debug lines too
    std::uint32_t round = 0;
    do {
        if (round > 0) {
            std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
        }
        ++round;
        for (int severity = sevEmergency; severity <= sevDebug; ++severity) {
            std::ostream& out = logger.stream(severity);
            out.clear(); // a line that could not be sent is lost, the next one is tried
            out << events[static_cast<std::size_t>(severity)] << ", event " << round << std::flush;
        }
    } while (round < rounds);
    return EXIT_SUCCESS;
}
