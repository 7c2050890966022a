// SPDX-License-Identifier: Apache-2.0
// What GLib and GDBus call back for an endpoint. See ServerCallbacks.h.

#include "ServerCallbacks.h"

#include "EndpointGuard.h"
#include "QueltLog.h"
#include "TCServer.h"

namespace Quelt {
namespace detail {

namespace {

const char* OrEmpty(const char* text) {
    return text != nullptr ? text : "";
}

}  // namespace

const GDBusInterfaceVTable ServerCallbacks::kObjectVTable = {
    ServerCallbacks::MethodCall, nullptr, nullptr, {nullptr}};

void ServerCallbacks::NameAcquired(GDBusConnection* connection, const gchar* name, gpointer ref) {
    EndpointPin pin = PinCallbackRef(ref);
    if (!pin) {
        QLOGD("name %s acquired after %s was closed: not announced", OrEmpty(name),
              CallbackRefName(ref).c_str());
        return;
    }
    TCServer::m_OnNameAcquired(connection, name, pin.get());
}

void ServerCallbacks::NameLost(GDBusConnection* connection, const gchar* name, gpointer ref) {
    EndpointPin pin = PinCallbackRef(ref);
    if (!pin) {
        QLOGD("name %s lost after %s was closed", OrEmpty(name), CallbackRefName(ref).c_str());
        return;
    }
    TCServer::m_OnNameLost(connection, name, pin.get());
}

void ServerCallbacks::MethodCall(GDBusConnection* connection, const gchar* sender,
                                 const gchar* objectPath, const gchar* interfaceName,
                                 const gchar* methodName, GVariant* parameters,
                                 GDBusMethodInvocation* invocation, gpointer ref) {
    EndpointPin pin = PinCallbackRef(ref);
    if (!pin) {
        QLOGW("request %s dropped: the endpoint was closed", OrEmpty(methodName));
        ReturnErrorReply(invocation);
        return;
    }
    TCServer::m_DObjectHandler(connection, sender, objectPath, interfaceName, methodName,
                               parameters, invocation, pin.get());
}

void ServerCallbacks::Signal(GDBusConnection* connection, const gchar* senderName,
                             const gchar* objectPath, const gchar* interfaceName,
                             const gchar* signalName, GVariant* parameters, gpointer ref) {
    EndpointPin pin = PinCallbackRef(ref);
    if (!pin) {
        QLOGD("signal %s.%s for %s dropped: the endpoint was closed", OrEmpty(interfaceName),
              OrEmpty(signalName), CallbackRefName(ref).c_str());
        return;
    }
    TCServer::m_DSignalHandler(connection, senderName, objectPath, interfaceName, signalName,
                               parameters, pin.get());
}

}  // namespace detail
}  // namespace Quelt
