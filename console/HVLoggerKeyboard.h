#pragma once

#include "QELmediator.h"
#include "QELselRcv.h"

#include <cstdint>
#include <termios.h>

/// The viewer's keyboard: puts the terminal on standard input into a raw mode while it lives and
/// turns each key into a message for the store or the TCP client, or into a local action. Owns
/// neither the descriptor nor the mediator.
///
/// In raw mode input comes byte by byte and unechoed, Ctrl-C and Enter are ordinary keys, and
/// output is processed as before (termios(3)). Without a terminal on standard input the bytes read
/// from there act all the same.
///
/// Lines go to std::cout, end with "\r\n" and are not flushed here.
class HVLoggerKeyboard : public QELselRcv {
  public:
    bool escapePending = false;      ///< a "[" was read: the next byte is discarded
    bool quitRequested = false;      ///< the key 'q' was read
    bool endHeldBack = false;        ///< that standard input has ended is not told yet
    QELmediator* mediator = nullptr; ///< not owned
    termios savedTermios{};          ///< the terminal's settings before this keyboard

    /// Switches the terminal to raw mode; without a terminal nothing happens.
    /// @param notified  takes the keys' messages; must outlive this object
    explicit HVLoggerKeyboard(QELmediator* notified);

    /// Restores the terminal.
    ~HVLoggerKeyboard() override;
    HVLoggerKeyboard(const HVLoggerKeyboard&) = delete;
    HVLoggerKeyboard& operator=(const HVLoggerKeyboard&) = delete;

    /// The descriptor to watch for reading: standard input's.
    static int fd();

    /// Reads one byte. @return it (0 to 255), or -1 when there was none or it is to be discarded
    int readKey();

    /// Prints the key commands.
    static void printHelp();

    /// Reads one key and acts on it. When standard input has ended or failed, one hyphen line is
    /// printed as for any key without a meaning and the keyboard detaches itself from the
    /// dispatcher; only the latter while endHeldBack is set. Always true.
    bool onReady(std::int64_t nowUs) override;

  private:
    /// @return false if @p key switches no component
    bool switchComponent(int key) const;

    bool inputEnded = false;
};
