/* SPDX-License-Identifier: Apache-2.0 */
/*
 * Failed asynchronous sends, and the words that explain a failed send
 * (internal to the library).
 *
 * TCServer's layout is fixed, so the failure handler an application sets
 * for an endpoint (SetSendFailureHandler, pelx_set_send_failure_cb) lives
 * here, beside the class, keyed by the server's address. It belongs to the
 * server object: it survives a close and a new create and goes with the
 * destructor.
 *
 * Threads: everything here may be called from any thread. The handler runs
 * where GDBus completes the call: the thread-default main context of the
 * thread that sent.
 */
#ifndef HARVO_FW_SRC_SENDFAILURES_H
#define HARVO_FW_SRC_SENDFAILURES_H

#include <gio/gio.h>

#include <string>

#include "TCServer.h"

namespace Quelt {
namespace detail {

/* What a send carries to its completion to name itself in a failure. */
struct SendDescription {
    std::string dest;    // the destination's endpoint name
    std::string method;  // "SendMessage" or "SendMessageWithBuffer"
    std::string type;    // the message's type
    unsigned int code = 0;
};

/* A handler and its user data; handler null when none is set. */
struct FailureHandler {
    TCSendFailureHandler handler = nullptr;
    void* userData = nullptr;
};

/* The handler set for |server| (compared by address only). */
FailureHandler FailureHandlerOf(const TCServer* server);
/* Removes |server|'s handler (its destructor). */
void ForgetFailureHandler(const TCServer* server);

/* The D-Bus error name of |error|: the remote name for an error the bus
 * or the peer sent, a well-known name for GDBus's own timeouts and closed
 * connections, else the name GDBus encodes for it. */
std::string BusErrorName(const GError* error);
/* Its text, without GDBus's "GDBus.Error:<name>: " prefix. */
std::string BusErrorText(const GError* error);

/* Calls |server|'s failure handler, if one is set, with |send| and the
 * error; exceptions are caught and logged. */
void ReportSendFailure(TCServer* server, const SendDescription& send, const std::string& errorName,
                       const std::string& errorText);

/* What a failed synchronous send to |dest| means for its caller, as one
 * sentence that says what to do (the line after the bus's own error). */
std::string ExplainSyncFailure(const std::string& dest, const std::string& busName,
                               const std::string& errorName, const std::string& errorText,
                               int timeoutMs);

/* The line after "dbus connection is not open": which call to make first
 * (|connection| null: the endpoint was never created, or closed), or that
 * the bus went away (a closed connection). */
std::string ExplainNoConnection(const std::string& endpoint, GDBusConnection* connection);

}  // namespace detail
}  // namespace Quelt

#endif  // HARVO_FW_SRC_SENDFAILURES_H
