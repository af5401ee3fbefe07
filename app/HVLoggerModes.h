#pragma once

#include "QELselector.h"

#include <atomic>
#include <cstdint>
#include <string>
#include <vector>

/// @file
/// The two modes of the program: each builds its components as local objects, wires them through
/// the mediator and the dispatcher, and runs one dispatcher cycle after the other until it ends.
/// Everything it says on the way is printed on standard output.

/// UDP port of the log datagrams and TCP port of the viewer.
inline constexpr std::uint16_t loggerPort = 50000;

/// Byte cap of a message store.
inline constexpr std::uint32_t storeCapacity = 0x100000;

/// Cleared by SIGINT, read by the server's loop.
extern std::atomic<bool> appRunning;
static_assert(std::atomic<bool>::is_always_lock_free, "written by a signal handler");

/// Signal handler: SIGINT clears appRunning, any other signal does nothing.
void onSignal(int signalNumber);

/// Gives the standard stream @p fd, if it is a terminal or pipe, an open file description of its
/// own that takes nothing rather than have its writer wait, without effect on other programs that
/// share it. There is none to be had for a socket, as a service has it, nor for a pipe of another
/// user, which are made non-blocking for all; those of another user's terminal still wait, unless
/// it is the controlling one.
void neverWait(int fd);

/// Has @p dispatcher watch @p fd for reading. @return false, with a line on standard error, if it
/// is beyond what the dispatcher can watch
bool watch(QELselector& dispatcher, QELselRcv& receiver, int fd);

/// Collects log datagrams and serves one viewer at a time until SIGINT.
/// @param address       local IPv4 address, host order, that viewers connect to; log datagrams come
///                      in on every interface
/// @param programNames  programs whose messages viewers get
/// @return the exit value: 0, -1 when a port could not be opened, or the dispatcher's negative
///         result (an interrupted wait included)
int runServer(std::uint32_t address, const std::vector<std::string>& programNames);

/// Shows what a server has collected and goes on collecting, driven by keys, until 'q', until
/// nothing more can come from the server and the keyboard, or until nobody reads standard output.
/// @param invocationName  what a failed connect is reported under
/// @param address         the server's IPv4 address, host order
/// @param programNames    programs whose messages are shown
/// @return the exit value: 0, also when the connection fails, -1 when standard output cannot be
///         written, or the dispatcher's negative result
int runClient(const char* invocationName, std::uint32_t address,
              const std::vector<std::string>& programNames);
