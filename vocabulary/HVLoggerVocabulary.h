#pragma once

/// @file
/// The words that the components of both modes share: who is addressed (HVLoggerComponentId), what
/// is asked (HVLoggerMsgType), and the two fixed texts of a dump request. Nothing here knows a
/// component; every room of the application may include it.

/// Ids under which the modes register their components with the mediator.
enum HVLoggerComponentId : int {
    idStore = 0,     ///< the viewer's own message store, QELloggerSyslogFmt
    idListener = 1,  ///< HVLoggerListener; its message store is the server's
    idTcpServer = 2, ///< HVLoggerTCPsockSrv
    idTcpClient = 3, ///< HVLoggerTCPsockCli
    idKeyboard = 4,  ///< HVLoggerKeyboard; no message type is addressed to it
};

/// Message types, with the destination that understands each and what the payload points to.
enum HVLoggerMsgType : int {
    msgAddMessages = 0,       ///< store; std::string, text to append
    msgReloadAll = 1,         ///< store; none: clear it and ask the server for everything again
    msgSetSeverity = 2,       ///< store; int, the highest severity to show
    msgGetFormatted = 3,      ///< store; std::string, receives the listing for the console
    msgWriteFile = 4,         ///< store or listener; zero-terminated file name of the dump
    msgEnableComponent = 5,   ///< store; std::string, program name to show
    msgEnableAll = 6,         ///< store; none
    msgDisableComponent = 7,  ///< store; std::string, program name to hide
    msgDisableAll = 8,        ///< store; none
    msgGetAllRaw = 9,         ///< listener; std::string, receives the raw listing
    msgGetNewestRaw = 10,     ///< listener; std::string, receives the newest raw message
    msgNewMessage = 11,       ///< TCP server; none: a datagram was accepted
    msgTriggerRemoteDump = 12 ///< TCP client; none: have the server write its dump
};

/// File name that every dump request carries; the compressed dump is this name with ".gz".
inline constexpr const char* dumpFileName = "logger.txt";

/// A received datagram that contains this text is a dump request, not a log line.
inline constexpr const char* dumpTriggerMarker = "R4tNc8vLq2!&=^_";
