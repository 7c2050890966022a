// SPDX-License-Identifier: Apache-2.0
// Request/reply messages: across processes over a private bus (the peer
// program plays the other endpoint), inside one process without the bus,
// and the handling moved to an event IO.

#include <dlog.h>

#include <atomic>
#include <cstdio>
#include <string>
#include <thread>
#include <vector>

#include "BusTestSupport.h"
#include "LogCapture.h"
#include "TCEventIO.h"
#include "TCLock.h"
#include "TCServer.h"
#include "TCTask.h"

namespace {

using harvo_bus_test::BufferOf;
using harvo_bus_test::CloseAtExit;
using harvo_bus_test::CountPrefix;
using harvo_bus_test::HeldCloseLock;
using harvo_bus_test::IndexOf;
using harvo_bus_test::kLimit;
using harvo_bus_test::MakeMessage;
using harvo_bus_test::NewSecondConnection;
using harvo_bus_test::PeerProcess;
using harvo_bus_test::PumpForLog;
using harvo_bus_test::PumpUntil;
using harvo_bus_test::RecordingServer;
using harvo_bus_test::Seen;
using harvo_bus_test::StartServingPeer;
using harvo_test::LogCapture;
using Quelt::SERVER_TYPE_APP;
using Quelt::SERVER_TYPE_GADGET;
using Quelt::SERVER_TYPE_PROXY;
using Quelt::TCEventIO;
using Quelt::TCMessage;
using Quelt::TCServer;
using Quelt::TCServerTestPeer;

std::string Pointer(const void* pointer) {
    char text[32];
    snprintf(text, sizeof(text), "%p", pointer);
    return text;
}

// Entry lines (empty text) logged by |func|.
size_t EntryLines(const LogCapture& capture, const std::string& func) {
    size_t count = 0;
    for (const auto& line : capture.Framework(""))
        count += line.func == func;
    return count;
}

// An application endpoint in this process talking to a peer process.
class CrossProcess : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(client_.CreateDBusServer());
        peer_.reset(new PeerProcess({"serve", "peer"}));
        ASSERT_TRUE(StartServingPeer(*peer_));
    }
    void TearDown() override {
        peer_.reset();
        client_.CloseDBusServer();
    }

    RecordingServer client_{"client", SERVER_TYPE_APP};
    std::unique_ptr<PeerProcess> peer_;
};

TEST_F(CrossProcess, SyncSendReturnsTheHandlersReply) {
    LogCapture capture;
    TCMessage message = MakeMessage("echo", 41, "{\"q\":1}", {1, 2, 3});
    TCMessage reply;
    ASSERT_TRUE(client_.SendMessage("peer", &message, true, &reply, -1));
    EXPECT_EQ(reply.m_type, "re:echo");
    EXPECT_EQ(reply.m_code, 42u);
    EXPECT_EQ(reply.m_message, "{\"q\":1}");
    EXPECT_EQ(reply.m_value["q"].asInt(), 1);
    EXPECT_EQ(BufferOf(reply), (std::vector<unsigned char>{1, 2, 3}));

    EXPECT_EQ(EntryLines(capture, "SendMessage"), 1u);
    EXPECT_TRUE(capture.HasFramework(
        DLOG_INFO, "send message to peer, sync : true, reply : " + Pointer(&reply) + " "));
    EXPECT_TRUE(capture.HasFramework(DLOG_INFO, "prepare GVariant"));
    EXPECT_TRUE(capture.HasFramework(DLOG_INFO, "from[client] to [peer.message] [{\"q\":1}]"));
    EXPECT_TRUE(capture.HasFramework(DLOG_DEBUG, "send success!"));
    EXPECT_FALSE(capture.HasFramework(DLOG_INFO, "send sync message in one process"));
    EXPECT_EQ(TCServerTestPeer::SendCount(client_), 0);
}

TEST_F(CrossProcess, TheReceiverSeesSenderCodeTypeTextAndBuffer) {
    TCMessage plain = MakeMessage("info", 7, "{\"a\":\"b\"}");
    TCMessage reply;
    ASSERT_TRUE(client_.SendMessage("peer", &plain, true, &reply, -1));
    EXPECT_EQ(reply.m_value["from"].asString(), "client");
    EXPECT_EQ(reply.m_value["code"].asUInt(), 7u);
    EXPECT_EQ(reply.m_value["type"].asString(), "info");
    EXPECT_EQ(reply.m_value["text"].asString(), "{\"a\":\"b\"}");
    EXPECT_EQ(reply.m_value["size"].asUInt(), 0u);
    // Without buffer the reply carries the single zero byte: no buffer.
    EXPECT_EQ(reply.m_buffer, nullptr);
    EXPECT_EQ(reply.m_size, 0u);

    TCMessage withBuffer = MakeMessage("info", 8, "{}", {9, 8, 7, 6});
    ASSERT_TRUE(client_.SendMessage("peer", &withBuffer, true, &reply, -1));
    EXPECT_EQ(reply.m_value["size"].asUInt(), 4u);
    EXPECT_EQ(reply.m_value["sum"].asUInt(), 30u);
}

TEST_F(CrossProcess, OneZeroByteCannotBeCarried) {
    TCMessage zero = MakeMessage("info", 1, "{}", {0});
    TCMessage reply;
    ASSERT_TRUE(client_.SendMessage("peer", &zero, true, &reply, -1));
    EXPECT_EQ(reply.m_value["size"].asUInt(), 0u);

    TCMessage echoed = MakeMessage("echo", 1, "{}", {0});
    TCMessage echoReply;
    ASSERT_TRUE(client_.SendMessage("peer", &echoed, true, &echoReply, -1));
    EXPECT_EQ(echoReply.m_buffer, nullptr);

    TCMessage twoZeros = MakeMessage("echo", 1, "{}", {0, 0});
    TCMessage twoReply;
    ASSERT_TRUE(client_.SendMessage("peer", &twoZeros, true, &twoReply, -1));
    EXPECT_EQ(BufferOf(twoReply), (std::vector<unsigned char>{0, 0}));
}

TEST_F(CrossProcess, AFailReplyMakesTheSyncSendFalse) {
    LogCapture capture;
    TCMessage message = MakeMessage("fail", 1, "{}");
    TCMessage reply;
    EXPECT_FALSE(client_.SendMessage("peer", &message, true, &reply, -1));
    EXPECT_EQ(reply.m_message, "{\"dbus_result\":\"fail\",\"why\":\"asked\"}");
    EXPECT_EQ(reply.m_value["why"].asString(), "asked");
    EXPECT_TRUE(capture.HasFramework(
        DLOG_ERROR, "send sync message fail: {\"dbus_result\":\"fail\",\"why\":\"asked\"}"));
    EXPECT_TRUE(capture.HasFramework(DLOG_DEBUG, "send fail!"));
}

TEST_F(CrossProcess, AReplyWithoutResultGainsANullResultMember) {
    TCMessage message = MakeMessage("echo", 1, "{\"x\":2}");
    TCMessage reply;
    ASSERT_TRUE(client_.SendMessage("peer", &message, true, &reply, -1));
    EXPECT_TRUE(reply.m_value.isMember("dbus_result"));
    EXPECT_TRUE(reply.m_value["dbus_result"].isNull());
}

TEST_F(CrossProcess, EmptyAndNonJsonReplies) {
    TCMessage empty = MakeMessage("empty", 1, "{}");
    TCMessage reply;
    reply.m_code = 99;
    ASSERT_TRUE(client_.SendMessage("peer", &empty, true, &reply, -1));
    EXPECT_EQ(reply.m_type, "");
    EXPECT_EQ(reply.m_message, "");
    EXPECT_EQ(reply.m_code, 0u);
    EXPECT_EQ(reply.m_buffer, nullptr);

    LogCapture capture;
    TCMessage nonJson = MakeMessage("nonjson", 1, "{}");
    TCMessage textReply;
    EXPECT_TRUE(client_.SendMessage("peer", &nonJson, true, &textReply, -1));
    EXPECT_EQ(textReply.m_message, "this is not json");
    EXPECT_TRUE(textReply.m_value.isNull());
    EXPECT_TRUE(capture.HasFramework(DLOG_DEBUG, "send success!"));
}

TEST_F(CrossProcess, NonJsonRequestTextArrivesAsIs) {
    TCMessage message = MakeMessage("info", 3, "plain words, no JSON");
    TCMessage reply;
    ASSERT_TRUE(client_.SendMessage("peer", &message, true, &reply, -1));
    EXPECT_EQ(reply.m_value["text"].asString(), "plain words, no JSON");
}

TEST_F(CrossProcess, AsyncReplyArrivesInIfMessageReplied) {
    LogCapture capture;
    TCMessage message = MakeMessage("echo", 10, "{\"async\":1}", {5, 6});
    TCMessage reply;
    ASSERT_TRUE(client_.SendMessage("peer", &message, false, &reply, -1));
    EXPECT_TRUE(capture.HasFramework(
        DLOG_INFO, "send message to peer, sync : false, reply : " + Pointer(&reply) + " "));
    EXPECT_TRUE(capture.HasFramework(DLOG_DEBUG, "send success!"));
    // The caller's reply object is not filled by an asynchronous send.
    EXPECT_EQ(reply.m_type, "");
    ASSERT_TRUE(PumpUntil([&] { return client_.RepliedCount() == 1; }));
    const Seen seen = client_.Replied(0);
    EXPECT_EQ(seen.from, "peer");
    EXPECT_EQ(seen.type, "re:echo");
    EXPECT_EQ(seen.code, 11u);
    EXPECT_EQ(seen.text, "{\"async\":1}");
    EXPECT_EQ(seen.buffer, (std::vector<unsigned char>{5, 6}));
    // On the thread whose default context made the call.
    EXPECT_EQ(seen.thread, g_thread_self());
    EXPECT_EQ(EntryLines(capture, "m_PendingCallNotify"), 1u);
}

TEST_F(CrossProcess, AnEmptyAsyncReplyIsNeverDelivered) {
    LogCapture capture;
    TCMessage message = MakeMessage("empty", 1, "{}");
    TCMessage reply;
    ASSERT_TRUE(client_.SendMessage("peer", &message, false, &reply, -1));
    ASSERT_TRUE(PumpUntil([&] { return EntryLines(capture, "m_PendingCallNotify") == 1; }));
    harvo_bus_test::DrainContext();
    EXPECT_EQ(client_.RepliedCount(), 0u);
}

TEST_F(CrossProcess, AsyncWithoutReplyObjectExpectsNoReply) {
    LogCapture capture;
    TCMessage message = MakeMessage("echo", 1, "{}");
    ASSERT_TRUE(client_.SendMessage("peer", &message, false, nullptr, -1));
    EXPECT_TRUE(
        capture.HasFramework(DLOG_INFO, "send message to peer, sync : false, reply : (nil) "));
    // The peer handles messages in order: once this answer is back, the
    // asynchronous one has arrived too.
    TCMessage info = MakeMessage("info", 2, "{}");
    TCMessage reply;
    ASSERT_TRUE(client_.SendMessage("peer", &info, true, &reply, -1));
    EXPECT_EQ(reply.m_value["count"].asUInt(), 2u);
    harvo_bus_test::DrainContext();
    EXPECT_EQ(EntryLines(capture, "m_PendingCallNotify"), 0u);
    EXPECT_EQ(client_.RepliedCount(), 0u);
}

TEST_F(CrossProcess, StaticFormSendsFromANamedServer) {
    TCMessage message = MakeMessage("info", 4, "{}");
    TCMessage reply;
    ASSERT_TRUE(TCServer::SendMessage("client", "peer", &message, true, &reply));
    EXPECT_EQ(reply.m_value["from"].asString(), "client");

    LogCapture capture;
    EXPECT_FALSE(TCServer::SendMessage("nobody", "peer", &message, true, &reply));
    EXPECT_TRUE(
        capture.HasFramework(DLOG_ERROR, "Couldn't find nobody dbus server, subscribe fail"));
    EXPECT_TRUE(capture.HasFramework(DLOG_WARN, "server is null"));
    EXPECT_FALSE(TCServer::SendMessage(nullptr, "peer", &message, true, &reply));
    EXPECT_TRUE(capture.HasFramework(DLOG_WARN, "source is null"));
}

TEST_F(CrossProcess, ADestinationThatDoesNotExistFailsWithTheBusError) {
    LogCapture capture;
    TCMessage message = MakeMessage("echo", 1, "{}");
    TCMessage reply;
    const auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(client_.SendMessage("ghost", &message, true, &reply, 10000));
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(10000));
    EXPECT_EQ(CountPrefix(capture, DLOG_ERROR,
                          "Fail to invoking sync message call(GDBus.Error:org.freedesktop.DBus."
                          "Error.ServiceUnknown: "),
              1u)
        << capture.Dump();
    EXPECT_TRUE(capture.HasFramework(DLOG_DEBUG, "send fail!"));
    EXPECT_EQ(TCServerTestPeer::SendCount(client_), 0);
}

TEST_F(CrossProcess, ASlowPeerTimesOutWithinTheTimeoutGiven) {
    LogCapture capture;
    TCMessage message = MakeMessage("hold", 1, "{}");
    TCMessage reply;
    EXPECT_FALSE(client_.SendMessage("peer", &message, true, &reply, 200));
    char expected[128];
    snprintf(expected, sizeof(expected), "Fail to invoking sync message call(%s %d)",
             "Timeout was reached", G_IO_ERROR_TIMED_OUT);
    EXPECT_TRUE(capture.HasFramework(DLOG_ERROR, expected)) << capture.Dump();
    // Release the held peer; it still works afterwards.
    ASSERT_FALSE(peer_->WaitLine("HOLDING").empty());
    ASSERT_TRUE(peer_->WriteLine("go"));
    TCMessage info = MakeMessage("info", 1, "{}");
    EXPECT_TRUE(client_.SendMessage("peer", &info, true, &reply, -1));
}

TEST_F(CrossProcess, APeerThatExitsMidCall) {
    LogCapture capture;
    TCMessage message = MakeMessage("exit", 1, "{}");
    TCMessage reply;
    EXPECT_FALSE(client_.SendMessage("peer", &message, true, &reply, -1));
    EXPECT_EQ(CountPrefix(capture, DLOG_ERROR,
                          "Fail to invoking sync message call(GDBus.Error:org.freedesktop.DBus."
                          "Error.NoReply: "),
              1u)
        << capture.Dump();
    const int status = peer_->WaitExit();
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 3);
    EXPECT_EQ(TCServerTestPeer::SendCount(client_), 0);
    // Nothing stays registered or counted; the next send fails cleanly.
    EXPECT_FALSE(client_.SendMessage("peer", &message, true, &reply, 5000));
}

TEST_F(CrossProcess, ThePeerSendsToUsAndWeAnswerOnTheMainContext) {
    client_.answer = [](const TCMessage* message, TCMessage* reply) {
        reply->m_type = "answer";
        reply->m_code = message->m_code * 2;
        reply->m_value["seen"] = message->m_type;
    };
    LogCapture capture;
    ASSERT_TRUE(peer_->WriteLine("send client ask 21 {\"n\":1}"));
    const std::string line = peer_->WaitLine("SENT", kLimit, true);
    EXPECT_EQ(line, "SENT 1 answer 42 {\"seen\":\"ask\"}");
    ASSERT_EQ(client_.ReceivedCount(), 1u);
    const Seen seen = client_.Received(0);
    EXPECT_EQ(seen.from, "peer");
    EXPECT_EQ(seen.text, "{\"n\":1}");
    EXPECT_FALSE(seen.hadSignal);
    EXPECT_EQ(seen.thread, g_thread_self());
    EXPECT_EQ(EntryLines(capture, "m_DObjectHandler"), 1u);
    EXPECT_TRUE(capture.HasFramework(DLOG_INFO, "SendMessage"));
    EXPECT_TRUE(capture.HasFramework(DLOG_INFO, "from[peer] [{\"n\":1}]"));
}

TEST_F(CrossProcess, TheHandlersFailureReachesThePeer) {
    client_.answer = [](const TCMessage*, TCMessage* reply) {
        reply->m_value["dbus_result"] = "fail";
    };
    ASSERT_TRUE(peer_->WriteLine("send client ask 1 {}"));
    EXPECT_EQ(peer_->WaitLine("SENT", kLimit, true), "SENT 0  0 {\"dbus_result\":\"fail\"}");
}

TEST_F(CrossProcess, ThePeersAsyncReplyComesFromUs) {
    client_.answer = [](const TCMessage*, TCMessage* reply) { reply->m_type = "late"; };
    ASSERT_TRUE(peer_->WriteLine("asend client ask 1 {}"));
    EXPECT_EQ(peer_->WaitLine("REPLIED", kLimit, true), "REPLIED client late 0 ");
}

TEST(CrossProcessNames, ADestinationNeedingFormatting) {
    RecordingServer client("client", SERVER_TYPE_APP);
    ASSERT_TRUE(client.CreateDBusServer());
    CloseAtExit closer(client);
    PeerProcess peer({"serve", "my peer-1"});
    ASSERT_TRUE(StartServingPeer(peer));
    LogCapture capture;
    TCMessage message = MakeMessage("info", 1, "{}");
    TCMessage reply;
    ASSERT_TRUE(client.SendMessage("my peer-1", &message, true, &reply, -1));
    EXPECT_TRUE(capture.HasFramework(DLOG_INFO, "from[client] to [my_peer_1.message] [{}]"));
    EXPECT_TRUE(capture.HasFramework(
        DLOG_INFO, "send message to my peer-1, sync : true, reply : " + Pointer(&reply) + " "));
}

// ---------------------------------------------------------------------------
// Refusals before any delivery

TEST(MessageRefusals, BadArguments) {
    RecordingServer sender("sender", SERVER_TYPE_APP);
    ASSERT_TRUE(sender.CreateDBusServer());
    CloseAtExit closer(sender);
    LogCapture capture;
    TCMessage message = MakeMessage("echo", 1, "{}");
    TCMessage reply;

    EXPECT_FALSE(sender.SendMessage("peer", nullptr, true, &reply, -1));
    EXPECT_TRUE(capture.HasFramework(DLOG_WARN, "message is null"));
    EXPECT_FALSE(sender.SendMessage("peer", &message, true, nullptr, -1));
    EXPECT_TRUE(capture.HasFramework(
        DLOG_WARN, "You couldn't call SendMessage with no reply (== NULL) synchronically"));
    EXPECT_FALSE(sender.SendMessage("", &message, true, &reply, -1));
    EXPECT_FALSE(sender.SendMessage(nullptr, &message, false, nullptr, -1));
    EXPECT_EQ(capture.CountFramework(DLOG_ERROR, "No dest information"), 2u);
    // None of them reached the bus or counted as in flight.
    EXPECT_EQ(CountPrefix(capture, DLOG_INFO, "send message to"), 0u);
    EXPECT_EQ(TCServerTestPeer::SendCount(sender), 0);
}

TEST(MessageRefusals, ASenderWithoutConnectionCannotReachOtherProcesses) {
    LogCapture capture;
    RecordingServer lonely("lonely", SERVER_TYPE_PROXY);
    TCMessage message = MakeMessage("echo", 1, "{}");
    TCMessage reply;
    EXPECT_FALSE(lonely.SendMessage("elsewhere", &message, true, &reply, -1));
    EXPECT_TRUE(capture.HasFramework(DLOG_ERROR, "dbus connection is not open"));
    EXPECT_FALSE(capture.HasFramework(DLOG_INFO, "prepare GVariant"));
    EXPECT_EQ(TCServerTestPeer::SendCount(lonely), 0);
}

TEST(MessageSending, ASendWaitsForAMomentaryHolderOfTheCloseLock) {
    // Another sender or a subscription holds the lock for a moment; on a
    // loaded machine that moment can outlast the sender's first try (1 ms)
    // when the holder is taken off the processor. The send is not refused:
    // the server is neither being created nor closed.
    RecordingServer sender("sender", SERVER_TYPE_APP);
    ASSERT_TRUE(sender.CreateDBusServer());
    CloseAtExit closer(sender);
    HeldCloseLock held(sender);
    LogCapture capture;
    std::atomic<int> sent{0};
    std::thread sending([&] {
        TCMessage message = MakeMessage("echo", 1, "{}");
        TCMessage reply;
        // To itself, in this process: synchronous, then asynchronous.
        sent += sender.SendMessage("sender", &message, true, &reply, -1) ? 1 : 0;
        sent += sender.SendMessage("sender", &message, false, nullptr, -1) ? 1 : 0;
    });
    // The sender has begun (its entry line); the lock stays held well
    // beyond its first try.
    ASSERT_TRUE(capture.WaitForFramework(DLOG_INFO, "", kLimit));
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    EXPECT_EQ(sent.load(), 0);
    held.Release();
    sending.join();
    EXPECT_EQ(sent.load(), 2);
    EXPECT_EQ(capture.CountFramework(DLOG_ERROR, "Server is going to be closed!"), 0u);
    EXPECT_TRUE(capture.HasFramework(DLOG_INFO, "send sync message in one process"));
    EXPECT_TRUE(PumpUntil([&] { return sender.ReceivedCount() == 2; }));
    EXPECT_EQ(TCServerTestPeer::SendCount(sender), 0);
}

// ---------------------------------------------------------------------------
// Closing while a send is in flight

TEST(CloseWhileSending, CloseReturnsOnlyAfterTheSlowSend) {
    RecordingServer client("client", SERVER_TYPE_APP);
    ASSERT_TRUE(client.CreateDBusServer());
    PeerProcess peer({"serve", "slow"});
    ASSERT_TRUE(StartServingPeer(peer));
    LogCapture capture;

    std::atomic<bool> sent{false};
    std::thread sender([&] {
        TCMessage message = MakeMessage("hold", 1, "{}");
        TCMessage reply;
        sent = client.SendMessage("slow", &message, true, &reply, -1);
    });
    // The peer holds the call until told.
    ASSERT_FALSE(peer.WaitLine("HOLDING").empty());
    EXPECT_EQ(TCServerTestPeer::SendCount(client), 1);

    std::atomic<bool> closed{false};
    std::thread closer([&] {
        client.CloseDBusServer();
        closed = true;
    });
    ASSERT_TRUE(capture.WaitForFramework(DLOG_DEBUG, "waiting all send message/signal finished 1d",
                                         kLimit));
    EXPECT_FALSE(closed.load());
    // A send that starts now finds the server closing.
    TCMessage late = MakeMessage("echo", 1, "{}");
    TCMessage lateReply;
    EXPECT_FALSE(client.SendMessage("slow", &late, true, &lateReply, -1));
    EXPECT_FALSE(client.SendSignal("late", &late));
    EXPECT_EQ(capture.CountFramework(DLOG_ERROR, "Server is going to be closed!"), 2u);
    EXPECT_FALSE(closed.load());

    ASSERT_TRUE(peer.WriteLine("go"));
    sender.join();
    closer.join();
    EXPECT_TRUE(sent.load());
    EXPECT_TRUE(closed.load());
    // The send finished before the close went on.
    const int sendDone = IndexOf(capture, "send success!");
    const int allDone = IndexOf(capture, "all send message/signal finished");
    ASSERT_GE(sendDone, 0);
    EXPECT_LT(sendDone, allDone);
    EXPECT_LT(allDone, IndexOf(capture, "close connection and all close motion finished"));
}

// ---------------------------------------------------------------------------
// Inside one process

// A receiver that is at once a bus endpoint and an event IO, as an
// application is.
class Endpoint : public RecordingServer, public TCEventIO {
public:
    Endpoint(const std::string& name, Quelt::TCServerType type)
        : RecordingServer(name, type), TCEventIO(name) {}
};

TEST(InProcess, SyncSendCallsTheReceiverOnTheCallersThreadWithoutTheBus) {
    RecordingServer receiver("inproc", SERVER_TYPE_APP);
    ASSERT_TRUE(receiver.CreateDBusServer());
    CloseAtExit closer(receiver);
    receiver.answer = [](const TCMessage* message, TCMessage* reply) {
        reply->m_value["echo"] = message->m_value["v"];
        reply->m_code = 5;
    };
    // The sender has no connection at all: any bus use would fail.
    RecordingServer sender("lonely", SERVER_TYPE_PROXY);
    LogCapture capture;
    GThread* callerThread = nullptr;
    bool sent = false;
    TCMessage reply;
    std::thread caller([&] {
        callerThread = g_thread_self();
        TCMessage message = MakeMessage("ask", 3, "{\"v\":7}", {1});
        sent = sender.SendMessage("inproc", &message, true, &reply, -1);
    });
    caller.join();
    EXPECT_TRUE(sent);
    ASSERT_EQ(receiver.ReceivedCount(), 1u);
    const Seen seen = receiver.Received(0);
    EXPECT_EQ(seen.thread, callerThread);
    EXPECT_EQ(seen.from, "lonely");
    EXPECT_EQ(seen.type, "ask");
    EXPECT_EQ(seen.code, 3u);
    EXPECT_EQ(seen.buffer, (std::vector<unsigned char>{1}));
    EXPECT_FALSE(seen.hadSignal);
    // The reply body was generated from the tree.
    EXPECT_EQ(reply.m_message, "{\"echo\":7}");
    EXPECT_EQ(reply.m_code, 5u);
    EXPECT_TRUE(capture.HasFramework(DLOG_INFO, "send sync message in one process"));
    EXPECT_EQ(CountPrefix(capture, DLOG_INFO, "send message to"), 0u);
    EXPECT_FALSE(capture.HasFramework(DLOG_ERROR, "dbus connection is not open"));
}

TEST(InProcess, AsyncSendRunsOnTheReceiversEventIOThread) {
    Endpoint receiver("inbox", SERVER_TYPE_APP);
    ASSERT_TRUE(receiver.CreateDBusServer());
    CloseAtExit closer(receiver);
    ASSERT_TRUE(receiver.Init(nullptr));  // the default context: this thread
    // The sender must be found by name again when the event runs.
    RecordingServer sender("outbox", SERVER_TYPE_GADGET);
    ASSERT_TRUE(sender.CreateDBusServer());
    CloseAtExit senderCloser(sender);

    LogCapture capture;
    bool sent = false;
    std::thread caller([&] {
        TCMessage message = MakeMessage("note", 9, "{\"k\":1}");
        sent = sender.SendMessage("inbox", &message, false, nullptr, -1);
    });
    caller.join();
    EXPECT_TRUE(sent);
    EXPECT_TRUE(capture.HasFramework(DLOG_INFO, "send async message in one process"));
    EXPECT_TRUE(capture.HasFramework(DLOG_INFO, "send internal event"));
    EXPECT_TRUE(capture.HasFramework(DLOG_INFO, "send internal event sucess"));
    EXPECT_EQ(CountPrefix(capture, DLOG_INFO, "send message to"), 0u);
    EXPECT_EQ(receiver.ReceivedCount(), 0u);

    ASSERT_TRUE(PumpUntil([&] { return receiver.ReceivedCount() == 1; }));
    const Seen seen = receiver.Received(0);
    EXPECT_EQ(seen.thread, g_thread_self());
    EXPECT_EQ(seen.from, "outbox");
    EXPECT_EQ(seen.type, "note");
    EXPECT_EQ(seen.code, 9u);
    EXPECT_EQ(seen.text, "{\"k\":1}");
    EXPECT_TRUE(
        capture.HasFramework(DLOG_INFO, "transfer async internal event to sync message call"));
    EXPECT_TRUE(capture.HasFramework(DLOG_INFO, "send sync message in one process"));
    EXPECT_TRUE(PumpForLog(capture, DLOG_INFO, "clear message memory"));
    receiver.Final();
}

TEST(InProcess, AsyncFallsBackToTheBusWhenTheEventIOIsDown) {
    Endpoint receiver("inbox", SERVER_TYPE_APP);
    ASSERT_TRUE(receiver.CreateDBusServer());
    CloseAtExit closer(receiver);
    // The event IO was never initialised: posting fails.
    RecordingServer sender("outbox", SERVER_TYPE_GADGET);
    ASSERT_TRUE(sender.CreateDBusServer());
    CloseAtExit senderCloser(sender);
    LogCapture capture;
    TCMessage message = MakeMessage("note", 2, "{}");
    EXPECT_TRUE(sender.SendMessage("inbox", &message, false, nullptr, -1));
    EXPECT_TRUE(capture.HasFramework(DLOG_INFO, "send internal event"));
    EXPECT_TRUE(
        capture.HasFramework(DLOG_INFO, "send internal event fail, use dbus aysnc message call"));
    EXPECT_TRUE(capture.HasFramework(DLOG_ERROR, "event io inbox has destroyed!"));
    // Over the bus, to the receiver's registered name.
    EXPECT_TRUE(capture.HasFramework(DLOG_INFO, "from[outbox] to [inbox.message] [{}]"));
    ASSERT_TRUE(PumpUntil([&] { return receiver.ReceivedCount() == 1; }));
    EXPECT_EQ(receiver.Received(0).from, "outbox");
    EXPECT_TRUE(capture.HasFramework(DLOG_INFO, "SendMessage"));
}

TEST(InProcess, AsyncToAServerWithoutEventIOGoesOverTheBus) {
    RecordingServer receiver("plainbox", SERVER_TYPE_APP);
    ASSERT_TRUE(receiver.CreateDBusServer());
    CloseAtExit closer(receiver);
    RecordingServer sender("outbox", SERVER_TYPE_GADGET);
    ASSERT_TRUE(sender.CreateDBusServer());
    CloseAtExit senderCloser(sender);
    LogCapture capture;
    TCMessage message = MakeMessage("note", 2, "{}");
    EXPECT_TRUE(sender.SendMessage("plainbox", &message, false, nullptr, -1));
    EXPECT_TRUE(capture.HasFramework(DLOG_INFO, "send async message in one process"));
    EXPECT_FALSE(capture.HasFramework(DLOG_INFO, "send internal event"));
    EXPECT_TRUE(capture.HasFramework(DLOG_INFO, "from[outbox] to [plainbox.message] [{}]"));
    ASSERT_TRUE(PumpUntil([&] { return receiver.ReceivedCount() == 1; }));
}

TEST(InProcess, AsyncWithAReplyObjectGoesOverTheBus) {
    RecordingServer app("A", SERVER_TYPE_APP);
    ASSERT_TRUE(app.CreateDBusServer());
    CloseAtExit appCloser(app);
    RecordingServer gadget("B", SERVER_TYPE_GADGET);
    ASSERT_TRUE(gadget.CreateDBusServer());
    CloseAtExit gadgetCloser(gadget);
    gadget.answer = [](const TCMessage* message, TCMessage* reply) {
        reply->m_type = "back";
        reply->m_value["got"] = message->m_type;
    };
    LogCapture capture;
    TCMessage message = MakeMessage("there", 1, "{}");
    TCMessage reply;
    ASSERT_TRUE(app.SendMessage("B", &message, false, &reply, -1));
    EXPECT_FALSE(capture.HasFramework(DLOG_INFO, "send async message in one process"));
    // The receiver's registered bus name.
    EXPECT_TRUE(capture.HasFramework(DLOG_INFO, "from[A] to [A.B.message] [{}]"));
    ASSERT_TRUE(PumpUntil([&] { return app.RepliedCount() == 1; }));
    EXPECT_EQ(gadget.ReceivedCount(), 1u);
    const Seen seen = app.Replied(0);
    EXPECT_EQ(seen.from, "B");
    EXPECT_EQ(seen.type, "back");
    EXPECT_EQ(seen.text, "{\"got\":\"there\"}");
}

TEST(InProcess, SyncSendToAGadgetOfThisProcess) {
    RecordingServer app("A", SERVER_TYPE_APP);
    ASSERT_TRUE(app.CreateDBusServer());
    CloseAtExit appCloser(app);
    RecordingServer gadget("B", SERVER_TYPE_GADGET);
    ASSERT_TRUE(gadget.CreateDBusServer());
    CloseAtExit gadgetCloser(gadget);
    LogCapture capture;
    TCMessage message = MakeMessage("here", 1, "{}");
    TCMessage reply;
    EXPECT_TRUE(TCServer::SendMessage("B", "A", &message, true, &reply));
    EXPECT_TRUE(capture.HasFramework(DLOG_INFO, "send sync message in one process"));
    ASSERT_EQ(app.ReceivedCount(), 1u);
    EXPECT_EQ(app.Received(0).from, "B");
}

// ---------------------------------------------------------------------------
// Handling moved to an event IO

// A task that notes the thread it runs on.
class NotingTask : public Quelt::TCTask {
public:
    explicit NotingTask(const char* name) : TCTask(name) {}
    std::atomic<GThread*> thread{nullptr};

protected:
    bool t_Create() override {
        thread = g_thread_self();
        return true;
    }
};

// Moves the handling of every bus message to |target| (which may be null).
class MovingServer : public RecordingServer {
public:
    MovingServer(const std::string& name, TCEventIO* target)
        : RecordingServer(name, SERVER_TYPE_APP), target_(target) {}
    bool IfHandleInEventIO(const char*, const TCMessage*, TCEventIO** eventIO) override {
        asked.fetch_add(1);
        *eventIO = target_;
        return true;
    }
    std::atomic<int> asked{0};

private:
    TCEventIO* target_;
};

TEST(HandleInEventIO, HandlingAndReplyMoveToATasksThread) {
    NotingTask task("mover");
    ASSERT_TRUE(task.Create("mover", false, 0));
    MovingServer server("worker", &task);
    ASSERT_TRUE(server.CreateDBusServer());
    server.answer = [](const TCMessage* message, TCMessage* reply) {
        reply->m_type = "moved";
        reply->m_code = message->m_code + 100;
    };
    PeerProcess peer({"serve", "peer"});
    ASSERT_TRUE(StartServingPeer(peer));
    ASSERT_TRUE(PumpUntil([&] { return task.thread.load() != nullptr; }));

    LogCapture capture;
    ASSERT_TRUE(peer.WriteLine("send worker ask 1 {\"w\":1}"));
    EXPECT_EQ(peer.WaitLine("SENT", kLimit, true), "SENT 1 moved 101 ");
    ASSERT_EQ(server.ReceivedCount(), 1u);
    EXPECT_EQ(server.asked.load(), 1);
    EXPECT_EQ(server.Received(0).thread, task.thread.load());
    EXPECT_NE(server.Received(0).thread, g_thread_self());
    EXPECT_TRUE(capture.HasFramework(DLOG_INFO, "send internal event"));
    EXPECT_TRUE(capture.HasFramework(DLOG_INFO, "send internal event success"));
    EXPECT_TRUE(capture.HasFramework(DLOG_INFO, "execute function in this event io"));

    server.CloseDBusServer();
    task.Destroy();
}

TEST(HandleInEventIO, APostThatFailsIsHandledHere) {
    // An event IO that was never initialised refuses every event.
    TCEventIO down("down");
    MovingServer server("worker", &down);
    ASSERT_TRUE(server.CreateDBusServer());
    CloseAtExit closer(server);
    PeerProcess peer({"serve", "peer"});
    ASSERT_TRUE(StartServingPeer(peer));
    LogCapture capture;
    ASSERT_TRUE(peer.WriteLine("send worker ask 1 {}"));
    EXPECT_EQ(peer.WaitLine("SENT", kLimit, true), "SENT 1  0 ");
    ASSERT_EQ(server.ReceivedCount(), 1u);
    EXPECT_EQ(server.Received(0).thread, g_thread_self());
    EXPECT_TRUE(capture.HasFramework(DLOG_INFO, "send internal event"));
    EXPECT_FALSE(capture.HasFramework(DLOG_INFO, "send internal event success"));
    EXPECT_TRUE(capture.HasFramework(DLOG_ERROR, "event io down has destroyed!"));
}

TEST(HandleInEventIO, TrueWithoutEventIOIsHandledHere) {
    MovingServer server("worker", nullptr);
    ASSERT_TRUE(server.CreateDBusServer());
    CloseAtExit closer(server);
    PeerProcess peer({"serve", "peer"});
    ASSERT_TRUE(StartServingPeer(peer));
    LogCapture capture;
    ASSERT_TRUE(peer.WriteLine("send worker ask 1 {}"));
    EXPECT_FALSE(peer.WaitLine("SENT 1", kLimit, true).empty());
    EXPECT_EQ(server.asked.load(), 1);
    EXPECT_EQ(server.Received(0).thread, g_thread_self());
    EXPECT_FALSE(capture.HasFramework(DLOG_INFO, "send internal event"));
}

// ---------------------------------------------------------------------------
// The asynchronous completion callback's own checks

TEST(PendingCallNotify, ReplyToAMissingDestinationFailsToFinish) {
    RecordingServer client("client", SERVER_TYPE_APP);
    ASSERT_TRUE(client.CreateDBusServer());
    CloseAtExit closer(client);
    LogCapture capture;
    TCMessage message = MakeMessage("echo", 1, "{}");
    TCMessage reply;
    EXPECT_TRUE(client.SendMessage("ghost", &message, false, &reply, -1));
    ASSERT_TRUE(PumpForLog(capture, DLOG_ERROR, "dbus finish fail!"));
    EXPECT_EQ(client.RepliedCount(), 0u);
}

void ForwardToNotify(GObject* source, GAsyncResult* result, gpointer data) {
    TCServerTestPeer::PendingCallNotify(source, result, static_cast<TCServer*>(data));
}

TEST(PendingCallNotify, AReplyOnAnotherConnectionIsStillDelivered) {
    RecordingServer client("client", SERVER_TYPE_APP);
    ASSERT_TRUE(client.CreateDBusServer());
    CloseAtExit closer(client);
    PeerProcess peer({"serve", "peer"});
    ASSERT_TRUE(StartServingPeer(peer));
    GDBusConnection* other = NewSecondConnection();
    ASSERT_NE(other, nullptr);
    LogCapture capture;
    g_dbus_connection_call(other, "peer.message", "/peer/message", "peer.message", "SendMessage",
                           g_variant_new("(suss)", "other", 3u, "echo", "{}"), nullptr,
                           G_DBUS_CALL_FLAGS_NONE, -1, nullptr, ForwardToNotify, &client);
    ASSERT_TRUE(PumpUntil([&] { return client.RepliedCount() == 1; }));
    char expected[128];
    snprintf(expected, sizeof(expected), "bus %p is different from owner's bus connection %p",
             static_cast<void*>(other), static_cast<void*>(TCServerTestPeer::Connection(client)));
    EXPECT_TRUE(capture.HasFramework(DLOG_WARN, expected)) << capture.Dump();
    EXPECT_EQ(client.Replied(0).type, "re:echo");
    g_dbus_connection_close_sync(other, nullptr, nullptr);
    g_object_unref(other);
}

TEST(PendingCallNotify, AClosedConnectionStopsDelivery) {
    RecordingServer client("client", SERVER_TYPE_APP);
    ASSERT_TRUE(client.CreateDBusServer());
    CloseAtExit closer(client);
    PeerProcess peer({"serve", "peer"});
    ASSERT_TRUE(StartServingPeer(peer));
    GDBusConnection* other = NewSecondConnection();
    ASSERT_NE(other, nullptr);
    LogCapture capture;
    // The peer holds the call; the connection closes before the reply.
    g_dbus_connection_call(other, "peer.message", "/peer/message", "peer.message", "SendMessage",
                           g_variant_new("(suss)", "other", 3u, "hold", "{}"), nullptr,
                           G_DBUS_CALL_FLAGS_NONE, -1, nullptr, ForwardToNotify, &client);
    ASSERT_FALSE(peer.WaitLine("HOLDING").empty());
    g_dbus_connection_close_sync(other, nullptr, nullptr);
    ASSERT_TRUE(PumpForLog(capture, DLOG_ERROR, "bus connection is NULL"));
    EXPECT_EQ(client.RepliedCount(), 0u);
    EXPECT_FALSE(capture.HasFramework(DLOG_ERROR, "dbus finish fail!"));
    peer.WriteLine("go");
    g_object_unref(other);
}

TEST(PendingCallNotify, WithoutServer) {
    LogCapture capture;
    TCServerTestPeer::PendingCallNotify(nullptr, nullptr, nullptr);
    EXPECT_TRUE(capture.HasFramework(DLOG_WARN, "pThis is null"));
    EXPECT_EQ(EntryLines(capture, "m_PendingCallNotify"), 1u);
}

}  // namespace
