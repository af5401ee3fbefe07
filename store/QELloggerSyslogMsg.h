#pragma once

#include <cstdint>
#include <string>

/// One stored log message. Owns copies of all its texts and refers to nothing outside itself.
struct QELloggerSyslogMsg {
    std::int32_t facility = 0; ///< priority / 8; 0 to 23 for a standard priority, larger as read
    std::int32_t severity = 0; ///< priority modulo 8: 0 emergency to 7 debug (RFC 5424, 6.2.1)
    std::string appName;       ///< APP-NAME; what the program filter looks at
    std::string procId;        ///< PROCID
    std::string timestamp;     ///< TIMESTAMP with every 'T' and 'Z' replaced by a blank
    std::string text;          ///< everything after the first " - "
    std::string raw;           ///< the whole message as received, header included
};
