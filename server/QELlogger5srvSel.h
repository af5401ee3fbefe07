#pragma once

#include "QELlogger5srv.h"
#include "QELselRcv.h"

#include <cstdint>

/// A log server driven by the dispatcher: reads a datagram, or several, each time its socket is
/// readable and hands each to a listener, which it does not own.
class QELlogger5srvSel : public QELlogger5srv, public QELselRcv {
  public:
    /// Takes the received datagrams.
    class Listener {
      public:
        /// @param text    one datagram, zero-terminated, without a line feed at its end; valid for
        ///                the call only
        /// @param length  bytes received, a removed line feed included
        virtual void onLogMessage(const char* text, int length) = 0;

      protected:
        // Listeners are never destroyed through this interface.
        ~Listener() = default;
    };

    Listener* listener = nullptr; ///< set by the owner; must outlive this server

    /// How many datagrams one call of onReady() reads at most. More than one is for a socket that
    /// does not block (QELsockBase::setBlocking()): the read after the last one would wait.
    unsigned datagramsAtOnce = 1;

    /// Reads what is waiting, at most datagramsAtOnce, and passes each datagram to onMessage()
    /// before it reads the next. Empty ones are left out. A read that yields nothing is no reason
    /// to stop watching: always true.
    bool onReady(std::int64_t nowUs) override;

    /// Hands the text to the listener, or without one prints it as a line on standard output.
    virtual void onMessage(const char* text, int length);
};
