#include "HVLoggerMediator.h"

#include "HVLoggerListener.h"
#include "HVLoggerTCPsockCli.h"
#include "HVLoggerTCPsockSrv.h"
#include "HVLoggerVocabulary.h"

#include <cstdint>
#include <iostream>
#include <string>

namespace {

void perform(QELloggerSyslogFmt& store, int messageType, void* payload) {
    switch (messageType) {
    case msgAddMessages:
        store.append(*static_cast<const std::string*>(payload));
        break;
    case msgReloadAll:
        store.clear();
        break;
    case msgSetSeverity:
        store.setMaxSeverity(
            static_cast<std::uint32_t>(*static_cast<const std::int32_t*>(payload)));
        break;
    case msgGetFormatted:
        store.allMessages(*static_cast<std::string*>(payload), true);
        break;
    case msgWriteFile:
        store.dumpToFile(static_cast<const char*>(payload));
        break;
    case msgEnableComponent:
        store.enableComponent(*static_cast<const std::string*>(payload));
        break;
    case msgEnableAll:
        store.setAllComponents(true);
        break;
    case msgDisableComponent:
        store.disableComponent(*static_cast<const std::string*>(payload));
        break;
    case msgDisableAll:
        store.setAllComponents(false);
        break;
    case msgGetAllRaw:
        store.allMessages(*static_cast<std::string*>(payload), false);
        break;
    case msgGetNewestRaw:
        if (!store.messages.empty()) {
            *static_cast<std::string*>(payload) = store.newestRaw();
        }
        break;
    default:
        break;
    }
}

void reportMissing(int id) {
    std::cout << "No valid object with id: " << id << "\r\n";
}

} // namespace

void HVLoggerMediator::notify(int destinationId, int messageType, void* payload) {
    if (messageType < msgAddMessages || messageType > msgTriggerRemoteDump) {
        return;
    }
    if (messageType == msgNewMessage) {
        if (void* server = getComponent(destinationId)) {
            static_cast<HVLoggerTCPsockSrv*>(server)->forwardNewest();
        } else {
            reportMissing(destinationId);
        }
        return;
    }
    if (messageType == msgTriggerRemoteDump) {
        if (void* client = getComponent(destinationId)) {
            static_cast<HVLoggerTCPsockCli*>(client)->requestDump();
        } else {
            reportMissing(destinationId);
        }
        return;
    }
    QELloggerSyslogFmt* store = storeOf(destinationId);
    if (store == nullptr) {
        reportMissing(destinationId);
        return;
    }
    perform(*store, messageType, payload);
    if (messageType == msgReloadAll) {
        if (void* client = getComponent(idTcpClient)) {
            static_cast<HVLoggerTCPsockCli*>(client)->requestAll();
        }
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
