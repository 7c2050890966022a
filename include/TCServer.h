/*
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
 * Threads: sends and emissions from any thread; bus method calls and
 * signals arrive in the main context that was the thread-default when the
 * object was registered or the signal subscribed.
 */
#ifndef HARVO_FW_TCSERVER_H
#define HARVO_FW_TCSERVER_H

#include <gio/gio.h>
#include <glib.h>

#include <map>
#include <string>

#include "TCLock.h"
#include "TCMessage.h"
#include "TCServerSignalManager.h"

namespace Quelt {

class TCEventIO;

/* The underlying type is fixed so that any other value (a registry entry
 * without bus name or object) is a valid value of the type. */
enum TCServerType : int {
    SERVER_TYPE_APP = 0,     // application or service: owns its name; one per process
    SERVER_TYPE_GADGET = 1,  // gadget: bus name prefixed with the application's name
    SERVER_TYPE_PROXY = 2,   // connection only
};

class TCServer {
public:
    TCServer(std::string name, TCServerType type);
    /* Releases the lock and the strings; does not close the bus. */
    virtual ~TCServer();

    /* Hooks. The defaults do nothing and return false. */

    /* A bus message arrived: true with a non-null |eventIO| moves the
     * handling, and the reply, to that event IO's thread. */
    virtual bool IfHandleInEventIO(const char* from, const TCMessage* message, TCEventIO** eventIO);
    /* A message arrived (by bus or in process); fill |reply|. For a
     * signal subscribed without callback, |signalName| is its name. */
    virtual bool IfMessageReceived(const char* from, const TCMessage* message, TCMessage* reply,
                                   const char* signalName);
    /* The reply of an asynchronous bus send arrived. */
    virtual bool IfMessageReplied(const char* from, const TCMessage* reply);

    /* Lifecycle. */
    bool CreateDBusServer();
    bool CreateDBusProxy();
    /* Removes the endpoint from the process's registry, then waits
     * (sleeping) until no other thread delivers to it or runs one of its
     * handlers and its own sends and emissions in flight have returned;
     * then cancels subscriptions, gives up the name and unregisters the
     * object. Nothing touches the endpoint after it returns: late replies
     * and requests still queued for a worker are answered or dropped with
     * a line. */
    void CloseDBusServer();
    void CloseDBusProxy();
    /* Whether some process owns |serviceName| + ".message". */
    bool IsServiceAvailable(const char* serviceName);

    /* Messages. |timeout| in milliseconds (-1: the bus default) applies to
     * synchronous bus calls only. */
    bool SendMessage(const char* dest, const TCMessage* message, bool sync, TCMessage* reply,
                     int timeout);
    static bool SendMessage(const char* source, const char* dest, const TCMessage* message,
                            bool sync, TCMessage* reply);

    /* Signals. A null |from| subscribes to the signal of any sender. */
    bool SendSignal(const char* signalName, const TCMessage* message);
    bool SubscribeSignal(const char* from, const char* signalName, TCNativeSignalHandler handler,
                         void* userData);
    bool SubscribeManagedSignal(const char* from, const char* signalName,
                                TCManagedSignalHandler handler, void* userData);
    bool UnSubscribeSignal(const char* from, const char* signalName);
    bool UnSubscribeManagedSignal(const char* from, const char* signalName);
    /* Placeholders: do nothing and return false. */
    bool SubscribeKeySignal(const char* from, const char* signalName, TCNativeSignalHandler handler,
                            void* userData);
    bool UnSubscribeKeySignal(const char* from, const char* signalName);

    /* Static forms: |source| names one of this process's servers. */
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

    /* The created server of this process named |name|, or null. */
    static TCServer* m_GetDbusServer(const char* name);

    const std::string& GetName() const { return m_name; }
    const std::string& GetBusName() const { return m_busName; }
    const std::string& GetObjectPathName() const { return m_objectPath; }
    GMainLoop* GetMainLoop() const { return m_mainLoop; }

protected:
    std::string m_GetDBusName(std::string name);

    TCServerType m_type;
    bool m_created;
    std::string m_name;
    std::string m_busName;
    std::string m_objectPath;
    GMainLoop* m_mainLoop;  // the daemon's loop, stored by AppMain; not used here
    GDBusConnection* m_connection;
    guint m_ownerId;
    guint m_registrationId;
    GDBusNodeInfo* m_nodeInfo;
    TCMutex m_closeLock;
    volatile gint m_sendCount;  // sends and emissions in flight; atomic
    TCServerSignalManager m_signalManager;

    static std::map<std::string, TCServer*> m_CreatedDbusServers;
    static const GDBusInterfaceVTable m_gVTable;

private:
    static void m_DObjectHandler(GDBusConnection* connection, const gchar* sender,
                                 const gchar* objectPath, const gchar* interfaceName,
                                 const gchar* methodName, GVariant* parameters,
                                 GDBusMethodInvocation* invocation, gpointer userData);
    /* Takes ownership of |from| (new[]) and |message|. */
    void m_HandleMsg(const char* from, const TCMessage* message, GDBusMethodInvocation* invocation);
    static void m_PendingCallNotify(GObject* source, GAsyncResult* result, gpointer userData);
    static void m_OnNameAcquired(GDBusConnection* connection, const gchar* name, gpointer userData);
    static void m_OnNameLost(GDBusConnection* connection, const gchar* name, gpointer userData);

    /* Steps of CreateDBusServer, run under m_closeLock. */
    bool m_Connect();
    bool m_PrepareBusName();
    bool m_OwnName();
    bool m_ExportObject();
    /* Steps of SendMessage once the in-flight count is raised. */
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

    /* Tests reach the private helpers through this peer. */
    friend class TCServerTestPeer;
    /* The event IO runs in-process messages (code 3) through SendMessage. */
    friend class TCEventIO;
    /* AppMain stores the daemon's loop in m_mainLoop. */
    friend int AppMain(int argc, char** argv, class TCApplication* app);
};

}  // namespace Quelt

#endif  // HARVO_FW_TCSERVER_H
