// SPDX-License-Identifier: Apache-2.0
// Fuzz harness: the C records of the plain-function interface. The input is
// a little program: each step is one opcode byte followed by its operands,
// and runs one of the pelx_* creators, setters, getters and destroyers, or
// one conversion between a record and its class (pelx_message_s <->
// TCMessage, pelx_event_s <-> TCEvent, the two wrappers). The harness keeps
// a model of what each record must hold and checks it after every step;
// ASan and LeakSanitizer check ownership (every text is released with free,
// every buffer with delete[], nothing twice, nothing forgotten).
//
// Setters store what they are given and never release the old value, as
// the C interface documents; the harness, as a careful C caller would,
// releases the old value itself before it sets a new one.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "FuzzSupport.h"
#include "TCEvent.h"
#include "TCGadgetActivity.h"
#include "TCMessage.h"
#include "TCWrapperMessageOpr.h"
#include "pelx.h"

namespace {

using harvo_fuzz::Require;

// Reads operands from the input; past its end every read yields zeros.
class Reader {
public:
    Reader(const uint8_t* data, size_t size) : m_data(data), m_size(size) {}
    bool AtEnd() const { return m_pos >= m_size; }
    uint8_t Byte() { return m_pos < m_size ? m_data[m_pos++] : 0; }
    uint32_t Word() {
        uint32_t value = 0;
        for (int i = 0; i < 4; ++i)
            value = (value << 8) | Byte();
        return value;
    }
    // A length byte and that many bytes (fewer at the end of the input).
    std::string Bytes() {
        const size_t wanted = Byte();
        const size_t left = m_pos < m_size ? m_size - m_pos : 0;
        const size_t length = std::min(wanted, left);
        std::string bytes(reinterpret_cast<const char*>(m_data + m_pos), length);
        m_pos += length;
        return bytes;
    }
    // Text as a C caller passes it: up to the first NUL.
    std::string Text() {
        const std::string bytes = Bytes();
        return std::string(bytes.c_str());
    }

private:
    const uint8_t* m_data;
    size_t m_size;
    size_t m_pos = 0;
};

char* MallocText(const std::string& text) {
    return strdup(text.c_str());
}

unsigned char* NewBuffer(const std::string& bytes) {
    if (bytes.empty())
        return nullptr;
    unsigned char* buffer = new unsigned char[bytes.size()];
    std::memcpy(buffer, bytes.data(), bytes.size());
    return buffer;
}

bool SameText(const char* field, const std::string& expected) {
    // Conversions leave an empty text as null, never as "".
    if (expected.empty())
        return field == nullptr;
    return field != nullptr && expected == field;
}

// A gadget activity made once; only its address and its handler part are
// used (no bus, no loop).
Quelt::TCGadgetActivity* Gadget() {
    static Quelt::TCGadgetActivity* gadget = new Quelt::TCGadgetActivity("fuzz_gadget", false);
    return gadget;
}

enum Op : uint8_t {
    kSetInfo,
    kSetType,
    kSetCode,
    kSetBuffer,
    kRecordToMessage,
    kMessageToRecord,
    kWrapMessage,
    kRecreateMessage,
    kSetEventData,
    kSetEventReply,
    kSetEventFlags,
    kRecordToEvent,
    kEventToRecord,
    kWrapEvent,
    kRecreateEvent,
    kNullRecords,
    kOpCount
};

class Program {
public:
    Program(const uint8_t* data, size_t size) : m_in(data, size) {
        m_message = pelx_create_message();
        m_event = pelx_create_event(Gadget());
    }
    ~Program() {
        pelx_destroy_message(m_message);
        pelx_destroy_event(m_event);
    }

    void Run() {
        for (int steps = 0; steps < 64 && !m_in.AtEnd(); ++steps)
            Step(static_cast<Op>(m_in.Byte() % kOpCount));
    }

private:
    void Step(Op op) {
        switch (op) {
            case kSetInfo: {
                free(pelx_get_message_info(m_message));
                pelx_set_message_info(m_message, MallocText(m_in.Text()));
                break;
            }
            case kSetType: {
                free(pelx_get_message_type(m_message));
                pelx_set_message_type(m_message, MallocText(m_in.Text()));
                break;
            }
            case kSetCode: {
                const uint32_t code = m_in.Word();
                pelx_set_message_code(m_message, code);
                Require(pelx_get_message_code(m_message) == code, "code not stored", "");
                break;
            }
            case kSetBuffer: {
                delete[] pelx_get_message_buffer(m_message);
                const std::string bytes = m_in.Bytes();
                pelx_set_message_buffer(m_message, NewBuffer(bytes),
                                        static_cast<unsigned int>(bytes.size()));
                Require(pelx_get_message_buffer_size(m_message) == bytes.size(),
                        "buffer size not stored", bytes);
                break;
            }
            case kRecordToMessage:
                RecordToMessage();
                break;
            case kMessageToRecord:
                MessageToRecord();
                break;
            case kWrapMessage: {
                Quelt::TCWrapperMessage wrapper(&m_class);
                CheckRecordMatches(wrapper.GetMMessager(), m_class);
                break;
            }
            case kRecreateMessage:
                pelx_destroy_message(m_message);
                m_message = pelx_create_message();
                Require(pelx_get_message_info(m_message) == nullptr &&
                            pelx_get_message_buffer(m_message) == nullptr &&
                            pelx_get_message_buffer_size(m_message) == 0,
                        "new message record not empty", "");
                break;
            case kSetEventData: {
                free(pelx_get_event_data(m_event));
                pelx_set_event_data(m_event, m_in.Byte() & 1 ? MallocText(m_in.Text()) : nullptr);
                break;
            }
            case kSetEventReply: {
                free(pelx_get_event_reply(m_event));
                pelx_set_event_reply(m_event, m_in.Byte() & 1 ? MallocText(m_in.Text()) : nullptr);
                break;
            }
            case kSetEventFlags: {
                const uint8_t flags = m_in.Byte();
                pelx_set_event_type(m_event, static_cast<int>(m_in.Word()));
                pelx_set_event_deleted(m_event, flags & 1);
                m_event->sync = (flags & 2) != 0;
                pelx_event_param_s param;
                param.p = reinterpret_cast<void*>(static_cast<uintptr_t>(m_in.Word()));
                pelx_set_event_param(m_event, (flags & 4) ? &param : nullptr);
                if (flags & 4)
                    Require(pelx_get_event_param(m_event)->p == param.p, "param not stored", "");
                if (flags & 8) {
                    // Point it back at the gadget, or at nothing.
                    m_event->gadget = (flags & 16) ? Gadget() : nullptr;
                }
                Require(pelx_get_event_deleted(m_event) == ((flags & 1) != 0),
                        "deleted mark not stored", "");
                break;
            }
            case kRecordToEvent:
                RecordToEvent();
                break;
            case kEventToRecord:
                EventToRecord();
                break;
            case kWrapEvent: {
                Quelt::TCWrapperEvent wrapper(&m_classEvent);
                CheckEventRecordMatches(wrapper.GetMEvent(), m_classEvent);
                break;
            }
            case kRecreateEvent:
                pelx_destroy_event(m_event);
                m_event = pelx_create_event((m_in.Byte() & 1) ? Gadget() : nullptr);
                break;
            case kNullRecords:
                NullRecords();
                break;
            case kOpCount:
                break;
        }
    }

    void RecordToMessage() {
        Quelt::ConvertToMessage(m_message, &m_class);
        const char* info = pelx_get_message_info(m_message);
        const char* type = pelx_get_message_type(m_message);
        Require(m_class.m_message == (info ? info : ""), "text not converted", "");
        Require(m_class.m_type == (type ? type : ""), "type not converted", "");
        Require(m_class.m_code == pelx_get_message_code(m_message), "code not converted", "");
        const unsigned int size = pelx_get_message_buffer_size(m_message);
        const unsigned char* buffer = pelx_get_message_buffer(m_message);
        Require(m_class.m_size == size, "buffer size not converted", "");
        Require(size == 0 || (m_class.m_buffer != buffer &&
                              std::memcmp(m_class.m_buffer, buffer, size) == 0),
                "buffer not copied", "");
    }

    void MessageToRecord() {
        Quelt::ConvertToManagedMessage(&m_class, m_message);
        CheckRecordMatches(m_message, m_class);
    }

    static void CheckRecordMatches(pelx_message_s* record, const Quelt::TCMessage& message) {
        Require(SameText(pelx_get_message_info(record), message.GetMessage()),
                "record text differs", message.m_message);
        Require(SameText(pelx_get_message_type(record), message.m_type), "record type differs",
                message.m_type);
        Require(pelx_get_message_code(record) == message.m_code, "record code differs", "");
        const unsigned int size = pelx_get_message_buffer_size(record);
        Require(size == message.m_size, "record buffer size differs", "");
        const unsigned char* buffer = pelx_get_message_buffer(record);
        Require((buffer == nullptr) == (size == 0), "record buffer and size disagree", "");
        Require(size == 0 || (buffer != message.m_buffer &&
                              std::memcmp(buffer, message.m_buffer, size) == 0),
                "record buffer not copied", "");
    }

    void RecordToEvent() {
        // A record's gadget must be a gadget activity (or nothing). One
        // filled from a class event carries the handler instead and is not
        // meant to be converted back, so the harness points it at the
        // gadget again first.
        if (m_event->gadget != nullptr && m_event->gadget != Gadget())
            m_event->gadget = Gadget();
        const Quelt::TCEvent before(m_classEvent);
        Quelt::ConvertToEvent(m_event, &m_classEvent);
        if (m_event->gadget == nullptr) {
            Require(m_classEvent.receiver == before.receiver && m_classEvent.type == before.type,
                    "event changed without a gadget", "");
            return;
        }
        Require(
            m_classEvent.receiver == static_cast<Quelt::TCHandler*>(
                                         static_cast<Quelt::TCGadgetActivity*>(m_event->gadget)),
            "receiver is not the gadget's handler", "");
        Require(m_classEvent.type == m_event->type && m_classEvent.deleted == m_event->deleted &&
                    m_classEvent.sync == m_event->sync && m_classEvent.param.p == m_event->param.p,
                "event fields not converted", "");
        if (m_event->data != nullptr)
            Require(m_classEvent.data.m_message == m_event->data, "event data not converted",
                    m_event->data);
        if (m_event->reply != nullptr)
            Require(m_classEvent.message.m_message == m_event->reply, "event reply not converted",
                    m_event->reply);
    }

    void EventToRecord() {
        Quelt::ConvertToManagedEvent(&m_classEvent, m_event);
        CheckEventRecordMatches(m_event, m_classEvent);
    }

    static void CheckEventRecordMatches(pelx_event_s* record, const Quelt::TCEvent& event) {
        Require(record->gadget == event.receiver, "receiver not copied", "");
        Require(pelx_get_event_type(record) == event.type && record->deleted == event.deleted &&
                    record->sync == event.sync && record->param.p == event.param.p,
                "event record fields differ", "");
        Require(SameText(pelx_get_event_data(record), event.data.GetString()),
                "event record data differs", event.data.m_message);
        Require(SameText(pelx_get_event_reply(record), event.message.GetString()),
                "event record reply differs", event.message.m_message);
    }

    static void NullRecords() {
        Require(pelx_get_message_info(nullptr) == nullptr && pelx_get_message_code(nullptr) == 0 &&
                    pelx_get_message_type(nullptr) == nullptr &&
                    pelx_get_message_buffer(nullptr) == nullptr &&
                    pelx_get_message_buffer_size(nullptr) == 0,
                "null message record getters", "");
        Require(pelx_get_event_type(nullptr) == 0 && pelx_get_event_data(nullptr) == nullptr &&
                    pelx_get_event_reply(nullptr) == nullptr && pelx_get_event_deleted(nullptr) &&
                    pelx_get_event_param(nullptr) == nullptr,
                "null event record getters", "");
        pelx_set_message_info(nullptr, nullptr);
        pelx_set_message_buffer(nullptr, nullptr, 3);
        pelx_set_event_data(nullptr, nullptr);
        pelx_set_event_param(nullptr, nullptr);
        Quelt::ConvertToMessage(nullptr, nullptr);
        Quelt::ConvertToManagedMessage(nullptr, nullptr);
        Quelt::ConvertToEvent(nullptr, nullptr);
        Quelt::ConvertToManagedEvent(nullptr, nullptr);
        pelx_destroy_message(nullptr);
        pelx_destroy_event(nullptr);
    }

    Reader m_in;
    pelx_message_s* m_message;
    pelx_event_s* m_event;
    Quelt::TCMessage m_class;
    Quelt::TCEvent m_classEvent;
};

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    harvo_fuzz::SilenceLog();
    Gadget();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Program program(data, size);
    program.Run();
    return 0;
}
