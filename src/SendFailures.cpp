// SPDX-License-Identifier: Apache-2.0
// Failed asynchronous sends: the failure handlers of endpoints, the D-Bus
// error's name and text, and the sentences that tell an application what
// a failed send means.

#include "SendFailures.h"

#include <map>
#include <mutex>

#include "Guarded.h"
#include "QueltLog.h"

namespace Quelt {

namespace detail {
namespace {

struct FailureHandlers {
    std::mutex lock;
    std::map<const TCServer*, FailureHandler> byServer;
};

FailureHandlers& Handlers() {
    // Never destroyed: completions may still run while the process exits.
    static FailureHandlers* handlers = new FailureHandlers();
    return *handlers;
}

bool NameIs(const std::string& name, const char* shortName) {
    return name == std::string("org.freedesktop.DBus.Error.") + shortName;
}

}  // namespace

FailureHandler FailureHandlerOf(const TCServer* server) {
    FailureHandlers& handlers = Handlers();
    std::lock_guard<std::mutex> guard(handlers.lock);
    auto found = handlers.byServer.find(server);
    return found != handlers.byServer.end() ? found->second : FailureHandler{};
}

void ForgetFailureHandler(const TCServer* server) {
    FailureHandlers& handlers = Handlers();
    std::lock_guard<std::mutex> guard(handlers.lock);
    handlers.byServer.erase(server);
}

std::string BusErrorName(const GError* error) {
    if (error == nullptr)
        return "org.freedesktop.DBus.Error.Failed";
    gchar* remote = g_dbus_error_get_remote_error(error);
    if (remote != nullptr) {
        std::string name = remote;
        g_free(remote);
        return name;
    }
    // GDBus's own verdicts, under the names the bus uses for them.
    if (g_error_matches(error, G_IO_ERROR, G_IO_ERROR_TIMED_OUT))
        return "org.freedesktop.DBus.Error.Timeout";
    if (g_error_matches(error, G_IO_ERROR, G_IO_ERROR_CLOSED))
        return "org.freedesktop.DBus.Error.Disconnected";
    gchar* encoded = g_dbus_error_encode_gerror(error);
    std::string name = encoded != nullptr ? encoded : "org.freedesktop.DBus.Error.Failed";
    g_free(encoded);
    return name;
}

std::string BusErrorText(const GError* error) {
    if (error == nullptr || error->message == nullptr)
        return "";
    GError* copy = g_error_copy(error);
    g_dbus_error_strip_remote_error(copy);
    std::string text = copy->message;
    g_error_free(copy);
    return text;
}

void ReportSendFailure(TCServer* server, const SendDescription& send, const std::string& errorName,
                       const std::string& errorText) {
    const FailureHandler set = FailureHandlerOf(server);
    if (set.handler == nullptr)
        return;
    QUELT_CALL_GUARDED("the send failure handler", [&] {
        set.handler(send.dest.c_str(), send.method.c_str(), send.type.c_str(), send.code,
                    errorName.c_str(), errorText.c_str(), set.userData);
    });
}

std::string ExplainSyncFailure(const std::string& dest, const std::string& busName,
                               const std::string& errorName, const std::string& errorText,
                               int timeoutMs) {
    if (NameIs(errorName, "ServiceUnknown") || NameIs(errorName, "NameHasNoOwner")) {
        return "no endpoint " + dest + " on the bus (" + busName +
               " has no owner): start its service first, or check the name "
               "(IsServiceAvailable tells whether it runs)";
    }
    if (NameIs(errorName, "Timeout")) {
        const std::string limit = timeoutMs < 0 ? "the bus's default limit of 25000 ms"
                                                : std::to_string(timeoutMs) + " ms";
        return dest + " did not answer within " + limit +
               ": its handler is slow or blocked; pass a longer timeout, or send asynchronously";
    }
    if (NameIs(errorName, "NoReply")) {
        return dest +
               " did not answer: it left the bus during the call (it ended or crashed), or the "
               "bus stopped waiting for it";
    }
    if (NameIs(errorName, "Disconnected")) {
        return "the bus connection of this process is closed (the bus stopped or dropped it): "
               "close the endpoint and create it again";
    }
    if (NameIs(errorName, "AccessDenied")) {
        return "the bus policy does not let this process call " + dest +
               ": install a policy for it (harvo-bus policy " + dest + ")";
    }
    if (NameIs(errorName, "UnknownMethod") || NameIs(errorName, "UnknownObject") ||
        NameIs(errorName, "UnknownInterface")) {
        return "the owner of " + busName + " is not a harvo-fw endpoint named " + dest +
               ": it offers no SendMessage";
    }
    return "the call to " + dest + " failed on the bus: " + errorName + ": " + errorText;
}

std::string ExplainNoConnection(const std::string& endpoint, GDBusConnection* connection) {
    if (connection == nullptr) {
        return "endpoint " + endpoint +
               " has no bus connection: create it first (CreateDBusServer for an application, "
               "service or gadget, CreateDBusProxy for a client)";
    }
    return "the bus connection of " + endpoint +
           " is closed (the bus stopped or dropped it): close the endpoint and create it again";
}

}  // namespace detail

void SetSendFailureHandler(TCServer* server, TCSendFailureHandler handler, void* userData) {
    if (server == nullptr) {
        QLOGW("%s is null", "server");
        return;
    }
    detail::FailureHandlers& handlers = detail::Handlers();
    std::lock_guard<std::mutex> guard(handlers.lock);
    if (handler == nullptr)
        handlers.byServer.erase(server);
    else
        handlers.byServer[server] = detail::FailureHandler{handler, userData};
}

}  // namespace Quelt
