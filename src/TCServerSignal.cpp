// SPDX-License-Identifier: Apache-2.0
// TCServer: signals. A server emits named signals on its own object and
// interface; a subscriber of a named sender matches on the sender's bus
// name (as sender and as interface) and the member, so it hears whichever
// connection owns that name, in whatever process it lives, and no other.
// Received signals are decoded and handed to the subscription's callback,
// native (TCMessage) or managed (the C record), or to IfMessageReceived.

#include <cstring>
#include <memory>
#include <string>

#include "BusLimits.h"
#include "BusPayload.h"
#include "EndpointGuard.h"
#include "Guarded.h"
#include "MessageText.h"
#include "NameOwners.h"
#include "QueltLog.h"
#include "SendFailures.h"
#include "SenderIdentity.h"
#include "ServerCallbacks.h"
#include "TCServer.h"
#include "TCServerHelper.h"
#include "TCWrapperMessageOpr.h"

namespace Quelt {

namespace {

// Holds a TCMutex for one scope.
class ScopedLock {
public:
    explicit ScopedLock(TCMutex& mutex) : m_mutex(mutex) { m_mutex.Lock(); }
    ~ScopedLock() { m_mutex.Unlock(); }
    ScopedLock(const ScopedLock&) = delete;
    ScopedLock& operator=(const ScopedLock&) = delete;

private:
    TCMutex& m_mutex;
};

// A peer-to-peer connection has no sender names.
const char* OrNull(const char* text) {
    return text != nullptr ? text : "(null)";
}

bool IsOpen(GDBusConnection* connection) {
    return connection != nullptr && !g_dbus_connection_is_closed(connection);
}

detail::EndpointPin FindSource(const char* source);

}  // namespace

// ---------------------------------------------------------------------------
// Emission

bool TCServer::SendSignal(const char* signalName, const TCMessage* message) {
    if (signalName == nullptr) {
        QLOGW("%s is null", "signalName");
        return false;
    }
    // Only a create or a close holds the lock for long, and a sender does
    // not wait for them; a moment's holder is waited for.
    if (!detail::TakeCloseLockForSend(this, m_closeLock)) {
        QLOGE("Server is going to be closed!");
        return false;
    }
    // Counted until the emission returns; the close waits for it.
    detail::SendInFlight inFlight(this, &m_sendCount);
    m_closeLock.Unlock();
    if (inFlight.Result() == detail::SendInFlight::kClosing) {
        QLOGE("Server is going to be closed!");
        return false;
    }

    if (!IsOpen(m_connection)) {
        QLOGE("dbus connection is not open");
        QLOGE("%s", detail::ExplainNoConnection(m_name, m_connection).c_str());
        return false;
    }

    // What a copy of the message would carry, read without making one: the
    // text a copy regenerates from the tree, and the message's own bytes,
    // which the payload borrows while the caller's message lives (the whole
    // call). A null message is sent as an empty one.
    static const std::string kNoType;
    std::string text;
    guint32 code = 0;
    const std::string* type = &kNoType;
    const unsigned char* buffer = nullptr;
    unsigned int size = 0;
    std::unique_ptr<unsigned char[]> zeros;
    if (message != nullptr) {
        text = detail::CopiedText(*message);
        code = message->m_code;
        type = &message->m_type;
        size = message->m_size;
        buffer = message->m_buffer;
        // A size set without bytes: a copy holds that many zero bytes.
        if (size != 0 && buffer == nullptr) {
            zeros.reset(new unsigned char[size]());
            buffer = zeros.get();
        }
    }
    // Emitted, a signal above the bus's limit would make the daemon drop
    // this process's connection.
    const bool withBuffer = buffer != nullptr && size != 0;
    if (!detail::FitsOnBus(detail::MessageWireSize({"", m_objectPath, m_busName, signalName},
                                                   m_name, *type, text, withBuffer, size),
                           "signal")) {
        return false;
    }

    GVariant* payload = detail::BuildPayload(m_name.c_str(), code, type->c_str(), text.c_str(),
                                             withBuffer ? buffer : nullptr, size);

    // Our own reference: GDBus takes its own when it accepts the payload,
    // and an emission it refuses outright (a proxy has no object path) must
    // not leak it.
    g_variant_ref_sink(payload);
    GError* error = nullptr;
    const gboolean emitted =
        g_dbus_connection_emit_signal(m_connection, nullptr, m_objectPath.c_str(),
                                      m_busName.c_str(), signalName, payload, &error);
    if (!emitted) {
        if (error != nullptr) {
            QLOGE("faile to  invoking emit signal(%s %d)", error->message, error->code);
            g_error_free(error);
        }
    }
    g_variant_unref(payload);
    QLOGD("Send signal %s : %s.", signalName, emitted ? "success" : "fail");
    return emitted != FALSE;
}

bool TCServer::SendSignal(const char* source, const char* signalName, const TCMessage* message) {
    detail::EndpointPin server = FindSource(source);
    return server && server.get()->SendSignal(signalName, message);
}

// ---------------------------------------------------------------------------
// Subscription (members)

bool TCServer::SubscribeSignal(const char* from, const char* signalName,
                               TCNativeSignalHandler handler, void* userData) {
    ScopedLock lock(m_closeLock);
    unsigned int id = 0;
    std::string key;
    switch (m_SubscribeSignal(from, signalName, NATIVE_SIGNAL, id, key)) {
        case 1:
            QLOGI("already registered [%s]", key.c_str());
            return true;
        case 0: {
            std::lock_guard<std::mutex> tables(detail::SignalTablesMutex());
            m_signalManager.SubscribeNativeSignal(key, signalName, handler, userData, id);
        }
            QLOGI("SubscribeSignal %s success", key.c_str());
            return true;
        default:
            // Left at info level, although it reports a failure.
            QLOGI("fail to register [%s]", key.c_str());
            return false;
    }
}

bool TCServer::SubscribeManagedSignal(const char* from, const char* signalName,
                                      TCManagedSignalHandler handler, void* userData) {
    ScopedLock lock(m_closeLock);
    unsigned int id = 0;
    std::string key;
    switch (m_SubscribeSignal(from, signalName, MANAGED_SIGNAL, id, key)) {
        case 1:
            return true;
        case 0: {
            std::lock_guard<std::mutex> tables(detail::SignalTablesMutex());
            m_signalManager.SubscribeManagedSignal(key, signalName, handler, userData, id);
        }
            QLOGI("Subscribe Managed Signal %s success", key.c_str());
            return true;
        default:
            return false;
    }
}

bool TCServer::UnSubscribeSignal(const char* from, const char* signalName) {
    ScopedLock lock(m_closeLock);
    return m_UnSubscribeSignal(from, signalName, NATIVE_SIGNAL);
}

bool TCServer::UnSubscribeManagedSignal(const char* from, const char* signalName) {
    ScopedLock lock(m_closeLock);
    return m_UnSubscribeSignal(from, signalName, MANAGED_SIGNAL);
}

// Key signals are kept in the interface as placeholders.
bool TCServer::SubscribeKeySignal(const char* /*from*/, const char* /*signalName*/,
                                  TCNativeSignalHandler /*handler*/, void* /*userData*/) {
    return false;
}

bool TCServer::UnSubscribeKeySignal(const char* /*from*/, const char* /*signalName*/) {
    return false;
}

// ---------------------------------------------------------------------------
// Subscription (static forms: |source| is the subscribing server of this
// process; through them a subscription always names its sender)

namespace {

// The server of this process named |source|, pinned for the call: a close
// on another thread waits for it, and one already closing is not found.
detail::EndpointPin FindSource(const char* source) {
    TCServer* server = TCServer::m_GetDbusServer(source);
    detail::EndpointPin pin = detail::PinIfOpen(server);
    if (!pin)
        QLOGW("%s is null", "server");
    return pin;
}

}  // namespace

bool TCServer::SubscribeSignal(const char* source, const char* from, const char* signalName,
                               TCNativeSignalHandler handler, void* userData) {
    if (from == nullptr) {
        QLOGW("%s is null", "from");
        return false;
    }
    detail::EndpointPin server = FindSource(source);
    return server && server.get()->SubscribeSignal(from, signalName, handler, userData);
}

bool TCServer::SubscribeManagedSignal(const char* source, const char* from, const char* signalName,
                                      TCManagedSignalHandler handler, void* userData) {
    if (from == nullptr) {
        QLOGW("%s is null", "from");
        return false;
    }
    detail::EndpointPin server = FindSource(source);
    return server && server.get()->SubscribeManagedSignal(from, signalName, handler, userData);
}

bool TCServer::UnSubscribeSignal(const char* source, const char* from, const char* signalName) {
    if (from == nullptr) {
        QLOGW("%s is null", "from");
        return false;
    }
    detail::EndpointPin server = FindSource(source);
    return server && server.get()->UnSubscribeSignal(from, signalName);
}

bool TCServer::UnSubscribeManagedSignal(const char* source, const char* from,
                                        const char* signalName) {
    if (from == nullptr) {
        QLOGW("%s is null", "from");
        return false;
    }
    detail::EndpointPin server = FindSource(source);
    return server && server.get()->UnSubscribeManagedSignal(from, signalName);
}

bool TCServer::SubscribeKeySignal(const char* source, const char* from, const char* signalName,
                                  TCNativeSignalHandler handler, void* userData) {
    detail::EndpointPin server = FindSource(source);
    return server && server.get()->SubscribeKeySignal(from, signalName, handler, userData);
}

bool TCServer::UnSubscribeKeySignal(const char* source, const char* from, const char* signalName) {
    detail::EndpointPin server = FindSource(source);
    return server && server.get()->UnSubscribeKeySignal(from, signalName);
}

// ---------------------------------------------------------------------------
// The bus side of subscriptions

int TCServer::m_SubscribeSignal(const char* from, const char* signalName, TCSignalType type,
                                unsigned int& id, std::string& key) {
    if (!IsOpen(m_connection)) {
        QLOGE("dbus connection is not open");
        QLOGE("%s", detail::ExplainNoConnection(m_name, m_connection).c_str());
        return -1;
    }
    if (signalName == nullptr) {
        QLOGW("%s is null", "signalName");
        return -1;
    }
    // A named sender is matched by the interface it emits on (its bus
    // name); without one, the member is matched on any interface, and a
    // second call subscribes on the bus once more.
    std::string interfaceName;
    if (from != nullptr) {
        interfaceName = m_GetDBusName(from);
        key = interfaceName + "." + signalName;
        std::lock_guard<std::mutex> tables(detail::SignalTablesMutex());
        if (m_signalManager.IfSignalSubscribed(type, key))
            return 1;
    } else {
        key = signalName;
    }
    QLOGI("Begin subscribe signal");
    // A named sender is also the sender of the match: the bus then routes
    // only the signals of the connection that owns that name, whichever it
    // is at the time. Its owner is followed first, so that it is known
    // before the first signal the match lets through (see m_DSignalHandler).
    const char* sender = nullptr;
    if (from != nullptr) {
        sender = interfaceName.c_str();
        detail::FollowNameOwner(m_connection, interfaceName);
    }
    // GDBus holds the endpoint's token, not the server: a signal it had
    // queued before the close finds the endpoint gone (m_DSignalHandler is
    // reached through ServerCallbacks).
    gpointer ref = detail::NewCallbackRef(detail::TokenOf(this));
    id = g_dbus_connection_signal_subscribe(
        m_connection, sender, sender, signalName, nullptr, nullptr, G_DBUS_SIGNAL_FLAGS_NONE,
        detail::ServerCallbacks::Signal, ref, detail::FreeCallbackRef);
    if (id == 0) {
        detail::FreeCallbackRef(ref);
        QLOGE("fail to subscribe signal");
        return -1;
    }
    return 0;
}

bool TCServer::m_UnSubscribeSignal(const char* from, const char* signalName, TCSignalType type) {
    // A subscription without sender cannot be cancelled singly: only the
    // close of the server removes it.
    if (!IsOpen(m_connection) || from == nullptr) {
        QLOGE("dbus connection is not open");
        if (from == nullptr)
            QLOGE(
                "a subscription made without a sender cannot be cancelled singly: closing the "
                "endpoint ends it");
        else
            QLOGE("%s", detail::ExplainNoConnection(m_name, m_connection).c_str());
        return false;
    }
    if (signalName == nullptr) {
        QLOGW("%s is null", "signalName");
        return false;
    }
    const std::string key = m_GetDBusName(from) + "." + signalName;
    unsigned int id = 0;
    bool found = false;
    {
        std::lock_guard<std::mutex> tables(detail::SignalTablesMutex());
        found = m_signalManager.UnsubscribeSignal(type, key, id);
    }
    if (found)
        g_dbus_connection_signal_unsubscribe(m_connection, id);
    return true;
}

// ---------------------------------------------------------------------------
// Dispatch, on the main context that was the thread-default of the
// subscribing thread. The registry is read without the server's lock, under
// the lock of the subscription tables only, which another thread's
// subscribe or unsubscribe takes while it changes them.

void TCServer::m_DSignalHandler(GDBusConnection* connection, const char* senderName,
                                const char* objectPath, const char* interfaceName,
                                const char* signalName, GVariant* parameters, void* userData) {
    if (interfaceName == nullptr) {
        QLOGW("%s is null", "interfaceName");
        return;
    }
    if (signalName == nullptr) {
        QLOGW("%s is null", "signalName");
        return;
    }
    TCServer* server = static_cast<TCServer*>(userData);
    if (server == nullptr) {
        QLOGW("%s is null", "pThis");
        return;
    }
    QLOGI("sender(%s) object(%s) interface(%s) signal(%s)", OrNull(senderName), OrNull(objectPath),
          interfaceName, signalName);
    // One allocation for the key: interface, ".", member.
    const size_t interfaceLength = std::strlen(interfaceName);
    const size_t signalLength = std::strlen(signalName);
    std::string key;
    key.reserve(interfaceLength + 1 + signalLength);
    key.append(interfaceName, interfaceLength).append(1, '.').append(signalName, signalLength);

    // A subscription to an endpoint's signals hears only the connection
    // that owns the endpoint's bus name. The bus routes nothing else to it,
    // but a subscription to any sender (of this server, or of another
    // endpoint on this connection) brings everyone's signals of that name,
    // and the lookup below would hand them to the named subscription.
    const std::string* lookupKey = &key;
    std::string anySender;
    bool named = false;
    {
        std::lock_guard<std::mutex> tables(detail::SignalTablesMutex());
        named = server->m_signalManager.IfSignalSubscribed(NATIVE_SIGNAL, key) ||
                server->m_signalManager.IfSignalSubscribed(MANAGED_SIGNAL, key);
    }
    if (named && !detail::SignalIsFromNameOwner(connection, senderName, interfaceName, signalName,
                                                parameters)) {
        anySender = signalName;  // only subscriptions to any sender hear it
        lookupKey = &anySender;
    }

    // Native wins over managed; within a kind the qualified key wins over
    // the plain signal name.
    TCNativeSignalHandler nativeHandler = nullptr;
    void* nativeData = nullptr;
    TCManagedSignalHandler managedHandler = nullptr;
    void* managedData = nullptr;
    bool found = false;
    {
        std::lock_guard<std::mutex> tables(detail::SignalTablesMutex());
        found = server->m_signalManager.GetHandlerForNativeSignal(signalName, *lookupKey,
                                                                  nativeHandler, nativeData) ||
                server->m_signalManager.GetHandlerForManagedSignal(signalName, *lookupKey,
                                                                   managedHandler, managedData);
    }
    if (!found) {
        QLOGI("no register info of %s", key.c_str());
        return;
    }
    // Any peer may emit any member on any interface: only the known shapes
    // reach the callbacks.
    if (!detail::IsMessagePayload(parameters)) {
        QLOGW("dropped signal %s: payload %s is not (suss), (sussa(y)) or (sussay)", key.c_str(),
              parameters != nullptr ? g_variant_get_type_string(parameters) : "null");
        return;
    }
    QLOGI("begin to analyze signal of %s", key.c_str());

    // The payload holds the fields for the whole delivery: the message is
    // filled from them and the sender's name is lent to the callback.
    {
        detail::PayloadView fields;
        detail::ReadMessagePayload(parameters, &fields);
        const char* from = fields.from;
        TCMessage message;
        detail::FillMessage(&message, fields);

        // The message and the C record live only for the call.
        if (nativeHandler != nullptr) {
            QUELT_CALL_GUARDED("signal callback",
                               [&] { nativeHandler(from, signalName, &message, nativeData); });
        } else if (managedHandler != nullptr) {
            QUELT_CALL_GUARDED("signal callback", [&] {
                TCWrapperMessage wrapper(&message);
                managedHandler(from, signalName, wrapper.GetMMessager(), managedData);
            });
        } else {
            // Signals are never answered: the reply is dropped.
            TCMessage reply;
            QUELT_CALL_GUARDED("IfMessageReceived", [&] {
                server->IfMessageReceived(from, &message, &reply, signalName);
            });
        }
    }
}

}  // namespace Quelt
