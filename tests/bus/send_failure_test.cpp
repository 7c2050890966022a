// SPDX-License-Identifier: Apache-2.0
// Failed asynchronous sends, seen by the application: the line after
// "dbus finish fail!" that names the destination, the method and the bus
// error, and the endpoint's failure handler (SetSendFailureHandler,
// pelx_set_send_failure_cb). A missing service, a peer that dies during
// the call and a peer that answers with an error, with and without reply
// object, with and without the handler; every case across processes on the
// private bus.

#include <stdexcept>

#include "BusTestSupport.h"
#include "pelx.h"

namespace {

using namespace harvo_bus_test;
using harvo_test::LogCapture;
using Quelt::SERVER_TYPE_APP;

const char kServiceUnknown[] = "org.freedesktop.DBus.Error.ServiceUnknown";
const char kNoReply[] = "org.freedesktop.DBus.Error.NoReply";
const char kRefused[] = "org.harvo.Test.Error.Refused";
const char kRefusedText[] = "refused by the bare peer";

// What a failure handler was called with.
struct Failure {
    std::string dest, method, type;
    unsigned int code = 0;
    std::string name, text;
    void* userData = nullptr;
    GThread* thread = nullptr;
};

class FailureLog {
public:
    static void Record(const char* dest, const char* method, const char* type, unsigned int code,
                       const char* name, const char* text, void* userData) {
        FailureLog* self = static_cast<FailureLog*>(userData);
        std::lock_guard<std::mutex> guard(self->mutex_);
        self->seen_.push_back(
            Failure{dest, method, type, code, name, text, userData, g_thread_self()});
    }
    size_t Count() const {
        std::lock_guard<std::mutex> guard(mutex_);
        return seen_.size();
    }
    Failure At(size_t i) const {
        std::lock_guard<std::mutex> guard(mutex_);
        return seen_.at(i);
    }

private:
    mutable std::mutex mutex_;
    std::vector<Failure> seen_;
};

// The sending endpoint of every case, created and closed with the case.
class Sender {
public:
    explicit Sender(const std::string& name) : server(name, SERVER_TYPE_APP) {
        created = server.CreateDBusServer();
    }
    ~Sender() { server.CloseDBusServer(); }
    RecordingServer server;
    bool created = false;
};

// The framework line that follows the first line with |text| among the
// lines of its source file, or "".
std::string LineAfter(const LogCapture& capture, const std::string& text, int* prio = nullptr) {
    const NextLine next = harvo_bus_test::LineAfter(capture, text);
    if (prio != nullptr)
        *prio = next.prio;
    return next.text;
}

bool StartsWith(const std::string& text, const std::string& prefix) {
    return text.compare(0, prefix.size(), prefix) == 0;
}

// ---------------------------------------------------------------------------
// A missing service

TEST(SendFailure, MissingServiceWithReplyObjectIsLoggedAndReported) {
    Sender sender("fail_sender1");
    ASSERT_TRUE(sender.created);
    FailureLog failures;
    Quelt::SetSendFailureHandler(&sender.server, FailureLog::Record, &failures);
    LogCapture capture;

    TCMessage message = MakeMessage("greet", 41, "{\"hello\":1}");
    TCMessage reply;
    ASSERT_TRUE(sender.server.SendMessage("nobody_here", &message, false, &reply, -1));
    ASSERT_TRUE(PumpUntil([&] { return failures.Count() == 1; })) << capture.Dump();

    const Failure failure = failures.At(0);
    EXPECT_EQ("nobody_here", failure.dest);
    EXPECT_EQ("SendMessage", failure.method);
    EXPECT_EQ("greet", failure.type);
    EXPECT_EQ(41u, failure.code);
    EXPECT_EQ(kServiceUnknown, failure.name);
    EXPECT_NE(std::string::npos, failure.text.find("nobody_here.message")) << failure.text;
    EXPECT_EQ(std::string::npos, failure.text.find("GDBus.Error")) << failure.text;
    EXPECT_EQ(&failures, failure.userData);
    // On the sending thread's default context: this thread.
    EXPECT_EQ(g_thread_self(), failure.thread);

    EXPECT_EQ(1u, capture.CountFramework(DLOG_ERROR, "dbus finish fail!"));
    int prio = 0;
    EXPECT_EQ("asynchronous SendMessage to nobody_here failed: " + std::string(kServiceUnknown) +
                  ": " + failure.text,
              LineAfter(capture, "dbus finish fail!", &prio))
        << capture.Dump();
    EXPECT_EQ(DLOG_ERROR, prio);
    EXPECT_EQ(0u, sender.server.RepliedCount());
}

TEST(SendFailure, MissingServiceWithReplyObjectWithoutHandlerIsLogged) {
    Sender sender("fail_sender2");
    ASSERT_TRUE(sender.created);
    LogCapture capture;

    TCMessage message = MakeMessage("greet", 1, "{}");
    TCMessage reply;
    ASSERT_TRUE(sender.server.SendMessage("nobody_here", &message, false, &reply, -1));
    ASSERT_TRUE(PumpForLog(capture, DLOG_ERROR, "dbus finish fail!")) << capture.Dump();
    ASSERT_TRUE(PumpUntil([&] {
        return CountPrefix(capture, DLOG_ERROR,
                           "asynchronous SendMessage to nobody_here failed: " +
                               std::string(kServiceUnknown) + ": ") == 1;
    })) << capture.Dump();
    EXPECT_TRUE(StartsWith(LineAfter(capture, "dbus finish fail!"),
                           "asynchronous SendMessage to nobody_here failed: "));
    EXPECT_EQ(0u, sender.server.RepliedCount());
}

TEST(SendFailure, MissingServiceWithoutReplyObjectIsReportedWhenTheHandlerIsSet) {
    Sender sender("fail_sender3");
    ASSERT_TRUE(sender.created);
    FailureLog failures;
    Quelt::SetSendFailureHandler(&sender.server, FailureLog::Record, &failures);
    LogCapture capture;

    TCMessage message = MakeMessage("note", 7, "{}", {1, 2, 3});
    ASSERT_TRUE(sender.server.SendMessage("nobody_here", &message, false, nullptr, -1));
    ASSERT_TRUE(PumpUntil([&] { return failures.Count() == 1; })) << capture.Dump();
    const Failure failure = failures.At(0);
    EXPECT_EQ("nobody_here", failure.dest);
    EXPECT_EQ("SendMessageWithBuffer", failure.method);
    EXPECT_EQ("note", failure.type);
    EXPECT_EQ(7u, failure.code);
    EXPECT_EQ(kServiceUnknown, failure.name);
    EXPECT_EQ(1u, capture.CountFramework(DLOG_ERROR, "dbus finish fail!"));
    EXPECT_TRUE(StartsWith(LineAfter(capture, "dbus finish fail!"),
                           "asynchronous SendMessageWithBuffer to nobody_here failed: " +
                               std::string(kServiceUnknown) + ": "))
        << capture.Dump();
    // A reply object was not given: the reply hook is never called.
    EXPECT_EQ(0u, sender.server.RepliedCount());
}

// ---------------------------------------------------------------------------
// What peers see: "no reply expected" unless the application opted in

TEST(SendFailure, WithoutHandlerASendWithoutReplyObjectExpectsNoReplyAndStaysSilent) {
    Sender sender("fail_sender4");
    ASSERT_TRUE(sender.created);
    PeerProcess peer({"bare", "barepeer4"});
    ASSERT_TRUE(StartServingPeer(peer));
    LogCapture capture;

    TCMessage message = MakeMessage("note", 1, "{}");
    ASSERT_TRUE(sender.server.SendMessage("barepeer4", &message, false, nullptr, -1));
    EXPECT_EQ("CALL SendMessage noreply", peer.WaitLine("CALL"));
    // A later call with a reply object: its refusal comes after anything
    // the first call could have brought (one connection, in order).
    TCMessage reply;
    ASSERT_TRUE(sender.server.SendMessage("barepeer4", &message, false, &reply, -1));
    EXPECT_EQ("CALL SendMessage reply", peer.WaitLine("CALL"));
    ASSERT_TRUE(PumpUntil([&] { return CountPrefix(capture, DLOG_ERROR, "asynchronous ") == 1; }))
        << capture.Dump();
    DrainContext();
    EXPECT_EQ(1u, capture.CountFramework(DLOG_ERROR, "dbus finish fail!")) << capture.Dump();
}

TEST(SendFailure, WithHandlerASendWithoutReplyObjectExpectsAReplyAndReportsTheMethodError) {
    Sender sender("fail_sender5");
    ASSERT_TRUE(sender.created);
    FailureLog failures;
    Quelt::SetSendFailureHandler(&sender.server, FailureLog::Record, &failures);
    PeerProcess peer({"bare", "barepeer5"});
    ASSERT_TRUE(StartServingPeer(peer));
    LogCapture capture;

    TCMessage message = MakeMessage("note", 5, "{}");
    ASSERT_TRUE(sender.server.SendMessage("barepeer5", &message, false, nullptr, -1));
    EXPECT_EQ("CALL SendMessage reply", peer.WaitLine("CALL"));
    ASSERT_TRUE(PumpUntil([&] { return failures.Count() == 1; })) << capture.Dump();
    const Failure failure = failures.At(0);
    EXPECT_EQ("barepeer5", failure.dest);
    EXPECT_EQ(kRefused, failure.name);
    EXPECT_EQ(kRefusedText, failure.text);
    EXPECT_EQ("asynchronous SendMessage to barepeer5 failed: " + std::string(kRefused) + ": " +
                  kRefusedText,
              LineAfter(capture, "dbus finish fail!"))
        << capture.Dump();
    EXPECT_EQ(0u, sender.server.RepliedCount());
}

TEST(SendFailure, MethodErrorWithReplyObjectWithoutHandlerIsLogged) {
    Sender sender("fail_sender6");
    ASSERT_TRUE(sender.created);
    PeerProcess peer({"bare", "barepeer6"});
    ASSERT_TRUE(StartServingPeer(peer));
    LogCapture capture;

    TCMessage message = MakeMessage("note", 5, "{}");
    TCMessage reply;
    ASSERT_TRUE(sender.server.SendMessage("barepeer6", &message, false, &reply, -1));
    ASSERT_TRUE(PumpForLog(capture, DLOG_ERROR,
                           "asynchronous SendMessage to barepeer6 failed: " +
                               std::string(kRefused) + ": " + kRefusedText))
        << capture.Dump();
    EXPECT_EQ(1u, capture.CountFramework(DLOG_ERROR, "dbus finish fail!"));
    EXPECT_EQ(0u, sender.server.RepliedCount());
}

TEST(SendFailure, ASuccessfulSendWithoutReplyObjectReportsNothingAndCallsNoReplyHook) {
    Sender sender("fail_sender7");
    ASSERT_TRUE(sender.created);
    FailureLog failures;
    Quelt::SetSendFailureHandler(&sender.server, FailureLog::Record, &failures);
    PeerProcess peer({"serve", "echopeer7"});
    ASSERT_TRUE(StartServingPeer(peer));
    LogCapture capture;

    TCMessage message = MakeMessage("echo", 1, "{\"n\":1}");
    ASSERT_TRUE(sender.server.SendMessage("echopeer7", &message, false, nullptr, -1));
    // The second reply comes after the first (one peer, in order).
    TCMessage reply;
    ASSERT_TRUE(sender.server.SendMessage("echopeer7", &message, false, &reply, -1));
    ASSERT_TRUE(PumpUntil([&] { return sender.server.RepliedCount() == 1; })) << capture.Dump();
    DrainContext();
    EXPECT_EQ(1u, sender.server.RepliedCount());
    EXPECT_EQ(0u, failures.Count());
    EXPECT_EQ(0u, capture.CountFramework(DLOG_ERROR, "dbus finish fail!"));
}

// ---------------------------------------------------------------------------
// A peer that dies during the call

TEST(SendFailure, PeerThatDiesDuringTheCallIsReportedAsNoReply) {
    for (bool withReply : {true, false}) {
        SCOPED_TRACE(withReply ? "with reply object" : "without reply object");
        Sender sender(withReply ? "fail_sender8a" : "fail_sender8b");
        ASSERT_TRUE(sender.created);
        FailureLog failures;
        Quelt::SetSendFailureHandler(&sender.server, FailureLog::Record, &failures);
        PeerProcess peer({"serve", "dyingpeer8"});
        ASSERT_TRUE(StartServingPeer(peer));
        LogCapture capture;

        TCMessage message = MakeMessage("exit", 9, "{}");
        TCMessage reply;
        ASSERT_TRUE(sender.server.SendMessage("dyingpeer8", &message, false,
                                              withReply ? &reply : nullptr, -1));
        ASSERT_TRUE(PumpUntil([&] { return failures.Count() == 1; })) << capture.Dump();
        const Failure failure = failures.At(0);
        EXPECT_EQ("dyingpeer8", failure.dest);
        EXPECT_EQ(kNoReply, failure.name);
        EXPECT_EQ("exit", failure.type);
        EXPECT_EQ(9u, failure.code);
        EXPECT_EQ("asynchronous SendMessage to dyingpeer8 failed: " + std::string(kNoReply) + ": " +
                      failure.text,
                  LineAfter(capture, "dbus finish fail!"))
            << capture.Dump();
        EXPECT_NE(-1, peer.WaitExit());
    }
}

// ---------------------------------------------------------------------------
// The handler: its thread, removal, exceptions, and the endpoint's close

TEST(SendFailure, HandlerRunsOnTheSendingThreadsDefaultContext) {
    Sender sender("fail_sender9");
    ASSERT_TRUE(sender.created);
    FailureLog failures;
    Quelt::SetSendFailureHandler(&sender.server, FailureLog::Record, &failures);
    GThread* worker = nullptr;
    bool pumped = false;
    std::thread thread([&] {
        worker = g_thread_self();
        GMainContext* context = g_main_context_new();
        g_main_context_push_thread_default(context);
        TCMessage message = MakeMessage("t", 1, "{}");
        TCMessage reply;
        if (sender.server.SendMessage("nobody_here", &message, false, &reply, -1))
            pumped = PumpUntil([&] { return failures.Count() == 1; }, kLimit, context);
        g_main_context_pop_thread_default(context);
        g_main_context_unref(context);
    });
    thread.join();
    ASSERT_TRUE(pumped);
    EXPECT_EQ(worker, failures.At(0).thread);
}

TEST(SendFailure, ANullHandlerRemovesIt) {
    Sender sender("fail_sender10");
    ASSERT_TRUE(sender.created);
    FailureLog failures;
    Quelt::SetSendFailureHandler(&sender.server, FailureLog::Record, &failures);
    Quelt::SetSendFailureHandler(&sender.server, nullptr, nullptr);
    PeerProcess peer({"bare", "barepeer10"});
    ASSERT_TRUE(StartServingPeer(peer));
    LogCapture capture;

    TCMessage message = MakeMessage("note", 1, "{}");
    TCMessage reply;
    ASSERT_TRUE(sender.server.SendMessage("barepeer10", &message, false, nullptr, -1));
    // Without a handler again: "no reply expected", as before.
    EXPECT_EQ("CALL SendMessage noreply", peer.WaitLine("CALL"));
    ASSERT_TRUE(sender.server.SendMessage("barepeer10", &message, false, &reply, -1));
    ASSERT_TRUE(PumpForLog(capture, DLOG_ERROR, "dbus finish fail!")) << capture.Dump();
    EXPECT_EQ(0u, failures.Count());
}

TEST(SendFailure, NullServerIsRefusedWithALine) {
    LogCapture capture;
    Quelt::SetSendFailureHandler(nullptr, FailureLog::Record, nullptr);
    EXPECT_EQ(1u, capture.CountFramework(DLOG_WARN, "server is null"));
}

void Throwing(const char*, const char*, const char*, unsigned int, const char*, const char*,
              void* called) {
    static_cast<std::atomic<int>*>(called)->fetch_add(1);
    throw std::runtime_error("handler broke");
}

TEST(SendFailure, AnExceptionFromTheHandlerIsCaughtAndLogged) {
    Sender sender("fail_sender11");
    ASSERT_TRUE(sender.created);
    std::atomic<int> called{0};
    Quelt::SetSendFailureHandler(&sender.server, Throwing, &called);
    LogCapture capture;
    TCMessage message = MakeMessage("t", 1, "{}");
    ASSERT_TRUE(sender.server.SendMessage("nobody_here", &message, false, nullptr, -1));
    ASSERT_TRUE(
        PumpForLog(capture, DLOG_ERROR, "exception from the send failure handler: handler broke"))
        << capture.Dump();
    EXPECT_EQ(1, called.load());
}

TEST(SendFailure, AFailureAfterTheCloseIsDroppedLikeALateReply) {
    FailureLog failures;
    PeerProcess peer({"serve", "holdpeer12"});
    ASSERT_TRUE(StartServingPeer(peer));
    LogCapture capture;
    {
        Sender sender("fail_sender12");
        ASSERT_TRUE(sender.created);
        Quelt::SetSendFailureHandler(&sender.server, FailureLog::Record, &failures);
        TCMessage message = MakeMessage("hold", 1, "{}");
        ASSERT_TRUE(sender.server.SendMessage("holdpeer12", &message, false, nullptr, -1));
        EXPECT_EQ("HOLDING", peer.WaitLine("HOLDING"));
    }  // closed and deleted while the call waits
    kill(peer.Pid(), SIGKILL);
    ASSERT_TRUE(PumpForLog(capture, DLOG_WARN,
                           "late reply for fail_sender12 dropped: the endpoint was closed"))
        << capture.Dump();
    EXPECT_EQ(0u, failures.Count());
    EXPECT_EQ(0u, capture.CountFramework(DLOG_ERROR, "dbus finish fail!"));
}

TEST(SendFailure, TheHandlerStaysAcrossCloseAndCreate) {
    Sender sender("fail_sender13");
    ASSERT_TRUE(sender.created);
    FailureLog failures;
    Quelt::SetSendFailureHandler(&sender.server, FailureLog::Record, &failures);
    sender.server.CloseDBusServer();
    ASSERT_TRUE(sender.server.CreateDBusServer());
    TCMessage message = MakeMessage("t", 1, "{}");
    ASSERT_TRUE(sender.server.SendMessage("nobody_here", &message, false, nullptr, -1));
    ASSERT_TRUE(PumpUntil([&] { return failures.Count() == 1; }));
}

TEST(SendFailure, InProcessSendsNeverFail) {
    Sender sender("fail_sender14");
    ASSERT_TRUE(sender.created);
    RecordingServer receiver("fail_receiver14", Quelt::SERVER_TYPE_GADGET);
    ASSERT_TRUE(receiver.CreateDBusServer());
    CloseAtExit closer(receiver);
    FailureLog failures;
    Quelt::SetSendFailureHandler(&sender.server, FailureLog::Record, &failures);
    TCMessage message = MakeMessage("t", 1, "{}");
    TCMessage reply;
    ASSERT_TRUE(sender.server.SendMessage("fail_receiver14", &message, true, &reply, -1));
    EXPECT_EQ(1u, receiver.ReceivedCount());
    EXPECT_EQ(0u, failures.Count());
}

// ---------------------------------------------------------------------------
// The plain-function interface

TEST(PelxSendFailure, UnknownSourceIsRefused) {
    LogCapture capture;
    EXPECT_FALSE(pelx_set_send_failure_cb("no_such_source", FailureLog::Record, nullptr));
    EXPECT_EQ(1u, capture.CountFramework(
                      DLOG_ERROR, "Couldn't find no_such_source dbus server, subscribe fail"));
    EXPECT_FALSE(pelx_set_send_failure_cb(nullptr, FailureLog::Record, nullptr));
}

TEST(PelxSendFailure, TheCallbackLearnsOfAFailedSendWithoutReplyRecord) {
    Sender sender("fail_sender15");
    ASSERT_TRUE(sender.created);
    FailureLog failures;
    ASSERT_TRUE(pelx_set_send_failure_cb("fail_sender15", FailureLog::Record, &failures));
    PeerProcess peer({"serve", "dyingpeer15"});
    ASSERT_TRUE(StartServingPeer(peer));

    pelx_message_s* message = pelx_create_message();
    pelx_set_message_type(message, strdup("exit"));
    pelx_set_message_info(message, strdup("{}"));
    pelx_set_message_code(message, 15);
    EXPECT_TRUE(pelx_send_message("fail_sender15", "dyingpeer15", message, nullptr));
    ASSERT_TRUE(PumpUntil([&] { return failures.Count() == 1; }));
    EXPECT_EQ(kNoReply, failures.At(0).name);
    EXPECT_EQ("exit", failures.At(0).type);
    EXPECT_EQ(15u, failures.At(0).code);

    // Removed with a null callback: the next send expects no reply again.
    ASSERT_TRUE(pelx_set_send_failure_cb("fail_sender15", nullptr, nullptr));
    PeerProcess bare({"bare", "barepeer15"});
    ASSERT_TRUE(StartServingPeer(bare));
    EXPECT_TRUE(pelx_send_message("fail_sender15", "barepeer15", message, nullptr));
    EXPECT_EQ("CALL SendMessage noreply", bare.WaitLine("CALL"));
    pelx_destroy_message(message);
}

}  // namespace
