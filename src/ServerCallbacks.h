/* SPDX-License-Identifier: Apache-2.0 */
/*
 * What GLib and GDBus call back for an endpoint (internal to the library).
 *
 * Every callback that GDBus holds for an endpoint -- the exported object's
 * method handler, the name-owner callbacks, the signal subscriptions --
 * carries a CallbackRef (the endpoint's token, see EndpointGuard.h) as its
 * user data, released by GDBus through FreeCallbackRef when it is done with
 * it. The functions here pin the endpoint and hand the call on to the
 * server's own static callbacks; a call that arrives after the endpoint
 * was closed (GDBus may deliver one it had already queued) finds the token
 * detached and does nothing but say so.
 *
 * Threads: the thread of the main context in which the object was
 * registered, the name owned or the signal subscribed (GDBus's rule).
 */
#ifndef HARVO_FW_SRC_SERVERCALLBACKS_H
#define HARVO_FW_SRC_SERVERCALLBACKS_H

#include <gio/gio.h>

namespace Quelt {
namespace detail {

struct ServerCallbacks {
    /* g_bus_own_name_on_connection. */
    static void NameAcquired(GDBusConnection* connection, const gchar* name, gpointer ref);
    static void NameLost(GDBusConnection* connection, const gchar* name, gpointer ref);
    /* g_dbus_connection_register_object: the method handler. */
    static void MethodCall(GDBusConnection* connection, const gchar* sender,
                           const gchar* objectPath, const gchar* interfaceName,
                           const gchar* methodName, GVariant* parameters,
                           GDBusMethodInvocation* invocation, gpointer ref);
    /* g_dbus_connection_signal_subscribe. */
    static void Signal(GDBusConnection* connection, const gchar* senderName,
                       const gchar* objectPath, const gchar* interfaceName, const gchar* signalName,
                       GVariant* parameters, gpointer ref);
    /* The vtable the endpoint's object is registered with. */
    static const GDBusInterfaceVTable kObjectVTable;
};

/* Answers |invocation| with the error reply of the request path (defined
 * with the request path, TCServerMessage.cpp). */
void ReturnErrorReply(GDBusMethodInvocation* invocation);

}  // namespace detail
}  // namespace Quelt

#endif  // HARVO_FW_SRC_SERVERCALLBACKS_H
