#pragma once

#include <cstdint>

class QELselector;

/// Whoever wants to be told that a file descriptor is ready: derives from this class and registers
/// the descriptor with a QELselector. Owns neither the dispatcher nor the descriptor, and is owned
/// by its creator: the dispatcher only points to it.
///
/// Receiver and dispatcher may be destroyed in either order, and a receiver also inside any
/// callback: whichever goes first cuts the connection. Take a receiver out of the dispatcher
/// before its descriptor is closed, or the next cycle fails with EBADF.
///
/// There is one link (#selector) for all entries of a receiver. Whatever clears it leaves the
/// receiver's other entries served, but selRemoveWrite(), selRemoveRead(), selRemoveExcept() and
/// selExit() do nothing until the next registration sets it again.
class QELselRcv {
  public:
    /// The dispatcher this receiver is registered with, or null. Set by every successful
    /// registration; cleared by the selRemove operations, by a false result of onReady() and by
    /// the dispatcher's destructor. For reading only: the dispatcher sets it.
    QELselector* selector{nullptr};

    QELselRcv() = default;
    QELselRcv(const QELselRcv&) = delete;
    QELselRcv& operator=(const QELselRcv&) = delete;

    /// Erases every entry of this receiver from its dispatcher.
    virtual ~QELselRcv();

    /// A registered descriptor is ready; which one, and for what, is not told.
    ///
    /// @param nowUs  when the cycle began to dispatch, in microseconds of QELselector::nowUs(); the
    ///               same for all callbacks of a cycle
    /// @return true to stay registered, false to drop the entry being served (that descriptor, for
    ///         that condition) and clear #selector. When the callback itself has given the entry
    ///         to another receiver, it is that receiver's entry and link that go.
    ///
    /// May call every operation of the dispatcher, except QELselector::runOnce(), and of other
    /// receivers and timers; must not destroy the dispatcher.
    virtual bool onReady(std::int64_t nowUs) = 0;

    /// Erases this receiver's entry with the lowest descriptor from those waiting to write, then
    /// clears #selector. Does nothing when #selector is null.
    void selRemoveWrite();

    /// As selRemoveWrite(), from those waiting to read.
    void selRemoveRead();

    /// As selRemoveWrite(), from those waiting for an exceptional condition.
    void selRemoveExcept();

    /// Makes the running cycle of the dispatcher return @p code; see QELselector::setExitCode().
    /// Does nothing when #selector is null.
    void selExit(std::int32_t code) const;

  private:
    friend class QELselector;

    /// The dispatcher that may still hold an entry of it, even after the link is cleared.
    QELselector* registeredWith{nullptr};
};
