// SPDX-License-Identifier: Apache-2.0
// Only the owner speaks for an endpoint: signals of a named sender come only
// from the connection that owns its bus name, and a request whose "from"
// names a live endpoint is refused unless the caller owns that endpoint's
// name. Every case runs across real processes on the private bus, with raw
// GDBus clients (connections that own no endpoint) and stock tools as the
// impostors.

#include "BusTestSupport.h"

namespace {

using namespace harvo_bus_test;
using harvo_test::LogCapture;
using Quelt::SERVER_TYPE_APP;
using Quelt::SERVER_TYPE_GADGET;

const char kErrorBody[] = "{\"dbus_result\":\"fail\",\"errmsg\":\"error handling\"}";

// What a signal callback saw, in order.
struct Inbox {
    std::mutex mutex;
    std::vector<std::pair<std::string, std::string>> seen;  // from, text

    size_t Count() {
        std::lock_guard<std::mutex> guard(mutex);
        return seen.size();
    }
    std::pair<std::string, std::string> At(size_t i) {
        std::lock_guard<std::mutex> guard(mutex);
        return seen.at(i);
    }
};

void Collect(const char* from, const char*, TCMessage* message, void* data) {
    Inbox* inbox = static_cast<Inbox*>(data);
    std::lock_guard<std::mutex> guard(inbox->mutex);
    inbox->seen.emplace_back(from != nullptr ? from : "(null)", message->GetString());
}

// A connection of this process that owns no endpoint: the impostor.
class RawClient {
public:
    RawClient() : connection_(NewSecondConnection()) {}
    ~RawClient() {
        if (connection_ != nullptr) {
            g_dbus_connection_close_sync(connection_, nullptr, nullptr);
            g_object_unref(connection_);
        }
    }
    RawClient(const RawClient&) = delete;
    RawClient& operator=(const RawClient&) = delete;

    bool Ok() const { return connection_ != nullptr; }
    GDBusConnection* Connection() const { return connection_; }
    std::string UniqueName() const { return g_dbus_connection_get_unique_name(connection_); }

    // Emits |member| on |endpoint|'s object and interface with the
    // framework's payload, claiming to be |from|; true once the bus has
    // taken it (a round trip after it on this connection).
    bool Emit(const std::string& endpoint, const std::string& member, const std::string& from,
              const std::string& text) {
        const std::string busName = endpoint + ".message";
        const std::string path = "/" + endpoint + "/message";
        if (!g_dbus_connection_emit_signal(
                connection_, nullptr, path.c_str(), busName.c_str(), member.c_str(),
                g_variant_new("(suss)", from.c_str(), 1u, "spoof", text.c_str()), nullptr)) {
            return false;
        }
        return !Owner("org.freedesktop.DBus").empty();
    }

    // Calls |endpoint|'s SendMessage claiming to be |from|; the reply's
    // message text (or the D-Bus error) lands in |replies| in order, while
    // the default main context is served.
    void Call(const std::string& endpoint, const std::string& from, const std::string& type,
              unsigned int code) {
        const std::string busName = endpoint + ".message";
        const std::string path = "/" + endpoint + "/message";
        g_dbus_connection_call(connection_, busName.c_str(), path.c_str(), busName.c_str(),
                               "SendMessage",
                               g_variant_new("(suss)", from.c_str(), code, type.c_str(), "{}"),
                               nullptr, G_DBUS_CALL_FLAGS_NONE, -1, nullptr, OnReply, this);
    }
    size_t Replies() {
        std::lock_guard<std::mutex> guard(mutex_);
        return replies_.size();
    }
    std::string Reply(size_t i) {
        std::lock_guard<std::mutex> guard(mutex_);
        return replies_.at(i);
    }

    // Asks the daemon who owns |name| ("" for nobody).
    std::string Owner(const std::string& name) {
        GVariant* answer = g_dbus_connection_call_sync(
            connection_, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
            "GetNameOwner", g_variant_new("(s)", name.c_str()), G_VARIANT_TYPE("(s)"),
            G_DBUS_CALL_FLAGS_NONE, -1, nullptr, nullptr);
        if (answer == nullptr)
            return std::string();
        const gchar* owner = nullptr;
        g_variant_get(answer, "(&s)", &owner);
        std::string result = owner;
        g_variant_unref(answer);
        return result;
    }

    // RequestName with |flags|; the daemon's answer code, 0 on error.
    guint32 RequestName(const std::string& name, guint32 flags) {
        GVariant* answer = g_dbus_connection_call_sync(
            connection_, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
            "RequestName", g_variant_new("(su)", name.c_str(), flags), G_VARIANT_TYPE("(u)"),
            G_DBUS_CALL_FLAGS_NONE, -1, nullptr, nullptr);
        guint32 code = 0;
        if (answer != nullptr) {
            g_variant_get(answer, "(u)", &code);
            g_variant_unref(answer);
        }
        return code;
    }

    // ReleaseName, without waiting for the answer: the calls that follow
    // on this connection reach the bus after it.
    void ReleaseName(const std::string& name) {
        g_dbus_connection_call(connection_, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                               "org.freedesktop.DBus", "ReleaseName",
                               g_variant_new("(s)", name.c_str()), nullptr, G_DBUS_CALL_FLAGS_NONE,
                               -1, nullptr, nullptr, nullptr);
    }

private:
    static void OnReply(GObject* source, GAsyncResult* result, gpointer data) {
        RawClient* self = static_cast<RawClient*>(data);
        GError* error = nullptr;
        GVariant* answer = g_dbus_connection_call_finish(G_DBUS_CONNECTION(source), result, &error);
        std::string text;
        if (answer == nullptr) {
            text = std::string("error: ") + error->message;
            g_error_free(error);
        } else {
            const gchar* message = nullptr;
            g_variant_get_child(answer, 3, "&s", &message);
            text = message;
            g_variant_unref(answer);
        }
        std::lock_guard<std::mutex> guard(self->mutex_);
        self->replies_.push_back(text);
    }

    GDBusConnection* connection_;
    std::mutex mutex_;
    std::vector<std::string> replies_;
};

// "UNIQUE :1.42" from a serving peer.
std::string UniqueNameOf(PeerProcess& peer) {
    if (!peer.WriteLine("whoami"))
        return std::string();
    const std::string line = peer.WaitLine("UNIQUE ", kLimit, true);
    return line.empty() ? std::string() : line.substr(7);
}

// Waits until |name| is owned by |owner| ("" for nobody).
bool WaitForOwner(RawClient& client, const std::string& name, const std::string& owner) {
    return PumpUntil([&] { return client.Owner(name) == owner; });
}

// ---------------------------------------------------------------------------
// Signals

// A subscriber of weather's "forecast" and one of everyone's, each on its
// own endpoint of this process, with the real weather in a peer process.
class NamedSignals : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(named_.CreateDBusServer());
        ASSERT_TRUE(anyone_.CreateDBusServer());
        ASSERT_TRUE(named_.SubscribeSignal("weather", "forecast", Collect, &fromWeather_));
        ASSERT_TRUE(anyone_.SubscribeSignal(nullptr, "forecast", Collect, &fromAnyone_));
        SettleSubscriptions(named_);
        ASSERT_TRUE(raw_.Ok());
    }
    void TearDown() override {
        anyone_.CloseDBusServer();
        named_.CloseDBusServer();
    }

    RecordingServer named_{"listener", SERVER_TYPE_APP};
    RecordingServer anyone_{"gossip", SERVER_TYPE_GADGET};
    Inbox fromWeather_, fromAnyone_;
    RawClient raw_;
};

TEST_F(NamedSignals, ARawClientEmittingAsTheEndpointIsNotHeard) {
    PeerProcess weather({"serve", "weather"});
    ASSERT_TRUE(StartServingPeer(weather));
    ASSERT_TRUE(WaitForOwner(raw_, "weather.message", UniqueNameOf(weather)));

    // The impostor first, then the real one.
    ASSERT_TRUE(raw_.Emit("weather", "forecast", "weather", "{\"spoofed\":true}"));
    ASSERT_TRUE(weather.WriteLine("emit forecast {\"real\":true}"));
    ASSERT_EQ(weather.WaitLine("EMITTED", kLimit, true), "EMITTED 1");

    // Everyone's subscription hears both, in order...
    ASSERT_TRUE(PumpUntil([&] { return fromAnyone_.Count() == 2 && fromWeather_.Count() >= 1; }));
    DrainContext();
    EXPECT_EQ(fromAnyone_.At(0),
              std::make_pair(std::string("weather"), std::string("{\"spoofed\":true}")));
    EXPECT_EQ(fromAnyone_.At(1),
              std::make_pair(std::string("weather"), std::string("{\"real\":true}")));
    // ...weather's only the real one.
    ASSERT_EQ(fromWeather_.Count(), 1u);
    EXPECT_EQ(fromWeather_.At(0).second, "{\"real\":true}");
}

TEST_F(NamedSignals, TheSubscriptionFollowsTheOwnerAcrossRestartsAndReplacements) {
    {
        PeerProcess first({"serve", "weather"});
        ASSERT_TRUE(StartServingPeer(first));
        ASSERT_TRUE(WaitForOwner(raw_, "weather.message", UniqueNameOf(first)));
        ASSERT_TRUE(first.WriteLine("emit forecast {\"n\":1}"));
        ASSERT_EQ(first.WaitLine("EMITTED", kLimit, true), "EMITTED 1");
        ASSERT_TRUE(PumpUntil([&] { return fromWeather_.Count() == 1; }));
    }
    // Restarted: a new connection owns the name.
    ASSERT_TRUE(WaitForOwner(raw_, "weather.message", ""));
    PeerProcess second({"serve", "weather"});
    ASSERT_TRUE(StartServingPeer(second));
    ASSERT_TRUE(WaitForOwner(raw_, "weather.message", UniqueNameOf(second)));
    ASSERT_TRUE(second.WriteLine("emit forecast {\"n\":2}"));
    ASSERT_EQ(second.WaitLine("EMITTED", kLimit, true), "EMITTED 1");
    ASSERT_TRUE(PumpUntil([&] { return fromWeather_.Count() == 2; }));

    // Replaced while it lives: the old owner is no longer weather.
    PeerProcess third({"serve", "weather"});
    const std::string thirdName = UniqueNameOf(third);
    ASSERT_TRUE(WaitForOwner(raw_, "weather.message", thirdName));
    ASSERT_TRUE(second.WriteLine("emit forecast {\"n\":\"old\"}"));
    ASSERT_EQ(second.WaitLine("EMITTED", kLimit, true), "EMITTED 1");
    raw_.Owner("org.freedesktop.DBus");  // the bus has had time to route it
    ASSERT_TRUE(third.WriteLine("emit forecast {\"n\":3}"));
    ASSERT_EQ(third.WaitLine("EMITTED", kLimit, true), "EMITTED 1");
    ASSERT_TRUE(PumpUntil([&] { return fromWeather_.Count() >= 3 && fromAnyone_.Count() == 4; }));
    DrainContext();
    ASSERT_EQ(fromWeather_.Count(), 3u);
    EXPECT_EQ(fromWeather_.At(0).second, "{\"n\":1}");
    EXPECT_EQ(fromWeather_.At(1).second, "{\"n\":2}");
    EXPECT_EQ(fromWeather_.At(2).second, "{\"n\":3}");
}

// One endpoint subscribed both ways: everyone's subscription brings the
// impostor's signal to the endpoint, which must not hand it to the named
// subscription.
TEST_F(NamedSignals, ANamedAndAnAnySenderSubscriptionOnOneEndpoint) {
    Inbox plain;
    ASSERT_TRUE(named_.SubscribeSignal(nullptr, "forecast", Collect, &plain));
    SettleSubscriptions(named_);
    PeerProcess weather({"serve", "weather"});
    ASSERT_TRUE(StartServingPeer(weather));
    const std::string owner = UniqueNameOf(weather);
    ASSERT_TRUE(WaitForOwner(raw_, "weather.message", owner));
    LogCapture capture;

    ASSERT_TRUE(raw_.Emit("weather", "forecast", "weather", "{\"spoofed\":true}"));
    ASSERT_TRUE(weather.WriteLine("emit forecast {\"real\":true}"));
    ASSERT_EQ(weather.WaitLine("EMITTED", kLimit, true), "EMITTED 1");
    ASSERT_TRUE(PumpUntil([&] { return fromAnyone_.Count() == 2 && fromWeather_.Count() == 2; }));
    DrainContext();
    // The real signal reaches the named subscription through both bus
    // subscriptions (the named entry wins over the plain one); the
    // impostor's reaches the plain one only.
    EXPECT_EQ(fromWeather_.At(0).second, "{\"real\":true}");
    EXPECT_EQ(fromWeather_.At(1).second, "{\"real\":true}");
    ASSERT_EQ(plain.Count(), 1u);
    EXPECT_EQ(plain.At(0).second, "{\"spoofed\":true}");
    const std::string impostor = raw_.UniqueName();
    EXPECT_EQ(capture.CountFramework(DLOG_WARN, "signal weather.message.forecast from " + impostor +
                                                    " not delivered as weather.message's: the "
                                                    "name is owned by " +
                                                    owner + " (1 refused from " + impostor +
                                                    " since its last line)"),
              1u)
        << capture.Dump();
}

// The owner is judged as the signal arrives, not when it is delivered: an
// endpoint that emits and leaves at once is still heard as itself by a
// subscription that the signal reaches through a subscription to any
// sender (by delivery time nobody owns the name any more).
TEST(JudgedOnArrival, AnOwnerThatLeavesRightAfterEmittingIsStillHeard) {
    RecordingServer app("late", SERVER_TYPE_APP);
    ASSERT_TRUE(app.CreateDBusServer());
    CloseAtExit closer(app);
    Inbox named, plain;
    ASSERT_TRUE(app.SubscribeSignal("shout", "bye", Collect, &named));
    ASSERT_TRUE(app.SubscribeSignal(nullptr, "bye", Collect, &plain));
    SettleSubscriptions(app);
    RawClient raw;
    ASSERT_TRUE(raw.Ok());
    PeerProcess emitter({"emit", "shout", "bye", "{\"last\":true}"});
    EXPECT_EQ(emitter.WaitExit(), 0);
    ASSERT_TRUE(WaitForOwner(raw, "shout.message", ""));
    // Only now are the deliveries made.
    ASSERT_TRUE(PumpUntil([&] { return named.Count() == 2; }));
    DrainContext();
    EXPECT_EQ(named.Count(), 2u);  // through both bus subscriptions
    EXPECT_EQ(plain.Count(), 0u);
    EXPECT_EQ(named.At(0).second, "{\"last\":true}");
}

TEST_F(NamedSignals, NobodyOwnsTheName) {
    Inbox plain;
    ASSERT_TRUE(named_.SubscribeSignal(nullptr, "forecast", Collect, &plain));
    SettleSubscriptions(named_);
    LogCapture capture;
    ASSERT_TRUE(raw_.Emit("weather", "forecast", "weather", "{\"spoofed\":true}"));
    ASSERT_TRUE(PumpUntil([&] { return plain.Count() == 1 && fromAnyone_.Count() == 1; }));
    DrainContext();
    EXPECT_EQ(fromWeather_.Count(), 0u);
    const std::string impostor = raw_.UniqueName();
    EXPECT_TRUE(capture.HasFramework(
        DLOG_WARN, "signal weather.message.forecast from " + impostor +
                       " not delivered as weather.message's: the name is owned by nobody (1 "
                       "refused from " +
                       impostor + " since its last line)"))
        << capture.Dump();
}

// ---------------------------------------------------------------------------
// Requests

class ClaimedSenders : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(svc_.CreateDBusServer());
        ASSERT_TRUE(raw_.Ok());
        ASSERT_TRUE(WaitForOwner(raw_, "svc.message", ServiceOwner()));
    }
    void TearDown() override { svc_.CloseDBusServer(); }

    std::string ServiceOwner() {
        return g_dbus_connection_get_unique_name(TCServerTestPeer::Connection(svc_));
    }
    // Waits for the raw client's |n|th reply and returns it.
    std::string ReplyNumber(size_t n) {
        if (!PumpUntil([&] { return raw_.Replies() >= n; }))
            return "(no reply)";
        return raw_.Reply(n - 1);
    }

    RecordingServer svc_{"svc", SERVER_TYPE_APP};
    RawClient raw_;
};

TEST_F(ClaimedSenders, ARawClientClaimingALiveEndpointIsRefused) {
    PeerProcess alice({"serve", "alice"});
    ASSERT_TRUE(StartServingPeer(alice));
    const std::string aliceName = UniqueNameOf(alice);
    ASSERT_TRUE(WaitForOwner(raw_, "alice.message", aliceName));
    LogCapture capture;

    raw_.Call("svc", "alice", "echo", 1);
    EXPECT_EQ(ReplyNumber(1), kErrorBody);
    EXPECT_EQ(svc_.ReceivedCount(), 0u);
    const std::string impostor = raw_.UniqueName();
    EXPECT_EQ(capture.CountFramework(DLOG_WARN, "request for svc refused: " + impostor +
                                                    " claims to be alice, whose bus name "
                                                    "alice.message is owned by " +
                                                    aliceName + " (1 refused from " + impostor +
                                                    " since its last line)"),
              1u)
        << capture.Dump();

    // alice herself is heard as alice.
    ASSERT_TRUE(alice.WriteLine("send svc echo 2 {}"));
    EXPECT_EQ(alice.WaitLine("SENT", kLimit, true), "SENT 1  0 ");
    ASSERT_EQ(svc_.ReceivedCount(), 1u);
    EXPECT_EQ(svc_.Received(0).from, "alice");
}

TEST_F(ClaimedSenders, AFromThatNamesNoLiveEndpointIsAccepted) {
    svc_.answer = [](const TCMessage*, TCMessage* reply) { reply->SetMessage("{\"ok\":1}"); };
    raw_.Call("svc", "nobody-here", "echo", 1);
    EXPECT_EQ(ReplyNumber(1), "{\"ok\":1}");
    // Stock tools name themselves as they like.
    const ToolResult tool =
        RunTool({"gdbus", "call", "--system", "--dest", "svc.message", "--object-path",
                 "/svc/message", "--method", "svc.message.SendMessage", "cli", "7", "t", "{}"});
    EXPECT_TRUE(ExitedWith(tool, 0)) << tool.err;
    EXPECT_EQ(tool.out, "('svc', uint32 0, '', '{\"ok\":1}', [(byte 0x00,)])\n");
    ASSERT_EQ(svc_.ReceivedCount(), 2u);
    EXPECT_EQ(svc_.Received(0).from, "nobody-here");
    EXPECT_EQ(svc_.Received(1).from, "cli");
}

TEST_F(ClaimedSenders, AStockToolClaimingALiveEndpointIsRefused) {
    PeerProcess alice({"serve", "alice"});
    ASSERT_TRUE(StartServingPeer(alice));
    ASSERT_TRUE(WaitForOwner(raw_, "alice.message", UniqueNameOf(alice)));
    const ToolResult tool =
        RunTool({"gdbus", "call", "--system", "--dest", "svc.message", "--object-path",
                 "/svc/message", "--method", "svc.message.SendMessage", "alice", "7", "t", "{}"});
    EXPECT_TRUE(ExitedWith(tool, 0)) << tool.err;
    EXPECT_EQ(tool.out, std::string("('', uint32 0, '', '") + kErrorBody + "', [(byte 0x00,)])\n");
    EXPECT_EQ(svc_.ReceivedCount(), 0u);
}

TEST_F(ClaimedSenders, TheOwnerIsFollowedWhenTheEndpointEndsAndComesBack) {
    {
        PeerProcess alice({"serve", "alice"});
        ASSERT_TRUE(StartServingPeer(alice));
        ASSERT_TRUE(WaitForOwner(raw_, "alice.message", UniqueNameOf(alice)));
        raw_.Call("svc", "alice", "echo", 1);
        EXPECT_EQ(ReplyNumber(1), kErrorBody);
    }
    ASSERT_TRUE(WaitForOwner(raw_, "alice.message", ""));
    // Nobody is alice now: the claim names no live endpoint.
    raw_.Call("svc", "alice", "echo", 2);
    EXPECT_EQ(ReplyNumber(2), "");
    ASSERT_EQ(svc_.ReceivedCount(), 1u);

    PeerProcess again({"serve", "alice"});
    ASSERT_TRUE(StartServingPeer(again));
    ASSERT_TRUE(WaitForOwner(raw_, "alice.message", UniqueNameOf(again)));
    raw_.Call("svc", "alice", "echo", 3);
    EXPECT_EQ(ReplyNumber(3), kErrorBody);
    ASSERT_TRUE(again.WriteLine("send svc echo 4 {}"));
    EXPECT_EQ(again.WaitLine("SENT", kLimit, true), "SENT 1  0 ");
    EXPECT_EQ(svc_.ReceivedCount(), 2u);
}

// The request that follows a change of owner on the same connection is
// judged against the new owner: the change is taken in the order messages
// arrive, before the request is dispatched.
TEST_F(ClaimedSenders, ARequestRightAfterTakingTheNameIsJudgedAgainstTheNewOwner) {
    PeerProcess alice({"serve", "alice"});
    ASSERT_TRUE(StartServingPeer(alice));
    const std::string aliceName = UniqueNameOf(alice);
    ASSERT_TRUE(WaitForOwner(raw_, "alice.message", aliceName));
    // svc knows alice's owner already.
    ASSERT_TRUE(alice.WriteLine("send svc echo 0 {}"));
    ASSERT_EQ(alice.WaitLine("SENT", kLimit, true), "SENT 1  0 ");

    const int kRounds = 5;
    for (int round = 0; round < kRounds; ++round) {
        // The framework owns names with replacement allowed: take it over.
        ASSERT_EQ(raw_.RequestName("alice.message", 0x2 /* replace */), 1u) << round;
        raw_.Call("svc", "alice", "echo", 1);
        EXPECT_EQ(ReplyNumber(2 * round + 1), "") << round;
        // Given back: alice, queued, owns it again, and the impostor's next
        // request is refused.
        raw_.ReleaseName("alice.message");
        raw_.Call("svc", "alice", "echo", 2);
        EXPECT_EQ(ReplyNumber(2 * round + 2), kErrorBody) << round;
    }
    EXPECT_EQ(svc_.ReceivedCount(), 1u + kRounds);
}

// A gadget of this process calling its application over the bus (an
// asynchronous send with a reply object) is the process's own connection,
// which owns the gadget's prefixed bus name.
TEST_F(ClaimedSenders, EndpointsOfThisProcessReachedOverTheBus) {
    RecordingServer gadget("gad", SERVER_TYPE_GADGET);
    ASSERT_TRUE(gadget.CreateDBusServer());
    CloseAtExit closer(gadget);
    ASSERT_TRUE(WaitForOwner(raw_, "svc.gad.message", ServiceOwner()));
    svc_.answer = [](const TCMessage*, TCMessage* reply) { reply->SetMessage("{\"ok\":1}"); };
    TCMessage message = MakeMessage("echo", 1, "{}");
    TCMessage unused;
    ASSERT_TRUE(gadget.SendMessage("svc", &message, false, &unused, -1));
    ASSERT_TRUE(PumpUntil([&] { return gadget.RepliedCount() == 1; }));
    ASSERT_EQ(svc_.ReceivedCount(), 1u);
    EXPECT_EQ(svc_.Received(0).from, "gad");
    EXPECT_EQ(gadget.Replied(0).from, "svc");
    // And the impostor claiming the gadget is refused.
    raw_.Call("svc", "gad", "echo", 2);
    EXPECT_EQ(ReplyNumber(1), kErrorBody);
}

TEST_F(ClaimedSenders, RefusalWarningsAreCoalescedPerSender) {
    PeerProcess alice({"serve-quiet", "alice"});
    ASSERT_TRUE(StartServingPeer(alice));
    ASSERT_TRUE(WaitForOwner(raw_, "alice.message", UniqueNameOf(alice)));
    LogCapture capture;
    const auto start = std::chrono::steady_clock::now();
    // Refusals for a good two seconds, in batches (the bus bounds the calls
    // a connection may have waiting for replies).
    size_t calls = 0;
    while (std::chrono::steady_clock::now() - start < std::chrono::milliseconds(2500)) {
        for (int i = 0; i < 20; ++i)
            raw_.Call("svc", "alice", "echo", static_cast<unsigned>(calls++));
        ASSERT_TRUE(PumpUntil([&] { return raw_.Replies() == calls; }));
    }
    const size_t kCalls = calls;
    // The count of the last second comes with the line that closes it.
    size_t lines = 0;
    ASSERT_TRUE(PumpUntil([&] {
        return RefusalsReported(capture, "", raw_.UniqueName(), &lines) == kCalls;
    })) << RefusalsReported(capture, "", raw_.UniqueName(), &lines)
        << capture.Dump();
    const double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    // At most one line per second, the first at once.
    EXPECT_LE(static_cast<double>(lines), seconds + 1.0) << lines << " lines in " << seconds;
    EXPECT_GE(lines, 3u);
    for (size_t i = 0; i < kCalls; ++i)
        EXPECT_EQ(raw_.Reply(i), kErrorBody);
}

}  // namespace
