// SPDX-License-Identifier: Apache-2.0
// Four ways ordinary public calls used to reach a crash or a hang:
//   1. a close and a handler of the same endpoint waiting for each other;
//   2. a synchronous event whose wait ended early (or that was sent from
//      the loop's own thread) left queued after its sender returned;
//   3. name-owner callbacks delivered after the endpoint was closed and
//      deleted;
//   4. a close waiting without limit for a handler that waits for it.
#include <dlog.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "LifetimeSupport.h"
#include "LogCapture.h"
#include "TCEventIO.h"
#include "TCServer.h"
#include "event/EventTestSupport.h"

using harvo_test::LogCapture;
using lifetime_test::Gate;
using lifetime_test::HookedServer;
using lifetime_test::LoopThread;
using lifetime_test::ShortCloseWait;
using lifetime_test::ShortSyncWait;
using lifetime_test::Watched;
using Quelt::TCEvent;
using Quelt::TCEventIO;
using Quelt::TCMessage;
using Quelt::TCServer;

namespace {

using harvo_bus_test::kLimit;

// In-process endpoints: found by name, no bus name, no object.
const auto kInProcess = static_cast<Quelt::TCServerType>(7);

void IgnoreSignal(const char*, const char*, TCMessage*, void*) {}

// ---------------------------------------------------------------------------
// 1. A handler's public call on its own endpoint against a close elsewhere

struct HandlerCall {
    const char* name;
    std::function<void(HookedServer& self)> call;
};

class CloseAgainstHandler : public ::testing::TestWithParam<HandlerCall> {};

TEST_P(CloseAgainstHandler, NeitherWaitsForTheOtherForGood) {
    LogCapture capture;
    HookedServer receiver("rcv", kInProcess);
    HookedServer sender("snd", kInProcess);
    ASSERT_TRUE(receiver.CreateDBusServer());
    ASSERT_TRUE(sender.CreateDBusServer());

    Gate closeWaits;
    Gate entered;
    receiver.SetHook([&](const TCMessage*, TCMessage*) {
        entered.Open();
        closeWaits.Wait();
        GetParam().call(receiver);
    });

    // Thread B: a synchronous in-process send runs the receiver's handler.
    TCMessage request = harvo_bus_test::MakeMessage("t", 1, "{}");
    TCMessage reply;
    Watched handlerThread("the handler's thread",
                          [&] { sender.SendMessage("rcv", &request, true, &reply, -1); });
    ASSERT_TRUE(entered.WaitUntilOpen());
    // Thread A: the close, which waits for B's handler.
    Watched closer("the close", [&] { receiver.CloseDBusServer(); });
    ASSERT_TRUE(capture.WaitForFramework(
        DLOG_DEBUG, "close rcv: waiting for 1 call(s) in progress on other threads", kLimit))
        << capture.Dump();
    closeWaits.Open();

    handlerThread.Join();
    closer.Join();
    EXPECT_TRUE(capture.HasFramework(DLOG_DEBUG, "close connection and all close motion finished"));
    EXPECT_EQ(harvo_bus_test::CountPrefix(capture, DLOG_ERROR, "close rcv: still waiting"), 0u);
    receiver.CloseDBusServer();
    sender.CloseDBusServer();
}

INSTANTIATE_TEST_SUITE_P(
    PublicCalls, CloseAgainstHandler,
    ::testing::Values(
        HandlerCall{
            "Subscribe",
            [](HookedServer& self) { self.SubscribeSignal("snd", "tick", IgnoreSignal, nullptr); }},
        HandlerCall{"Unsubscribe",
                    [](HookedServer& self) { self.UnSubscribeSignal("snd", "tick"); }},
        HandlerCall{"ManagedSubscribe",
                    [](HookedServer& self) {
                        self.SubscribeManagedSignal("snd", "tick", nullptr, nullptr);
                    }},
        HandlerCall{"Send",
                    [](HookedServer& self) {
                        TCMessage message;
                        self.SendMessage("snd", &message, false, nullptr, -1);
                    }},
        HandlerCall{"Signal", [](HookedServer& self) { self.SendSignal("tick", nullptr); }},
        HandlerCall{"Close", [](HookedServer& self) { self.CloseDBusServer(); }},
        HandlerCall{"Create",
                    [](HookedServer& self) {
                        // Waits for the other close, then opens the endpoint
                        // anew (the test closes it again).
                        EXPECT_TRUE(self.CreateDBusServer());
                    }},
        HandlerCall{"Availability", [](HookedServer& self) { self.IsServiceAvailable("snd"); }}),
    [](const ::testing::TestParamInfo<HandlerCall>& info) { return info.param.name; });

// A subscription made by the handler while its endpoint closes is cancelled
// with the rest: nothing of it outlives the close.
TEST(CloseAgainstHandler, ASubscriptionMadeDuringTheCloseGoesWithIt) {
    LogCapture capture;
    HookedServer receiver("rcv", kInProcess);
    HookedServer sender("snd", kInProcess);
    ASSERT_TRUE(receiver.CreateDBusServer());
    ASSERT_TRUE(sender.CreateDBusServer());
    Gate closeWaits;
    Gate entered;
    bool subscribed = false;
    receiver.SetHook([&](const TCMessage*, TCMessage*) {
        entered.Open();
        closeWaits.Wait();
        subscribed = receiver.SubscribeSignal("snd", "tick", IgnoreSignal, nullptr);
    });
    TCMessage request;
    TCMessage reply;
    Watched handlerThread("the handler's thread",
                          [&] { sender.SendMessage("rcv", &request, true, &reply, -1); });
    ASSERT_TRUE(entered.WaitUntilOpen());
    Watched closer("the close", [&] { receiver.CloseDBusServer(); });
    ASSERT_TRUE(capture.WaitForFramework(
        DLOG_DEBUG, "close rcv: waiting for 1 call(s) in progress on other threads", kLimit));
    closeWaits.Open();
    handlerThread.Join();
    closer.Join();
    EXPECT_TRUE(subscribed);
    EXPECT_FALSE(Quelt::TCServerTestPeer::Signals(receiver).IfSignalSubscribed(Quelt::NATIVE_SIGNAL,
                                                                               "snd.message.tick"));
    sender.CloseDBusServer();
}

// ---------------------------------------------------------------------------
// 2. Synchronous events whose wait ends early

using event_test::DispatchAll;
using event_test::LocalLoop;
using event_test::RecordingIO;
using event_test::UserEvent;

const int kUser = 100;

// The sender's event goes as soon as SendSyncEvent returns: the queue runs a
// copy later and never touches the original.
TEST(SyncEventWaitEndsEarly, TheQueueRunsACopyAndNeverTouchesTheSendersEvent) {
    LogCapture capture;
    ShortSyncWait wait(200000);  // 200 ms instead of 20 s
    LocalLoop local;             // not dispatched while the sender waits
    RecordingIO io("asleep");
    ASSERT_TRUE(io.Init(local.loop));

    auto event = std::make_unique<TCEvent>(UserEvent(&io, kUser, 7));
    event->data.SetMessage("{\"n\":1}");
    const TCEvent* original = event.get();
    EXPECT_TRUE(TCEventIO::SendSyncEvent(event.get()));
    event.reset();  // the caller's event is gone

    EXPECT_EQ(1, DispatchAll(local.context));
    std::vector<event_test::Call> calls = io.log.Calls("event");
    ASSERT_EQ(1u, calls.size());
    EXPECT_NE(original, calls[0].event);
    EXPECT_EQ(kUser, calls[0].type);
    EXPECT_EQ("{\"n\":1}", calls[0].data);
    EXPECT_TRUE(calls[0].sync);
    EXPECT_EQ(0u, io.log.Count("clear"));
    EXPECT_EQ(1u,
              capture.CountFramework(DLOG_WARN,
                                     "synchronous event 100 for asleep runs on a copy: its sender "
                                     "stopped waiting for it"));
    io.Final();
}

// A handler already running on the sender's event when the wait ends keeps
// its sender: SendSyncEvent returns only once the handler has.
TEST(SyncEventWaitEndsEarly, AHandlerRunningOnTheSendersEventIsWaitedFor) {
    LogCapture capture;
    ShortSyncWait wait(100000);
    LoopThread loop;
    RecordingIO io("slow");
    loop.Run([&] { ASSERT_TRUE(io.Init(loop.Loop())); });
    Gate release;
    std::atomic<bool> handlerReturned{false};
    io.onEvent = [&](const TCEvent*) {
        release.Wait();
        handlerReturned = true;
    };
    TCEvent event = UserEvent(&io, kUser, 1);
    Watched sender("the sender", [&] {
        EXPECT_TRUE(TCEventIO::SendSyncEvent(&event));
        EXPECT_TRUE(handlerReturned.load());
    });
    ASSERT_TRUE(release.WaitForWaiters(1));
    ASSERT_TRUE(capture.WaitForFramework(
        DLOG_WARN,
        "synchronous event 100 for slow: its handler still runs when the wait ends; the sender "
        "waits for it to return",
        kLimit));
    EXPECT_FALSE(sender.Finished());
    release.Open();
    sender.Join();
    loop.Run([&] { io.Final(); });
}

// A synchronous event sent from the loop's own thread used to wait 20 s
// for itself and stay queued after its sender returned (and crashed the
// Final that then destroyed it).
TEST(SyncEventFromTheLoopsOwnThread, RunsAtOnceAndLeavesNothingQueued) {
    LogCapture capture;
    LocalLoop local;
    RecordingIO io("self");
    ASSERT_TRUE(io.Init(local.loop));

    bool innerResult = false;
    bool innerRanFirst = false;
    std::thread::id innerThread;
    io.onEvent = [&](const TCEvent* event) {
        if (event->type == kUser + 1) {
            innerThread = std::this_thread::get_id();
            return;
        }
        auto inner = std::make_unique<TCEvent>(UserEvent(&io, kUser + 1, 2));
        innerResult = TCEventIO::SendSyncEvent(inner.get());
        innerRanFirst = io.log.Count("event") == 2;
    };
    TCEvent outer = UserEvent(&io, kUser, 1);
    ASSERT_TRUE(TCEventIO::SendEvent(&outer));
    EXPECT_EQ(1, DispatchAll(local.context));

    EXPECT_TRUE(innerResult);
    EXPECT_TRUE(innerRanFirst);
    EXPECT_EQ(std::this_thread::get_id(), innerThread);
    EXPECT_EQ(0u, io.CountEvent());
    EXPECT_TRUE(capture.HasFramework(
        DLOG_DEBUG, "synchronous event 101 sent to self from its own loop's thread: run at once"));
    io.Final();  // nothing of the inner event is left for it
}

// ---------------------------------------------------------------------------
// 3. Name-owner callbacks after close and delete

// Half the rounds keep the closed endpoint (a late callback used to reach
// it and fail to announce it, "dbus connection is not open"), half delete it
// at once (a late callback used to read freed memory).
TEST(NameCallbacksAfterClose, CreateCloseAndDeleteWhileAnotherThreadRunsTheLoop) {
    LogCapture capture;
    GMainLoop* loop = g_main_loop_new(nullptr, FALSE);
    std::thread runner([loop] { g_main_loop_run(loop); });
    std::vector<std::unique_ptr<TCServer>> kept;
    for (int round = 0; round < 40; ++round) {
        auto server = std::make_unique<TCServer>("announcer", Quelt::SERVER_TYPE_APP);
        ASSERT_TRUE(server->CreateDBusServer());
        server->CloseDBusServer();
        if (round % 2 == 0)
            kept.push_back(std::move(server));
    }
    // Every reply about the names has reached GDBus once a later call on
    // the same connection is answered, and their callbacks are queued; a
    // low-priority idle then runs after all of them.
    lifetime_test::SettleBus();
    lifetime_test::RunAfterPendingCallbacks(nullptr);
    g_main_loop_quit(loop);
    runner.join();
    g_main_loop_unref(loop);
    kept.clear();
    // A callback either ran while its endpoint was open (its announcement
    // may then meet the close that began meanwhile: "Server is going to be
    // closed!"), or found the endpoint closed and did nothing.
    EXPECT_EQ(0u, capture.CountFramework(DLOG_ERROR, "dbus connection is not open"))
        << capture.Dump();
    EXPECT_EQ(40u, capture.CountFramework(DLOG_DEBUG,
                                          "close connection and all close motion "
                                          "finished"));
}

// ---------------------------------------------------------------------------
// 4. A close whose wait is held up by a handler waiting for the closing
//    thread

TEST(CloseWaitLimit, AHandlerThatWaitsForTheClosingThreadHoldsTheCloseUpOnlyForTheLimit) {
    LogCapture capture;
    ShortCloseWait limit(400);
    auto receiver = std::make_unique<HookedServer>("rcv", kInProcess);
    HookedServer sender("snd", kInProcess);
    ASSERT_TRUE(receiver->CreateDBusServer());
    ASSERT_TRUE(sender.CreateDBusServer());
    Gate closed;  // opened by the closing thread once its close returned
    Gate entered;
    receiver->SetHook([&](const TCMessage*, TCMessage* reply) {
        entered.Open();
        closed.Wait();
        reply->SetMessage("{\"late\":true}");
    });
    TCMessage request;
    TCMessage reply;
    bool sent = false;
    Watched handlerThread("the handler's thread",
                          [&] { sent = sender.SendMessage("rcv", &request, true, &reply, -1); });
    ASSERT_TRUE(entered.WaitUntilOpen());

    receiver->CloseDBusServer();
    EXPECT_EQ(1u,
              capture.CountFramework(DLOG_ERROR,
                                     "close rcv: still waiting after 400 ms for 1 call(s) on other "
                                     "threads (0 send(s) of its own, 1 handler(s) or deliveries): "
                                     "closing without them"))
        << capture.Dump();
    EXPECT_TRUE(capture.HasFramework(DLOG_DEBUG, "close connection and all close motion finished"));
    EXPECT_FALSE(capture.HasFramework(DLOG_DEBUG, "all send message/signal finished"));
    // The application may delete the endpoint as soon as its close returns;
    // the handler that still runs returns into a library that leaves it be.
    receiver.reset();
    closed.Open();
    handlerThread.Join();
    EXPECT_TRUE(sent);
    EXPECT_EQ("{\"late\":true}", reply.GetString());
    sender.CloseDBusServer();
}

// The same bound for the endpoint's own sends in flight: a close behind a
// send that does not return ends at the limit, and the send's late end
// leaves the (deleted) endpoint alone.
TEST(CloseWaitLimit, AnOwnSendThatOutlivesTheLimitEndsWithoutTheEndpoint) {
    LogCapture capture;
    ShortCloseWait limit(300);
    HookedServer receiver("rcv", kInProcess);
    auto sender = std::make_unique<HookedServer>("snd", kInProcess);
    ASSERT_TRUE(receiver.CreateDBusServer());
    ASSERT_TRUE(sender->CreateDBusServer());
    Gate closed;
    Gate entered;
    receiver.SetHook([&](const TCMessage*, TCMessage*) {
        entered.Open();
        closed.Wait();
    });
    TCMessage request;
    TCMessage reply;
    HookedServer* raw = sender.get();
    Watched sending("the send", [&, raw] { raw->SendMessage("rcv", &request, true, &reply, -1); });
    ASSERT_TRUE(entered.WaitUntilOpen());
    sender->CloseDBusServer();
    EXPECT_EQ(1u,
              capture.CountFramework(DLOG_ERROR,
                                     "close snd: still waiting after 300 ms for 1 call(s) on other "
                                     "threads (1 send(s) of its own, 0 handler(s) or deliveries): "
                                     "closing without them"))
        << capture.Dump();
    sender.reset();
    closed.Open();
    sending.Join();
    receiver.CloseDBusServer();
}

}  // namespace
