#pragma once

/// The one door between components that do not know each other: whoever wants something done hands
/// the mediator a destination id, a message type and a payload. Owns neither the components behind
/// the ids nor any payload.
class QELmediator {
  public:
    /// Performs, before it returns, the operation that @p messageType names on the component
    /// registered under @p destinationId.
    ///
    /// @param destinationId  id under which the component was registered
    /// @param messageType    what to do; an unknown type is ignored
    /// @param payload        owned by the caller and valid for the call only; what it points to is
    ///                       the message type's business, null where the type carries none
    ///
    /// A component may call notify() again while it handles a message.
    virtual void notify(int destinationId, int messageType, void* payload) = 0;

  protected:
    /// Mediators are never destroyed through this interface.
    ~QELmediator() = default;
};
