// SPDX-License-Identifier: Apache-2.0
// The plain-function sending interface: messages (asynchronous and
// synchronous), events and signals through pelx_message_s/pelx_event_s
// records, against servers of this process and the peer program in
// another process, on the private bus.
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "../bus/BusTestSupport.h"
#include "pelx.h"

namespace {

using harvo_bus_test::CloseAtExit;
using harvo_bus_test::kLimit;
using harvo_bus_test::PeerProcess;
using harvo_bus_test::PumpUntil;
using harvo_bus_test::RecordingServer;
using harvo_test::LogCapture;
using Quelt::TCMessage;
using Quelt::TCServer;

const char kSource[] = "pelx.src";
const char kListener[] = "pelx.listener";
const char kPeer[] = "pelx.peer";

// A record whose every member is owned as the interface wants: texts from
// malloc, the buffer from new[].
pelx_message_s* NewRecord(const char* info, unsigned int code, const char* type,
                          const std::vector<unsigned char>& buffer = {}) {
    pelx_message_s* record = pelx_create_message();
    if (info != nullptr)
        pelx_set_message_info(record, strdup(info));
    pelx_set_message_code(record, code);
    if (type != nullptr)
        pelx_set_message_type(record, strdup(type));
    if (!buffer.empty()) {
        unsigned char* bytes = new unsigned char[buffer.size()];
        std::memcpy(bytes, buffer.data(), buffer.size());
        pelx_set_message_buffer(record, bytes, static_cast<unsigned int>(buffer.size()));
    }
    return record;
}

std::string Text(const char* text) {
    return text != nullptr ? text : "(null)";
}

std::vector<unsigned char> Bytes(pelx_message_s* record) {
    unsigned char* buffer = pelx_get_message_buffer(record);
    if (buffer == nullptr)
        return {};
    return std::vector<unsigned char>(buffer, buffer + pelx_get_message_buffer_size(record));
}

// The framework line |text| at |prio| written by |func| of pelx_event.cpp.
bool HasPelxLine(const LogCapture& capture, int prio, const std::string& text,
                 const std::string& func) {
    for (const auto& line : capture.Framework(text)) {
        if (line.file == "pelx_event.cpp" && line.func == func &&
            line.colour == harvo_test::ColourFor(prio))
            return true;
    }
    return false;
}

// One application server of this process sends; the peer program in
// another process answers (see tests/bus/peer.cpp for its message types).
class PelxSendTest : public ::testing::Test {
protected:
    void SetUp() override {
        peer_.reset(new PeerProcess({"serve", kPeer}));
        ASSERT_EQ("READY", peer_->WaitLine("READY"));
        ASSERT_TRUE(source_.CreateDBusServer());
    }

    // How many messages the peer has received so far (its "info" answer
    // counts them, itself included).
    int PeerCount() {
        TCMessage ask = harvo_bus_test::MakeMessage("info", 0, "{}");
        TCMessage reply;
        if (!TCServer::SendMessage(kSource, kPeer, &ask, true, &reply))
            return -1;
        reply.Parse();
        return reply.m_value["count"].asInt();
    }

    std::unique_ptr<PeerProcess> peer_;
    RecordingServer source_{kSource, Quelt::SERVER_TYPE_APP};
    CloseAtExit closeSource_{source_};
};

TEST_F(PelxSendTest, SendMessageRefusesANullMessage) {
    LogCapture capture;
    pelx_message_s* reply = pelx_create_message();
    EXPECT_FALSE(pelx_send_message(kSource, kPeer, nullptr, reply));
    EXPECT_FALSE(pelx_send_message(kSource, kPeer, nullptr, nullptr));
    EXPECT_EQ(2u, capture.CountFramework(DLOG_ERROR, "null message"));
    EXPECT_TRUE(HasPelxLine(capture, DLOG_ERROR, "null message", "pelx_send_message"));
    // Refused before the framework was asked: no send was even begun.
    EXPECT_EQ(0u, harvo_bus_test::CountPrefix(capture, DLOG_INFO, "send message to"));
    pelx_destroy_message(reply);
}

TEST_F(PelxSendTest, SendMessageWithAReplyRecordLeavesItUnchanged) {
    pelx_message_s* message = NewRecord("{\"n\":1}", 4, "echo", {9, 8});
    pelx_message_s* reply = NewRecord("{\"keep\":true}", 77, "mine", {1});
    char* info = pelx_get_message_info(reply);
    char* type = pelx_get_message_type(reply);
    unsigned char* buffer = pelx_get_message_buffer(reply);

    EXPECT_TRUE(pelx_send_message(kSource, kPeer, message, reply));

    // The answer comes back through the source server's reply hook...
    ASSERT_TRUE(PumpUntil([&] { return source_.RepliedCount() == 1; }));
    EXPECT_EQ(kPeer, source_.Replied(0).from);
    EXPECT_EQ("re:echo", source_.Replied(0).type);
    EXPECT_EQ(5u, source_.Replied(0).code);
    EXPECT_EQ((std::vector<unsigned char>{9, 8}), source_.Replied(0).buffer);
    // ...and never into the caller's record.
    EXPECT_EQ(info, pelx_get_message_info(reply));
    EXPECT_STREQ("{\"keep\":true}", pelx_get_message_info(reply));
    EXPECT_EQ(77u, pelx_get_message_code(reply));
    EXPECT_EQ(type, pelx_get_message_type(reply));
    EXPECT_STREQ("mine", pelx_get_message_type(reply));
    EXPECT_EQ(buffer, pelx_get_message_buffer(reply));
    EXPECT_EQ(1u, pelx_get_message_buffer_size(reply));
    pelx_destroy_message(message);
    pelx_destroy_message(reply);
}

TEST_F(PelxSendTest, SendMessageWithoutAReplyRecordIsDelivered) {
    pelx_message_s* message = NewRecord("{\"n\":2}", 1, "echo");
    EXPECT_TRUE(pelx_send_message(kSource, kPeer, message, nullptr));
    // Sent without a reply callback: the peer's count shows it arrived
    // (the asking message follows it on the same connection).
    EXPECT_EQ(2, PeerCount());
    EXPECT_EQ(0u, source_.RepliedCount());
    pelx_destroy_message(message);
}

TEST_F(PelxSendTest, SendMessageFailsForAnUnknownSource) {
    LogCapture capture;
    pelx_message_s* message = NewRecord("{}", 1, "echo");
    EXPECT_FALSE(pelx_send_message("pelx.nobody", kPeer, message, nullptr));
    EXPECT_TRUE(capture.HasFramework(DLOG_WARN, "server is null"));
    pelx_destroy_message(message);
}

TEST_F(PelxSendTest, SendMessageSyncFillsTheReplyRecordAndReleasesItsOldMembers) {
    pelx_message_s* message = NewRecord("{\"a\":1}", 5, "echo", {1, 2, 3});
    // Old members of the reply record: released by the conversion back
    // (a leak or a double release shows under AddressSanitizer).
    pelx_message_s* reply = NewRecord("{\"old\":0}", 0, "oldtype", {7, 7, 7, 7});

    EXPECT_TRUE(pelx_send_message_sync(kSource, kPeer, message, reply));

    EXPECT_STREQ("{\"a\":1}", pelx_get_message_info(reply));
    EXPECT_EQ(6u, pelx_get_message_code(reply));
    EXPECT_STREQ("re:echo", pelx_get_message_type(reply));
    EXPECT_EQ((std::vector<unsigned char>{1, 2, 3}), Bytes(reply));
    // The caller's message record is left as it was.
    EXPECT_STREQ("{\"a\":1}", pelx_get_message_info(message));
    EXPECT_EQ(5u, pelx_get_message_code(message));
    pelx_destroy_message(message);
    pelx_destroy_message(reply);
}

TEST_F(PelxSendTest, SendMessageSyncRequiresBothRecords) {
    LogCapture capture;
    const std::string warning =
        "You couldn't call SendMessage with no message or reply synchronically";
    pelx_message_s* message = NewRecord("{}", 1, "echo");
    pelx_message_s* reply = NewRecord("{\"untouched\":1}", 3, "t");
    char* info = pelx_get_message_info(reply);

    EXPECT_FALSE(pelx_send_message_sync(kSource, kPeer, nullptr, reply));
    EXPECT_FALSE(pelx_send_message_sync(kSource, kPeer, message, nullptr));
    EXPECT_FALSE(pelx_send_message_sync(kSource, kPeer, nullptr, nullptr));

    EXPECT_EQ(3u, capture.CountFramework(DLOG_WARN, warning));
    EXPECT_TRUE(HasPelxLine(capture, DLOG_WARN, warning, "pelx_send_message_sync"));
    EXPECT_EQ(info, pelx_get_message_info(reply));
    EXPECT_EQ(3u, pelx_get_message_code(reply));
    EXPECT_EQ(0u, harvo_bus_test::CountPrefix(capture, DLOG_INFO, "send message to"));
    pelx_destroy_message(message);
    pelx_destroy_message(reply);
}

TEST_F(PelxSendTest, SendMessageSyncThatFailsStillRewritesTheReplyRecord) {
    LogCapture capture;
    // The peer answers "fail" with {"dbus_result":"fail","why":"asked"}: the
    // send reports false, and the record holds that answer.
    pelx_message_s* message = NewRecord("{}", 1, "fail");
    pelx_message_s* reply = NewRecord("{\"old\":1}", 8, "old", {5});

    EXPECT_FALSE(pelx_send_message_sync(kSource, kPeer, message, reply));

    ASSERT_NE(nullptr, pelx_get_message_info(reply));
    TCMessage parsed;
    ASSERT_TRUE(parsed.SetMessage(pelx_get_message_info(reply)));
    EXPECT_EQ("fail", parsed.m_value["dbus_result"].asString());
    EXPECT_EQ("asked", parsed.m_value["why"].asString());
    EXPECT_EQ(nullptr, pelx_get_message_type(reply));  // the answer has no type
    EXPECT_EQ(0u, pelx_get_message_code(reply));
    pelx_destroy_message(message);
    pelx_destroy_message(reply);
}

TEST_F(PelxSendTest, SendMessageSyncWithAnUnknownSourceConvertsTheLocalReplyBack) {
    LogCapture capture;
    pelx_message_s* message = NewRecord("{}", 1, "echo");
    pelx_message_s* reply = NewRecord("{\"was\":1}", 12, "before", {4, 4});

    EXPECT_FALSE(pelx_send_message_sync("pelx.nobody", kPeer, message, reply));

    EXPECT_TRUE(capture.HasFramework(DLOG_WARN, "server is null"));
    // The record was rewritten from the local reply, which held the
    // record's own former contents.
    ASSERT_NE(nullptr, pelx_get_message_info(reply));
    TCMessage parsed;
    ASSERT_TRUE(parsed.SetMessage(pelx_get_message_info(reply)));
    EXPECT_EQ(1, parsed.m_value["was"].asInt());
    EXPECT_EQ(12u, pelx_get_message_code(reply));
    EXPECT_STREQ("before", pelx_get_message_type(reply));
    EXPECT_EQ((std::vector<unsigned char>{4, 4}), Bytes(reply));
    pelx_destroy_message(message);
    pelx_destroy_message(reply);
}

TEST_F(PelxSendTest, SendMessageSyncReachesAServerOfThisProcessDirectly) {
    RecordingServer local(kListener, static_cast<Quelt::TCServerType>(3));
    ASSERT_TRUE(local.CreateDBusServer());
    CloseAtExit closeLocal(local);
    local.answer = [](const TCMessage* message, TCMessage* reply) {
        reply->m_type = "local";
        reply->m_code = message->m_code * 2;
        reply->SetMessage("{\"here\":true}");
    };
    pelx_message_s* message = NewRecord("{\"q\":1}", 21, "ask");
    pelx_message_s* reply = pelx_create_message();

    EXPECT_TRUE(pelx_send_message_sync(kSource, kListener, message, reply));

    ASSERT_EQ(1u, local.ReceivedCount());
    EXPECT_EQ(kSource, local.Received(0).from);
    EXPECT_EQ(g_thread_self(), local.Received(0).thread);  // on the caller's thread
    EXPECT_EQ("{\"here\":true}", Text(pelx_get_message_info(reply)));
    EXPECT_EQ(42u, pelx_get_message_code(reply));
    EXPECT_STREQ("local", pelx_get_message_type(reply));
    pelx_destroy_message(message);
    pelx_destroy_message(reply);
}

TEST_F(PelxSendTest, SendEventRefusesANullEvent) {
    LogCapture capture;
    EXPECT_FALSE(pelx_send_event(nullptr));
    EXPECT_TRUE(HasPelxLine(capture, DLOG_ERROR, "null event", "pelx_send_event"));
    EXPECT_FALSE(capture.HasFramework(DLOG_ERROR, "NULL event"));
}

TEST_F(PelxSendTest, SendEventWithoutGadgetIsPassedOnWithoutReceiver) {
    LogCapture capture;
    pelx_event_s* event = pelx_create_event(nullptr);
    pelx_set_event_type(event, 200);
    pelx_set_event_data(event, strdup("{\"d\":1}"));

    EXPECT_FALSE(pelx_send_event(event));

    // The conversion reports the missing gadget; the event queue then
    // refuses an event without receiver.
    EXPECT_TRUE(capture.HasFramework(DLOG_ERROR, "fail to get gadget pointer"));
    EXPECT_TRUE(capture.HasFramework(DLOG_ERROR, "receiver is NULL"));
    EXPECT_LT(harvo_bus_test::IndexOf(capture, "fail to get gadget pointer"),
              harvo_bus_test::IndexOf(capture, "receiver is NULL"));
    EXPECT_STREQ("{\"d\":1}", pelx_get_event_data(event));  // the record is untouched
    pelx_destroy_event(event);
}

// ---------------------------------------------------------------------------
// Signals: a listener of this process (a server of a type that is entered in
// the registry without owning a bus name) subscribes with a C callback.

struct Heard {
    std::string from;
    std::string signal;
    std::string info;
    unsigned int code = 0;
    std::string type;
    std::vector<unsigned char> buffer;
    GThread* thread = nullptr;
};

void RecordSignal(const char* from, const char* signalName, pelx_message_s* message,
                  void* userData) {
    Heard heard;
    heard.from = Text(from);
    heard.signal = Text(signalName);
    heard.info = Text(pelx_get_message_info(message));
    heard.code = pelx_get_message_code(message);
    heard.type = Text(pelx_get_message_type(message));
    heard.buffer = Bytes(message);
    heard.thread = g_thread_self();
    static_cast<std::vector<Heard>*>(userData)->push_back(heard);
}

class PelxSignalTest : public PelxSendTest {
protected:
    void SetUp() override {
        PelxSendTest::SetUp();
        ASSERT_TRUE(listener_.CreateDBusServer());
    }
    void TearDown() override { listener_.CloseDBusServer(); }

    RecordingServer listener_{kListener, static_cast<Quelt::TCServerType>(3)};
    std::vector<Heard> heard_;
};

TEST_F(PelxSignalTest, ASubscribedCallbackReceivesTheRecordOfEachSignal) {
    ASSERT_TRUE(pelx_subscribe_signal(kListener, kSource, "ping", RecordSignal, &heard_));
    harvo_bus_test::SettleSubscriptions(listener_);
    pelx_message_s* message = NewRecord("{\"p\":1}", 3, "kind", {6, 5});

    EXPECT_TRUE(pelx_send_signal(kSource, "ping", message));
    ASSERT_TRUE(PumpUntil([&] { return heard_.size() == 1; }));

    EXPECT_EQ(kSource, heard_[0].from);
    EXPECT_EQ("ping", heard_[0].signal);
    EXPECT_EQ("{\"p\":1}", heard_[0].info);
    EXPECT_EQ(3u, heard_[0].code);
    EXPECT_EQ("kind", heard_[0].type);
    EXPECT_EQ((std::vector<unsigned char>{6, 5}), heard_[0].buffer);
    EXPECT_EQ(g_thread_self(), heard_[0].thread);               // the subscribing thread's context
    EXPECT_STREQ("{\"p\":1}", pelx_get_message_info(message));  // not consumed
    pelx_destroy_message(message);
}

TEST_F(PelxSignalTest, ANullMessageEmitsAnEmptySignal) {
    LogCapture capture;
    ASSERT_TRUE(pelx_subscribe_signal(kListener, kSource, "empty", RecordSignal, &heard_));
    harvo_bus_test::SettleSubscriptions(listener_);

    EXPECT_TRUE(pelx_send_signal(kSource, "empty", nullptr));
    ASSERT_TRUE(PumpUntil([&] { return heard_.size() == 1; }));

    EXPECT_EQ(kSource, heard_[0].from);
    EXPECT_EQ(0u, heard_[0].code);
    EXPECT_EQ("(null)", heard_[0].type);
    EXPECT_TRUE(heard_[0].buffer.empty());
    EXPECT_TRUE(capture.HasFramework(DLOG_DEBUG, "Send signal empty : success."));
}

TEST_F(PelxSignalTest, SendSignalFromAnUnknownSourceFails) {
    LogCapture capture;
    EXPECT_FALSE(pelx_send_signal("pelx.nobody", "ping", nullptr));
    EXPECT_TRUE(capture.HasFramework(DLOG_WARN, "server is null"));
}

TEST_F(PelxSignalTest, SignalsOfAnotherProcessArrive) {
    ASSERT_TRUE(pelx_subscribe_signal(kListener, "pelx.remote", "hello", RecordSignal, &heard_));
    harvo_bus_test::SettleSubscriptions(listener_);

    PeerProcess emitter({"emit", "pelx.remote", "hello", "{\"from\":\"far\"}"});
    EXPECT_EQ("EMITTED 1", emitter.WaitLine("EMITTED"));
    ASSERT_TRUE(PumpUntil([&] { return heard_.size() == 1; }));

    EXPECT_EQ("pelx.remote", heard_[0].from);
    EXPECT_EQ("hello", heard_[0].signal);
    TCMessage parsed;
    ASSERT_TRUE(parsed.SetMessage(heard_[0].info));
    EXPECT_EQ("far", parsed.m_value["from"].asString());
}

TEST_F(PelxSignalTest, UnsubscribedSignalsAreNoLongerDelivered) {
    ASSERT_TRUE(pelx_subscribe_signal(kListener, kSource, "gone", RecordSignal, &heard_));
    ASSERT_TRUE(pelx_subscribe_signal(kListener, kSource, "kept", RecordSignal, &heard_));
    harvo_bus_test::SettleSubscriptions(listener_);

    EXPECT_TRUE(pelx_unsubscribe_signal(kListener, kSource, "gone"));
    harvo_bus_test::SettleSubscriptions(listener_);
    EXPECT_TRUE(pelx_send_signal(kSource, "gone", nullptr));
    EXPECT_TRUE(pelx_send_signal(kSource, "kept", nullptr));
    // Signals of one emitter arrive in order: once "kept" is here, "gone"
    // would have been too.
    ASSERT_TRUE(PumpUntil([&] { return !heard_.empty() && heard_.back().signal == "kept"; }));

    ASSERT_EQ(1u, heard_.size());
    EXPECT_EQ("kept", heard_[0].signal);
    // Unsubscribing what is not subscribed still reports success.
    EXPECT_TRUE(pelx_unsubscribe_signal(kListener, kSource, "never"));
}

TEST_F(PelxSignalTest, SubscribingRequiresASenderAndAKnownSource) {
    LogCapture capture;
    EXPECT_FALSE(pelx_subscribe_signal(kListener, nullptr, "ping", RecordSignal, &heard_));
    EXPECT_TRUE(capture.HasFramework(DLOG_WARN, "from is null"));
    EXPECT_FALSE(pelx_unsubscribe_signal(kListener, nullptr, "ping"));
    EXPECT_EQ(2u, capture.CountFramework(DLOG_WARN, "from is null"));

    EXPECT_FALSE(pelx_subscribe_signal("pelx.nobody", kSource, "ping", RecordSignal, &heard_));
    EXPECT_TRUE(
        capture.HasFramework(DLOG_ERROR, "Couldn't find pelx.nobody dbus server, subscribe fail"));
    EXPECT_FALSE(pelx_unsubscribe_signal("pelx.nobody", kSource, "ping"));
    EXPECT_EQ(2u, capture.CountFramework(DLOG_WARN, "server is null"));
}

TEST_F(PelxSignalTest, SubscribingTwiceToTheSameSignalIsOneSubscription) {
    ASSERT_TRUE(pelx_subscribe_signal(kListener, kSource, "twice", RecordSignal, &heard_));
    EXPECT_TRUE(pelx_subscribe_signal(kListener, kSource, "twice", RecordSignal, &heard_));
    ASSERT_TRUE(pelx_subscribe_signal(kListener, kSource, "marker", RecordSignal, &heard_));
    harvo_bus_test::SettleSubscriptions(listener_);

    EXPECT_TRUE(pelx_send_signal(kSource, "twice", nullptr));
    EXPECT_TRUE(pelx_send_signal(kSource, "marker", nullptr));
    // Signals of one emitter arrive in order: a second delivery of "twice"
    // would come before "marker".
    ASSERT_TRUE(PumpUntil([&] { return !heard_.empty() && heard_.back().signal == "marker"; }));

    ASSERT_EQ(2u, heard_.size());
    EXPECT_EQ("twice", heard_[0].signal);
}

}  // namespace
