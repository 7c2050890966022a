// SPDX-License-Identifier: Apache-2.0
// Messages that say what to do: after each line whose text is fixed, one
// more line of the same priority that says what the mistake is and which
// call to make, for an endpoint that was never created, a closed bus
// connection, an unknown source endpoint, and a synchronous send that
// failed because the service is missing, did not answer in time, died
// during the call, answered with a bus error or whose handler failed. The
// framework's own line stays as it is; the added one comes right after it.
// Also: bus names made from names whose elements start with a digit.

#include "BusTestSupport.h"

namespace {

using namespace harvo_bus_test;
using harvo_test::LogCapture;
using Quelt::SERVER_TYPE_APP;
using Quelt::SERVER_TYPE_PROXY;

const char kNotOpen[] = "dbus connection is not open";

std::string NeverCreated(const std::string& name) {
    return "endpoint " + name +
           " has no bus connection: create it first (CreateDBusServer for an application, "
           "service or gadget, CreateDBusProxy for a client)";
}

// ---------------------------------------------------------------------------
// An endpoint that was never created

TEST(Advice, SendFromAnEndpointNeverCreatedSaysWhichCallToMakeFirst) {
    for (bool sync : {true, false}) {
        RecordingServer app("never_made", SERVER_TYPE_APP);
        LogCapture capture;
        TCMessage message = MakeMessage("t", 1, "{}");
        TCMessage reply;
        EXPECT_FALSE(app.SendMessage("elsewhere", &message, sync, &reply, -1));
        EXPECT_EQ(1u, capture.CountFramework(DLOG_ERROR, kNotOpen));
        const NextLine next = LineAfter(capture, kNotOpen);
        EXPECT_EQ(NeverCreated("never_made"), next.text) << capture.Dump();
        EXPECT_EQ(DLOG_ERROR, next.prio);
    }
}

TEST(Advice, EveryCallThatNeedsTheBusSaysWhichCallToMakeFirst) {
    RecordingServer proxy("never_proxy", SERVER_TYPE_PROXY);
    LogCapture capture;
    TCMessage message = MakeMessage("t", 1, "{}");
    EXPECT_FALSE(proxy.IsServiceAvailable("anyone"));
    EXPECT_FALSE(proxy.SendSignal("tick", &message));
    EXPECT_FALSE(proxy.SubscribeSignal("anyone", "tick", nullptr, nullptr));
    EXPECT_FALSE(proxy.UnSubscribeSignal("anyone", "tick"));
    EXPECT_EQ(4u, capture.CountFramework(DLOG_ERROR, kNotOpen)) << capture.Dump();
    EXPECT_EQ(4u, capture.CountFramework(DLOG_ERROR, NeverCreated("never_proxy")))
        << capture.Dump();
    // Each right after its own "not open" line.
    const auto lines = capture.Lines();
    for (size_t i = 0; i < lines.size(); ++i) {
        harvo_test::FrameworkLine parsed;
        if (!harvo_test::ParseFrameworkText(lines[i].text, &parsed) || parsed.text != kNotOpen)
            continue;
        ASSERT_LT(i + 1, lines.size());
        harvo_test::FrameworkLine next;
        ASSERT_TRUE(harvo_test::ParseFrameworkText(lines[i + 1].text, &next));
        EXPECT_EQ(NeverCreated("never_proxy"), next.text);
        EXPECT_EQ(parsed.func, next.func);
    }
}

TEST(Advice, UnsubscribingWithoutASenderSaysWhy) {
    RecordingServer proxy("unsub_proxy", SERVER_TYPE_PROXY);
    ASSERT_TRUE(proxy.CreateDBusProxy());
    CloseAtExit closer(proxy);
    LogCapture capture;
    EXPECT_FALSE(proxy.UnSubscribeSignal(nullptr, "tick"));
    const NextLine next = LineAfter(capture, kNotOpen);
    EXPECT_EQ(
        "a subscription made without a sender cannot be cancelled singly: closing the endpoint "
        "ends it",
        next.text)
        << capture.Dump();
    EXPECT_EQ(DLOG_ERROR, next.prio);
}

// GLib keeps one system bus connection per process: the closed one is
// closed in a child of its own.
void SendOnAClosedConnection() {
    LogCapture capture;
    RecordingServer proxy("closed_proxy", SERVER_TYPE_PROXY);
    if (!proxy.CreateDBusProxy())
        std::exit(10);
    GDBusConnection* connection = TCServerTestPeer::Connection(proxy);
    g_dbus_connection_close_sync(connection, nullptr, nullptr);
    // GDBus marks it closed from its own thread.
    if (!PumpUntil([&] { return g_dbus_connection_is_closed(connection) != FALSE; }))
        std::exit(13);
    TCMessage message = MakeMessage("t", 1, "{}");
    TCMessage reply;
    if (proxy.SendMessage("elsewhere", &message, true, &reply, -1))
        std::exit(11);
    const NextLine next = LineAfter(capture, kNotOpen);
    const bool said = next.prio == DLOG_ERROR &&
                      next.text ==
                          "the bus connection of closed_proxy is closed (the bus stopped or "
                          "dropped it): close the endpoint and create it again";
    if (!said)
        std::fprintf(stderr, "%s", capture.Dump().c_str());
    proxy.CloseDBusProxy();
    std::exit(said ? 0 : 12);
}

TEST(AdviceDeathTest, AClosedConnectionSaysToCloseAndCreateAgain) {
    // A fresh process: a forked one would share this one's bus socket.
    ::testing::FLAGS_gtest_death_test_style = "threadsafe";
    EXPECT_EXIT(SendOnAClosedConnection(), ::testing::ExitedWithCode(0), "");
}

TEST(Advice, AnUnknownSourceEndpointSaysToCreateItFirst) {
    LogCapture capture;
    TCMessage message = MakeMessage("t", 1, "{}");
    EXPECT_FALSE(TCServer::SendMessage("no_such_source", "elsewhere", &message, false, nullptr));
    const NextLine next =
        LineAfter(capture, "Couldn't find no_such_source dbus server, subscribe fail");
    EXPECT_EQ(
        "no_such_source is not an endpoint of this process: create it first (CreateDBusServer, "
        "or pelx_create_app_endpoint), or check the name",
        next.text)
        << capture.Dump();
    EXPECT_EQ(DLOG_ERROR, next.prio);
    // The static form's own line stays.
    EXPECT_EQ(1u, capture.CountFramework(DLOG_WARN, "server is null"));
}

// ---------------------------------------------------------------------------
// A synchronous send: a missing service, a timeout, a peer that dies, a bus
// error and a handler's failure each say which it was

class SyncAdvice : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(sender.CreateDBusProxy()); }
    void TearDown() override { sender.CloseDBusProxy(); }

    RecordingServer sender{"sync_sender", SERVER_TYPE_PROXY};
    const std::string kSyncFail = "Fail to invoking sync message call(";
};

TEST_F(SyncAdvice, AMissingServiceIsNamed) {
    LogCapture capture;
    TCMessage message = MakeMessage("t", 1, "{}");
    TCMessage reply;
    EXPECT_FALSE(sender.SendMessage("nobody_here", &message, true, &reply, -1));
    const NextLine next = LineAfter(capture, kSyncFail, true);
    EXPECT_EQ(
        "no endpoint nobody_here on the bus (nobody_here.message has no owner): start its "
        "service first, or check the name (IsServiceAvailable tells whether it runs)",
        next.text)
        << capture.Dump();
    EXPECT_EQ(DLOG_ERROR, next.prio);
}

TEST_F(SyncAdvice, ATimeoutIsNamedWithItsLimit) {
    PeerProcess peer({"serve", "slowpeer"});
    ASSERT_TRUE(StartServingPeer(peer));
    LogCapture capture;
    TCMessage message = MakeMessage("hold", 1, "{}");
    TCMessage reply;
    EXPECT_FALSE(sender.SendMessage("slowpeer", &message, true, &reply, 300));
    peer.WriteLine("go");
    const NextLine next = LineAfter(capture, kSyncFail, true);
    EXPECT_EQ(
        "slowpeer did not answer within 300 ms: its handler is slow or blocked; pass a longer "
        "timeout, or send asynchronously",
        next.text)
        << capture.Dump();
    EXPECT_EQ(DLOG_ERROR, next.prio);
}

TEST_F(SyncAdvice, APeerThatDiesDuringTheCallIsNamed) {
    PeerProcess peer({"serve", "dyingpeer"});
    ASSERT_TRUE(StartServingPeer(peer));
    LogCapture capture;
    TCMessage message = MakeMessage("exit", 1, "{}");
    TCMessage reply;
    EXPECT_FALSE(sender.SendMessage("dyingpeer", &message, true, &reply, -1));
    const NextLine next = LineAfter(capture, kSyncFail, true);
    EXPECT_EQ(
        "dyingpeer did not answer: it left the bus during the call (it ended or crashed), or "
        "the bus stopped waiting for it",
        next.text)
        << capture.Dump();
    EXPECT_EQ(DLOG_ERROR, next.prio);
}

TEST_F(SyncAdvice, AHandlersFailureIsNamed) {
    PeerProcess peer({"serve", "failingpeer"});
    ASSERT_TRUE(StartServingPeer(peer));
    LogCapture capture;
    TCMessage message = MakeMessage("fail", 1, "{}");
    TCMessage reply;
    EXPECT_FALSE(sender.SendMessage("failingpeer", &message, true, &reply, -1));
    const NextLine next = LineAfter(capture, "send sync message fail: ", true);
    EXPECT_EQ(
        "the handler of failingpeer failed or refused the message (its reply says "
        "\"dbus_result\":\"fail\"): see that endpoint's log",
        next.text)
        << capture.Dump();
    EXPECT_EQ(DLOG_ERROR, next.prio);
    EXPECT_EQ(0u, CountPrefix(capture, DLOG_ERROR, kSyncFail));
}

TEST_F(SyncAdvice, AnErrorAnsweredByThePeerIsNamed) {
    PeerProcess peer({"bare", "barepeer"});
    ASSERT_TRUE(StartServingPeer(peer));
    LogCapture capture;
    TCMessage message = MakeMessage("t", 1, "{}");
    TCMessage reply;
    EXPECT_FALSE(sender.SendMessage("barepeer", &message, true, &reply, -1));
    const NextLine next = LineAfter(capture, kSyncFail, true);
    EXPECT_EQ(
        "the call to barepeer failed on the bus: org.harvo.Test.Error.Refused: refused by the "
        "bare peer",
        next.text)
        << capture.Dump();
    EXPECT_EQ(DLOG_ERROR, next.prio);
}

TEST_F(SyncAdvice, AnOwnerThatIsNoEndpointIsNamed) {
    // A name owned by a connection that exports nothing.
    GDBusConnection* other = NewSecondConnection();
    ASSERT_NE(nullptr, other);
    GVariant* owned = g_dbus_connection_call_sync(
        other, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
        "RequestName", g_variant_new("(su)", "hollow.message", 0u), G_VARIANT_TYPE("(u)"),
        G_DBUS_CALL_FLAGS_NONE, -1, nullptr, nullptr);
    ASSERT_NE(nullptr, owned);
    g_variant_unref(owned);
    LogCapture capture;
    TCMessage message = MakeMessage("t", 1, "{}");
    TCMessage reply;
    EXPECT_FALSE(sender.SendMessage("hollow", &message, true, &reply, -1));
    const NextLine next = LineAfter(capture, kSyncFail, true);
    EXPECT_EQ(
        "the owner of hollow.message is not a harvo-fw endpoint named hollow: it offers no "
        "SendMessage",
        next.text)
        << capture.Dump();
    g_dbus_connection_close_sync(other, nullptr, nullptr);
    g_object_unref(other);
}

// ---------------------------------------------------------------------------
// Bus names from names whose elements start with a digit

TEST(DigitNames, AnEndpointNamedWithADigitFirstIsReachedAcrossProcesses) {
    PeerProcess peer({"serve", "2048"});
    ASSERT_TRUE(StartServingPeer(peer));
    RecordingServer proxy("digits_client", SERVER_TYPE_PROXY);
    ASSERT_TRUE(proxy.CreateDBusProxy());
    CloseAtExit closer(proxy);
    EXPECT_TRUE(proxy.IsServiceAvailable("2048"));
    TCMessage message = MakeMessage("echo", 4, "{\"n\":1}");
    TCMessage reply;
    ASSERT_TRUE(proxy.SendMessage("2048", &message, true, &reply, -1));
    EXPECT_EQ("re:echo", reply.m_type);
    EXPECT_EQ(5u, reply.m_code);
}

TEST(DigitNames, CreatingSaysWhichNameIsUsed) {
    LogCapture capture;
    RecordingServer app("4ever", SERVER_TYPE_APP);
    ASSERT_TRUE(app.CreateDBusServer());
    CloseAtExit closer(app);
    EXPECT_EQ("_4ever.message", app.GetBusName());
    EXPECT_EQ("/_4ever/message", app.GetObjectPathName());
    EXPECT_EQ(1u,
              capture.CountFramework(
                  DLOG_WARN,
                  "bus name elements must not start with a digit: _4ever.message used instead"));
    // A gadget's name starts with its application's.
    RecordingServer gadget("g1", Quelt::SERVER_TYPE_GADGET);
    ASSERT_TRUE(gadget.CreateDBusServer());
    CloseAtExit gadgetCloser(gadget);
    EXPECT_EQ("_4ever.g1.message", gadget.GetBusName());
    EXPECT_EQ(1u, capture.CountFramework(DLOG_WARN,
                                         "bus name elements must not start with a digit: "
                                         "_4ever.g1.message used instead"));
}

TEST(DigitNames, ALegalNameIsUsedAsItIsWithoutALine) {
    LogCapture capture;
    RecordingServer app("four4", SERVER_TYPE_APP);
    ASSERT_TRUE(app.CreateDBusServer());
    CloseAtExit closer(app);
    EXPECT_EQ("four4.message", app.GetBusName());
    EXPECT_EQ(0u, CountPrefix(capture, DLOG_WARN, "bus name elements must not start"));
}

TEST(DigitNames, AGadgetInAnAppWithADigitFirstIsReachedAcrossProcesses) {
    RecordingServer app("3d", SERVER_TYPE_APP);
    ASSERT_TRUE(app.CreateDBusServer());
    CloseAtExit closer(app);
    RecordingServer gadget("9lives", Quelt::SERVER_TYPE_GADGET);
    gadget.answer = [](const TCMessage*, TCMessage* reply) { reply->SetMessage("{\"ok\":1}"); };
    ASSERT_TRUE(gadget.CreateDBusServer());
    CloseAtExit gadgetCloser(gadget);
    EXPECT_EQ("_3d._9lives.message", gadget.GetBusName());
    PeerProcess peer({"serve", "digits_peer"});
    ASSERT_TRUE(StartServingPeer(peer));
    // The peer composes the name from "3d.9lives" the same way.
    ASSERT_TRUE(peer.WriteLine("send 3d.9lives t 1 {}"));
    EXPECT_EQ("SENT 1  0 {\"ok\":1}", peer.WaitLine("SENT", kLimit, true));
}

}  // namespace
