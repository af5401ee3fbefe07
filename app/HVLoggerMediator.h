#pragma once

#include "QELloggerSyslogFmt.h"
#include "QELmediator.h"

#include <map>

/// The mediator of both modes: the one place that knows which kind of component stands behind each
/// id and which operation each message type names. Does not own the components.
///
/// A message whose destination is missing prints "No valid object with id: " and the id on standard
/// output and does nothing else.
class HVLoggerMediator : public QELmediator {
  public:
    std::map<int, void*> registry; ///< component by id

    void notify(int destinationId, int messageType, void* payload) override;

    /// Registers @p component, which must be a pointer to exactly the class that
    /// HVLoggerComponentId names for @p id and must outlive the mediator's use. An id that is
    /// already present keeps its first component.
    void addComponent(int id, void* component);

    /// The component registered under @p id, or null.
    [[nodiscard]] void* getComponent(int id) const;

  private:
    [[nodiscard]] QELloggerSyslogFmt* storeOf(int id) const;
};
