#include "HVLoggerMediator.h"

#include "HVLoggerListener.h"
#include "HVLoggerTCPsockCli.h"
#include "HVLoggerTCPsockSrv.h"
#include "HVLoggerVocabulary.h"

#include <cstdint>
#include <iostream>
#include <string>

void HVLoggerMediator::notify(int destinationId, int messageType, void* payload) {
    if (messageType < msgAddMessages || messageType > msgTriggerRemoteDump) {
        return;
    }
    const auto type = static_cast<HVLoggerMsgType>(messageType);
    const bool forTcp = type == msgNewMessage || type == msgTriggerRemoteDump;
    QELloggerSyslogFmt* const store = forTcp ? nullptr : storeOf(destinationId);
    void* const destination = forTcp ? getComponent(destinationId) : store;
    if (destination == nullptr) {
        std::cout << "No valid object with id: " << destinationId << "\r\n";
        return;
    }
    auto* const text = static_cast<std::string*>(payload); // what most types carry
    switch (type) {
    case msgAddMessages:
        store->append(*text);
        break;
    case msgReloadAll:
        store->clear();
        if (void* client = getComponent(idTcpClient)) {
            static_cast<HVLoggerTCPsockCli*>(client)->requestAll();
        }
        break;
    case msgSetSeverity:
        store->setMaxSeverity(static_cast<std::uint32_t>(*static_cast<std::int32_t*>(payload)));
        break;
    case msgGetFormatted:
        store->allMessages(*text, true);
        break;
    case msgWriteFile:
        store->dumpToFile(static_cast<const char*>(payload));
        break;
    case msgEnableComponent:
        store->enableComponent(*text);
        break;
    case msgEnableAll:
        store->setAllComponents(true);
        break;
    case msgDisableComponent:
        store->disableComponent(*text);
        break;
    case msgDisableAll:
        store->setAllComponents(false);
        break;
    case msgGetAllRaw:
        store->allMessages(*text, false);
        break;
    case msgGetNewestRaw:
        if (!store->messages.empty()) {
            *text = store->newestRaw();
        }
        break;
    case msgNewMessage:
        static_cast<HVLoggerTCPsockSrv*>(destination)->forwardNewest();
        break;
    case msgTriggerRemoteDump:
        static_cast<HVLoggerTCPsockCli*>(destination)->requestDump();
        break;
    }
}

void HVLoggerMediator::addComponent(int id, void* component) {
    registry.emplace(id, component);
}

void* HVLoggerMediator::getComponent(int id) const {
    const auto entry = registry.find(id);
    return entry == registry.end() ? nullptr : entry->second;
}

QELloggerSyslogFmt* HVLoggerMediator::storeOf(int id) const {
    if (id == idStore) {
        return static_cast<QELloggerSyslogFmt*>(getComponent(id));
    }
    if (id == idListener) {
        // The untyped pointer is the listener's; its store is a base at another address.
        return static_cast<HVLoggerListener*>(getComponent(id));
    }
    return nullptr;
}
