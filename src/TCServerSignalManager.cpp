// SPDX-License-Identifier: Apache-2.0
// TCServerSignalManager: the per-server table of signal subscriptions.

#include "TCServerSignalManager.h"

#include <memory>

#include "QueltLog.h"

namespace Quelt {

namespace {

typedef std::map<std::string, TCSignalInfo*> SignalTable;

// A new record for one subscription; the handler is filled by the caller,
// which knows which member of the union it stores.
std::unique_ptr<TCSignalInfo> MakeSignalInfo(const char* signalName, void* userData,
                                             unsigned int id) {
    std::unique_ptr<TCSignalInfo> info(new TCSignalInfo());
    info->m_signalName = (signalName != nullptr) ? signalName : "";
    info->m_userData = userData;
    info->m_id = id;
    return info;
}

// Stores |info| under |key|. An entry already there is replaced and its
// record is not freed: the server asks IfSignalSubscribed before it
// subscribes, so a repeated store is a caller's mistake that only leaks.
void Store(SignalTable& table, const std::string& key, std::unique_ptr<TCSignalInfo> info) {
    // operator[] may throw while inserting; |info| is then still ours and
    // is released, and the table stays as it was.
    TCSignalInfo*& slot = table[key];
    slot = info.release();
}

// The entry that a received signal belongs to: the qualified key first,
// then the plain signal name (subscriptions that named no sender).
SignalTable::iterator Find(SignalTable& table, const std::string& signalName,
                           const std::string& key) {
    auto found = table.find(key);
    if (found == table.end())
        found = table.find(signalName);
    return found;
}

// Frees every record of |table| in key order, appending its id to |ids|,
// then empties the table.
void DrainTable(SignalTable& table, std::vector<unsigned int>& ids) {
    for (auto& entry : table) {
        if (entry.second == nullptr)
            continue;
        ids.push_back(entry.second->m_id);
        delete entry.second;
        entry.second = nullptr;
    }
    table.clear();
}

}  // namespace

void TCServerSignalManager::Init() {
    // The records are not freed here: Init runs once, on empty tables.
    m_NativeSignals.clear();
    m_ManagedSignals.clear();
}

void TCServerSignalManager::SubscribeNativeSignal(std::string key, const char* signalName,
                                                  TCNativeSignalHandler handler, void* userData,
                                                  unsigned int id) {
    std::unique_ptr<TCSignalInfo> info = MakeSignalInfo(signalName, userData, id);
    info->m_handler.native = handler;
    Store(m_NativeSignals, key, std::move(info));
}

void TCServerSignalManager::SubscribeManagedSignal(std::string key, const char* signalName,
                                                   TCManagedSignalHandler handler, void* userData,
                                                   unsigned int id) {
    std::unique_ptr<TCSignalInfo> info = MakeSignalInfo(signalName, userData, id);
    info->m_handler.managed = handler;
    Store(m_ManagedSignals, key, std::move(info));
}

bool TCServerSignalManager::IfSignalSubscribed(TCSignalType type, std::string key) {
    // Only the value 1 selects the managed table.
    const SignalTable& table = (type == MANAGED_SIGNAL) ? m_ManagedSignals : m_NativeSignals;
    return table.find(key) != table.end();
}

bool TCServerSignalManager::GetHandlerForNativeSignal(std::string signalName, std::string key,
                                                      TCNativeSignalHandler& handler,
                                                      void*& userData) {
    auto found = Find(m_NativeSignals, signalName, key);
    if (found == m_NativeSignals.end()) {
        QLOGD("cannot find %s", key.c_str());
        return false;
    }
    // A null record still counts as found; the caller's values then stand.
    if (found->second != nullptr) {
        handler = found->second->m_handler.native;
        userData = found->second->m_userData;
    }
    return true;
}

bool TCServerSignalManager::GetHandlerForManagedSignal(std::string signalName, std::string key,
                                                       TCManagedSignalHandler& handler,
                                                       void*& userData) {
    auto found = Find(m_ManagedSignals, signalName, key);
    if (found == m_ManagedSignals.end()) {
        QLOGD("cannot find %s", key.c_str());
        return false;
    }
    if (found->second != nullptr) {
        handler = found->second->m_handler.managed;
        userData = found->second->m_userData;
    }
    return true;
}

bool TCServerSignalManager::UnsubscribeSignal(TCSignalType type, std::string key,
                                              unsigned int& id) {
    SignalTable& table = (type == MANAGED_SIGNAL) ? m_ManagedSignals : m_NativeSignals;
    auto found = table.find(key);
    if (found == table.end())
        return false;
    if (found->second != nullptr)
        id = found->second->m_id;
    QLOGI("UnSubscribeSignal %s(%d)", key.c_str(), static_cast<int>(id));
    delete found->second;
    found->second = nullptr;
    table.erase(found);
    return true;
}

void TCServerSignalManager::Destroy(std::vector<unsigned int>& ids) {
    ids.clear();
    DrainTable(m_NativeSignals, ids);
    DrainTable(m_ManagedSignals, ids);
}

}  // namespace Quelt
