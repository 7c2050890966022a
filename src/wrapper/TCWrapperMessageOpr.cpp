// SPDX-License-Identifier: Apache-2.0
// Conversions between TCMessage/TCEvent and the plain records of the C
// interface, and the owners that hold a record for one C callback.

#include "TCWrapperMessageOpr.h"

#include <cstdlib>
#include <cstring>
#include <string>

#include "QueltLog.h"
#include "TCGadgetActivity.h"

namespace Quelt {

// The record's param is copied to and from the event's param word as it is.
static_assert(sizeof(pelx_event_param_s) == sizeof(decltype(TCEvent::param)) &&
                  alignof(pelx_event_param_s) == alignof(decltype(TCEvent::param)),
              "pelx_event_param_s must match TCEvent::param");

void InitManagedMessage(pelx_message_s* message) {
    if (message == nullptr) {
        QLOGE("NULL message");
        return;
    }
    message->info = nullptr;
    message->code = 0;
    message->type = nullptr;
    message->buffer = nullptr;
    message->buffer_size = 0;
}

void DestroyManagedMessage(pelx_message_s* message) {
    if (message == nullptr) {
        QLOGE("NULL message");
        return;
    }
    free(message->info);
    message->info = nullptr;
    free(message->type);
    message->type = nullptr;
    delete[] message->buffer;
    message->buffer = nullptr;
    message->buffer_size = 0;
}

void InitManagedEvent(pelx_event_s* event) {
    if (event == nullptr) {
        QLOGE("NULL event");
        return;
    }
    event->gadget = nullptr;
    event->type = 0;
    event->deleted = false;
    event->data = nullptr;
    event->reply = nullptr;
    event->sync = false;
    event->param.p = nullptr;
}

void DestroyManagedEvent(pelx_event_s* event) {
    if (event == nullptr) {
        QLOGE("NULL event");
        return;
    }
    // gadget and param are borrowed: only the two texts are the record's.
    free(event->data);
    event->data = nullptr;
    free(event->reply);
    event->reply = nullptr;
}

void ConvertToManagedMessage(const TCMessage* message, pelx_message_s* record) {
    if (message == nullptr || record == nullptr) {
        QLOGE("NULL msg");
        return;
    }
    // What the record held before is released first, so one record can be
    // filled again and again. Empty texts stay null, not "".
    free(record->info);
    record->info = nullptr;
    if (!message->GetMessage().empty())
        record->info = strdup(message->GetMessage().c_str());

    record->code = message->m_code;

    free(record->type);
    record->type = nullptr;
    if (!message->m_type.empty())
        record->type = strdup(message->m_type.c_str());

    delete[] record->buffer;
    record->buffer = nullptr;
    record->buffer_size = 0;
    record->buffer_size = message->CopyBuffer(&record->buffer);
}

void CopyFromTCMessage(const TCMessage* message, pelx_message_s* record) {
    ConvertToManagedMessage(message, record);
}

void ConvertToMessage(const pelx_message_s* record, TCMessage* message) {
    if (record == nullptr || message == nullptr) {
        QLOGE("NULL msg");
        return;
    }
    message->SetMessage((record->info != nullptr) ? record->info : "");
    message->m_code = record->code;
    message->m_type = (record->type != nullptr) ? record->type : "";
    // The message keeps its own copy; the record's buffer stays the record's.
    message->SetBuffer(record->buffer, record->buffer_size);
}

void CopyFromManagedMessage(pelx_message_s* record, TCMessage* message) {
    ConvertToMessage(record, message);
}

void ConvertToManagedEvent(const TCEvent* event, pelx_event_s* record) {
    if (event == nullptr || record == nullptr) {
        QLOGE("NULL event");
        return;
    }
    // The receiver goes across unchanged: an event that went class to
    // record carries the handler pointer here, not the gadget object.
    record->gadget = event->receiver;
    record->type = event->type;
    record->deleted = event->deleted;

    free(record->data);
    record->data = nullptr;
    const std::string data = event->data.GetString();
    if (!data.empty()) {
        record->data = strdup(data.c_str());
        if (record->data == nullptr)
            QLOGE("Failed to allocate data value");
    }

    free(record->reply);
    record->reply = nullptr;
    const std::string reply = event->message.GetString();
    if (!reply.empty()) {
        record->reply = strdup(reply.c_str());
        if (record->reply == nullptr)
            QLOGE("Failed to allocate reply value");
    }

    record->sync = event->sync;
    record->param.p = event->param.p;
}

void ConvertToEvent(const pelx_event_s* record, TCEvent* event) {
    if (record == nullptr || event == nullptr) {
        QLOGE("NULL event");
        return;
    }
    if (record->gadget == nullptr) {
        QLOGE("fail to get gadget pointer");
        return;
    }
    // |gadget| points to a gadget activity; its handler part is what the
    // event queues deliver to.
    event->receiver = static_cast<TCHandler*>(static_cast<TCGadgetActivity*>(record->gadget));
    event->type = record->type;
    event->deleted = record->deleted;
    if (record->data != nullptr)
        event->data = TCData(record->data);
    if (record->reply != nullptr)
        event->message.SetMessage(record->reply);
    event->sync = record->sync;
    event->param.p = record->param.p;
}

// ---------------------------------------------------------------------------
// TCWrapperMessage

TCWrapperMessage::TCWrapperMessage() {
    InitManagedMessage(&m_message);
}

TCWrapperMessage::TCWrapperMessage(const TCMessage* message) {
    InitManagedMessage(&m_message);
    if (message != nullptr)
        ConvertToManagedMessage(message, &m_message);
}

TCWrapperMessage::~TCWrapperMessage() {
    DestroyManagedMessage(&m_message);
}

// ---------------------------------------------------------------------------
// TCWrapperEvent

TCWrapperEvent::TCWrapperEvent() {
    InitManagedEvent(&m_event);
}

TCWrapperEvent::TCWrapperEvent(const TCEvent* event) {
    InitManagedEvent(&m_event);
    if (event != nullptr)
        ConvertToManagedEvent(event, &m_event);
}

TCWrapperEvent::~TCWrapperEvent() {
    DestroyManagedEvent(&m_event);
}

}  // namespace Quelt
