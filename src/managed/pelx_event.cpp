// SPDX-License-Identifier: Apache-2.0
// The exported functions of the C interface: creation, release, getters
// and setters of pelx_message_s and pelx_event_s, and sending messages,
// events and signals by server name.
//
// Getters and setters tolerate a null record silently; setters store what
// they are given without copying it and without releasing the old value.

#include "pelx.h"

#include "EndpointGuard.h"
#include "QueltLog.h"
#include "TCEventIO.h"
#include "TCServer.h"
#include "TCWrapperMessageOpr.h"

extern "C" {

// ---------------------------------------------------------------------------
// Messages

PELX_API pelx_message_s* pelx_create_message(void) {
    pelx_message_s* message = new pelx_message_s;
    Quelt::InitManagedMessage(message);
    return message;
}

PELX_API void pelx_destroy_message(pelx_message_s* message) {
    // A null record is reported ("NULL message") by the release itself.
    Quelt::DestroyManagedMessage(message);
    delete message;
}

PELX_API char* pelx_get_message_info(pelx_message_s* message) {
    return (message != nullptr) ? message->info : nullptr;
}

PELX_API unsigned int pelx_get_message_code(pelx_message_s* message) {
    return (message != nullptr) ? message->code : 0;
}

PELX_API char* pelx_get_message_type(pelx_message_s* message) {
    return (message != nullptr) ? message->type : nullptr;
}

PELX_API unsigned char* pelx_get_message_buffer(pelx_message_s* message) {
    return (message != nullptr) ? message->buffer : nullptr;
}

PELX_API unsigned int pelx_get_message_buffer_size(pelx_message_s* message) {
    return (message != nullptr) ? message->buffer_size : 0;
}

PELX_API void pelx_set_message_info(pelx_message_s* message, char* info) {
    if (message != nullptr)
        message->info = info;
}

PELX_API void pelx_set_message_code(pelx_message_s* message, unsigned int code) {
    if (message != nullptr)
        message->code = code;
}

PELX_API void pelx_set_message_type(pelx_message_s* message, char* type) {
    if (message != nullptr)
        message->type = type;
}

PELX_API void pelx_set_message_buffer(pelx_message_s* message, unsigned char* buffer,
                                      unsigned int size) {
    if (message == nullptr)
        return;
    message->buffer = buffer;
    message->buffer_size = size;
}

// ---------------------------------------------------------------------------
// Events

PELX_API pelx_event_s* pelx_create_event(void* gadget) {
    pelx_event_s* event = new pelx_event_s;
    Quelt::InitManagedEvent(event);
    event->gadget = gadget;
    return event;
}

PELX_API void pelx_destroy_event(pelx_event_s* event) {
    // gadget and param are borrowed and stay untouched; a null record is
    // reported ("NULL event") by the release itself.
    Quelt::DestroyManagedEvent(event);
    delete event;
}

PELX_API int pelx_get_event_type(pelx_event_s* event) {
    return (event != nullptr) ? event->type : 0;
}

PELX_API char* pelx_get_event_data(pelx_event_s* event) {
    return (event != nullptr) ? event->data : nullptr;
}

PELX_API char* pelx_get_event_reply(pelx_event_s* event) {
    return (event != nullptr) ? event->reply : nullptr;
}

PELX_API bool pelx_get_event_deleted(pelx_event_s* event) {
    // A missing event counts as deleted.
    return (event != nullptr) ? event->deleted : true;
}

PELX_API pelx_event_param_s* pelx_get_event_param(pelx_event_s* event) {
    return (event != nullptr) ? &event->param : nullptr;
}

PELX_API void pelx_set_event_type(pelx_event_s* event, int type) {
    if (event != nullptr)
        event->type = type;
}

PELX_API void pelx_set_event_data(pelx_event_s* event, char* data) {
    if (event != nullptr)
        event->data = data;
}

PELX_API void pelx_set_event_reply(pelx_event_s* event, char* reply) {
    if (event != nullptr)
        event->reply = reply;
}

PELX_API void pelx_set_event_deleted(pelx_event_s* event, bool deleted) {
    if (event != nullptr)
        event->deleted = deleted;
}

PELX_API void pelx_set_event_param(pelx_event_s* event, const pelx_event_param_s* param) {
    if (event == nullptr || param == nullptr)
        return;
    event->param = *param;
}

// ---------------------------------------------------------------------------
// Sending and signals. Each function turns the records into stack-local
// framework objects and calls the framework's operation by server name.

PELX_API bool pelx_send_message(const char* source, const char* target, pelx_message_s* message,
                                pelx_message_s* reply) {
    if (message == nullptr) {
        QLOGE("null message");
        return false;
    }
    Quelt::TCMessage local;
    Quelt::ConvertToMessage(message, &local);
    if (reply == nullptr)
        return Quelt::TCServer::SendMessage(source, target, &local, false, nullptr);
    // An asynchronous send never writes the caller's reply record: answers
    // come back through the server's reply hook. The local reply is dropped.
    Quelt::TCMessage localReply;
    return Quelt::TCServer::SendMessage(source, target, &local, false, &localReply);
}

PELX_API bool pelx_send_message_sync(const char* source, const char* target,
                                     pelx_message_s* message, pelx_message_s* reply) {
    if (message == nullptr || reply == nullptr) {
        QLOGW("You couldn't call SendMessage with no message or reply synchronically");
        return false;
    }
    Quelt::TCMessage localMessage;
    Quelt::TCMessage localReply;
    Quelt::ConvertToMessage(message, &localMessage);
    Quelt::ConvertToMessage(reply, &localReply);
    bool sent = Quelt::TCServer::SendMessage(source, target, &localMessage, true, &localReply);
    // Also after a failure: the record then holds what the local reply held.
    // The caller owns the new members.
    Quelt::ConvertToManagedMessage(&localReply, reply);
    return sent;
}

PELX_API bool pelx_send_event(pelx_event_s* event) {
    if (event == nullptr) {
        QLOGE("null event");
        return false;
    }
    Quelt::TCEvent local;
    Quelt::ConvertToEvent(event, &local);
    return Quelt::TCEventIO::SendEvent(&local);
}

PELX_API bool pelx_send_signal(const char* source, const char* signalName,
                               pelx_message_s* message) {
    if (message == nullptr)
        return Quelt::TCServer::SendSignal(source, signalName, nullptr);
    Quelt::TCMessage local;
    Quelt::ConvertToMessage(message, &local);
    return Quelt::TCServer::SendSignal(source, signalName, &local);
}

PELX_API bool pelx_subscribe_signal(const char* source, const char* from, const char* signalName,
                                    pelx_signal_handler handler, void* userData) {
    return Quelt::TCServer::SubscribeManagedSignal(source, from, signalName, handler, userData);
}

PELX_API bool pelx_set_send_failure_cb(const char* source, pelx_send_failure_cb cb,
                                       void* user_data) {
    Quelt::TCServer* server = Quelt::TCServer::m_GetDbusServer(source);
    // Pinned, so that it cannot go away while its handler is set.
    Quelt::detail::EndpointPin pin = Quelt::detail::PinIfOpen(server);
    if (server == nullptr || !pin) {
        QLOGW("%s is null", "server");
        return false;
    }
    Quelt::SetSendFailureHandler(pin.get(), cb, user_data);
    return true;
}

PELX_API bool pelx_is_service_available(const char* source, const char* name) {
    Quelt::TCServer* server = Quelt::TCServer::m_GetDbusServer(source);
    Quelt::detail::EndpointPin pin = Quelt::detail::PinIfOpen(server);
    if (server == nullptr || !pin) {
        QLOGW("%s is null", "server");
        return false;
    }
    return pin.get()->IsServiceAvailable(name);
}

PELX_API bool pelx_unsubscribe_signal(const char* source, const char* from,
                                      const char* signalName) {
    return Quelt::TCServer::UnSubscribeManagedSignal(source, from, signalName);
}

}  // extern "C"
