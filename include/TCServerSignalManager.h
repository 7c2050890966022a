/* SPDX-License-Identifier: Apache-2.0 */
/**
 * \file TCServerSignalManager.h
 * TCServerSignalManager: the per-server table of signal subscriptions.
 *
 * It only remembers, per subscription key, which callback to run with which
 * user data and the bus subscription id; the bus work is TCServer's.
 * Keys are "<bus name>.<signal>" (a named sender) or "<signal>" (any sender).
 *
 * Thread-safety: no lock of its own. Mutations and IfSignalSubscribed are
 * made by TCServer under the server's lock; the two look-ups run from the
 * bus signal callback without it (the table is filled before signals come).
 */
#ifndef HARVO_FW_TCSERVERSIGNALMANAGER_H
#define HARVO_FW_TCSERVERSIGNALMANAGER_H

#include "harvo-fw-export.h"

#include <map>
#include <string>
#include <vector>

#include "TCMessage.h"

/** The exported C message record (pelx.h). */
struct pelx_message_s;

namespace Quelt {

/** Only the value 1 selects the managed table; every other value, also one
 * outside the enumerators (hence the fixed underlying type), the native. */
enum TCSignalType : int {
    NATIVE_SIGNAL = 0,   ///< callback takes a TCMessage*
    MANAGED_SIGNAL = 1,  ///< callback takes a pelx_message_s*
};

/** A signal callback of C++ code: \p from is the sender's endpoint name,
 *  \p message the signal's body (valid during the call only). */
typedef void (*TCNativeSignalHandler)(const char* from, const char* signalName, TCMessage* message,
                                      void* userData);
/** A signal callback of the plain-function interface: the body comes as a
 *  pelx_message_s record (valid during the call only). */
typedef void (*TCManagedSignalHandler)(const char* from, const char* signalName,
                                       pelx_message_s* message, void* userData);

/** The callback of a subscription; which member is valid depends on the
 * table that holds the record. */
union TCSignalHandler {
    TCNativeSignalHandler native;    ///< in the native table
    TCManagedSignalHandler managed;  ///< in the managed table
};

/** One subscription; owned by the table that holds its pointer. */
struct TCSignalInfo {
    std::string m_signalName;   ///< as the subscriber gave it, without bus name
    TCSignalHandler m_handler;  ///< may be null
    void* m_userData;           ///< never freed here
    unsigned int m_id;          ///< from g_dbus_connection_signal_subscribe
};

/** The signal subscriptions of one TCServer: per key, the callback, its
 *  user data and the bus subscription id. No lock of its own. */
class HARVO_FW_API TCServerSignalManager {
public:
    /** Empties both tables without freeing the records. */
    void Init();

    ///@{
    /** Records a subscription under \p key in the native or the managed
     *  table; a record already under the key is replaced (not freed). */
    void SubscribeNativeSignal(std::string key, const char* signalName,
                               TCNativeSignalHandler handler, void* userData, unsigned int id);
    void SubscribeManagedSignal(std::string key, const char* signalName,
                                TCManagedSignalHandler handler, void* userData, unsigned int id);
    ///@}

    /** Type 1 selects the managed table, any other value the native one. */
    bool IfSignalSubscribed(TCSignalType type, std::string key);

    ///@{
    /** The callback and user data for an arriving signal: the qualified
     *  \p key wins over the plain \p signalName entry. \return false when
     *  neither is subscribed. */
    bool GetHandlerForNativeSignal(std::string signalName, std::string key,
                                   TCNativeSignalHandler& handler, void*& userData);
    bool GetHandlerForManagedSignal(std::string signalName, std::string key,
                                    TCManagedSignalHandler& handler, void*& userData);
    ///@}

    /** Removes one subscription and hands back its bus id. */
    bool UnsubscribeSignal(TCSignalType type, std::string key, unsigned int& id);
    /** Removes everything; |ids| receives the native ids in key order, then
     * the managed ones. */
    void Destroy(std::vector<unsigned int>& ids);

private:
    std::map<std::string, TCSignalInfo*> m_NativeSignals;
    std::map<std::string, TCSignalInfo*> m_ManagedSignals;

    /** Tests reach the tables through this peer. */
    friend class TCServerSignalManagerTestPeer;
};

}  // namespace Quelt

#endif  // HARVO_FW_TCSERVERSIGNALMANAGER_H
