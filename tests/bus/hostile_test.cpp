// SPDX-License-Identifier: Apache-2.0
// A hostile or buggy peer against an endpoint: payloads of foreign shapes
// (requests and signals), buffers as stock tools send them, application
// code that throws, names that cannot become bus names, and a service that
// must be ready to answer as soon as its name is seen owned.

#include <dlog.h>

#include <stdexcept>
#include <string>
#include <vector>

#include "BusTestSupport.h"
#include "LogCapture.h"
#include "TCServer.h"

namespace {

using harvo_bus_test::CloseAtExit;
using harvo_bus_test::ExitedWith;
using harvo_bus_test::IndexOf;
using harvo_bus_test::kLimit;
using harvo_bus_test::NewSecondConnection;
using harvo_bus_test::PeerProcess;
using harvo_bus_test::PumpForLog;
using harvo_bus_test::PumpUntil;
using harvo_bus_test::RecordingServer;
using harvo_bus_test::RunTool;
using harvo_bus_test::SettleSubscriptions;
using harvo_bus_test::StartServingPeer;
using harvo_bus_test::ToolResult;
using harvo_test::LogCapture;
using Quelt::SERVER_TYPE_APP;
using Quelt::SERVER_TYPE_GADGET;
using Quelt::SERVER_TYPE_PROXY;
using Quelt::TCMessage;
using Quelt::TCServer;
using Quelt::TCServerTestPeer;

const char kErrorBody[] = "{\"dbus_result\":\"fail\",\"errmsg\":\"error handling\"}";

// The outcome of one raw call: the reply's type string and body text, or
// the D-Bus error's text.
struct RawReply {
    bool done = false;
    std::string shape;
    std::string from;
    std::string body;
    std::string error;
};

void StoreRawReply(GObject* source, GAsyncResult* result, gpointer data) {
    RawReply* reply = static_cast<RawReply*>(data);
    GError* error = nullptr;
    GVariant* answer = g_dbus_connection_call_finish(G_DBUS_CONNECTION(source), result, &error);
    if (answer != nullptr) {
        reply->shape = g_variant_get_type_string(answer);
        if (g_variant_is_of_type(answer, G_VARIANT_TYPE("(sussa(y))"))) {
            const gchar* from = nullptr;
            const gchar* text = nullptr;
            g_variant_get(answer, "(&sus&s@a(y))", &from, nullptr, nullptr, &text, nullptr);
            reply->from = from;
            reply->body = text;
        }
        g_variant_unref(answer);
    } else {
        reply->error = error != nullptr ? error->message : "?";
        if (error != nullptr)
            g_error_free(error);
    }
    reply->done = true;
}

// An application endpoint "hostile" in this process, answering like an
// echo (type "throw" makes its handler throw), and a second connection
// that plays the foreign peer.
class Hostile : public ::testing::Test {
protected:
    void SetUp() override {
        server_.answer = [](const TCMessage* message, TCMessage* reply) {
            if (message->m_type == "throw")
                throw std::runtime_error("asked to throw");
            if (message->m_type == "throw-int")
                throw 42;
            reply->m_type = "re:" + message->m_type;
            reply->SetMessage(message->GetString());
        };
        ASSERT_TRUE(server_.CreateDBusServer());
        ASSERT_TRUE(PumpUntil([&] { return server_.IsServiceAvailable("hostile"); }));
        other_ = NewSecondConnection();
        ASSERT_NE(other_, nullptr);
    }
    void TearDown() override {
        if (other_ != nullptr) {
            g_dbus_connection_close_sync(other_, nullptr, nullptr);
            g_object_unref(other_);
        }
        server_.CloseDBusServer();
    }

    // Calls |method| of "hostile" with |payload| (floating, consumed).
    RawReply Call(const char* method, GVariant* payload) {
        RawReply reply;
        g_dbus_connection_call(other_, "hostile.message", "/hostile/message", "hostile.message",
                               method, payload, nullptr, G_DBUS_CALL_FLAGS_NONE, -1, nullptr,
                               StoreRawReply, &reply);
        EXPECT_TRUE(PumpUntil([&] { return reply.done; }));
        return reply;
    }

    // A request with |buffer| (floating) as its fifth field.
    RawReply CallWithBuffer(GVariant* buffer) {
        return Call("SendMessageWithBuffer",
                    g_variant_new("(suss@*)", "foreign", 5u, "echo", "{\"n\":1}", buffer));
    }

    RecordingServer server_{"hostile", SERVER_TYPE_APP};
    GDBusConnection* other_ = nullptr;
};

std::string Refusal(const std::string& shape) {
    return "refused payload " + shape +
           " of SendMessageWithBuffer: not (suss), (sussa(y)) or (sussay)";
}

TEST_F(Hostile, BuffersThatAreNotBytesGetTheErrorReplyAndNeverReachTheHandler) {
    struct Case {
        const char* shape;
        GVariant* buffer;
    };
    const char* strings[] = {"a", "b"};
    std::vector<Case> cases = {
        {"(sussas)", g_variant_new_strv(strings, 2)},
        {"(sussa(yy))", g_variant_new_parsed("[(byte 1, byte 2)]")},
        {"(sussa(s))", g_variant_new_parsed("[('x',)]")},
        {"(sussai)", g_variant_new_parsed("[1, 2]")},
        {"(sussa{sv})", g_variant_new_parsed("@a{sv} {'k': <1>}")},
        {"(sussa(y)y)", nullptr},  // a wrong tuple: one field too many, built below
    };
    for (const Case& c : cases) {
        LogCapture capture;
        RawReply reply;
        if (c.buffer != nullptr) {
            reply = CallWithBuffer(c.buffer);
        } else {
            // The bus checks the argument count against the interface, so a
            // wrong tuple ends as the bus's own error, before the handler.
            reply = Call("SendMessageWithBuffer",
                         g_variant_new_parsed("('f', @u 1, 't', '{}', [(byte 1,)], byte 2)"));
            EXPECT_NE(reply.error.find("InvalidArgs"), std::string::npos) << reply.error;
            continue;
        }
        EXPECT_EQ(reply.error, "") << c.shape;
        EXPECT_EQ(reply.shape, "(sussa(y))") << c.shape;
        EXPECT_EQ(reply.from, "") << c.shape;
        EXPECT_EQ(reply.body, kErrorBody) << c.shape;
        EXPECT_EQ(capture.CountFramework(DLOG_WARN, Refusal(c.shape)), 1u) << capture.Dump();
        EXPECT_FALSE(capture.HasFramework(DLOG_INFO, "from[null] [null]")) << c.shape;
    }
    EXPECT_EQ(server_.ReceivedCount(), 0u);
    // Still serving.
    RawReply good = CallWithBuffer(g_variant_new_parsed("[(byte 7,), (byte 8,)]"));
    EXPECT_EQ(good.body, "{\"n\":1}");
    ASSERT_EQ(server_.ReceivedCount(), 1u);
    EXPECT_EQ(server_.Received(0).buffer, (std::vector<unsigned char>{7, 8}));
}

TEST_F(Hostile, APlainByteArrayIsTakenAsTheBuffer) {
    LogCapture capture;
    RawReply reply = CallWithBuffer(g_variant_new_parsed("[byte 1, 2, 255]"));
    EXPECT_EQ(reply.error, "");
    EXPECT_EQ(reply.body, "{\"n\":1}");
    ASSERT_EQ(server_.ReceivedCount(), 1u);
    EXPECT_EQ(server_.Received(0).from, "foreign");
    EXPECT_EQ(server_.Received(0).type, "echo");
    EXPECT_EQ(server_.Received(0).code, 5u);
    EXPECT_EQ(server_.Received(0).buffer, (std::vector<unsigned char>{1, 2, 255}));
    EXPECT_TRUE(capture.HasFramework(DLOG_INFO, "from[foreign] [{\"n\":1}]"));
    // The single zero byte means "no buffer" here as in the framework's own
    // shape.
    CallWithBuffer(g_variant_new_parsed("[byte 0]"));
    ASSERT_EQ(server_.ReceivedCount(), 2u);
    EXPECT_TRUE(server_.Received(1).buffer.empty());
}

TEST_F(Hostile, DbusSendWithAByteArrayFromAnotherProcess) {
    const ToolResult sent =
        RunTool({"dbus-send", "--system", "--print-reply", "--dest=hostile.message",
                 "/hostile/message", "hostile.message.SendMessageWithBuffer", "string:shell",
                 "uint32:3", "string:bytes", "string:{}", "array:byte:1,2"});
    ASSERT_TRUE(ExitedWith(sent, 0)) << sent.err;
    ASSERT_EQ(server_.ReceivedCount(), 1u);
    EXPECT_EQ(server_.Received(0).from, "shell");
    EXPECT_EQ(server_.Received(0).buffer, (std::vector<unsigned char>{1, 2}));

    LogCapture capture;
    const ToolResult strings =
        RunTool({"dbus-send", "--system", "--print-reply", "--dest=hostile.message",
                 "/hostile/message", "hostile.message.SendMessageWithBuffer", "string:shell",
                 "uint32:3", "string:bytes", "string:{}", "array:string:a,b"});
    ASSERT_TRUE(ExitedWith(strings, 0)) << strings.err;
    EXPECT_NE(strings.out.find(kErrorBody), std::string::npos) << strings.out;
    EXPECT_EQ(capture.CountFramework(DLOG_WARN, Refusal("(sussas)")), 1u) << capture.Dump();
    EXPECT_EQ(server_.ReceivedCount(), 1u);
}

TEST_F(Hostile, AHandlerThatThrowsIsAnsweredWithTheErrorReply) {
    LogCapture capture;
    RawReply thrown = Call("SendMessage", g_variant_new("(suss)", "foreign", 1u, "throw", "{}"));
    EXPECT_EQ(thrown.error, "");
    EXPECT_EQ(thrown.body, kErrorBody);
    EXPECT_EQ(
        capture.CountFramework(DLOG_ERROR, "exception from IfMessageReceived: asked to throw"), 1u)
        << capture.Dump();
    const auto lines = capture.Framework("exception from IfMessageReceived: asked to throw");
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].func, "m_HandleMsg");

    RawReply other = Call("SendMessage", g_variant_new("(suss)", "foreign", 1u, "throw-int", "{}"));
    EXPECT_EQ(other.body, kErrorBody);
    EXPECT_TRUE(
        capture.HasFramework(DLOG_ERROR, "exception from IfMessageReceived: not a std::exception"));
    // The loop goes on.
    RawReply good =
        Call("SendMessage", g_variant_new("(suss)", "foreign", 1u, "echo", "{\"k\":2}"));
    EXPECT_EQ(good.body, "{\"k\":2}");
    EXPECT_EQ(good.from, "hostile");
}

// A server whose event-IO choice throws.
class ThrowingChooser : public RecordingServer {
public:
    using RecordingServer::RecordingServer;
    bool IfHandleInEventIO(const char*, const TCMessage*, Quelt::TCEventIO**) override {
        throw std::logic_error("no queue for you");
    }
};

TEST(HostileHooks, IfHandleInEventIOThatThrowsIsAnsweredWithTheErrorReply) {
    ThrowingChooser server("chooser", SERVER_TYPE_APP);
    ASSERT_TRUE(server.CreateDBusServer());
    CloseAtExit closer(server);
    LogCapture capture;
    const ToolResult sent = RunTool({"gdbus", "call", "--system", "--dest", "chooser.message",
                                     "--object-path", "/chooser/message", "--method",
                                     "chooser.message.SendMessage", "me", "1", "x", "{}"});
    ASSERT_TRUE(ExitedWith(sent, 0)) << sent.err;
    EXPECT_NE(sent.out.find(kErrorBody), std::string::npos) << sent.out;
    EXPECT_TRUE(
        capture.HasFramework(DLOG_ERROR, "exception from IfHandleInEventIO: no queue for you"));
    EXPECT_EQ(server.ReceivedCount(), 0u);
}

// ---------------------------------------------------------------------------
// Signals

struct Inbox {
    std::atomic<int> count{0};
    std::vector<std::string> froms;
    std::vector<std::vector<unsigned char>> buffers;
    bool throwing = false;
};

void Collect(const char* from, const char*, TCMessage* message, void* data) {
    Inbox* inbox = static_cast<Inbox*>(data);
    inbox->froms.push_back(from != nullptr ? from : "(null)");
    inbox->buffers.push_back(harvo_bus_test::BufferOf(*message));
    inbox->count.fetch_add(1);
    if (inbox->throwing)
        throw std::runtime_error("callback refuses");
}

class HostileSignals : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(sub_.CreateDBusServer());
        // From any sender: dbus-send owns no name, and a subscription to
        // "foe" hears only the connection that owns foe's bus name.
        ASSERT_TRUE(sub_.SubscribeSignal(nullptr, "tick", Collect, &inbox_));
        SettleSubscriptions(sub_);
    }
    void TearDown() override { sub_.CloseDBusServer(); }

    ToolResult Emit(const std::vector<std::string>& args) {
        std::vector<std::string> argv = {"dbus-send", "--system", "--type=signal", "/foe/message",
                                         "foe.message.tick"};
        argv.insert(argv.end(), args.begin(), args.end());
        return RunTool(argv);
    }

    RecordingServer sub_{"listener", SERVER_TYPE_APP};
    Inbox inbox_;
};

TEST_F(HostileSignals, SignalsOfAWrongShapeAreDroppedWithAWarning) {
    LogCapture capture;
    ASSERT_TRUE(ExitedWith(Emit({"array:string:a,b"}), 0));
    ASSERT_TRUE(ExitedWith(Emit({"string:only"}), 0));
    ASSERT_TRUE(
        ExitedWith(Emit({"string:f", "uint32:1", "string:t", "string:{}", "array:int32:1"}), 0));
    // gdbus emit: a buffer of two-byte structures.
    const ToolResult pairs =
        RunTool({"gdbus", "emit", "--system", "--object-path", "/foe/message", "--signal",
                 "foe.message.tick", "'f'", "uint32 1", "'t'", "'{}'", "[(byte 1, byte 2)]"});
    ASSERT_TRUE(ExitedWith(pairs, 0)) << pairs.err;
    // A good one last: signals arrive in order, so once it is in, every
    // bad one has been handled.
    ASSERT_TRUE(ExitedWith(Emit({"string:foe", "uint32:1", "string:t", "string:{}"}), 0));
    ASSERT_TRUE(PumpUntil([&] { return inbox_.count.load() == 1; }));
    EXPECT_EQ(inbox_.froms.at(0), "foe");
    for (const char* shape : {"(as)", "(s)", "(sussai)", "(sussa(yy))"}) {
        EXPECT_EQ(
            capture.CountFramework(DLOG_WARN, std::string("dropped signal foe.message.tick: "
                                                          "payload ") +
                                                  shape + " is not (suss), (sussa(y)) or (sussay)"),
            1u)
            << shape << capture.Dump();
    }
}

TEST_F(HostileSignals, AByteArrayBufferIsDelivered) {
    ASSERT_TRUE(
        ExitedWith(Emit({"string:foe", "uint32:1", "string:t", "string:{}", "array:byte:1,2"}), 0));
    ASSERT_TRUE(PumpUntil([&] { return inbox_.count.load() == 1; }));
    EXPECT_EQ(inbox_.froms.at(0), "foe");
    EXPECT_EQ(inbox_.buffers.at(0), (std::vector<unsigned char>{1, 2}));
}

TEST_F(HostileSignals, ACallbackThatThrowsIsReportedAndTheNextSignalArrives) {
    inbox_.throwing = true;
    LogCapture capture;
    ASSERT_TRUE(ExitedWith(Emit({"string:foe", "uint32:1", "string:t", "string:{}"}), 0));
    ASSERT_TRUE(
        PumpForLog(capture, DLOG_ERROR, "exception from signal callback: callback refuses"));
    const auto lines = capture.Framework("exception from signal callback: callback refuses");
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].func, "m_DSignalHandler");
    inbox_.throwing = false;
    ASSERT_TRUE(ExitedWith(Emit({"string:foe", "uint32:2", "string:t", "string:{}"}), 0));
    ASSERT_TRUE(PumpUntil([&] { return inbox_.count.load() == 2; }));
}

// ---------------------------------------------------------------------------
// Names

// GLib's critical warnings end the test program: a name must be refused
// before GDBus sees it.
class FatalCriticals : public ::testing::Test {
protected:
    void SetUp() override {
        previous_ = g_log_set_always_fatal(
            static_cast<GLogLevelFlags>(G_LOG_LEVEL_ERROR | G_LOG_LEVEL_CRITICAL));
    }
    void TearDown() override { g_log_set_always_fatal(previous_); }
    GLogLevelFlags previous_ = G_LOG_LEVEL_ERROR;
};

TEST_F(FatalCriticals, NamesThatCannotBecomeBusNamesAreRefused) {
    const std::string tooLong(300, 'n');
    struct Case {
        std::string name;
        std::string busName;
    };
    const std::vector<Case> cases = {
        {"a..b", "a..b.message"}, {"", ".message"},          {".lead", ".lead.message"},
        {"x.", "x..message"},     {"4..b", "_4..b.message"}, {tooLong, tooLong + ".message"},
    };
    for (const Case& c : cases) {
        for (auto type : {SERVER_TYPE_APP, SERVER_TYPE_PROXY}) {
            LogCapture capture;
            RecordingServer server(c.name, type);
            EXPECT_FALSE(server.CreateDBusServer()) << c.name;
            const std::string line = "endpoint name '" + c.name + "' cannot be used on the bus: '" +
                                     c.busName + "' is not a valid bus name";
            EXPECT_EQ(capture.CountFramework(DLOG_ERROR, line), 1u) << capture.Dump();
            EXPECT_FALSE(TCServerTestPeer::Created(server));
            EXPECT_EQ(TCServerTestPeer::OwnerId(server), 0u);
            EXPECT_EQ(TCServerTestPeer::RegistrationId(server), 0u);
            EXPECT_EQ(TCServerTestPeer::Registry().count(c.name), 0u);
            server.CloseDBusServer();
        }
    }
}

TEST_F(FatalCriticals, AGadgetWhoseComposedNameIsInvalidIsRefused) {
    RecordingServer app("host", SERVER_TYPE_APP);
    ASSERT_TRUE(app.CreateDBusServer());
    CloseAtExit closer(app);
    LogCapture capture;
    RecordingServer gadget("2nd.", SERVER_TYPE_GADGET);
    EXPECT_FALSE(gadget.CreateDBusServer());
    EXPECT_TRUE(capture.HasFramework(DLOG_ERROR,
                                     "endpoint name '2nd.' cannot be used on the bus: "
                                     "'host._2nd..message' is not a valid bus name"));
    gadget.CloseDBusServer();
    // Legal names still work, formatted as before.
    RecordingServer fine("my gadget-1", SERVER_TYPE_GADGET);
    EXPECT_TRUE(fine.CreateDBusServer());
    fine.CloseDBusServer();
}

// ---------------------------------------------------------------------------
// Ready before announced

TEST(ReadyBeforeAnnounced, TheObjectIsExportedBeforeTheNameIsRequested) {
    LogCapture capture;
    RecordingServer server("early", SERVER_TYPE_APP);
    ASSERT_TRUE(server.CreateDBusServer());
    CloseAtExit closer(server);
    const int registered = IndexOf(
        capture, "Get register id : " + std::to_string(TCServerTestPeer::RegistrationId(server)));
    const int requested = IndexOf(capture, "RequestName(early.message) success : " +
                                               std::to_string(TCServerTestPeer::OwnerId(server)));
    ASSERT_GE(registered, 0) << capture.Dump();
    ASSERT_GE(requested, 0) << capture.Dump();
    EXPECT_LT(registered, requested);
    // Everything a call needs is in place when the name is requested.
    EXPECT_EQ(TCServerTestPeer::Registry().count("early"), 1u);
}

void OnAppeared(GDBusConnection*, const gchar*, const gchar*, gpointer data) {
    *static_cast<bool*>(data) = true;
}

void OnVanished(GDBusConnection*, const gchar*, gpointer data) {
    *static_cast<bool*>(data) = false;
}

// Another process starts the service; as soon as this process sees its name
// owned it calls, many times over. No call may find the object missing.
TEST(ReadyBeforeAnnounced, ACallerThatSeesTheNameOwnedNeverFindsTheObjectMissing) {
    GDBusConnection* watcher = NewSecondConnection();
    ASSERT_NE(watcher, nullptr);
    const int kRounds = 30;
    for (int round = 0; round < kRounds; ++round) {
        bool appeared = false;
        const guint watch =
            g_bus_watch_name_on_connection(watcher, "prompt.message", G_BUS_NAME_WATCHER_FLAGS_NONE,
                                           OnAppeared, OnVanished, &appeared, nullptr);
        PeerProcess peer({"serve", "prompt"});
        ASSERT_TRUE(PumpUntil([&] { return appeared; })) << "round " << round;
        // At once, from the name-owner watch's callback turn.
        GError* error = nullptr;
        GVariant* answer = g_dbus_connection_call_sync(
            watcher, "prompt.message", "/prompt/message", "prompt.message", "SendMessage",
            g_variant_new("(suss)", "watcher", 1u, "echo", "{}"), nullptr, G_DBUS_CALL_FLAGS_NONE,
            static_cast<int>(kLimit.count()), nullptr, &error);
        EXPECT_NE(answer, nullptr)
            << "round " << round << ": " << (error != nullptr ? error->message : "");
        if (answer != nullptr)
            g_variant_unref(answer);
        if (error != nullptr)
            g_error_free(error);
        peer.Terminate();
        // The next round must not see this round's owner.
        EXPECT_TRUE(PumpUntil([&] { return !appeared; })) << "round " << round;
        g_bus_unwatch_name(watch);
    }
    g_dbus_connection_close_sync(watcher, nullptr, nullptr);
    g_object_unref(watcher);
}

// The peer in another process, reached with stock tools: a byte array is
// its buffer, a string array is refused with the error reply.
TEST(HostilePeerProcess, StockToolsAgainstAnEndpointInAnotherProcess) {
    PeerProcess peer({"serve", "far"});
    ASSERT_TRUE(StartServingPeer(peer));
    const ToolResult bytes =
        RunTool({"dbus-send", "--system", "--print-reply", "--dest=far.message", "/far/message",
                 "far.message.SendMessageWithBuffer", "string:shell", "uint32:3", "string:info",
                 "string:{}", "array:byte:1,2"});
    ASSERT_TRUE(ExitedWith(bytes, 0)) << bytes.err;
    EXPECT_NE(bytes.out.find("\"from\":\"shell\""), std::string::npos) << bytes.out;
    EXPECT_NE(bytes.out.find("\"size\":2"), std::string::npos) << bytes.out;
    EXPECT_NE(bytes.out.find("\"sum\":3"), std::string::npos) << bytes.out;
    const ToolResult strings =
        RunTool({"dbus-send", "--system", "--print-reply", "--dest=far.message", "/far/message",
                 "far.message.SendMessageWithBuffer", "string:shell", "uint32:3", "string:info",
                 "string:{}", "array:string:x"});
    ASSERT_TRUE(ExitedWith(strings, 0)) << strings.err;
    EXPECT_NE(strings.out.find(kErrorBody), std::string::npos) << strings.out;
    // Still serving; the refused call was not counted.
    const ToolResult again = RunTool(
        {"dbus-send", "--system", "--print-reply", "--dest=far.message", "/far/message",
         "far.message.SendMessage", "string:shell", "uint32:3", "string:info", "string:{}"});
    ASSERT_TRUE(ExitedWith(again, 0)) << again.err;
    EXPECT_NE(again.out.find("\"count\":2"), std::string::npos) << again.out;
}

}  // namespace
