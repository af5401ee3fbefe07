#pragma once

#include "QELlogger5srv.h"
#include "QELselRcv.h"

#include <cstdint>

/// A log server driven by the dispatcher: reads one datagram each time its socket is readable and
/// hands it to a listener, which it does not own.
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

    /// Reads one datagram and passes it to onMessage(). A read that yields nothing (an empty
    /// datagram, a passing error) is no reason to stop: always true.
    bool onReady(std::int64_t nowUs) override;

    /// Hands the text to the listener, or without one prints it as a line on standard output.
    virtual void onMessage(const char* text, int length);
};
