// SPDX-License-Identifier: Apache-2.0
// TCServer: construction, the hooks' defaults, the process-wide registry of
// created servers, creating and closing the endpoint on the system bus, the
// name callbacks and the service-presence query. Message exchange lives in
// TCServerMessage.cpp, signals in TCServerSignal.cpp.

#include "TCServer.h"

#include <cstdio>
#include <mutex>
#include <vector>

#include "BusInterface.h"
#include "EndpointGuard.h"
#include "Guarded.h"
#include "QueltLog.h"
#include "SendFailures.h"
#include "ServerCallbacks.h"
#include "TCServerHelper.h"

namespace Quelt {

std::map<std::string, TCServer*> TCServer::m_CreatedDbusServers;

namespace {

// The process keeps its bus connection while it is open. GDBus drops what
// is still waiting to be written when a connection's last reference goes,
// and that reference can be a reply's: the error reply to a request that
// was still queued for a worker when its endpoint closed, or a handler's
// reply written just before the close released the endpoint's reference.
// A connection the bus has closed is let go before the next one is asked
// for: GLib hands out the same connection for as long as it lives.
class KeptConnection {
public:
    static void LetGoIfClosed() {
        std::lock_guard<std::mutex> guard(Lock());
        if (Kept() != nullptr && g_dbus_connection_is_closed(Kept())) {
            g_object_unref(Kept());
            Kept() = nullptr;
        }
    }
    static void Keep(GDBusConnection* connection) {
        std::lock_guard<std::mutex> guard(Lock());
        if (Kept() == connection)
            return;
        GDBusConnection* previous = Kept();
        Kept() = static_cast<GDBusConnection*>(g_object_ref(connection));
        if (previous != nullptr)
            g_object_unref(previous);
    }

private:
    static std::mutex& Lock() {
        static auto* lock = new std::mutex();
        return *lock;
    }
    static GDBusConnection*& Kept() {
        static GDBusConnection* kept = nullptr;
        return kept;
    }
};

// Allow-replacement and replace: a restarted service takes its name back
// from a stale owner.
const GBusNameOwnerFlags kOwnFlags = static_cast<GBusNameOwnerFlags>(
    G_BUS_NAME_OWNER_FLAGS_ALLOW_REPLACEMENT | G_BUS_NAME_OWNER_FLAGS_REPLACE);

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

// Formatting leaves only legal characters, but the bus has further rules
// (no element starting with a digit, no empty element, at most 255 bytes)
// which GDBus enforces with a critical warning and a bare failure. They
// are checked here, with a line that says which endpoint is refused.
bool IsUsableBusName(const std::string& endpoint, const std::string& busName) {
    if (!g_dbus_is_name(busName.c_str()) || g_dbus_is_unique_name(busName.c_str())) {
        QLOGE("endpoint name '%s' cannot be used on the bus: '%s' is not a valid bus name",
              endpoint.c_str(), busName.c_str());
        return false;
    }
    const std::string objectPath = TCServerHelper::GetObjectPath(busName);
    if (!g_variant_is_object_path(objectPath.c_str())) {
        QLOGE("endpoint name '%s' cannot be used on the bus: '%s' is not a valid object path",
              endpoint.c_str(), objectPath.c_str());
        return false;
    }
    return true;
}

}  // namespace

TCServer::TCServer(std::string name, TCServerType type)
    : m_type(type),
      m_created(false),
      m_name(name),
      m_busName(name + ".message"),
      m_mainLoop(nullptr),
      m_connection(nullptr),
      m_ownerId(0),
      m_registrationId(0),
      m_nodeInfo(nullptr),
      m_sendCount(0) {
    m_signalManager.Init();
    m_closeLock.Create();
}

TCServer::~TCServer() {
    // A server deleted without its close: late replies, queued requests and
    // GDBus's callbacks must still find it gone, and nobody may find it by
    // name any more (a no-op after CloseDBusServer).
    {
        std::lock_guard<std::mutex> guard(detail::RegistryMutex());
        auto found = m_CreatedDbusServers.find(m_name);
        if (found != m_CreatedDbusServers.end() && found->second == this)
            m_CreatedDbusServers.erase(found);
    }
    detail::ForgetEndpoint(this);
    detail::ForgetFailureHandler(this);
    m_closeLock.Destroy();
}

bool TCServer::IfHandleInEventIO(const char* /*from*/, const TCMessage* /*message*/,
                                 TCEventIO** /*eventIO*/) {
    return false;
}

bool TCServer::IfMessageReceived(const char* /*from*/, const TCMessage* /*message*/,
                                 TCMessage* /*reply*/, const char* /*signalName*/) {
    return false;
}

bool TCServer::IfMessageReplied(const char* /*from*/, const TCMessage* /*reply*/) {
    return false;
}

TCServer* TCServer::m_GetDbusServer(const char* name) {
    if (name == nullptr) {
        QLOGW("%s is null", "source");
        return nullptr;
    }
    {
        std::lock_guard<std::mutex> guard(detail::RegistryMutex());
        auto found = m_CreatedDbusServers.find(name);
        if (found != m_CreatedDbusServers.end())
            return found->second;
    }
    // The same words whatever the caller; the next line says what to do.
    QLOGE("Couldn't find %s dbus server, subscribe fail", name);
    QLOGE(
        "%s is not an endpoint of this process: create it first (CreateDBusServer, or "
        "pelx_create_app_endpoint), or check the name",
        name);
    return nullptr;
}

bool TCServer::CreateDBusProxy() {
    return CreateDBusServer();
}

void TCServer::CloseDBusProxy() {
    CloseDBusServer();
}

bool TCServer::CreateDBusServer() {
    ScopedLock lock(m_closeLock);
    const detail::CreateInProgress creating(this);
    QLOGI("m_CreateDBus type: %d", m_type);
    // A close of this endpoint on another thread ends first (it does not
    // hold the lock while it waits for other threads, and does not wait for
    // this one meanwhile).
    while (detail::IsBeingClosed(this)) {
        m_closeLock.Unlock();
        detail::WaitWhileBeingClosed(this);
        m_closeLock.Lock();
    }
    if (m_created)
        return true;

    if (!m_Connect())
        return false;
    if (m_type == SERVER_TYPE_PROXY) {
        // A proxy owns no name, but its name is the one it sends from and
        // the one peers would reach it by.
        std::string busName = m_name + ".message";
        TCServerHelper::FormatDBusName(busName);
        TCServerHelper::FormatDBusNameElements(busName);
        if (!IsUsableBusName(m_name, busName))
            return false;
        detail::OpenEndpoint(this, m_name);
        m_created = true;
        return true;
    }
    const bool ownsName = m_type == SERVER_TYPE_APP || m_type == SERVER_TYPE_GADGET;
    if (ownsName && !m_PrepareBusName())
        return false;
    // Open before the object is exported: GDBus holds the endpoint's token.
    detail::OpenEndpoint(this, m_name);
    // Ready before announced: a peer that sees the name owned may call at
    // once, so the object is exported first.
    if (ownsName && !m_ExportObject()) {
        detail::ForgetEndpoint(this);
        return false;
    }
    {
        // Every type but the proxy is found by name from this process; an
        // in-process sender that saw the announcement finds it too.
        std::lock_guard<std::mutex> guard(detail::RegistryMutex());
        m_CreatedDbusServers[m_name] = this;
    }
    if (ownsName && !m_OwnName()) {
        std::lock_guard<std::mutex> guard(detail::RegistryMutex());
        auto found = m_CreatedDbusServers.find(m_name);
        if (found != m_CreatedDbusServers.end() && found->second == this)
            m_CreatedDbusServers.erase(found);
        return false;
    }
    m_created = true;
    return true;
}

bool TCServer::m_Connect() {
    KeptConnection::LetGoIfClosed();
    GError* error = nullptr;
    GDBusConnection* connection = g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, &error);
    if (connection == nullptr) {
        QLOGE("get dbus connection fail!");
        if (error != nullptr) {
            QLOGE("(%s %d)", error->message, error->code);
            g_error_free(error);
        }
        return false;
    }
    // A create after a failed one finds the connection still held: keep a
    // single reference (the bus connection is a per-process singleton).
    if (m_connection != nullptr)
        g_object_unref(m_connection);
    m_connection = connection;
    KeptConnection::Keep(connection);
    // The process must survive the bus going away.
    g_dbus_connection_set_exit_on_close(m_connection, FALSE);
    QLOGI("Get dbus connection success : %p", static_cast<void*>(m_connection));
    return true;
}

bool TCServer::m_PrepareBusName() {
    std::string appName;
    bool nameUsed = false;
    bool secondApp = false;
    {
        std::lock_guard<std::mutex> guard(detail::RegistryMutex());
        nameUsed = m_CreatedDbusServers.find(m_name) != m_CreatedDbusServers.end();
        for (const auto& entry : m_CreatedDbusServers) {
            if (nameUsed || entry.second->m_type != SERVER_TYPE_APP)
                continue;
            secondApp = m_type == SERVER_TYPE_APP;
            appName = entry.first;
            break;
        }
    }
    if (nameUsed) {
        QLOGE("%s name has been used!", m_name.c_str());
        return false;
    }
    if (secondApp) {
        QLOGE("only one eflapplication/daemon service can be created in one process!");
        return false;
    }
    if (m_type == SERVER_TYPE_GADGET) {
        // A gadget's name is only unique within its host application.
        if (appName.empty()) {
            TCServerHelper::GetProcessName(appName);
            QLOGW("no eflapplication/daemon found when creating ug activity, use process name : %s",
                  appName.c_str());
        }
        m_busName = appName + "." + m_name + ".message";
    }
    QLOGD("request a dbus name : %s", m_busName.c_str());
    if (TCServerHelper::FormatDBusName(m_busName)) {
        QLOGW("original name has illegal character, format to %s", m_busName.c_str());
    }
    // An executable named "python3.11" gives the element "11", which the
    // bus refuses: such elements get a "_" in front, everywhere a bus name
    // is composed, so that senders find the same name.
    if (TCServerHelper::FormatDBusNameElements(m_busName)) {
        QLOGW("bus name elements must not start with a digit: %s used instead", m_busName.c_str());
    }
    return IsUsableBusName(m_name, m_busName);
}

bool TCServer::m_OwnName() {
    // Acquisition is reported later, in the callbacks, on the thread-default
    // main context of this thread.
    // GDBus holds the endpoint's token, not the server: a callback it had
    // queued before the close finds the endpoint gone (m_OnNameAcquired and
    // m_OnNameLost are reached through ServerCallbacks).
    gpointer ownerRef = detail::NewCallbackRef(detail::TokenOf(this));
    m_ownerId = g_bus_own_name_on_connection(
        m_connection, m_busName.c_str(), kOwnFlags, detail::ServerCallbacks::NameAcquired,
        detail::ServerCallbacks::NameLost, ownerRef, detail::FreeCallbackRef);
    if (m_ownerId == 0) {
        detail::FreeCallbackRef(ownerRef);
        QLOGE("Request bus name fail!");
        return false;
    }
    QLOGI("RequestName(%s) success : %u", m_busName.c_str(), m_ownerId);
    return true;
}

bool TCServer::m_ExportObject() {
    m_objectPath = TCServerHelper::GetObjectPath(m_busName);
    if (m_nodeInfo == nullptr) {
        char xml[detail::kInterfaceXmlSize];
        snprintf(xml, sizeof(xml), detail::kInterfaceXml, m_busName.c_str());
        m_nodeInfo = g_dbus_node_info_new_for_xml(xml, nullptr);
        if (m_nodeInfo == nullptr) {
            QLOGE("parse interface xml fail!");
            return false;
        }
    }
    QLOGI("Register Obj Path(%s)", m_objectPath.c_str());
    // Method calls arrive on the thread-default main context of this thread,
    // through the endpoint's token (m_gVTable's m_DObjectHandler is reached
    // through ServerCallbacks while the endpoint is open).
    gpointer ref = detail::NewCallbackRef(detail::TokenOf(this));
    m_registrationId = g_dbus_connection_register_object(
        m_connection, m_objectPath.c_str(), m_nodeInfo->interfaces[0],
        &detail::ServerCallbacks::kObjectVTable, ref, detail::FreeCallbackRef, nullptr);
    QLOGI("Get register id : %u", m_registrationId);
    if (m_registrationId == 0) {
        // Refused, GDBus keeps nothing: the reference is ours to release.
        detail::FreeCallbackRef(ref);
        QLOGE("Register Obj Path Fail!");
        return false;
    }
    return true;
}

void TCServer::CloseDBusServer() {
    QLOGD("close %s begin", m_name.c_str());
    m_closeLock.Lock();
    if (detail::IsBeingClosed(this)) {
        // Another thread is closing this endpoint and waits for the others:
        // it does not wait for this thread meanwhile.
        m_closeLock.Unlock();
        detail::WaitWhileBeingClosed(this);
        QLOGD("%s has closed.", m_name.c_str());
        return;
    }
    if (m_connection == nullptr) {
        QLOGD("%s has closed.", m_name.c_str());
        m_closeLock.Unlock();
        return;
    }
    // Nobody finds us from here on: the entry goes first, then the token
    // (late replies, queued requests and GDBus's callbacks find the endpoint
    // closed, and new sends are refused).
    if (m_type != SERVER_TYPE_PROXY) {
        std::lock_guard<std::mutex> guard(detail::RegistryMutex());
        // Only our own entry: a server whose create failed because its name
        // was taken must not remove the server that holds the name.
        auto found = m_CreatedDbusServers.find(m_name);
        if (found != m_CreatedDbusServers.end() && found->second == this)
            m_CreatedDbusServers.erase(found);
    }
    detail::BeginClose(this);
    QLOGD("waiting all send message/signal finished %ud",
          static_cast<unsigned>(g_atomic_int_get(&m_sendCount)));
    // Then wait for the threads that reached us before: in-process senders,
    // handlers running, our own sends in flight. Without the lock, so that
    // a handler may still subscribe, send or close meanwhile; at most for
    // a bounded time, after which nothing that still runs touches us again.
    m_closeLock.Unlock();
    if (detail::WaitForOtherThreads(this))
        QLOGD("all send message/signal finished");
    m_closeLock.Lock();

    std::vector<unsigned int> ids;
    {
        std::lock_guard<std::mutex> tables(detail::SignalTablesMutex());
        m_signalManager.Destroy(ids);
    }
    for (unsigned int id : ids)
        g_dbus_connection_signal_unsubscribe(m_connection, id);

    if (m_ownerId != 0) {
        g_bus_unown_name(m_ownerId);
        m_ownerId = 0;
    }
    if (m_registrationId != 0) {
        g_dbus_connection_unregister_object(m_connection, m_registrationId);
        m_registrationId = 0;
    }
    if (m_nodeInfo != nullptr) {
        g_dbus_node_info_unref(m_nodeInfo);
        m_nodeInfo = nullptr;
    }
    g_object_unref(m_connection);
    m_connection = nullptr;
    QLOGD("close connection and all close motion finished");
    m_created = false;
    m_closeLock.Unlock();
    // Last, and after the unlock: a thread that waits for this close (to
    // create, to close or to delete the server) may go on at once.
    detail::EndClose(this, &m_sendCount);
}

void TCServer::m_OnNameAcquired(GDBusConnection* /*connection*/, const gchar* /*name*/,
                                gpointer userData) {
    QLOGI("");
    TCServer* server = static_cast<TCServer*>(userData);
    if (server == nullptr) {
        QLOGW("%s is null", "pThis");
        return;
    }
    if (server->m_type == SERVER_TYPE_PROXY)
        return;
    // Announce the endpoint to everyone who waits for it.
    QUELT_CALL_GUARDED("service_start_default", [&] {
        TCMessage announcement;
        announcement.m_value["service_name"] = server->m_name;
        server->SendSignal("service_start_default", &announcement);
    });
}

void TCServer::m_OnNameLost(GDBusConnection* connection, const gchar* name, gpointer userData) {
    QLOGI("");
    TCServer* server = static_cast<TCServer*>(userData);
    if (server == nullptr) {
        QLOGW("%s is null", "pThis");
        return;
    }
    // GDBus reports a name it could not get and a name it lost alike. The
    // endpoint stays deaf either way (no retry): say which one and why, so
    // the application can close it and create it again.
    const char* busName = name != nullptr ? name : server->m_busName.c_str();
    if (connection == nullptr || g_dbus_connection_is_closed(connection)) {
        QLOGE("%s lost the bus name %s: the bus connection is closed", server->m_name.c_str(),
              busName);
    } else {
        QLOGE("%s lost the bus name %s: refused by the bus policy or taken by another owner",
              server->m_name.c_str(), busName);
    }
}

bool TCServer::IsServiceAvailable(const char* serviceName) {
    if (serviceName == nullptr) {
        QLOGW("%s is null", "serviceName");
        return false;
    }
    // Our own reference: a close on another thread may drop the endpoint's
    // meanwhile.
    GDBusConnection* connection = nullptr;
    {
        ScopedLock lock(m_closeLock);
        if (m_connection != nullptr)
            connection = static_cast<GDBusConnection*>(g_object_ref(m_connection));
    }
    if (connection == nullptr || g_dbus_connection_is_closed(connection)) {
        QLOGE("dbus connection is not open");
        QLOGE("%s", detail::ExplainNoConnection(m_name, connection).c_str());
        if (connection != nullptr)
            g_object_unref(connection);
        return false;
    }
    // Application and service names only: a gadget's real bus name carries
    // its application's prefix.
    std::string busName = std::string(serviceName) + ".message";
    TCServerHelper::FormatDBusName(busName);
    TCServerHelper::FormatDBusNameElements(busName);

    GError* error = nullptr;
    GVariant* result = g_dbus_connection_call_sync(
        connection, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
        "NameHasOwner", g_variant_new("(s)", busName.c_str()), G_VARIANT_TYPE("(b)"),
        G_DBUS_CALL_FLAGS_NONE, -1, nullptr, &error);
    g_object_unref(connection);
    if (result == nullptr) {
        if (error != nullptr) {
            QLOGE("sync call fail (%s, %d)", error->message, error->code);
            g_error_free(error);
        }
        return false;
    }
    gboolean owned = FALSE;
    g_variant_get(result, "(b)", &owned);
    g_variant_unref(result);
    return owned != FALSE;
}

}  // namespace Quelt
