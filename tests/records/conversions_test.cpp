// SPDX-License-Identifier: Apache-2.0
// Conversions between TCMessage/TCEvent and the C records, in both
// directions, and the wrappers that hold a record for one callback.
#include <gtest/gtest.h>

#include <dlog.h>

#include <cstdlib>
#include <cstring>
#include <new>
#include <string>

#include "LogCapture.h"
#include "TCEvent.h"
#include "TCGadgetActivity.h"
#include "TCMessage.h"
#include "TCWrapperMessageOpr.h"
#include "pelx.h"

using harvo_test::LogCapture;
using Quelt::TCData;
using Quelt::TCEvent;
using Quelt::TCHandler;
using Quelt::TCMessage;

namespace {

// A record on the stack, zeroed, released at the end of the scope.
struct MessageRecord {
    pelx_message_s record;
    MessageRecord() { Quelt::InitManagedMessage(&record); }
    ~MessageRecord() { Quelt::DestroyManagedMessage(&record); }
};

struct EventRecord {
    pelx_event_s record;
    EventRecord() { Quelt::InitManagedEvent(&record); }
    ~EventRecord() { Quelt::DestroyManagedEvent(&record); }
};

}  // namespace

// ---------------------------------------------------------------------------
// TCMessage -> pelx_message_s

TEST(ConvertToManagedMessage, CopiesEveryField) {
    TCMessage message;
    message.SetMessage("{\"a\":1}");
    message.m_code = 77;
    message.m_type = "kind";
    const unsigned char bytes[3] = {9, 0, 9};
    message.SetBuffer(bytes, 3);

    MessageRecord out;
    Quelt::ConvertToManagedMessage(&message, &out.record);
    EXPECT_STREQ("{\"a\":1}", out.record.info);
    EXPECT_EQ(77u, out.record.code);
    EXPECT_STREQ("kind", out.record.type);
    ASSERT_EQ(3u, out.record.buffer_size);
    ASSERT_NE(nullptr, out.record.buffer);
    EXPECT_NE(message.m_buffer, out.record.buffer);  // a fresh copy
    EXPECT_EQ(0, std::memcmp(bytes, out.record.buffer, 3));
}

TEST(ConvertToManagedMessage, EmptyTextsBecomeNullMembers) {
    TCMessage message;
    MessageRecord out;
    Quelt::ConvertToManagedMessage(&message, &out.record);
    EXPECT_EQ(nullptr, out.record.info);
    EXPECT_EQ(nullptr, out.record.type);
    EXPECT_EQ(nullptr, out.record.buffer);
    EXPECT_EQ(0u, out.record.buffer_size);
    EXPECT_EQ(0u, out.record.code);
}

TEST(ConvertToManagedMessage, OldContentsAreReleasedFirst) {
    // Filled by hand: if the conversion did not release these, ASan's leak
    // check would report them.
    MessageRecord out;
    out.record.info = strdup("old info");
    out.record.type = strdup("old type");
    out.record.buffer = new unsigned char[8]();
    out.record.buffer_size = 8;

    TCMessage withoutBuffer;
    withoutBuffer.SetMessage("{}");
    Quelt::ConvertToManagedMessage(&withoutBuffer, &out.record);
    EXPECT_STREQ("{}", out.record.info);
    EXPECT_EQ(nullptr, out.record.type);
    EXPECT_EQ(nullptr, out.record.buffer);
    EXPECT_EQ(0u, out.record.buffer_size);

    // The same record again and again.
    TCMessage full;
    full.SetMessage("[1]");
    full.m_type = "t";
    const unsigned char bytes[2] = {1, 2};
    full.SetBuffer(bytes, 2);
    for (int i = 0; i < 3; ++i)
        Quelt::ConvertToManagedMessage(&full, &out.record);
    EXPECT_STREQ("[1]", out.record.info);
    EXPECT_STREQ("t", out.record.type);
    EXPECT_EQ(2u, out.record.buffer_size);

    TCMessage empty;
    Quelt::ConvertToManagedMessage(&empty, &out.record);
    EXPECT_EQ(nullptr, out.record.info);
    EXPECT_EQ(nullptr, out.record.type);
    EXPECT_EQ(nullptr, out.record.buffer);
}

TEST(ConvertToManagedMessage, TreeOnlyBodyGivesTheWarningText) {
    // The message is const here: its text cannot be generated, so the
    // record gets the warning that the const read answers.
    TCMessage message;
    message.m_value["k"] = "v";
    MessageRecord out;
    Quelt::ConvertToManagedMessage(&message, &out.record);
    EXPECT_STREQ("<<WARN: JSON TYPE MESSAGE, GENERATE STRING FIRST>>", out.record.info);

    message.Generate();
    Quelt::ConvertToManagedMessage(&message, &out.record);
    EXPECT_STREQ("{\"k\":\"v\"}", out.record.info);
}

TEST(ConvertToManagedMessage, NullArgumentsLogAndChangeNothing) {
    TCMessage message;
    message.SetMessage("{}");
    MessageRecord out;
    out.record.code = 5;
    LogCapture capture;
    Quelt::ConvertToManagedMessage(nullptr, &out.record);
    Quelt::ConvertToManagedMessage(&message, nullptr);
    Quelt::ConvertToManagedMessage(nullptr, nullptr);
    EXPECT_EQ(3u, capture.CountFramework(DLOG_ERROR, "NULL msg")) << capture.Dump();
    EXPECT_EQ("TCWrapperMessageOpr.cpp", capture.Framework("NULL msg")[0].file);
    EXPECT_EQ(5u, out.record.code);
    EXPECT_EQ(nullptr, out.record.info);
}

TEST(ConvertToManagedMessage, CopyFromTCMessageIsTheSameConversion) {
    TCMessage message;
    message.SetMessage("{\"b\":2}");
    message.m_code = 3;
    MessageRecord out;
    out.record.info = strdup("stale");
    Quelt::CopyFromTCMessage(&message, &out.record);
    EXPECT_STREQ("{\"b\":2}", out.record.info);
    EXPECT_EQ(3u, out.record.code);

    LogCapture capture;
    Quelt::CopyFromTCMessage(nullptr, &out.record);
    EXPECT_EQ(1u, capture.CountFramework(DLOG_ERROR, "NULL msg")) << capture.Dump();
}

// ---------------------------------------------------------------------------
// pelx_message_s -> TCMessage

TEST(ConvertToMessage, CopiesEveryFieldAndParses) {
    MessageRecord in;
    in.record.info = strdup("{\"n\":[1,2]}");
    in.record.code = 0xFFFFFFFFu;
    in.record.type = strdup("list");
    in.record.buffer = new unsigned char[2]{4, 5};
    in.record.buffer_size = 2;

    TCMessage message;
    Quelt::ConvertToMessage(&in.record, &message);
    EXPECT_EQ("{\"n\":[1,2]}", message.m_message);
    EXPECT_EQ(2, message.m_value["n"][1].asInt());
    EXPECT_EQ(0xFFFFFFFFu, message.m_code);
    EXPECT_EQ("list", message.m_type);
    ASSERT_EQ(2u, message.m_size);
    EXPECT_NE(in.record.buffer, message.m_buffer);  // the message has its own
    EXPECT_EQ(5, message.m_buffer[1]);
}

TEST(ConvertToMessage, NullMembersGiveEmptyTextAndType) {
    TCMessage message;
    message.SetMessage("{\"old\":1}");
    message.m_type = "old";
    const unsigned char old[1] = {1};
    message.SetBuffer(old, 1);

    MessageRecord in;  // all null
    LogCapture capture;
    Quelt::ConvertToMessage(&in.record, &message);
    EXPECT_EQ("", message.m_message);
    EXPECT_TRUE(message.m_value.isNull());
    EXPECT_EQ("", message.m_type);
    EXPECT_EQ(0u, message.m_code);
    // A size of 0 drops the message's old buffer.
    EXPECT_EQ(nullptr, message.m_buffer);
    EXPECT_EQ(0u, message.m_size);
    // The empty text is parsed like any other and is not JSON.
    EXPECT_EQ(1u, capture.CountFramework(DLOG_INFO, "NOT JSON TYPE MESSAGE![]")) << capture.Dump();
}

TEST(ConvertToMessage, NullArgumentsLogAndChangeNothing) {
    MessageRecord in;
    in.record.code = 4;
    TCMessage message;
    message.m_code = 9;
    LogCapture capture;
    Quelt::ConvertToMessage(nullptr, &message);
    Quelt::ConvertToMessage(&in.record, nullptr);
    Quelt::CopyFromManagedMessage(nullptr, &message);
    EXPECT_EQ(3u, capture.CountFramework(DLOG_ERROR, "NULL msg")) << capture.Dump();
    EXPECT_EQ(9u, message.m_code);
}

TEST(ConvertToMessage, CopyFromManagedMessageIsTheSameConversion) {
    MessageRecord in;
    in.record.info = strdup("{}");
    in.record.type = strdup("x");
    in.record.code = 2;
    TCMessage message;
    Quelt::CopyFromManagedMessage(&in.record, &message);
    EXPECT_EQ("{}", message.m_message);
    EXPECT_EQ("x", message.m_type);
    EXPECT_EQ(2u, message.m_code);
}

TEST(ConvertToMessage, RoundTripKeepsTheMessage) {
    TCMessage original;
    original.SetMessage("{\"deep\":{\"x\":true}}");
    original.m_code = 11;
    original.m_type = "rt";
    const unsigned char bytes[3] = {0, 0, 1};
    original.SetBuffer(bytes, 3);

    MessageRecord record;
    Quelt::ConvertToManagedMessage(&original, &record.record);
    TCMessage back;
    Quelt::ConvertToMessage(&record.record, &back);
    EXPECT_EQ(original.GetMessage(), back.GetMessage());
    EXPECT_EQ(original.m_code, back.m_code);
    EXPECT_EQ(original.m_type, back.m_type);
    ASSERT_EQ(3u, back.m_size);
    EXPECT_EQ(0, std::memcmp(bytes, back.m_buffer, 3));
}

// ---------------------------------------------------------------------------
// TCEvent -> pelx_event_s

namespace {

// A handler that only has to exist: conversions copy its address.
class NullHandler : public TCHandler {
public:
    bool t_OnEvent(const TCEvent*) override { return false; }
    void t_Clear(TCEvent*) override {}
};

}  // namespace

TEST(ConvertToManagedEvent, CopiesEveryField) {
    NullHandler handler;
    int payload = 0;
    TCEvent event;
    event.receiver = &handler;
    event.type = 1001;
    event.deleted = true;
    event.data.SetMessage("{\"d\":1}");
    event.message.SetMessage("{\"r\":2}");
    event.sync = true;
    event.param.p = &payload;

    EventRecord out;
    Quelt::ConvertToManagedEvent(&event, &out.record);
    // The receiver crosses unchanged: the handler, not a gadget object.
    EXPECT_EQ(static_cast<void*>(&handler), out.record.gadget);
    EXPECT_EQ(1001, out.record.type);
    EXPECT_TRUE(out.record.deleted);
    EXPECT_STREQ("{\"d\":1}", out.record.data);
    EXPECT_STREQ("{\"r\":2}", out.record.reply);
    EXPECT_TRUE(out.record.sync);
    EXPECT_EQ(&payload, out.record.param.p);
}

TEST(ConvertToManagedEvent, EmptyBodiesBecomeNullAndOldTextsAreReleased) {
    EventRecord out;
    out.record.data = strdup("old data");
    out.record.reply = strdup("old reply");
    TCEvent event;  // empty bodies
    Quelt::ConvertToManagedEvent(&event, &out.record);
    EXPECT_EQ(nullptr, out.record.data);
    EXPECT_EQ(nullptr, out.record.reply);
    EXPECT_EQ(nullptr, out.record.gadget);
}

TEST(ConvertToManagedEvent, TreeOnlyBodiesAreSerialised) {
    TCEvent event;
    event.data.m_value["from"] = "a";
    event.message.m_value["n"] = 3;
    EventRecord out;
    Quelt::ConvertToManagedEvent(&event, &out.record);
    EXPECT_STREQ("{\"from\":\"a\"}", out.record.data);
    EXPECT_STREQ("{\"n\":3}", out.record.reply);
    // The event's texts were not written.
    EXPECT_TRUE(event.data.m_message.empty());
}

TEST(ConvertToManagedEvent, NullArgumentsLogAndChangeNothing) {
    TCEvent event;
    event.type = 5;
    EventRecord out;
    out.record.type = 8;
    LogCapture capture;
    Quelt::ConvertToManagedEvent(nullptr, &out.record);
    Quelt::ConvertToManagedEvent(&event, nullptr);
    EXPECT_EQ(2u, capture.CountFramework(DLOG_ERROR, "NULL event")) << capture.Dump();
    EXPECT_EQ(8, out.record.type);
}

// ---------------------------------------------------------------------------
// pelx_event_s -> TCEvent

TEST(ConvertToEvent, NullGadgetLeavesTheEventUntouched) {
    NullHandler handler;
    TCEvent event;
    event.receiver = &handler;
    event.type = 12;
    event.data.SetMessage("{\"keep\":1}");

    EventRecord in;
    in.record.type = 99;
    in.record.data = strdup("{\"new\":1}");
    LogCapture capture;
    Quelt::ConvertToEvent(&in.record, &event);
    ASSERT_EQ(1u, capture.CountFramework(DLOG_ERROR, "fail to get gadget pointer"))
        << capture.Dump();
    EXPECT_EQ("ConvertToEvent", capture.Framework("fail to get gadget pointer")[0].func);
    EXPECT_EQ(&handler, event.receiver);
    EXPECT_EQ(12, event.type);
    EXPECT_EQ("{\"keep\":1}", event.data.m_message);
}

TEST(ConvertToEvent, NullArgumentsLog) {
    EventRecord in;
    TCEvent event;
    LogCapture capture;
    Quelt::ConvertToEvent(nullptr, &event);
    Quelt::ConvertToEvent(&in.record, nullptr);
    EXPECT_EQ(2u, capture.CountFramework(DLOG_ERROR, "NULL event")) << capture.Dump();
    EXPECT_EQ(0u, capture.CountFramework(DLOG_ERROR, "fail to get gadget pointer"));
}

TEST(ConvertToEvent, CopiesEveryFieldAndReceiverIsTheGadgetsHandlerPart) {
    // The gadget activity is only addressed, never used: zeroed storage of
    // its size stands in for it.
    alignas(Quelt::TCGadgetActivity) unsigned char storage[sizeof(Quelt::TCGadgetActivity)] = {};
    void* gadget = storage;
    int payload = 0;

    EventRecord in;
    in.record.gadget = gadget;
    in.record.type = 2024;
    in.record.deleted = true;
    in.record.data = strdup("{\"d\":[1]}");
    in.record.reply = strdup("{\"r\":\"x\"}");
    in.record.sync = true;
    in.record.param.p = &payload;

    TCEvent event;
    Quelt::ConvertToEvent(&in.record, &event);

    TCHandler* expected = static_cast<TCHandler*>(static_cast<Quelt::TCGadgetActivity*>(gadget));
    EXPECT_EQ(expected, event.receiver);
    // The handler part lies behind the server part, inside the object.
    const unsigned char* receiver = reinterpret_cast<const unsigned char*>(event.receiver);
    EXPECT_GE(receiver, storage + sizeof(Quelt::TCServer));
    EXPECT_LT(receiver, storage + sizeof(storage));
    EXPECT_NE(gadget, static_cast<void*>(event.receiver));

    EXPECT_EQ(2024, event.type);
    EXPECT_TRUE(event.deleted);
    EXPECT_EQ("{\"d\":[1]}", event.data.m_message);
    EXPECT_EQ(1, event.data.m_value["d"][0].asInt());
    EXPECT_EQ("{\"r\":\"x\"}", event.message.m_message);
    EXPECT_EQ("x", event.message.m_value["r"].asString());
    EXPECT_TRUE(event.sync);
    EXPECT_EQ(&payload, event.param.p);
}

TEST(ConvertToEvent, NullTextsLeaveTheBodiesAsTheyWere) {
    alignas(Quelt::TCGadgetActivity) unsigned char storage[sizeof(Quelt::TCGadgetActivity)] = {};
    EventRecord in;
    in.record.gadget = storage;
    TCEvent event;
    event.data.SetMessage("{\"a\":1}");
    event.message.SetMessage("{\"b\":2}");
    Quelt::ConvertToEvent(&in.record, &event);
    EXPECT_EQ("{\"a\":1}", event.data.m_message);
    EXPECT_EQ("{\"b\":2}", event.message.m_message);
    EXPECT_EQ(0, event.type);
    EXPECT_FALSE(event.deleted);
    EXPECT_EQ(nullptr, event.param.p);
}

TEST(ConvertToEvent, ClassToRecordToClassMovesTheReceiver) {
    // The asymmetry kept on purpose: class to record copies the receiver
    // into gadget; record to class treats gadget as a gadget activity.
    alignas(Quelt::TCGadgetActivity) unsigned char storage[sizeof(Quelt::TCGadgetActivity)] = {};
    TCHandler* handlerPart =
        static_cast<TCHandler*>(reinterpret_cast<Quelt::TCGadgetActivity*>(storage));
    TCEvent original;
    original.receiver = handlerPart;
    original.type = 7;

    EventRecord record;
    Quelt::ConvertToManagedEvent(&original, &record.record);
    EXPECT_EQ(static_cast<void*>(handlerPart), record.record.gadget);

    TCEvent back;
    Quelt::ConvertToEvent(&record.record, &back);
    EXPECT_EQ(7, back.type);
    EXPECT_NE(original.receiver, back.receiver);
}

// ---------------------------------------------------------------------------
// Wrappers

TEST(TCWrapperMessage, DefaultHoldsAZeroRecord) {
    Quelt::TCWrapperMessage wrapper;
    pelx_message_s* record = wrapper.GetMMessager();
    ASSERT_NE(nullptr, record);
    EXPECT_EQ(nullptr, record->info);
    EXPECT_EQ(0u, record->code);
    EXPECT_EQ(nullptr, record->type);
    EXPECT_EQ(nullptr, record->buffer);
    EXPECT_EQ(0u, record->buffer_size);
    EXPECT_EQ(record, wrapper.GetMMessager());
}

TEST(TCWrapperMessage, HoldsTheConvertedMessageAndReleasesIt) {
    TCMessage message;
    message.SetMessage("{\"w\":1}");
    message.m_code = 6;
    message.m_type = "wrapped";
    const unsigned char bytes[2] = {3, 4};
    message.SetBuffer(bytes, 2);
    {
        Quelt::TCWrapperMessage wrapper(&message);
        pelx_message_s* record = wrapper.GetMMessager();
        EXPECT_STREQ("{\"w\":1}", pelx_get_message_info(record));
        EXPECT_EQ(6u, pelx_get_message_code(record));
        EXPECT_STREQ("wrapped", pelx_get_message_type(record));
        EXPECT_EQ(2u, pelx_get_message_buffer_size(record));
    }  // ASan: the texts and the buffer are released here
}

TEST(TCWrapperMessage, NullMessageGivesAZeroRecordSilently) {
    LogCapture capture;
    Quelt::TCWrapperMessage wrapper(nullptr);
    EXPECT_EQ(nullptr, wrapper.GetMMessager()->info);
    EXPECT_TRUE(capture.Lines().empty()) << capture.Dump();
}

TEST(TCWrapperEvent, HoldsTheConvertedEventAndReleasesIt) {
    NullHandler handler;
    TCEvent event;
    event.receiver = &handler;
    event.type = 42;
    event.data.SetMessage("{\"x\":1}");
    event.message.SetMessage("{\"y\":2}");
    {
        Quelt::TCWrapperEvent wrapper(&event);
        pelx_event_s* record = wrapper.GetMEvent();
        EXPECT_EQ(static_cast<void*>(&handler), record->gadget);
        EXPECT_EQ(42, pelx_get_event_type(record));
        EXPECT_STREQ("{\"x\":1}", pelx_get_event_data(record));
        EXPECT_STREQ("{\"y\":2}", pelx_get_event_reply(record));
    }  // ASan: data and reply are released here
    {
        LogCapture capture;
        Quelt::TCWrapperEvent empty(nullptr);
        EXPECT_EQ(nullptr, empty.GetMEvent()->data);
        EXPECT_FALSE(pelx_get_event_deleted(empty.GetMEvent()));
        Quelt::TCWrapperEvent defaulted;
        EXPECT_EQ(nullptr, defaulted.GetMEvent()->gadget);
        EXPECT_TRUE(capture.Lines().empty()) << capture.Dump();
    }
}
