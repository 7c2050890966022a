// SPDX-License-Identifier: Apache-2.0
// The C records: layout, the exported create/destroy/get/set functions and
// their null-record behaviour, and the ownership rules (setters take over
// without releasing; destroy releases only what the record owns).
#include <gtest/gtest.h>

#include <dlog.h>

#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <type_traits>

#include "LogCapture.h"
#include "TCEvent.h"
#include "TCWrapperMessageOpr.h"
#include "pelx.h"

using harvo_test::LogCapture;

// ---------------------------------------------------------------------------
// Layout

TEST(PelxLayout, MessageFieldsAreInOrderWithTheirWidths) {
    static_assert(std::is_standard_layout<pelx_message_s>::value, "flat record");
    EXPECT_EQ(4u, sizeof(pelx_message_s::code));
    EXPECT_EQ(4u, sizeof(pelx_message_s::buffer_size));
    EXPECT_EQ(0u, offsetof(pelx_message_s, info));
    EXPECT_EQ(sizeof(char*), offsetof(pelx_message_s, code));
    EXPECT_LT(offsetof(pelx_message_s, code), offsetof(pelx_message_s, type));
    EXPECT_LT(offsetof(pelx_message_s, type), offsetof(pelx_message_s, buffer));
    EXPECT_LT(offsetof(pelx_message_s, buffer), offsetof(pelx_message_s, buffer_size));
    EXPECT_EQ(offsetof(pelx_message_s, buffer) + sizeof(void*),
              offsetof(pelx_message_s, buffer_size));
#if defined(__x86_64__) || defined(__aarch64__)
    EXPECT_EQ(8u, offsetof(pelx_message_s, code));
    EXPECT_EQ(16u, offsetof(pelx_message_s, type));
    EXPECT_EQ(24u, offsetof(pelx_message_s, buffer));
    EXPECT_EQ(32u, offsetof(pelx_message_s, buffer_size));
    EXPECT_EQ(40u, sizeof(pelx_message_s));
#endif
}

TEST(PelxLayout, EventFieldsAreInOrderWithTheirWidths) {
    static_assert(std::is_standard_layout<pelx_event_s>::value, "flat record");
    EXPECT_EQ(4u, sizeof(pelx_event_s::type));
    EXPECT_EQ(1u, sizeof(pelx_event_s::deleted));
    EXPECT_EQ(1u, sizeof(pelx_event_s::sync));
    EXPECT_EQ(sizeof(void*), sizeof(pelx_event_s::param));
    EXPECT_EQ(0u, offsetof(pelx_event_s, gadget));
    EXPECT_EQ(sizeof(void*), offsetof(pelx_event_s, type));
    EXPECT_EQ(offsetof(pelx_event_s, type) + 4, offsetof(pelx_event_s, deleted));
    // The field after each one-byte mark starts on the next 32-bit boundary
    // (or later, where the pointer needs it).
    EXPECT_EQ(0u, offsetof(pelx_event_s, data) % 4);
    EXPECT_GE(offsetof(pelx_event_s, data), offsetof(pelx_event_s, deleted) + 4);
    EXPECT_EQ(offsetof(pelx_event_s, data) + sizeof(char*), offsetof(pelx_event_s, reply));
    EXPECT_EQ(offsetof(pelx_event_s, reply) + sizeof(char*), offsetof(pelx_event_s, sync));
    EXPECT_EQ(0u, offsetof(pelx_event_s, param) % 4);
    EXPECT_GE(offsetof(pelx_event_s, param), offsetof(pelx_event_s, sync) + 4);
#if defined(__x86_64__) || defined(__aarch64__)
    EXPECT_EQ(8u, offsetof(pelx_event_s, type));
    EXPECT_EQ(12u, offsetof(pelx_event_s, deleted));
    EXPECT_EQ(16u, offsetof(pelx_event_s, data));
    EXPECT_EQ(24u, offsetof(pelx_event_s, reply));
    EXPECT_EQ(32u, offsetof(pelx_event_s, sync));
    EXPECT_EQ(40u, offsetof(pelx_event_s, param));
    EXPECT_EQ(48u, sizeof(pelx_event_s));
#endif
}

TEST(PelxLayout, EventParamMatchesTheEventsParamWord) {
    EXPECT_EQ(sizeof(decltype(Quelt::TCEvent::param)), sizeof(pelx_event_param_s));
    EXPECT_EQ(alignof(decltype(Quelt::TCEvent::param)), alignof(pelx_event_param_s));
    EXPECT_EQ(0u, offsetof(pelx_event_param_s, p));
}

// ---------------------------------------------------------------------------
// Messages

TEST(PelxMessage, CreateGivesAZeroRecord) {
    LogCapture capture;
    pelx_message_s* message = pelx_create_message();
    ASSERT_NE(nullptr, message);
    EXPECT_EQ(nullptr, message->info);
    EXPECT_EQ(0u, message->code);
    EXPECT_EQ(nullptr, message->type);
    EXPECT_EQ(nullptr, message->buffer);
    EXPECT_EQ(0u, message->buffer_size);
    pelx_destroy_message(message);
    EXPECT_TRUE(capture.Lines().empty()) << capture.Dump();
}

TEST(PelxMessage, GettersAndSettersStoreExactlyWhatTheyAreGiven) {
    pelx_message_s* message = pelx_create_message();
    char* info = strdup("{\"x\":1}");
    char* type = strdup("kind");
    unsigned char* buffer = new unsigned char[3]{1, 2, 3};

    pelx_set_message_info(message, info);
    pelx_set_message_code(message, 0xFFFFFFFFu);
    pelx_set_message_type(message, type);
    pelx_set_message_buffer(message, buffer, 3);

    // No copies: the same pointers come back.
    EXPECT_EQ(info, pelx_get_message_info(message));
    EXPECT_EQ(0xFFFFFFFFu, pelx_get_message_code(message));
    EXPECT_EQ(type, pelx_get_message_type(message));
    EXPECT_EQ(buffer, pelx_get_message_buffer(message));
    EXPECT_EQ(3u, pelx_get_message_buffer_size(message));
    EXPECT_EQ(info, message->info);
    EXPECT_EQ(buffer, message->buffer);

    // Destroy releases the members it was handed (ASan: no leak, no
    // mismatched release).
    pelx_destroy_message(message);
}

TEST(PelxMessage, SettersDoNotReleaseThePreviousValue) {
    pelx_message_s* message = pelx_create_message();
    char* first = strdup("first");
    char* second = strdup("second");
    pelx_set_message_info(message, first);
    pelx_set_message_info(message, second);
    EXPECT_EQ(second, pelx_get_message_info(message));
    // |first| is still ours: the record did not free it (ASan would report
    // a double free below otherwise), and without this free it would leak.
    EXPECT_STREQ("first", first);
    free(first);

    char* firstType = strdup("t1");
    pelx_set_message_type(message, firstType);
    pelx_set_message_type(message, nullptr);
    EXPECT_EQ(nullptr, pelx_get_message_type(message));
    free(firstType);

    unsigned char* firstBuffer = new unsigned char[2]{1, 2};
    pelx_set_message_buffer(message, firstBuffer, 2);
    pelx_set_message_buffer(message, nullptr, 0);
    EXPECT_EQ(nullptr, pelx_get_message_buffer(message));
    EXPECT_EQ(0u, pelx_get_message_buffer_size(message));
    delete[] firstBuffer;

    pelx_destroy_message(message);
}

TEST(PelxMessage, NullRecordGettersAnswerZeroAndSettersIgnore) {
    LogCapture capture;
    EXPECT_EQ(nullptr, pelx_get_message_info(nullptr));
    EXPECT_EQ(0u, pelx_get_message_code(nullptr));
    EXPECT_EQ(nullptr, pelx_get_message_type(nullptr));
    EXPECT_EQ(nullptr, pelx_get_message_buffer(nullptr));
    EXPECT_EQ(0u, pelx_get_message_buffer_size(nullptr));
    char text[] = "x";
    unsigned char bytes[1] = {1};
    pelx_set_message_info(nullptr, text);
    pelx_set_message_code(nullptr, 1);
    pelx_set_message_type(nullptr, text);
    pelx_set_message_buffer(nullptr, bytes, 1);
    EXPECT_TRUE(capture.Lines().empty()) << capture.Dump();
}

TEST(PelxMessage, DestroyNullLogsAnError) {
    LogCapture capture;
    pelx_destroy_message(nullptr);
    ASSERT_EQ(1u, capture.CountFramework(DLOG_ERROR, "NULL message")) << capture.Dump();
    EXPECT_EQ("TCWrapperMessageOpr.cpp", capture.Framework("NULL message")[0].file);
    EXPECT_EQ(1u, capture.Lines().size());
}

// ---------------------------------------------------------------------------
// Events

TEST(PelxEvent, CreateGivesAZeroRecordWithTheGadget) {
    int gadget = 0;
    pelx_event_s* event = pelx_create_event(&gadget);
    ASSERT_NE(nullptr, event);
    EXPECT_EQ(&gadget, event->gadget);
    EXPECT_EQ(0, event->type);
    EXPECT_FALSE(event->deleted);
    EXPECT_EQ(nullptr, event->data);
    EXPECT_EQ(nullptr, event->reply);
    EXPECT_FALSE(event->sync);
    EXPECT_EQ(nullptr, event->param.p);
    pelx_destroy_event(event);

    pelx_event_s* without = pelx_create_event(nullptr);
    EXPECT_EQ(nullptr, without->gadget);
    pelx_destroy_event(without);
}

TEST(PelxEvent, GettersAndSetters) {
    pelx_event_s* event = pelx_create_event(nullptr);
    char* data = strdup("{\"d\":1}");
    char* reply = strdup("{\"r\":2}");
    pelx_set_event_type(event, -17);
    pelx_set_event_data(event, data);
    pelx_set_event_reply(event, reply);
    pelx_set_event_deleted(event, true);

    EXPECT_EQ(-17, pelx_get_event_type(event));
    EXPECT_EQ(data, pelx_get_event_data(event));
    EXPECT_EQ(reply, pelx_get_event_reply(event));
    EXPECT_TRUE(pelx_get_event_deleted(event));
    pelx_set_event_deleted(event, false);
    EXPECT_FALSE(pelx_get_event_deleted(event));
    pelx_destroy_event(event);  // releases data and reply
}

TEST(PelxEvent, ParamIsTheRecordsOwnMember) {
    pelx_event_s* event = pelx_create_event(nullptr);
    pelx_event_param_s* param = pelx_get_event_param(event);
    EXPECT_EQ(&event->param, param);
    int target = 3;
    param->p = &target;  // writes through into the record
    EXPECT_EQ(&target, event->param.p);

    int other = 4;
    pelx_event_param_s replacement;
    replacement.p = &other;
    pelx_set_event_param(event, &replacement);
    EXPECT_EQ(&other, event->param.p);
    replacement.p = nullptr;  // a copy was taken
    EXPECT_EQ(&other, event->param.p);

    pelx_set_event_param(event, nullptr);
    EXPECT_EQ(&other, event->param.p);
    pelx_destroy_event(event);
}

TEST(PelxEvent, NullRecordGettersAnswerDefaultsAndSettersIgnore) {
    LogCapture capture;
    EXPECT_EQ(0, pelx_get_event_type(nullptr));
    EXPECT_EQ(nullptr, pelx_get_event_data(nullptr));
    EXPECT_EQ(nullptr, pelx_get_event_reply(nullptr));
    // A missing event counts as deleted.
    EXPECT_TRUE(pelx_get_event_deleted(nullptr));
    EXPECT_EQ(nullptr, pelx_get_event_param(nullptr));
    char text[] = "x";
    pelx_event_param_s param;
    param.p = text;
    pelx_set_event_type(nullptr, 1);
    pelx_set_event_data(nullptr, text);
    pelx_set_event_reply(nullptr, text);
    pelx_set_event_deleted(nullptr, true);
    pelx_set_event_param(nullptr, &param);
    pelx_set_event_param(nullptr, nullptr);
    EXPECT_TRUE(capture.Lines().empty()) << capture.Dump();
}

TEST(PelxEvent, DestroyLeavesGadgetAndParamAlone) {
    // Both are heap objects that the test still owns after the destroy:
    // releasing either inside the destroy would be a double free here.
    int* gadget = new int(1);
    int* payload = new int(2);
    pelx_event_s* event = pelx_create_event(gadget);
    pelx_event_param_s param;
    param.p = payload;
    pelx_set_event_param(event, &param);
    pelx_set_event_data(event, strdup("data"));
    pelx_destroy_event(event);
    EXPECT_EQ(1, *gadget);
    EXPECT_EQ(2, *payload);
    delete gadget;
    delete payload;
}

TEST(PelxEvent, SettersDoNotReleaseThePreviousValue) {
    pelx_event_s* event = pelx_create_event(nullptr);
    char* first = strdup("one");
    pelx_set_event_data(event, first);
    pelx_set_event_data(event, strdup("two"));
    EXPECT_STREQ("one", first);  // still alive
    free(first);                 // would leak otherwise
    char* firstReply = strdup("r1");
    pelx_set_event_reply(event, firstReply);
    pelx_set_event_reply(event, nullptr);
    free(firstReply);
    pelx_destroy_event(event);
}

TEST(PelxEvent, DestroyNullLogsAnError) {
    LogCapture capture;
    pelx_destroy_event(nullptr);
    ASSERT_EQ(1u, capture.CountFramework(DLOG_ERROR, "NULL event")) << capture.Dump();
    EXPECT_EQ("TCWrapperMessageOpr.cpp", capture.Framework("NULL event")[0].file);
    EXPECT_EQ(1u, capture.Lines().size());
}

// ---------------------------------------------------------------------------
// Init and release of records held by value

TEST(ManagedRecords, InitZeroesAndNullLogs) {
    pelx_message_s message;
    std::memset(&message, 0xA5, sizeof(message));
    Quelt::InitManagedMessage(&message);
    EXPECT_EQ(nullptr, message.info);
    EXPECT_EQ(0u, message.code);
    EXPECT_EQ(nullptr, message.type);
    EXPECT_EQ(nullptr, message.buffer);
    EXPECT_EQ(0u, message.buffer_size);

    pelx_event_s event;
    std::memset(&event, 0xA5, sizeof(event));
    Quelt::InitManagedEvent(&event);
    EXPECT_EQ(nullptr, event.gadget);
    EXPECT_EQ(0, event.type);
    EXPECT_FALSE(event.deleted);
    EXPECT_EQ(nullptr, event.data);
    EXPECT_EQ(nullptr, event.reply);
    EXPECT_FALSE(event.sync);
    EXPECT_EQ(nullptr, event.param.p);

    LogCapture capture;
    Quelt::InitManagedMessage(nullptr);
    Quelt::InitManagedEvent(nullptr);
    Quelt::DestroyManagedMessage(nullptr);
    Quelt::DestroyManagedEvent(nullptr);
    EXPECT_EQ(2u, capture.CountFramework(DLOG_ERROR, "NULL message")) << capture.Dump();
    EXPECT_EQ(2u, capture.CountFramework(DLOG_ERROR, "NULL event")) << capture.Dump();
    ASSERT_EQ(4u, capture.Lines().size());
    EXPECT_EQ("InitManagedMessage", capture.Framework("NULL message")[0].func);
    EXPECT_EQ("DestroyManagedMessage", capture.Framework("NULL message")[1].func);
    EXPECT_EQ("InitManagedEvent", capture.Framework("NULL event")[0].func);
    EXPECT_EQ("DestroyManagedEvent", capture.Framework("NULL event")[1].func);
}

TEST(ManagedRecords, DestroyReleasesMembersAndKeepsTheRecord) {
    pelx_message_s message;
    Quelt::InitManagedMessage(&message);
    message.info = strdup("i");
    message.type = strdup("t");
    message.buffer = new unsigned char[4]();
    message.buffer_size = 4;
    message.code = 8;
    Quelt::DestroyManagedMessage(&message);
    EXPECT_EQ(nullptr, message.info);
    EXPECT_EQ(nullptr, message.type);
    EXPECT_EQ(nullptr, message.buffer);
    EXPECT_EQ(0u, message.buffer_size);
    EXPECT_EQ(8u, message.code);             // not a released member
    Quelt::DestroyManagedMessage(&message);  // twice is harmless

    int gadget = 0;
    pelx_event_s event;
    Quelt::InitManagedEvent(&event);
    event.gadget = &gadget;
    event.type = 5;
    event.deleted = true;
    event.sync = true;
    event.param.p = &gadget;
    event.data = strdup("d");
    event.reply = strdup("r");
    Quelt::DestroyManagedEvent(&event);
    EXPECT_EQ(nullptr, event.data);
    EXPECT_EQ(nullptr, event.reply);
    // Nothing else is touched.
    EXPECT_EQ(&gadget, event.gadget);
    EXPECT_EQ(5, event.type);
    EXPECT_TRUE(event.deleted);
    EXPECT_TRUE(event.sync);
    EXPECT_EQ(&gadget, event.param.p);
}
