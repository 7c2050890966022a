// SPDX-License-Identifier: Apache-2.0
// TCServer: request/reply messages between endpoints.
//
// Endpoints of this process are reached directly (a synchronous send calls
// the receiver's handler on the caller's thread, an asynchronous one is
// posted to the receiver's event IO); all others through the methods
// "SendMessage" and "SendMessageWithBuffer" of their bus object.

#include <sys/ioctl.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <string>

#include "BufferFormat.h"
#include "BusLimits.h"
#include "BusPayload.h"
#include "EndpointGuard.h"
#include "EventPayloads.h"
#include "Guarded.h"
#include "HandOffBudget.h"
#include "MessageText.h"
#include "QueltLog.h"
#include "RefusalLog.h"
#include "SendFailures.h"
#include "SenderIdentity.h"
#include "ServerCallbacks.h"
#include "TCEventIO.h"
#include "TCServer.h"
#include "TCServerHelper.h"

namespace Quelt {

const GDBusInterfaceVTable TCServer::m_gVTable = {m_DObjectHandler, nullptr, nullptr, {nullptr}};

namespace {

// The body of the reply that a failed receive answers with.
const char kErrorReply[] = "{\"dbus_result\":\"fail\",\"errmsg\":\"error handling\"}";

// A reply without buffer carries this single byte, which readers take for
// "no buffer".
const unsigned char kNoBuffer[1] = {0};

// The five-field reply. Without bytes, an "a(y)" reply gets the single zero
// byte and an "ay" one stays empty; both mean "no buffer". The bytes are not
// copied: they must outlive the reply's serialisation.
GVariant* NewReplyValue(const char* from, unsigned int code, const char* type, const char* message,
                        const unsigned char* buffer, unsigned int size,
                        detail::BufferFormat format = detail::BufferFormat::kStructures) {
    if ((buffer == nullptr || size == 0) && format == detail::BufferFormat::kStructures) {
        buffer = kNoBuffer;
        size = sizeof(kNoBuffer);
    }
    return g_variant_new("(suss@a*)", from, code, type, message,
                         detail::NewBufferValue(format, buffer, size));
}

// The request's payload for |route|: "(suss)" without buffer, else the
// buffer in the route's format. A negotiated request without buffer carries
// an empty "ay", so that its reply may come as "ay" too.
GVariant* NewRequestValue(const char* from, unsigned int code, const char* type, const char* text,
                          const unsigned char* buffer, unsigned int size,
                          const detail::Route& route) {
    if ((buffer == nullptr || size == 0) && !route.Negotiated())
        return g_variant_new("(suss)", from, code, type, text);
    return g_variant_new("(suss@a*)", from, code, type, text,
                         detail::NewBufferValue(route.format, buffer, size));
}

// The warnings of a request refused for a busy worker.
std::string HighWaterRefusal(const std::string& endpoint, const std::string& queue, size_t depth) {
    return "request for " + endpoint + " refused: the queue of " + queue + " holds " +
           std::to_string(depth) + " events (high-water mark " +
           std::to_string(kWorkerHandOffHighWater) + ")";
}

std::string SenderBoundRefusal(const std::string& endpoint, const std::string& queue,
                               const std::string& caller, size_t waiting) {
    return "request for " + endpoint + " refused: " + caller + " has " + std::to_string(waiting) +
           " requests waiting in the queue of " + queue + " (per-sender bound " +
           std::to_string(detail::kHandOffPerSender) + ")";
}

const char* OrNull(const char* text) {
    return text != nullptr ? text : "null";
}

// A new[] copy of |text|, or null.
char* CopyText(const char* text) {
    if (text == nullptr)
        return nullptr;
    const size_t length = std::strlen(text);
    char* copy = new char[length + 1];
    std::memcpy(copy, text, length + 1);
    return copy;
}

// Whether a reply body says that the remote handler failed. The subscript
// is the non-const one: it leaves a null "dbus_result" in an object that had
// none. Bodies that are not objects cannot carry the member.
bool ReportsFailure(TCMessage* reply) {
    Json::Value& tree = reply->m_value;
    if (!tree.isObject() && !tree.isNull())
        return false;
    const Json::Value& result = tree["dbus_result"];
    return result.isString() && result.asString() == "fail";
}

// What an asynchronous call carries to its completion: the sender's token
// (not the sender, which may be closed and deleted before the reply
// comes), the member that delivers the reply, and what a failure report
// names. A call without reply object is only waited for when the sender's
// application set a failure handler: its reply is dropped, its failure
// reported.
struct PendingReply {
    detail::EndpointToken token;
    GAsyncReadyCallback deliver;
    detail::SendDescription send;
    bool replyWanted = true;
};

// The call whose reply m_PendingCallNotify is handling on this thread, for
// its failure report (null when it is called directly).
thread_local const PendingReply* t_completing = nullptr;

// The failure of an asynchronous call, once "dbus finish fail!" (or "bus
// connection is NULL") is written: one line that names it, then the
// application's handler.
void ReportAsyncFailure(TCServer* server, const detail::SendDescription* send,
                        const std::string& errorName, const std::string& errorText) {
    if (send == nullptr) {
        QLOGE("asynchronous call failed: %s: %s", errorName.c_str(), errorText.c_str());
        return;
    }
    QLOGE("asynchronous %s to %s failed: %s: %s", send->method.c_str(), send->dest.c_str(),
          errorName.c_str(), errorText.c_str());
    detail::ReportSendFailure(server, *send, errorName, errorText);
}

// A call without reply object, made only to learn of its failure.
void FinishUnwantedReply(GObject* source, GAsyncResult* result, TCServer* sender,
                         const PendingReply& pending) {
    GError* error = nullptr;
    GVariant* answer = g_dbus_connection_call_finish(G_DBUS_CONNECTION(source), result, &error);
    if (answer != nullptr) {
        g_variant_unref(answer);
        return;
    }
    QLOGE("dbus finish fail!");
    ReportAsyncFailure(sender, &pending.send, detail::BusErrorName(error),
                       detail::BusErrorText(error));
    g_clear_error(&error);
}

void OnPendingReply(GObject* source, GAsyncResult* result, gpointer data) {
    std::unique_ptr<PendingReply> pending(static_cast<PendingReply*>(data));
    detail::EndpointPin sender = detail::Pin(pending->token);
    if (!sender) {
        QLOGW("late reply for %s dropped: the endpoint was closed",
              detail::TokenName(pending->token).c_str());
        // Finished all the same, so that the reply is released now.
        GVariant* answer =
            g_dbus_connection_call_finish(G_DBUS_CONNECTION(source), result, nullptr);
        if (answer != nullptr)
            g_variant_unref(answer);
        return;
    }
    if (!pending->replyWanted) {
        FinishUnwantedReply(source, result, sender.get(), *pending);
        return;
    }
    // Restored after: a handler that iterates the main context may complete
    // other calls inside this one.
    const PendingReply* outer = t_completing;
    t_completing = pending.get();
    pending->deliver(source, result, sender.get());
    t_completing = outer;
}

// A bus request handed to a worker's event IO. Whatever becomes of the
// event (run, cleared with the queue, or its endpoint closed first), the
// caller gets an answer and the request's memory goes.
struct QueuedRequest {
    QueuedRequest(detail::EndpointToken endpoint, char* sender, TCMessage* request,
                  GDBusMethodInvocation* call)
        : token(std::move(endpoint)), from(sender), message(request), invocation(call) {}
    ~QueuedRequest() {
        if (handled)
            return;
        detail::ReturnErrorReply(invocation);
        delete message;
        delete[] from;
    }
    QueuedRequest(const QueuedRequest&) = delete;
    QueuedRequest& operator=(const QueuedRequest&) = delete;

    detail::EndpointToken token;
    char* from;                         // new[]; passed on to m_HandleMsg
    TCMessage* message;                 // passed on to m_HandleMsg
    GDBusMethodInvocation* invocation;  // answered exactly once
    bool handled = false;               // ownership went to m_HandleMsg
};

}  // namespace

void detail::ReturnErrorReply(GDBusMethodInvocation* invocation) {
    g_dbus_method_invocation_return_value(invocation,
                                          NewReplyValue("", 0, "", kErrorReply, nullptr, 0));
}

bool TCServer::SendMessage(const char* source, const char* dest, const TCMessage* message,
                           bool sync, TCMessage* reply) {
    TCServer* server = m_GetDbusServer(source);
    // Found by name, it stays usable until the send returns, even if
    // another thread closes it meanwhile.
    detail::EndpointPin pin = detail::PinIfOpen(server);
    if (server == nullptr || !pin) {
        QLOGW("%s is null", "server");
        return false;
    }
    return pin.get()->SendMessage(dest, message, sync, reply, -1);
}

bool TCServer::SendMessage(const char* dest, const TCMessage* message, bool sync, TCMessage* reply,
                           int timeout) {
    QLOGI("");
    if (message == nullptr) {
        QLOGW("%s is null", "message");
        return false;
    }
    if (sync && reply == nullptr) {
        QLOGW("You couldn't call SendMessage with no reply (== NULL) synchronically");
        return false;
    }
    if (dest == nullptr || dest[0] == '\0') {
        QLOGE("No dest information");
        return false;
    }
    // Only a create or a close holds the lock for long, and a sender does
    // not wait for them; a moment's holder is waited for.
    if (!detail::TakeCloseLockForSend(this, m_closeLock)) {
        QLOGE("Server is going to be closed!");
        return false;
    }
    // Counted until the send returns; our close waits for it.
    detail::SendInFlight inFlight(this, &m_sendCount);
    m_closeLock.Unlock();
    if (inFlight.Result() == detail::SendInFlight::kClosing) {
        QLOGE("Server is going to be closed!");
        return false;
    }

    std::string busName = std::string(dest) + ".message";
    bool result = false;
    bool delivered = false;
    // A receiver found here is pinned: its close waits until we are done.
    detail::EndpointPin receiver;
    {
        std::lock_guard<std::mutex> guard(detail::RegistryMutex());
        auto found = m_CreatedDbusServers.find(dest);
        if (found != m_CreatedDbusServers.end()) {
            receiver = detail::PinIfOpenLocked(found->second);
            // Read only while pinned: an entry that is not open any more
            // may name a server that is gone.
            if (receiver)
                busName = receiver.get()->m_busName;
        }
    }
    if (receiver)
        result = m_SendInProcess(receiver.get(), dest, message, sync, reply, delivered);
    if (!delivered)
        result = m_SendOnBus(dest, busName, message, sync, reply, timeout);
    return result;
}

bool TCServer::m_SendInProcess(TCServer* receiver, const char* dest, const TCMessage* message,
                               bool sync, TCMessage* reply, bool& delivered) {
    delivered = false;
    if (sync) {
        QLOGI("send sync message in one process");
        TCMessage copy(*message);
        receiver->IfMessageReceived(m_name.c_str(), &copy, reply, nullptr);
        reply->Generate();
        delivered = true;
        return true;
    }
    // With a reply object the reply must come back through IfMessageReplied,
    // which only the bus provides.
    if (reply != nullptr)
        return false;

    QLOGI("send async message in one process");
    TCEventIO* eventIO = dynamic_cast<TCEventIO*>(receiver);
    if (eventIO == nullptr)
        return false;

    QLOGI("send internal event");
    TCEvent event;
    event.receiver = eventIO;
    event.type = EVENT_INTERNAL_MESSAGE;
    event.data.m_value["from"] = m_name;
    event.data.m_value["dest"] = dest;
    event.data.Generate();
    // Owned by the event from here on; its clear step deletes it.
    TCMessage* carried = new TCMessage(*message);
    event.param.p = carried;
    if (TCEventIO::SendEvent(&event)) {
        QLOGI("send internal event sucess");
        delivered = true;
        return true;
    }
    QLOGI("send internal event fail, use dbus aysnc message call");
    delete carried;
    return false;
}

bool TCServer::m_SendOnBus(const char* dest, std::string busName, const TCMessage* message,
                           bool sync, TCMessage* reply, int timeout) {
    QLOGI("send message to %s, sync : %s, reply : %p ", dest, sync ? "true" : "false",
          static_cast<void*>(reply));
    if (m_connection == nullptr || g_dbus_connection_is_closed(m_connection)) {
        QLOGE("dbus connection is not open");
        QLOGE("%s", detail::ExplainNoConnection(m_name, m_connection).c_str());
        return false;
    }
    TCServerHelper::FormatDBusName(busName);
    TCServerHelper::FormatDBusNameElements(busName);
    const std::string objectPath = TCServerHelper::GetObjectPath(busName);
    const std::string& interfaceName = busName;

    // What a copy of the message would carry, read without making one (a
    // 1 MiB buffer copied is a fresh mapping and hundreds of page faults):
    // the text a copy regenerates from the tree, and the message's own
    // bytes, which the payload borrows until the call below has serialised
    // it, inside the call.
    const std::string text = detail::CopiedText(*message);
    const unsigned char* buffer = message->m_buffer;
    const unsigned int size = message->m_size;
    // A size set without bytes: a copy holds that many zero bytes.
    std::unique_ptr<unsigned char[]> zeros;
    if (size != 0 && buffer == nullptr) {
        zeros.reset(new unsigned char[size]());
        buffer = zeros.get();
    }
    const bool withBuffer = buffer != nullptr && size != 0;

    // "ay" to an endpoint that announced it, at its unique name; "a(y)" to
    // the bus name otherwise (BufferFormat.h).
    detail::Route route = detail::ChooseRoute(m_connection, busName, objectPath, withBuffer);

    // Sent, a message above the bus's limit would make the daemon drop this
    // process's connection, for every endpoint of the process.
    auto methodFor = [withBuffer](const detail::Route& chosen) {
        return withBuffer || chosen.Negotiated() ? "SendMessageWithBuffer" : "SendMessage";
    };
    const size_t wireSize =
        detail::MessageWireSize({busName, objectPath, interfaceName, methodFor(route)}, m_name,
                                message->m_type, text, withBuffer, size, route.Negotiated());
    if (!detail::FitsOnBus(wireSize, "message")) {
        QLOGD("send %s!", "fail");
        return false;
    }

    QLOGI("prepare GVariant");
    // Our own reference: GDBus takes its own when it accepts the payload,
    // and a call it refuses (a name it finds invalid) must not leak it.
    auto newPayload = [&](const detail::Route& chosen) {
        return g_variant_ref_sink(NewRequestValue(m_name.c_str(), message->m_code,
                                                  message->m_type.c_str(), text.c_str(), buffer,
                                                  size, chosen));
    };
    GVariant* payload = newPayload(route);
    const char* method = methodFor(route);
    QLOGI("from[%s] to [%s] [%s]", m_name.c_str(), busName.c_str(), text.c_str());

    bool result = false;
    if (sync) {
        GError* error = nullptr;
        GVariant* answer = g_dbus_connection_call_sync(
            m_connection, route.destination.c_str(), objectPath.c_str(), interfaceName.c_str(),
            method, payload, nullptr, G_DBUS_CALL_FLAGS_NONE, timeout, nullptr, &error);
        if (answer == nullptr && route.Negotiated() && detail::EndpointMovedAway(error)) {
            // The connection we learned about gave the endpoint up between
            // our look-up and the call: the request goes again, the way
            // every peer reads, to whoever serves the bus name now.
            QLOGW("%s left %s: sending again to the bus name", busName.c_str(),
                  route.destination.c_str());
            g_clear_error(&error);
            detail::ForgetRoute(route, busName);
            route = detail::Route{busName, detail::BufferFormat::kStructures};
            g_variant_unref(payload);
            payload = newPayload(route);
            answer = g_dbus_connection_call_sync(m_connection, busName.c_str(), objectPath.c_str(),
                                                 interfaceName.c_str(), methodFor(route), payload,
                                                 nullptr, G_DBUS_CALL_FLAGS_NONE, timeout, nullptr,
                                                 &error);
        }
        if (answer != nullptr) {
            // Only a buffer unpacked from "a(y)" leaves much freed heap.
            const bool structures = !detail::HasByteArrayBuffer(answer);
            detail::UnpackIntoMessage(answer, nullptr, reply);
            g_variant_unref(answer);
            if (structures)
                detail::ReleaseHeapAfter(reply->m_size);
            result = true;
            // The remote handler's failure shows only in the reply body.
            if (reply->Parse() && ReportsFailure(reply)) {
                QLOGE("send sync message fail: %s", reply->m_message.c_str());
                QLOGE(
                    "the handler of %s failed or refused the message (its reply says "
                    "\"dbus_result\":\"fail\"): see that endpoint's log",
                    dest);
                result = false;
            }
        } else if (error != nullptr) {
            QLOGE("Fail to invoking sync message call(%s %d)", error->message, error->code);
            QLOGE("%s", detail::ExplainSyncFailure(dest, busName, detail::BusErrorName(error),
                                                   detail::BusErrorText(error), timeout)
                            .c_str());
            g_error_free(error);
        }
    } else {
        // The reply object is not filled asynchronously: the reply goes to
        // IfMessageReplied, on this thread's default main context. Without
        // a reply object, a reply is expected only by an application that
        // wants to learn of failures (SetSendFailureHandler); the others
        // send with "no reply expected", as they always did.
        const bool reportFailures = detail::FailureHandlerOf(this).handler != nullptr;
        if (reply != nullptr || reportFailures) {
            // The call holds a token, not this server: a reply after our
            // close finds the token detached and is dropped.
            auto* pending = new PendingReply{
                detail::TokenOf(this), m_PendingCallNotify,
                detail::SendDescription{dest, method, message->m_type, message->m_code},
                reply != nullptr};
            g_dbus_connection_call(m_connection, route.destination.c_str(), objectPath.c_str(),
                                   interfaceName.c_str(), method, payload, nullptr,
                                   G_DBUS_CALL_FLAGS_NONE, -1, nullptr, OnPendingReply, pending);
        } else {
            g_dbus_connection_call(m_connection, route.destination.c_str(), objectPath.c_str(),
                                   interfaceName.c_str(), method, payload, nullptr,
                                   G_DBUS_CALL_FLAGS_NONE, -1, nullptr, nullptr, nullptr);
        }
        result = true;
    }
    g_variant_unref(payload);
    QLOGD("send %s!", result ? "success" : "fail");
    return result;
}

void TCServer::m_DObjectHandler(GDBusConnection* connection, const gchar* sender,
                                const gchar* /*objectPath*/, const gchar* /*interfaceName*/,
                                const gchar* methodName, GVariant* parameters,
                                GDBusMethodInvocation* invocation, gpointer userData) {
    QLOGI("");
    if (userData == nullptr) {
        QLOGE("pThis NULL");
        detail::ReturnErrorReply(invocation);
        return;
    }
    // A call dispatched while another thread closes the endpoint: the
    // server is only compared here, and used only if still open.
    detail::EndpointPin pin = detail::PinIfOpen(static_cast<TCServer*>(userData));
    if (!pin) {
        QLOGW("request %s dropped: the endpoint was closed",
              methodName != nullptr ? methodName : "");
        detail::ReturnErrorReply(invocation);
        return;
    }
    TCServer* server = pin.get();

    const std::string method = methodName != nullptr ? methodName : "";
    const bool withBuffer = method == "SendMessageWithBuffer";
    if (method == "SendMessage") {
        QLOGI("SendMessage");
    } else if (withBuffer) {
        QLOGI("SendMessageWithBuffer");
    } else {
        QLOGE("error method name : %s", method.c_str());
        detail::ReturnErrorReply(invocation);
        return;
    }
    // The interface declares the buffer as "a*", so the bus lets any array
    // through: only the known shapes may reach the application.
    if (!detail::IsMessagePayload(parameters)) {
        QLOGW("refused payload %s of %s: not (suss), (sussa(y)) or (sussay)",
              parameters != nullptr ? g_variant_get_type_string(parameters) : "null",
              method.c_str());
        detail::ReturnErrorReply(invocation);
        return;
    }
    // Read in place: the fields are borrowed from the payload, which lives
    // for the whole call, and a plain byte array is taken as it is.
    detail::PayloadView fields;
    detail::ReadMessagePayload(parameters, &fields);
    if (!withBuffer) {
        // SendMessage unpacks no buffer.
        fields.bytes = nullptr;
        fields.size = 0;
    }
    QLOGI("from[%s] [%s]", OrNull(fields.from), OrNull(fields.text));

    // Only the connection that owns an endpoint's bus name speaks for it.
    if (fields.from != nullptr &&
        !detail::RequestSenderIsHonest(connection, sender, server->m_name, fields.from,
                                       server->m_GetDBusName(fields.from))) {
        detail::ReturnErrorReply(invocation);
        return;
    }

    // Owned by m_HandleMsg from here on, like |from|.
    char* from = CopyText(fields.from);
    TCMessage* received = new TCMessage();
    detail::FillMessage(received, fields);

    // The default IfHandleInEventIO answers false and touches nothing, so
    // calling it is the same as skipping it for a class that keeps it.
    TCEventIO* eventIO = nullptr;
    bool moved = false;
    if (!QUELT_CALL_GUARDED("IfHandleInEventIO",
                            [&] { moved = server->IfHandleInEventIO(from, received, &eventIO); })) {
        delete received;
        delete[] from;
        detail::ReturnErrorReply(invocation);
        return;
    }
    if (moved && eventIO != nullptr) {
        QLOGI("send internal event");
        // Posts without ever blocking this thread: the queue's lock is only
        // held briefly by its loop, and above the high-water mark, or above
        // the caller's own share of the queue, the request is refused rather
        // than waiting for room in the wake pipe.
        const std::string caller = sender != nullptr ? sender : "";
        auto slot = std::make_shared<detail::HandOffSlot>();
        auto postBounded = [eventIO, server, &caller, &slot](TCEvent* post, bool& refused) {
            TCEventIO* serving = eventIO->GetEventIO();
            serving->m_Lock.Lock();
            size_t depth = serving->m_EventList.size();
            if (serving->m_FlagCreate) {
                // Wake bytes of cleared events count as well.
                int pending = 0;
                if (ioctl(serving->m_PipeFileDes[0], FIONREAD, &pending) == 0)
                    depth = std::max(depth, static_cast<size_t>(pending));
            }
            refused = depth >= kWorkerHandOffHighWater;
            size_t waiting = 0;
            if (!refused) {
                *slot = detail::TakeHandOffSlot(serving, caller, &waiting);
                refused = !*slot;
            }
            const bool posted = !refused && TCEventIO::SendEvent(post);
            if (!posted)
                slot->Release();
            serving->m_Lock.Unlock();
            if (refused) {
                detail::WarnRefused(
                    caller,
                    depth >= kWorkerHandOffHighWater
                        ? HighWaterRefusal(server->m_name, serving->m_Name, depth)
                        : SenderBoundRefusal(server->m_name, serving->m_Name, caller, waiting));
            }
            return posted;
        };
        auto request = std::make_shared<QueuedRequest>(pin.Token(), from, received, invocation);
        TCEvent event;
        event.receiver = eventIO;
        event.type = EVENT_EXECUTE;
        TCExecuteCallable* work = new TCExecuteCallable([request, slot]() {
            // Taken by the worker: no longer waiting.
            slot->Release();
            // The endpoint may have been closed while the request waited.
            detail::EndpointPin target = detail::Pin(request->token);
            if (!target) {
                QLOGW("request for %s dropped: the endpoint was closed",
                      detail::TokenName(request->token).c_str());
                return;
            }
            request->handled = true;
            target.get()->m_HandleMsg(request->from, request->message, request->invocation);
        });
        event.param.p = work;
        bool refused = false;
        if (postBounded(&event, refused)) {
            // The reply leaves from the event IO's thread.
            QLOGI("send internal event success");
            return;
        }
        // Not queued, so nobody else will release the callable; the
        // request goes on here, or is answered with the error reply.
        if (!refused)
            request->handled = true;
        delete work;
        if (refused)
            return;
    }
    server->m_HandleMsg(from, received, invocation);
}

void TCServer::m_HandleMsg(const char* from, const TCMessage* message,
                           GDBusMethodInvocation* invocation) {
    // Taken before the handler runs: once it returns, the endpoint may have
    // been closed by another thread that stopped waiting for us, and
    // nothing of the server is touched any more.
    const std::string name = m_name;
    TCMessage reply;
    const bool handled = QUELT_CALL_GUARDED(
        "IfMessageReceived", [&] { IfMessageReceived(from, message, &reply, nullptr); });
    const size_t receivedBytes = message->m_size;
    delete message;
    delete[] from;
    if (!handled) {
        // Whatever the handler left in the reply is not an answer.
        detail::ReturnErrorReply(invocation);
        return;
    }

    reply.Generate();
    const std::string text = reply.GetMessage();
    unsigned char* buffer = nullptr;
    const unsigned int size = reply.GetBuffer(buffer);
    // "ay" only for a sender that negotiated it (BufferFormat.h).
    const detail::BufferFormat format = detail::ReplyFormatFor(invocation);
    const bool byteArray = format == detail::BufferFormat::kByteArray;
    const bool requestAsStructures =
        invocation != nullptr &&
        !detail::HasByteArrayBuffer(g_dbus_method_invocation_get_parameters(invocation));
    // A reply above the bus's limit would cost this process its
    // connection: the caller gets the error reply instead.
    const size_t wireSize =
        detail::MessageWireSize({"", "", "", ""}, name, reply.m_type, text, true,
                                byteArray ? size : std::max(size, 1u), byteArray);
    if (!detail::FitsOnBus(wireSize, "reply")) {
        detail::ReturnErrorReply(invocation);
    } else {
        // |reply| owns the bytes until the reply has been serialised, which
        // happens inside this call.
        g_dbus_method_invocation_return_value(
            invocation, NewReplyValue(name.c_str(), reply.m_code, reply.m_type.c_str(),
                                      text.c_str(), buffer, size, format));
    }
    // Only buffers that went as "a(y)" leave much freed heap behind.
    detail::ReleaseHeapAfter(
        std::max<size_t>(requestAsStructures ? receivedBytes : 0, byteArray ? 0 : size));
}

void TCServer::m_PendingCallNotify(GObject* source, GAsyncResult* result, gpointer userData) {
    QLOGI("");
    TCServer* server = static_cast<TCServer*>(userData);
    if (server == nullptr) {
        QLOGW("%s is null", "pThis");
        return;
    }
    GDBusConnection* connection = G_DBUS_CONNECTION(source);
    if (connection != server->m_connection) {
        QLOGW("bus %p is different from owner's bus connection %p", static_cast<void*>(connection),
              static_cast<void*>(server->m_connection));
    }
    // Set when the call came through OnPendingReply: what the failure
    // line and the application's handler name.
    const detail::SendDescription* send = t_completing != nullptr ? &t_completing->send : nullptr;
    if (connection == nullptr || g_dbus_connection_is_closed(connection)) {
        QLOGE("bus connection is NULL");
        ReportAsyncFailure(server, send, "org.freedesktop.DBus.Error.Disconnected",
                           "the bus connection is closed");
        return;
    }
    GError* error = nullptr;
    GVariant* answer = g_dbus_connection_call_finish(connection, result, &error);
    if (answer == nullptr) {
        QLOGE("dbus finish fail!");
        ReportAsyncFailure(server, send, detail::BusErrorName(error), detail::BusErrorText(error));
        g_clear_error(&error);
        return;
    }

    char* from = nullptr;
    TCMessage reply;
    detail::UnpackIntoMessage(answer, &from, &reply);

    // A wholly empty reply means "nothing to say".
    if (!reply.m_type.empty() || !reply.m_message.empty() || reply.m_buffer != nullptr) {
        QUELT_CALL_GUARDED("IfMessageReplied", [&] { server->IfMessageReplied(from, &reply); });
    }
    delete[] from;
    g_variant_unref(answer);
    detail::ReleaseHeapAfter(reply.m_size);
}

}  // namespace Quelt
