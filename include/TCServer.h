/* SPDX-License-Identifier: Apache-2.0 */
/**
 * \file TCServer.h
 * TCServer: one endpoint on the D-Bus system bus.
 *
 * An endpoint owns the bus name derived from its name, exports one object
 * with the message interface ("SendMessage", "SendMessageWithBuffer"),
 * exchanges request/reply messages with other endpoints (over the bus, or
 * directly when both live in this process) and emits and subscribes to
 * signals. Applications and gadget activities derive from it; a bare
 * server of type SERVER_TYPE_PROXY is a client connection only.
 *
 * Lifecycle: construct, CreateDBusServer, ..., CloseDBusServer, destroy.
 * The destructor does not close: the registry holds plain pointers.
 *
 * Losing the bus or the name: an endpoint whose bus name is refused by the
 * bus policy or taken by another owner (names are owned with replacement
 * allowed), or whose bus connection closes (the daemon stopped or
 * restarted), logs one error line "<endpoint> lost the bus name <name>:
 * ...". Refused by the policy or cut off from the bus, it is deaf from then
 * on: nothing retries, and calls on a closed connection fail with false and
 * "dbus connection is not open"; the process keeps running. The
 * application can close the endpoint (CloseDBusServer) and create it again
 * once the bus is back or the name is free, or end and let its service
 * manager start it again. Taken by another owner, it waits in the bus's
 * queue for the name: requests go to the other owner meanwhile, and when
 * that owner gives the name up (or ends) the bus hands it back and the
 * endpoint announces itself again ("service_start_default"). A proxy owns
 * no name: it learns of a closed connection at its next call.
 *
 * Threads: sends and emissions from any thread; bus method calls and
 * signals arrive in the main context that was the thread-default when the
 * object was registered or the signal subscribed.
 */
#ifndef HARVO_FW_TCSERVER_H
#define HARVO_FW_TCSERVER_H

#include "harvo-fw-export.h"

#include <gio/gio.h>
#include <glib.h>

#include <map>
#include <string>

#include "TCLock.h"
#include "TCMessage.h"
#include "TCServerSignalManager.h"

namespace Quelt {

class TCEventIO;
namespace detail {
struct ServerCallbacks;
}

/** The underlying type is fixed so that any other value (a registry entry
 * without bus name or object) is a valid value of the type. */
enum TCServerType : int {
    SERVER_TYPE_APP = 0,     ///< application or service: owns its name; one per process
    SERVER_TYPE_GADGET = 1,  ///< gadget: bus name prefixed with the application's name
    SERVER_TYPE_PROXY = 2,   ///< connection only
};

/** One endpoint on the D-Bus system bus: a connection, for applications
 *  and gadgets a well-known bus name and an exported object, request/reply
 *  messages and signals. See the file's description for the lifecycle,
 *  threads and what happens when the bus or the name is lost. */
class HARVO_FW_API TCServer {
public:
    /** An endpoint named \p name of \p type; the bus name starts as
     *  \p name + ".message". Does not touch the bus. */
    TCServer(std::string name, TCServerType type);
    /** Releases the lock and the strings; does not close the bus. */
    virtual ~TCServer();

    /* Hooks. The defaults do nothing and return false. */

    /** A bus message arrived: true with a non-null |eventIO| moves the
     * handling, and the reply, to that event IO's thread. */
    virtual bool IfHandleInEventIO(const char* from, const TCMessage* message, TCEventIO** eventIO);
    /** A message arrived (by bus or in process); fill |reply|. For a
     * signal subscribed without callback, |signalName| is its name. Over
     * the bus, |from| names either an endpoint whose bus name the caller's
     * connection owns or no live endpoint at all (then it is any text the
     * caller chose): a request that claims another connection's endpoint
     * is answered with the error reply before any hook runs. */
    virtual bool IfMessageReceived(const char* from, const TCMessage* message, TCMessage* reply,
                                   const char* signalName);
    /** The reply of an asynchronous bus send arrived. */
    virtual bool IfMessageReplied(const char* from, const TCMessage* reply);

    ///@{
    /** Connects to the system bus and, for an application or gadget, asks
     *  for the bus name, exports the object and enters the process's
     *  registry. The name is acquired later (announced with the signal
     *  "service_start_default"); losing or being refused it is logged.
     *  Creating twice is a no-op. \return false, with a log line, when a
     *  step fails (CloseDBusServer cleans up what was set). */
    bool CreateDBusServer();
    bool CreateDBusProxy();
    ///@}
    /** Removes the endpoint from the process's registry, then waits
     * (sleeping, without holding the endpoint's lock) until no other thread
     * delivers to it or runs one of its handlers and its own sends and
     * emissions in flight have returned; then cancels subscriptions, gives
     * up the name and unregisters the object. Nothing touches the endpoint
     * after it returns: late replies, signals, name callbacks and requests
     * still queued for a worker are answered or dropped with a line.
     *
     * A handler on another thread may still call this endpoint meanwhile
     * (subscribe, send, close, create...): sends are refused ("Server is
     * going to be closed!"), a second close or a create waits for this one.
     * The wait for other threads ends after 30 s, with an error line naming
     * the endpoint and what it still waits for; the close then finishes,
     * and what still runs leaves the endpoint alone. Call it from any
     * thread; delete the endpoint only after it returned. */
    void CloseDBusServer();
    /** The same as CloseDBusServer. */
    void CloseDBusProxy();
    /** Whether some process owns |serviceName| + ".message". */
    bool IsServiceAvailable(const char* serviceName);

    /** Sends \p message to the endpoint named \p dest: directly when it
     *  lives in this process, else over the bus. A synchronous send fills
     *  \p reply (required) and returns false when the reply's JSON says
     *  "dbus_result": "fail"; an asynchronous one with a \p reply object
     *  answers later through IfMessageReplied. \p timeout in milliseconds
     *  (-1: the bus default) applies to synchronous bus calls only.
     *  \return false, with a log line, on failure. */
    bool SendMessage(const char* dest, const TCMessage* message, bool sync, TCMessage* reply,
                     int timeout);
    /** SendMessage from this process's server named \p source, with the
     *  bus's default timeout. */
    static bool SendMessage(const char* source, const char* dest, const TCMessage* message,
                            bool sync, TCMessage* reply);

    /** Broadcasts the signal \p signalName with \p message (null: an empty
     *  body) from this endpoint's object. \return false, with a log line,
     *  when the endpoint is closing or the bus refuses. */
    bool SendSignal(const char* signalName, const TCMessage* message);
    ///@{
    /** Subscribes to \p signalName from the endpoint \p from (null: from
     *  any sender). Only the connection that owns \p from's bus name at
     *  the time is heard, in whatever process it runs (a restarted
     *  endpoint is heard again); a subscription to any sender hears
     *  everyone, and the \p from its callback gets is what the emitter
     *  wrote. \p handler (null: IfMessageReceived with the signal's
     *  name) runs with \p userData (not owned) in the main context that is
     *  the thread-default of the calling thread. \return false, with a log
     *  line, on failure.
     *
     *  Subscribing again to the same named \p from and \p signalName (of
     *  the same kind, native or managed) keeps the first callback and user
     *  data and returns true; unsubscribe first to change them. With a null
     *  \p from every call adds one more bus subscription: the last callback
     *  given replaces the earlier ones and runs once per subscription, so
     *  twice after two calls. */
    bool SubscribeSignal(const char* from, const char* signalName, TCNativeSignalHandler handler,
                         void* userData);
    bool SubscribeManagedSignal(const char* from, const char* signalName,
                                TCManagedSignalHandler handler, void* userData);
    ///@}
    ///@{
    /** Cancels a subscription made with the same \p from and \p signalName.
     *  \return true whether or not there was one; false, with the log line
     *  "dbus connection is not open", when \p from is null or the
     *  endpoint's connection is not open. A subscription made with a null
     *  \p from cannot be cancelled singly: closing the endpoint ends it. */
    bool UnSubscribeSignal(const char* from, const char* signalName);
    bool UnSubscribeManagedSignal(const char* from, const char* signalName);
    ///@}
    ///@{
    /** Placeholders: do nothing and return false. */
    bool SubscribeKeySignal(const char* from, const char* signalName, TCNativeSignalHandler handler,
                            void* userData);
    bool UnSubscribeKeySignal(const char* from, const char* signalName);
    ///@}

    ///@{
    /** Static forms: \p source names one of this process's servers, the
     *  rest is the member form's; false, with a log line, when there is no
     *  such server, and (but for the key forms) when \p from is null: through
     *  them a subscription always names its sender. */
    static bool SendSignal(const char* source, const char* signalName, const TCMessage* message);
    static bool SubscribeSignal(const char* source, const char* from, const char* signalName,
                                TCNativeSignalHandler handler, void* userData);
    static bool SubscribeManagedSignal(const char* source, const char* from, const char* signalName,
                                       TCManagedSignalHandler handler, void* userData);
    static bool UnSubscribeSignal(const char* source, const char* from, const char* signalName);
    static bool UnSubscribeManagedSignal(const char* source, const char* from,
                                         const char* signalName);
    static bool SubscribeKeySignal(const char* source, const char* from, const char* signalName,
                                   TCNativeSignalHandler handler, void* userData);
    static bool UnSubscribeKeySignal(const char* source, const char* from, const char* signalName);
    ///@}

    /** The created server of this process named |name|, or null. */
    static TCServer* m_GetDbusServer(const char* name);

    /** The endpoint name given to the constructor. */
    const std::string& GetName() const { return m_name; }
    /** The well-known bus name (legal once created). */
    const std::string& GetBusName() const { return m_busName; }
    /** The exported object's path; empty before creation. */
    const std::string& GetObjectPathName() const { return m_objectPath; }
    /** The daemon service's main loop that AppMain stored; null otherwise. */
    GMainLoop* GetMainLoop() const { return m_mainLoop; }

protected:
    /** The bus name of the endpoint \p name: its real one when it lives in
     *  this process, else \p name + ".message" made legal. */
    std::string m_GetDBusName(std::string name);

    TCServerType m_type;            ///< set by the constructor
    bool m_created;                 ///< between a successful create and the next close
    std::string m_name;             ///< the endpoint name; the registry key
    std::string m_busName;          ///< the well-known bus name
    std::string m_objectPath;       ///< derived from the bus name at creation
    GMainLoop* m_mainLoop;          ///< the daemon's loop, stored by AppMain; not used here
    GDBusConnection* m_connection;  ///< the bus connection (a reference), or null
    guint m_ownerId;                ///< of g_bus_own_name_on_connection, 0 when none
    guint m_registrationId;         ///< of the exported object, 0 when none
    GDBusNodeInfo* m_nodeInfo;      ///< the parsed interface description, or null
    TCMutex m_closeLock;            ///< serialises create and close; senders take it briefly
    volatile gint m_sendCount;      ///< sends and emissions in flight; atomic
    TCServerSignalManager m_signalManager;  ///< this endpoint's signal subscriptions

    /** The created servers of the process by endpoint name (plain
     *  pointers: close a server before destroying it). */
    static std::map<std::string, TCServer*> m_CreatedDbusServers;
    static const GDBusInterfaceVTable m_gVTable;  ///< the exported object's method handler

private:
    static void m_DObjectHandler(GDBusConnection* connection, const gchar* sender,
                                 const gchar* objectPath, const gchar* interfaceName,
                                 const gchar* methodName, GVariant* parameters,
                                 GDBusMethodInvocation* invocation, gpointer userData);
    /** Takes ownership of |from| (new[]) and |message|. */
    void m_HandleMsg(const char* from, const TCMessage* message, GDBusMethodInvocation* invocation);
    static void m_PendingCallNotify(GObject* source, GAsyncResult* result, gpointer userData);
    static void m_OnNameAcquired(GDBusConnection* connection, const gchar* name, gpointer userData);
    static void m_OnNameLost(GDBusConnection* connection, const gchar* name, gpointer userData);

    /** Steps of CreateDBusServer, run under m_closeLock. */
    bool m_Connect();
    bool m_PrepareBusName();
    bool m_OwnName();
    bool m_ExportObject();
    /** Steps of SendMessage once the in-flight count is raised. */
    bool m_SendInProcess(TCServer* receiver, const char* dest, const TCMessage* message, bool sync,
                         TCMessage* reply, bool& delivered);
    bool m_SendOnBus(const char* dest, std::string busName, const TCMessage* message, bool sync,
                     TCMessage* reply, int timeout);

    int m_SubscribeSignal(const char* from, const char* signalName, TCSignalType type,
                          unsigned int& id, std::string& key);
    bool m_UnSubscribeSignal(const char* from, const char* signalName, TCSignalType type);
    static void m_DSignalHandler(GDBusConnection* connection, const char* senderName,
                                 const char* objectPath, const char* interfaceName,
                                 const char* signalName, GVariant* parameters, void* userData);

    /** Tests reach the private helpers through this peer. */
    friend class TCServerTestPeer;
    /** What GLib and GDBus call: they hold the endpoint's token, never the
     * server, and reach the callbacks above only while it is open. */
    friend struct detail::ServerCallbacks;
    /** The event IO runs in-process messages (code 3) through SendMessage. */
    friend class TCEventIO;
    /** AppMain stores the daemon's loop in m_mainLoop. */
    friend int AppMain(int argc, char** argv, class TCApplication* app);
};

/** What a failed asynchronous send reports to its endpoint's application.
 *
 *  \param dest      the destination's endpoint name, as given to SendMessage
 *  \param method    the bus method called: "SendMessage" or
 *                   "SendMessageWithBuffer"
 *  \param type      the message's type (m_type)
 *  \param code      the message's code (m_code)
 *  \param errorName the D-Bus error name, e.g.
 *                   "org.freedesktop.DBus.Error.ServiceUnknown" (no such
 *                   endpoint), "org.freedesktop.DBus.Error.NoReply" (it left
 *                   the bus during the call), "org.freedesktop.DBus.Error.Timeout"
 *  \param errorText the error's text
 *  \param userData  what was given to SetSendFailureHandler
 *
 *  The texts are valid only during the call. */
typedef void (*TCSendFailureHandler)(const char* dest, const char* method, const char* type,
                                     unsigned int code, const char* errorName,
                                     const char* errorText, void* userData);

/** Sets the handler that learns of the asynchronous sends of \p server that
 *  fail on the bus (a missing service, a peer that dies during the call, an
 *  error answered by the bus or the peer); a null \p handler removes it.
 *  The handler belongs to the server object: it stays across
 *  CloseDBusServer and CreateDBusServer and goes with the server.
 *
 *  Without a handler, a failed send that has a reply object logs its
 *  failure ("dbus finish fail!" and a line naming the destination, the
 *  method and the error) and a send without reply object goes with the
 *  flag "no reply expected", so nobody learns of its failure, exactly as
 *  before. With a handler, a send without reply object expects a reply too
 *  (only to learn of a failure; the reply itself is dropped, and
 *  IfMessageReplied is not called for it): failures of both kinds are
 *  logged and reported.
 *
 *  The handler runs in the main context that was the thread-default of
 *  the sending thread when it sent, like IfMessageReplied; a failure that
 *  arrives after the endpoint was closed is dropped with the late replies.
 *  In-process sends never fail on the bus. A synchronous send reports its
 *  failure through its result and log lines only.
 *
 *  Threads: any; a send started before the call may still see the old
 *  handler. */
HARVO_FW_API void SetSendFailureHandler(TCServer* server, TCSendFailureHandler handler,
                                        void* userData);

}  // namespace Quelt

#endif  // HARVO_FW_TCSERVER_H
