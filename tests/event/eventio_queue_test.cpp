// SPDX-License-Identifier: Apache-2.0
// The event IO queue driven by the test's own thread: the test dispatches
// the IO's context step by step, so every handler call must run on it.
#include <gtest/gtest.h>

#include <dlog.h>
#include <sys/resource.h>

#include <string>
#include <thread>
#include <vector>

#include "EventPayloads.h"
#include "EventTestSupport.h"
#include "LogCapture.h"
#include "TCEventIO.h"

using event_test::Call;
using event_test::DispatchAll;
using event_test::DispatchOne;
using event_test::LocalLoop;
using event_test::RecordingIO;
using event_test::SeparateHandler;
using event_test::UserEvent;
using harvo_test::LogCapture;
using Quelt::TCEvent;
using Quelt::TCEventIO;
using Quelt::TCEventIOTestPeer;

namespace {

const int kUser = 100;  // a user event type
const int kOther = 101;

std::vector<intptr_t> Tags(const std::vector<Call>& calls) {
    std::vector<intptr_t> tags;
    for (const Call& call : calls)
        tags.push_back(call.tag);
    return tags;
}

class EventIOQueue : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(io.Init(local.loop)); }
    void TearDown() override {
        io.Final();
        // Every handler call ran on the thread that dispatched the loop.
        EXPECT_TRUE(io.log.AllOn(std::this_thread::get_id()));
    }

    bool Send(int type, intptr_t tag) {
        TCEvent event = UserEvent(&io, type, tag);
        return TCEventIO::SendEvent(&event);
    }
    bool SendUrgent(int type, intptr_t tag) {
        TCEvent event = UserEvent(&io, type, tag);
        return TCEventIO::SendUrgentEvent(&event);
    }

    LocalLoop local;
    RecordingIO io{"queue"};
};

}  // namespace

// ---------------------------------------------------------------------------
// Init and Final

TEST(EventIOInit, LogsNameAndLoopThenEnd) {
    LogCapture capture;
    LocalLoop local;
    RecordingIO io("logger");
    ASSERT_TRUE(io.Init(local.loop));
    EXPECT_EQ(local.loop, io.GetMainLoop());
    auto begin = capture.Framework(event_test::NameAndPointer("logger", local.loop));
    ASSERT_EQ(1u, begin.size()) << capture.Dump();
    EXPECT_EQ("Init", begin[0].func);
    EXPECT_EQ("TCEventIO.cpp", begin[0].file);
    EXPECT_TRUE(capture.HasFramework(DLOG_INFO, event_test::NameAndPointer("logger", local.loop)));
    EXPECT_TRUE(capture.HasFramework(DLOG_INFO, "End"));
    EXPECT_EQ("Init", capture.Framework("End")[0].func);
    io.Final();
}

TEST(EventIOInit, SecondInitKeepsThePipeAndSucceeds) {
    LogCapture capture;
    LocalLoop local;
    RecordingIO io("twice");
    ASSERT_TRUE(io.Init(local.loop));
    const int readEnd = TCEventIOTestPeer::ReadEnd(&io);
    const int writeEnd = TCEventIOTestPeer::WriteEnd(&io);
    GSource* watch = TCEventIOTestPeer::Watch(&io);

    EXPECT_TRUE(io.Init(local.loop));
    EXPECT_EQ(readEnd, TCEventIOTestPeer::ReadEnd(&io));
    EXPECT_EQ(writeEnd, TCEventIOTestPeer::WriteEnd(&io));
    EXPECT_EQ(watch, TCEventIOTestPeer::Watch(&io));
    EXPECT_EQ(2u,
              capture.CountFramework(DLOG_INFO, event_test::NameAndPointer("twice", local.loop)));
    EXPECT_EQ(1u, capture.CountFramework(DLOG_INFO, "End"));
    io.Final();
}

TEST(EventIOInit, PipeIsMadeWithANonBlockingReadEndAndTheChannelIsDropped) {
    LocalLoop local;
    RecordingIO io("pipe");
    EXPECT_EQ(-1, TCEventIOTestPeer::ReadEnd(&io));
    EXPECT_EQ(-1, TCEventIOTestPeer::WriteEnd(&io));
    ASSERT_TRUE(io.Init(local.loop));
    EXPECT_TRUE(fcntl(TCEventIOTestPeer::ReadEnd(&io), F_GETFL) & O_NONBLOCK);
    EXPECT_FALSE(fcntl(TCEventIOTestPeer::WriteEnd(&io), F_GETFL) & O_NONBLOCK);
    EXPECT_EQ(nullptr, TCEventIOTestPeer::Channel(&io));
    ASSERT_NE(nullptr, TCEventIOTestPeer::Watch(&io));
    EXPECT_EQ(local.context, g_source_get_context(TCEventIOTestPeer::Watch(&io)));
    io.Final();
}

TEST(EventIOInit, NullLoopUsesTheDefaultContext) {
    RecordingIO io("default");
    ASSERT_TRUE(io.Init(nullptr));
    EXPECT_EQ(g_main_context_default(), g_source_get_context(TCEventIOTestPeer::Watch(&io)));

    TCEvent event = UserEvent(&io, kUser, 1);
    ASSERT_TRUE(TCEventIO::SendEvent(&event));
    EXPECT_TRUE(DispatchOne(g_main_context_default()));
    EXPECT_EQ(1u, io.log.Count("event"));
    EXPECT_EQ(1u, io.log.Count("clear"));
    io.Final();
}

namespace {
class RefusingIO : public RecordingIO {
public:
    RefusingIO() : RecordingIO("refusing") {}
    bool t_Init() override { return false; }
};
}  // namespace

TEST(EventIOInit, FailingTInitLeavesTheIoUncreatedWithPipeAndWatch) {
    LogCapture capture;
    LocalLoop local;
    int pipeEnds[2] = {-1, -1};
    {
        RefusingIO io;
        EXPECT_FALSE(io.Init(local.loop));
        EXPECT_TRUE(capture.HasFramework(DLOG_INFO, "End"));
        EXPECT_FALSE(TCEventIOTestPeer::FlagCreate(&io));
        EXPECT_NE(-1, TCEventIOTestPeer::WriteEnd(&io));
        GSource* watch = TCEventIOTestPeer::Watch(&io);
        ASSERT_NE(nullptr, watch);
        EXPECT_EQ(local.context, g_source_get_context(watch));

        TCEvent event = UserEvent(&io, kUser);
        EXPECT_FALSE(TCEventIO::SendEvent(&event));
        EXPECT_TRUE(capture.HasFramework(DLOG_ERROR, "event io refusing has destroyed!"));
        io.Final();
        EXPECT_TRUE(capture.HasFramework(DLOG_INFO, "already final"));
        pipeEnds[0] = TCEventIOTestPeer::ReadEnd(&io);
        pipeEnds[1] = TCEventIOTestPeer::WriteEnd(&io);
    }
    // Final does not detach such an IO; its destructor removes the watch it
    // left on the loop, so that no wake-up reaches a queue that is gone.
    EXPECT_EQ(1u,
              capture.CountFramework(
                  DLOG_WARN, "event io refusing destroyed without Final: its watch is removed"));
    EXPECT_FALSE(DispatchOne(local.context));
    // The pipe stays open on this path; the test closes it.
    close(pipeEnds[0]);
    close(pipeEnds[1]);
}

TEST(EventIOInit, PipeCreationFailureIsLogged) {
    LogCapture capture;
    LocalLoop local;
    RecordingIO io("nofd");
    // A first call on the IO before descriptors run out: the undefined
    // behaviour sanitizer checks the object's type on member calls and needs
    // a descriptor the first time it sees a type.
    EXPECT_EQ(0u, io.CountEvent());
    // Allow no descriptor above those already open, so pipe() fails.
    const int lowestFree = open("/dev/null", O_RDONLY);
    ASSERT_GE(lowestFree, 0);
    close(lowestFree);
    struct rlimit saved;
    ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &saved));
    struct rlimit tight = saved;
    tight.rlim_cur = static_cast<rlim_t>(lowestFree);
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &tight));
    const bool created = io.Init(local.loop);
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &saved));

    EXPECT_FALSE(created);
    EXPECT_TRUE(capture.HasFramework(DLOG_ERROR, "Create pipe fail!")) << capture.Dump();
    EXPECT_FALSE(capture.HasFramework(DLOG_INFO, "End"));
    EXPECT_EQ(nullptr, TCEventIOTestPeer::Watch(&io));
}

TEST(EventIOFinal, LogsNameAndLoopAndClearsTheQueueWithoutRunningIt) {
    LogCapture capture;
    LocalLoop local;
    RecordingIO io("final");
    SeparateHandler other(&io);
    ASSERT_TRUE(io.Init(local.loop));
    TCEvent mine = UserEvent(&io, kUser, 1);
    TCEvent theirs = UserEvent(&other, kUser, 2);
    ASSERT_TRUE(TCEventIO::SendEvent(&mine));
    ASSERT_TRUE(TCEventIO::SendEvent(&theirs));
    TCEvent receiverless = UserEvent(&io, kUser, 3);
    ASSERT_TRUE(TCEventIO::SendEvent(&receiverless));
    ASSERT_EQ(3u, io.CountEvent());

    io.Final();
    // Init and Final both log the name and the loop.
    auto named = capture.Framework(event_test::NameAndPointer("final", local.loop));
    ASSERT_EQ(2u, named.size()) << capture.Dump();
    EXPECT_EQ("Init", named[0].func);
    EXPECT_EQ("Final", named[1].func);
    EXPECT_EQ(harvo_test::ColourFor(DLOG_INFO), named[1].colour);
    EXPECT_EQ(0u, io.CountEvent());
    EXPECT_EQ(0u, io.log.Count("event"));
    EXPECT_EQ(0u, other.log.Count("event"));
    EXPECT_EQ((std::vector<intptr_t>{1, 3}), Tags(io.log.Calls("clear")));
    EXPECT_EQ((std::vector<intptr_t>{2}), Tags(other.log.Calls("clear")));
    EXPECT_EQ(nullptr, TCEventIOTestPeer::Watch(&io));
    EXPECT_FALSE(TCEventIOTestPeer::FlagCreate(&io));
    // The descriptors are closed but their numbers are kept.
    EXPECT_NE(-1, TCEventIOTestPeer::WriteEnd(&io));
    EXPECT_EQ(-1, fcntl(TCEventIOTestPeer::WriteEnd(&io), F_GETFL));
    // Nothing is left for the loop.
    EXPECT_FALSE(DispatchOne(local.context));
}

TEST(EventIOFinal, SendsAfterFinalFailAndSecondFinalSaysSo) {
    LogCapture capture;
    LocalLoop local;
    RecordingIO io("gone");
    ASSERT_TRUE(io.Init(local.loop));
    io.Final();

    TCEvent event = UserEvent(&io, kUser);
    EXPECT_FALSE(TCEventIO::SendEvent(&event));
    EXPECT_FALSE(TCEventIO::SendUrgentEvent(&event));
    EXPECT_FALSE(Quelt::SendEvent(&event));
    EXPECT_FALSE(Quelt::SendUrgentEvent(&event));
    EXPECT_FALSE(TCEventIO::Ping(&io, 0));
    EXPECT_EQ(5u, capture.CountFramework(DLOG_ERROR, "event io gone has destroyed!"))
        << capture.Dump();
    EXPECT_EQ(-1, io.DeleteEvent(&io));

    EXPECT_FALSE(capture.HasFramework(DLOG_INFO, "already final"));
    io.Final();
    EXPECT_EQ(1u, capture.CountFramework(DLOG_INFO, "already final"));
    // Init, Final, Final.
    EXPECT_EQ(3u,
              capture.CountFramework(DLOG_INFO, event_test::NameAndPointer("gone", local.loop)));
}

TEST(EventIOFinal, InitAfterFinalMakesANewPipeAndWorks) {
    LocalLoop local;
    RecordingIO io("again");
    ASSERT_TRUE(io.Init(local.loop));
    io.Final();
    ASSERT_TRUE(io.Init(local.loop));
    TCEvent event = UserEvent(&io, kUser, 8);
    ASSERT_TRUE(TCEventIO::SendEvent(&event));
    EXPECT_EQ(1, DispatchAll(local.context));
    EXPECT_EQ((std::vector<intptr_t>{8}), Tags(io.log.Calls("event")));
    io.Final();
}

TEST(EventIOFinal, NeverInitialisedIoRefusesEverything) {
    LogCapture capture;
    RecordingIO io("fresh");
    TCEvent event = UserEvent(&io, kUser);
    EXPECT_FALSE(TCEventIO::SendEvent(&event));
    EXPECT_FALSE(TCEventIO::SendUrgentEvent(&event));
    EXPECT_EQ(2u, capture.CountFramework(DLOG_ERROR, "event io fresh has destroyed!"));
    EXPECT_EQ(-1, io.DeleteEvent(kUser, &io));
    EXPECT_EQ(-1, io.DeleteEvent(nullptr));
    EXPECT_EQ(2u, capture.CountFramework(DLOG_INFO, "m_FlagCreate is false"));
    io.Final();
    EXPECT_TRUE(capture.HasFramework(DLOG_INFO, "already final"));
}

namespace {

// Counts the calls of the teardown hook.
class TeardownCountingIO : public RecordingIO {
public:
    using RecordingIO::RecordingIO;
    void t_Final() override { ++teardowns; }
    int teardowns = 0;
};

}  // namespace

TEST(EventIOFinal, DoesNotCallTheTeardownHook) {
    LocalLoop local;
    TeardownCountingIO io("hook");
    ASSERT_TRUE(io.Init(local.loop));
    io.Final();
    EXPECT_EQ(0, io.teardowns);
    // The hook is the derived class's to call.
    io.t_Final();
    EXPECT_EQ(1, io.teardowns);
}

// ---------------------------------------------------------------------------
// Sending and order

TEST_F(EventIOQueue, NullReceiverIsRefused) {
    LogCapture capture;
    TCEvent event;
    EXPECT_FALSE(TCEventIO::SendEvent(&event));
    EXPECT_FALSE(TCEventIO::SendUrgentEvent(&event));
    EXPECT_FALSE(TCEventIO::SendSyncEvent(&event));
    EXPECT_FALSE(Quelt::SendEvent(&event));
    EXPECT_FALSE(Quelt::SendUrgentEvent(&event));
    EXPECT_FALSE(Quelt::SendSyncEvent(&event));
    EXPECT_EQ(6u, capture.CountFramework(DLOG_ERROR, "receiver is NULL"));
    // Refused before anything was prepared.
    EXPECT_EQ(nullptr, event.param.p);
    EXPECT_FALSE(event.sync);
    EXPECT_EQ(0u, io.CountEvent());
}

TEST_F(EventIOQueue, ThreeSendsThenOneUrgentRunUrgentFirst) {
    ASSERT_TRUE(Send(kUser, 1));
    ASSERT_TRUE(Send(kUser, 2));
    ASSERT_TRUE(Send(kUser, 3));
    ASSERT_TRUE(SendUrgent(kUser, 99));
    EXPECT_EQ(4u, io.CountEvent());
    EXPECT_EQ(4, DispatchAll(local.context));
    EXPECT_EQ((std::vector<intptr_t>{99, 1, 2, 3}), Tags(io.log.Calls("event")));
    EXPECT_EQ((std::vector<intptr_t>{99, 1, 2, 3}), Tags(io.log.Calls("clear")));
}

TEST_F(EventIOQueue, SeveralUrgentEventsRunNewestFirst) {
    ASSERT_TRUE(Send(kUser, 1));
    ASSERT_TRUE(SendUrgent(kUser, 10));
    ASSERT_TRUE(SendUrgent(kUser, 20));
    ASSERT_TRUE(SendUrgent(kUser, 30));
    EXPECT_EQ(4, DispatchAll(local.context));
    EXPECT_EQ((std::vector<intptr_t>{30, 20, 10, 1}), Tags(io.log.Calls("event")));
}

TEST_F(EventIOQueue, FreeFunctionsQueueLikeTheStaticOnes) {
    TCEvent first = UserEvent(&io, kUser, 1);
    TCEvent urgent = UserEvent(&io, kUser, 2);
    ASSERT_TRUE(Quelt::SendEvent(&first));
    ASSERT_TRUE(Quelt::SendUrgentEvent(&urgent));
    EXPECT_EQ(2, DispatchAll(local.context));
    EXPECT_EQ((std::vector<intptr_t>{2, 1}), Tags(io.log.Calls("event")));
}

TEST_F(EventIOQueue, AsyncSendQueuesACopy) {
    TCEvent event = UserEvent(&io, kUser, 5);
    event.data.SetMessage("{\"k\":1}");
    ASSERT_TRUE(TCEventIO::SendEvent(&event));
    // Changing the caller's object afterwards does not reach the queue.
    event.param.p = reinterpret_cast<void*>(6);
    event.data.SetMessage("{\"k\":2}");
    ASSERT_EQ(1, DispatchAll(local.context));
    std::vector<Call> calls = io.log.Calls("event");
    ASSERT_EQ(1u, calls.size());
    EXPECT_NE(&event, calls[0].event);
    EXPECT_EQ(5, calls[0].tag);
    EXPECT_EQ("{\"k\":1}", calls[0].data);
    EXPECT_FALSE(calls[0].sync);
}

TEST_F(EventIOQueue, OneEventPerWakeUp) {
    ASSERT_TRUE(Send(kUser, 1));
    ASSERT_TRUE(Send(kUser, 2));
    ASSERT_TRUE(Send(kUser, 3));
    EXPECT_EQ(3u, io.CountEvent());
    ASSERT_TRUE(DispatchOne(local.context));
    EXPECT_EQ(1u, io.log.Count("event"));
    EXPECT_EQ(2u, io.CountEvent());
    ASSERT_TRUE(DispatchOne(local.context));
    EXPECT_EQ(2u, io.log.Count("event"));
    EXPECT_EQ(1u, io.CountEvent());
    ASSERT_TRUE(DispatchOne(local.context));
    EXPECT_EQ(0u, io.CountEvent());
    EXPECT_FALSE(DispatchOne(local.context));
}

TEST_F(EventIOQueue, EachQueuedEventWritesOneWakeByte) {
    ASSERT_TRUE(Send(kUser, 1));
    ASSERT_TRUE(SendUrgent(kUser, 2));
    char bytes[8] = {0};
    EXPECT_EQ(2, read(TCEventIOTestPeer::ReadEnd(&io), bytes, sizeof(bytes)));
    EXPECT_EQ(std::string("OO"), std::string(bytes));
    // With the bytes taken away the loop never wakes for the two events;
    // Final clears them.
}

TEST_F(EventIOQueue, SeparateHandlerIsServedByItsIo) {
    SeparateHandler other(&io);
    EXPECT_EQ(&io, other.GetEventIO());
    TCEvent event = UserEvent(&other, kUser, 4);
    ASSERT_TRUE(TCEventIO::SendEvent(&event));
    ASSERT_TRUE(Send(kUser, 5));
    EXPECT_EQ(2, DispatchAll(local.context));
    EXPECT_EQ((std::vector<intptr_t>{4}), Tags(other.log.Calls("event")));
    EXPECT_EQ((std::vector<intptr_t>{4}), Tags(other.log.Calls("clear")));
    EXPECT_EQ((std::vector<intptr_t>{5}), Tags(io.log.Calls("event")));
    EXPECT_TRUE(other.log.AllOn(std::this_thread::get_id()));
}

TEST_F(EventIOQueue, UserEventReachesTheSecondChanceAndIsCleared) {
    ASSERT_TRUE(Send(7000, 1));
    ASSERT_TRUE(Send(-3, 2));
    ASSERT_TRUE(Send(Quelt::EVENT_RESERVED, 3));
    ASSERT_TRUE(Send(Quelt::EVENT_CLEAR_ALL, 4));  // handled only when cleared
    EXPECT_EQ(4, DispatchAll(local.context));
    EXPECT_EQ((std::vector<intptr_t>{1, 2, 3, 4}), Tags(io.log.Calls("event")));
    EXPECT_EQ((std::vector<intptr_t>{1, 2, 3, 4}), Tags(io.log.Calls("clear")));
}

TEST_F(EventIOQueue, EventIoAloneDeclinesUserEvents) {
    // Called directly: the IO's own dispatch does not consume user codes.
    TCEventIO plain("plain");
    TCEvent user = UserEvent(&plain, 7000);
    EXPECT_FALSE(plain.t_OnEvent(&user));
    EXPECT_FALSE(plain.OnEvent(&user));
    EXPECT_FALSE(plain.t_OnEvent(nullptr));
    plain.t_Clear(nullptr);  // nothing to release
    plain.OnClear(&user);
    EXPECT_EQ(nullptr, user.param.p);
}

namespace {
// Keeps the second-chance defaults; records only its clear step.
class DefaultHooksIO : public TCEventIO {
public:
    DefaultHooksIO() : TCEventIO("defaults") {}
    void t_Clear(TCEvent* event) override {
        log.Add("clear", event);
        TCEventIO::t_Clear(event);
    }
    event_test::CallLog log;
};
}  // namespace

TEST(EventIODefaults, UserEventWithDefaultHooksIsOnlyCleared) {
    LogCapture capture;
    LocalLoop local;
    DefaultHooksIO io;
    ASSERT_TRUE(io.Init(local.loop));
    TCEvent event = UserEvent(&io, 5000, 3);
    EXPECT_FALSE(io.OnEvent(&event));  // nobody consumes it
    ASSERT_TRUE(TCEventIO::SendEvent(&event));
    EXPECT_EQ(1, DispatchAll(local.context));
    EXPECT_EQ((std::vector<intptr_t>{3}), Tags(io.log.Calls("clear")));
    EXPECT_TRUE(io.log.AllOn(std::this_thread::get_id()));
    io.Final();
}

TEST_F(EventIOQueue, CountEventFollowsTheQueue) {
    EXPECT_EQ(0u, io.CountEvent());
    for (int i = 1; i <= 5; ++i) {
        ASSERT_TRUE(Send(kUser, i));
        EXPECT_EQ(static_cast<unsigned>(i), io.CountEvent());
    }
    DispatchAll(local.context);
    EXPECT_EQ(0u, io.CountEvent());
}

// ---------------------------------------------------------------------------
// Deleting

TEST_F(EventIOQueue, DeleteByTypeMarksOnlyThatTypeOfThatHandler) {
    LogCapture capture;
    SeparateHandler other(&io);
    ASSERT_TRUE(Send(kUser, 1));
    ASSERT_TRUE(Send(kOther, 2));
    ASSERT_TRUE(Send(kUser, 3));
    TCEvent theirs = UserEvent(&other, kUser, 4);
    ASSERT_TRUE(TCEventIO::SendEvent(&theirs));

    EXPECT_EQ(2, io.DeleteEvent(kUser, &io));
    // Marked events stay queued.
    EXPECT_EQ(4u, io.CountEvent());
    EXPECT_EQ(4, DispatchAll(local.context));

    EXPECT_EQ((std::vector<intptr_t>{2}), Tags(io.log.Calls("event")));
    EXPECT_EQ((std::vector<intptr_t>{4}), Tags(other.log.Calls("event")));
    // The clear step still runs for the marked ones, which arrive marked.
    std::vector<Call> cleared = io.log.Calls("clear");
    EXPECT_EQ((std::vector<intptr_t>{1, 2, 3}), Tags(cleared));
    EXPECT_TRUE(cleared[0].deleted);
    EXPECT_FALSE(cleared[1].deleted);
    EXPECT_TRUE(cleared[2].deleted);
    EXPECT_EQ(2u, capture.CountFramework(DLOG_INFO, "deleted event"));
    EXPECT_EQ("m_InterIOWatch", capture.Framework("deleted event")[0].func);
}

TEST_F(EventIOQueue, DeleteByHandlerMarksEveryTypeOfThatHandler) {
    LogCapture capture;
    SeparateHandler other(&io);
    TCEvent a = UserEvent(&other, kUser, 1);
    TCEvent b = UserEvent(&other, kOther, 2);
    ASSERT_TRUE(TCEventIO::SendEvent(&a));
    ASSERT_TRUE(Send(kUser, 3));
    ASSERT_TRUE(TCEventIO::SendEvent(&b));

    EXPECT_EQ(2, io.DeleteEvent(&other));
    EXPECT_EQ(3, DispatchAll(local.context));
    EXPECT_EQ(0u, other.log.Count("event"));
    EXPECT_EQ((std::vector<intptr_t>{1, 2}), Tags(other.log.Calls("clear")));
    EXPECT_EQ((std::vector<intptr_t>{3}), Tags(io.log.Calls("event")));
    EXPECT_EQ(2u, capture.CountFramework(DLOG_INFO, "deleted event"));
}

TEST_F(EventIOQueue, NullHandlerDeletesTheIosOwnEvents) {
    SeparateHandler other(&io);
    TCEvent theirs = UserEvent(&other, kUser, 1);
    ASSERT_TRUE(TCEventIO::SendEvent(&theirs));
    ASSERT_TRUE(Send(kUser, 2));
    ASSERT_TRUE(Send(kOther, 3));
    EXPECT_EQ(1, io.DeleteEvent(kOther, nullptr));
    EXPECT_EQ(2, io.DeleteEvent(nullptr));
    EXPECT_EQ(3, DispatchAll(local.context));
    EXPECT_EQ(0u, io.log.Count("event"));
    EXPECT_EQ((std::vector<intptr_t>{1}), Tags(other.log.Calls("event")));
}

TEST_F(EventIOQueue, DeleteOnAnEmptyQueueOrWithoutMatchReturnsZero) {
    EXPECT_EQ(0, io.DeleteEvent(kUser, &io));
    EXPECT_EQ(0, io.DeleteEvent(&io));
    ASSERT_TRUE(Send(kUser, 1));
    EXPECT_EQ(0, io.DeleteEvent(kOther, &io));
    SeparateHandler other(&io);
    EXPECT_EQ(0, io.DeleteEvent(&other));
    EXPECT_EQ(1, DispatchAll(local.context));
    EXPECT_EQ(1u, io.log.Count("event"));
}

TEST_F(EventIOQueue, HandlerDeletesItsOwnEventsFromInsideItsEvent) {
    LogCapture capture;
    SeparateHandler other(&io);
    int deleted = -2;
    io.onEvent = [&](const TCEvent* event) {
        if (event->param.p == reinterpret_cast<void*>(1))
            deleted = io.DeleteEvent(&io);
    };
    ASSERT_TRUE(Send(kUser, 1));
    ASSERT_TRUE(Send(kUser, 2));
    TCEvent theirs = UserEvent(&other, kUser, 3);
    ASSERT_TRUE(TCEventIO::SendEvent(&theirs));
    ASSERT_TRUE(Send(kOther, 4));

    EXPECT_EQ(4, DispatchAll(local.context));
    // The running event was already off the queue; the two behind it are
    // marked and only cleared.
    EXPECT_EQ(2, deleted);
    EXPECT_EQ((std::vector<intptr_t>{1}), Tags(io.log.Calls("event")));
    EXPECT_EQ((std::vector<intptr_t>{1, 2, 4}), Tags(io.log.Calls("clear")));
    EXPECT_EQ((std::vector<intptr_t>{3}), Tags(other.log.Calls("event")));
    EXPECT_EQ(2u, capture.CountFramework(DLOG_INFO, "deleted event"));
}

// ---------------------------------------------------------------------------
// The framework's own codes

TEST(EventIOCodes, ExitTaskQuitsTheIosLoopAndIsConsumed) {
    LocalLoop local;
    RecordingIO io("exit");
    ASSERT_TRUE(io.Init(local.loop));
    TCEvent exitEvent = UserEvent(&io, Quelt::EVENT_EXIT_TASK);
    ASSERT_TRUE(TCEventIO::SendEvent(&exitEvent));
    // g_main_loop_run returns only because the event quit it.
    g_main_context_push_thread_default(local.context);
    g_main_loop_run(local.loop);
    g_main_context_pop_thread_default(local.context);
    EXPECT_FALSE(g_main_loop_is_running(local.loop));
    EXPECT_EQ(0u, io.log.Count("event"));
    EXPECT_EQ(1u, io.log.Count("clear"));
    io.Final();
}

TEST(EventIOCodes, ExitTaskWithoutLoopIsConsumedAndDoesNothing) {
    RecordingIO io("noloop");
    ASSERT_TRUE(io.Init(nullptr));
    TCEvent exitEvent = UserEvent(&io, Quelt::EVENT_EXIT_TASK);
    ASSERT_TRUE(TCEventIO::SendEvent(&exitEvent));
    ASSERT_TRUE(Quelt::SendEvent(&exitEvent));
    EXPECT_EQ(2, DispatchAll(g_main_context_default()));
    EXPECT_EQ(0u, io.log.Count("event"));
    EXPECT_EQ(2u, io.log.Count("clear"));
    io.Final();
}

TEST_F(EventIOQueue, InternalMessageWithoutParamIsConsumedSilently) {
    LogCapture capture;
    ASSERT_TRUE(Send(Quelt::EVENT_INTERNAL_MESSAGE, 0));
    EXPECT_EQ(1, DispatchAll(local.context));
    EXPECT_EQ(0u, io.log.Count("event"));
    EXPECT_EQ(1u, io.log.Count("clear"));
    EXPECT_FALSE(
        capture.HasFramework(DLOG_INFO, "transfer async internal event to sync message call"));
    EXPECT_EQ(1u, capture.CountFramework(DLOG_INFO, "clear message memory"));
    EXPECT_EQ("t_Clear", capture.Framework("clear message memory")[0].func);
}

TEST_F(EventIOQueue, ExecuteWithoutParamIsConsumedSilently) {
    LogCapture capture;
    ASSERT_TRUE(Send(Quelt::EVENT_EXECUTE, 0));
    EXPECT_EQ(1, DispatchAll(local.context));
    EXPECT_EQ(0u, io.log.Count("event"));
    EXPECT_EQ(1u, io.log.Count("clear"));
    EXPECT_FALSE(capture.HasFramework(DLOG_INFO, "execute function in this event io"));
    EXPECT_EQ(1u, capture.CountFramework(DLOG_INFO, "clear message memory"));
}

TEST_F(EventIOQueue, ExecuteRunsTheCallableOnTheLoopThreadAndFreesIt) {
    LogCapture capture;
    int runs = 0;
    std::thread::id ranOn;
    TCEvent event = UserEvent(&io, Quelt::EVENT_EXECUTE);
    event.param.p = new Quelt::TCExecuteCallable([&] {
        ++runs;
        ranOn = std::this_thread::get_id();
    });
    ASSERT_TRUE(TCEventIO::SendEvent(&event));
    EXPECT_EQ(1, DispatchAll(local.context));
    EXPECT_EQ(1, runs);
    EXPECT_EQ(std::this_thread::get_id(), ranOn);
    EXPECT_EQ(0u, io.log.Count("event"));
    // The clear step freed the callable (AddressSanitizer reports a leak
    // otherwise) and nulled the pointer of the copy it was given.
    std::vector<Call> cleared = io.log.Calls("clear");
    ASSERT_EQ(1u, cleared.size());
    EXPECT_EQ(0, cleared[0].tag);

    ASSERT_EQ(2u, capture.CountFramework(DLOG_INFO, "execute function in this event io") +
                      capture.CountFramework(DLOG_INFO, "clear message memory"))
        << capture.Dump();
    EXPECT_EQ("t_OnEvent", capture.Framework("execute function in this event io")[0].func);
}

TEST_F(EventIOQueue, EmptyCallableIsFreedWithoutRunning) {
    LogCapture capture;
    TCEvent event = UserEvent(&io, Quelt::EVENT_EXECUTE);
    event.param.p = new Quelt::TCExecuteCallable();
    ASSERT_TRUE(TCEventIO::SendEvent(&event));
    EXPECT_EQ(1, DispatchAll(local.context));
    EXPECT_TRUE(capture.HasFramework(DLOG_INFO, "execute function in this event io"));
    EXPECT_TRUE(capture.HasFramework(DLOG_INFO, "clear message memory"));
}

TEST_F(EventIOQueue, InternalMessageIsTakenOverAndItsMessageFreed) {
    LogCapture capture;
    TCEvent event = UserEvent(&io, Quelt::EVENT_INTERNAL_MESSAGE);
    event.data.SetMessage("{\"from\":\"sender.app\",\"dest\":\"receiver.app\"}");
    Quelt::TCMessage* message = new Quelt::TCMessage();
    message->SetMessage("{\"hello\":1}");
    message->SetBuffer(reinterpret_cast<const unsigned char*>("xyz"), 3);
    event.param.p = message;
    ASSERT_TRUE(TCEventIO::SendEvent(&event));
    EXPECT_EQ(1, DispatchAll(local.context));
    EXPECT_EQ(0u, io.log.Count("event"));
    EXPECT_EQ(1u, capture.CountFramework(DLOG_INFO,
                                         "transfer async internal event to sync message call"));
    EXPECT_EQ(1u, capture.CountFramework(DLOG_INFO, "clear message memory"));
    std::vector<Call> cleared = io.log.Calls("clear");
    ASSERT_EQ(1u, cleared.size());
    EXPECT_EQ(0, cleared[0].tag);  // deleted and nulled by the clear step
}

TEST_F(EventIOQueue, InternalMessageWithAnOddBodyIsStillTakenOver) {
    LogCapture capture;
    TCEvent event = UserEvent(&io, Quelt::EVENT_INTERNAL_MESSAGE);
    event.data.SetMessage("[1,2]");
    event.param.p = new Quelt::TCMessage();
    ASSERT_TRUE(TCEventIO::SendEvent(&event));
    EXPECT_EQ(1, DispatchAll(local.context));
    EXPECT_TRUE(
        capture.HasFramework(DLOG_INFO, "transfer async internal event to sync message call"));
    EXPECT_TRUE(capture.HasFramework(DLOG_INFO, "clear message memory"));
}

TEST_F(EventIOQueue, ClearingAClearAllEventEmptiesTheQueueWithoutRunningIt) {
    SeparateHandler other(&io);
    ASSERT_TRUE(Send(Quelt::EVENT_CLEAR_ALL, 1));
    ASSERT_TRUE(Send(kUser, 2));
    TCEvent theirs = UserEvent(&other, kUser, 3);
    ASSERT_TRUE(TCEventIO::SendEvent(&theirs));
    ASSERT_TRUE(Send(kOther, 4));
    ASSERT_EQ(4u, io.CountEvent());

    ASSERT_TRUE(DispatchOne(local.context));
    EXPECT_EQ(0u, io.CountEvent());
    // The clear-all event itself reached the second chance and its clear.
    EXPECT_EQ((std::vector<intptr_t>{1}), Tags(io.log.Calls("event")));
    // The removed events were cleared (inside the clear-all event's clear,
    // before it finished), never run.
    EXPECT_EQ((std::vector<intptr_t>{2, 4, 1}), Tags(io.log.Calls("clear")));
    EXPECT_EQ((std::vector<intptr_t>{3}), Tags(other.log.Calls("clear")));
    EXPECT_EQ(0u, other.log.Count("event"));

    // Their three wake bytes are still in the pipe (the channel may have
    // buffered them); the next wake would find no event: see the death
    // test. Detach without dispatching again.
}

TEST_F(EventIOQueue, ClearAllWaitsOnlyBrieflyForTheLock) {
    ASSERT_TRUE(Send(kUser, 1));
    TCEvent clearAll = UserEvent(&io, Quelt::EVENT_CLEAR_ALL);
    // Another thread holds the lock: the drain gives up and leaves the queue.
    std::promise<void> held;
    std::promise<void> release;
    std::thread holder([&] {
        TCEventIOTestPeer::Lock(&io);
        held.set_value();
        release.get_future().wait();
        TCEventIOTestPeer::Unlock(&io);
    });
    held.get_future().wait();
    io.t_Clear(&clearAll);
    EXPECT_EQ(1u, io.CountEvent());
    release.set_value();
    holder.join();
    io.t_Clear(&clearAll);
    EXPECT_EQ(0u, io.CountEvent());
    EXPECT_EQ((std::vector<intptr_t>{1}), Tags(io.log.Calls("clear")));
    // One wake byte is left in the pipe; Final detaches without reading it.
}

TEST_F(EventIOQueue, SyncMarkedEventWithoutSemaphoresIsRunAsTheCallersObject) {
    LogCapture capture;
    TCEvent event = UserEvent(&io, kUser, 0);
    event.sync = true;
    ASSERT_TRUE(TCEventIO::SendEvent(&event));
    ASSERT_EQ(1, DispatchAll(local.context));
    std::vector<Call> calls = io.log.Calls("event");
    ASSERT_EQ(1u, calls.size());
    EXPECT_EQ(&event, calls[0].event);  // queued by pointer, not copied
    EXPECT_TRUE(calls[0].sync);
    EXPECT_EQ(0u, io.log.Count("clear"));  // the sender keeps its object
    EXPECT_TRUE(capture.HasFramework(DLOG_ERROR, "param.p should not be NULL!"));
    EXPECT_EQ("m_InterIOWatch", capture.Framework("param.p should not be NULL!")[0].func);
}

TEST_F(EventIOQueue, SyncMarkedEventMarkedDeletedStillRuns) {
    TCEvent event = UserEvent(&io, kUser, 0);
    event.sync = true;
    ASSERT_TRUE(TCEventIO::SendEvent(&event));
    EXPECT_EQ(1, io.DeleteEvent(&io));
    ASSERT_EQ(1, DispatchAll(local.context));
    EXPECT_EQ(1u, io.log.Count("event"));
}

TEST_F(EventIOQueue, UrgentSendCopiesEvenASyncMarkedEvent) {
    LogCapture capture;
    TCEvent event = UserEvent(&io, kUser, 0);
    event.sync = true;
    ASSERT_TRUE(TCEventIO::SendUrgentEvent(&event));
    ASSERT_EQ(1, DispatchAll(local.context));
    std::vector<Call> calls = io.log.Calls("event");
    ASSERT_EQ(1u, calls.size());
    EXPECT_NE(&event, calls[0].event);
    EXPECT_TRUE(calls[0].sync);
    EXPECT_TRUE(capture.HasFramework(DLOG_ERROR, "param.p should not be NULL!"));
    // The loop takes the copy for a sender's own object and never destroys
    // it; the test does.
    delete calls[0].event;
}

TEST_F(EventIOQueue, SyncSendToAnUninitialisedIoFailsAndKeepsTheSemaphores) {
    LogCapture capture;
    RecordingIO idle("idle");
    TCEvent event = UserEvent(&idle, kUser, 0);
    EXPECT_FALSE(TCEventIO::SendSyncEvent(&event));
    EXPECT_TRUE(capture.HasFramework(DLOG_ERROR, "event io idle has destroyed!"));
    EXPECT_TRUE(capture.HasFramework(DLOG_ERROR, "SendSyncEvent fails!"));
    EXPECT_EQ("SendSyncEvent", capture.Framework("SendSyncEvent fails!")[0].func);
    EXPECT_TRUE(event.sync);
    ASSERT_NE(nullptr, event.param.p);
    // Nobody frees the pair on this path; the test does.
    Quelt::TCSemaphore* pair = static_cast<Quelt::TCSemaphore*>(event.param.p);
    pair[0].Destroy();
    pair[1].Destroy();
    delete[] pair;
}

TEST_F(EventIOQueue, PingEventAnsweredByTheLoopIsReleasedByItsClear) {
    // The ping protocol's serving half, with the pinger's second give done
    // twice so the clear step's extra take does not block this thread.
    Quelt::TCSemaphore* pair = new Quelt::TCSemaphore[2];
    pair[0].Create(0);
    pair[1].Create(0);
    pair[1].Give();
    pair[1].Give();
    TCEvent ping = UserEvent(&io, Quelt::EVENT_PING);
    ping.param.p = pair;
    ASSERT_TRUE(TCEventIO::SendEvent(&ping));
    ASSERT_EQ(1, DispatchAll(local.context));
    EXPECT_EQ(0u, io.log.Count("event"));  // consumed by the IO itself
    std::vector<Call> cleared = io.log.Calls("clear");
    ASSERT_EQ(1u, cleared.size());
    EXPECT_EQ(0, cleared[0].tag);  // the pair was destroyed and freed
}

TEST_F(EventIOQueue, PingEventWithoutSemaphoresIsConsumed) {
    ASSERT_TRUE(Send(Quelt::EVENT_PING, 0));
    ASSERT_EQ(1, DispatchAll(local.context));
    EXPECT_EQ(0u, io.log.Count("event"));
    EXPECT_EQ(1u, io.log.Count("clear"));
}

TEST(EventIOPing, NullTargetFailsSilently) {
    LogCapture capture;
    EXPECT_FALSE(TCEventIO::Ping(nullptr, 100000));
    EXPECT_TRUE(capture.Lines().empty()) << capture.Dump();
}

// ---------------------------------------------------------------------------
// The watch callback's other paths

TEST_F(EventIOQueue, LoopThatCannotTakeTheLockRetriesOnTheNextWake) {
    LogCapture capture;
    ASSERT_TRUE(Send(kUser, 1));
    std::promise<void> held;
    std::promise<void> release;
    std::thread holder([&] {
        TCEventIOTestPeer::Lock(&io);
        held.set_value();
        release.get_future().wait();
        TCEventIOTestPeer::Unlock(&io);
    });
    held.get_future().wait();
    ASSERT_TRUE(DispatchOne(local.context));
    EXPECT_TRUE(capture.HasFramework(DLOG_ERROR, "Try lock mutex fail!"));
    EXPECT_EQ("m_Get", capture.Framework("Try lock mutex fail!")[0].func);
    EXPECT_EQ(1u, io.CountEvent());
    EXPECT_EQ(0u, io.log.Count("event"));
    release.set_value();
    holder.join();

    // The wake byte stayed, so the loop comes back for the event.
    ASSERT_TRUE(DispatchOne(local.context));
    EXPECT_EQ((std::vector<intptr_t>{1}), Tags(io.log.Calls("event")));
}

TEST(EventIOWatch, WakeOnAnUninitialisedIoLeavesTheLockHeld) {
    LogCapture capture;
    RecordingIO io("stale");
    EXPECT_TRUE(TCEventIOTestPeer::CallWatch(nullptr, TCEventIOTestPeer::WatchData(&io)));
    EXPECT_TRUE(capture.HasFramework(DLOG_ERROR, "event io stale has destroyed!"));
    EXPECT_EQ("m_Get", capture.Framework("event io stale has destroyed!")[0].func);

    // This thread kept the lock: another thread cannot take it.
    bool taken = true;
    std::thread other([&] { taken = TCEventIOTestPeer::TryLock(&io, 1000); });
    other.join();
    EXPECT_FALSE(taken);
    TCEventIOTestPeer::Unlock(&io);
}

TEST_F(EventIOQueue, EndOfPipeKeepsTheWatchAndDropsTheTakenEvent) {
    LogCapture capture;
    ASSERT_TRUE(Send(kUser, 1));
    int ends[2];
    ASSERT_EQ(0, pipe(ends));
    close(ends[1]);
    GIOChannel* closed = g_io_channel_unix_new(ends[0]);
    g_io_channel_set_encoding(closed, nullptr, nullptr);

    EXPECT_TRUE(TCEventIOTestPeer::CallWatch(closed, TCEventIOTestPeer::WatchData(&io)));
    EXPECT_TRUE(capture.HasFramework(DLOG_WARN, "Read char from pipe to the end!"));
    EXPECT_EQ(0u, io.CountEvent());
    EXPECT_EQ(0u, io.log.Count("event"));
    EXPECT_EQ(0u, io.log.Count("clear"));
    EXPECT_NE(nullptr, TCEventIOTestPeer::Watch(&io));

    g_io_channel_unref(closed);
    close(ends[0]);
    // The IO's own wake byte is left unread; Final detaches before any wake.
}

TEST_F(EventIOQueue, EmptyReadMakesTheIoDeafAndDropsTheTakenEvent) {
    LogCapture capture;
    ASSERT_TRUE(Send(kUser, 1));
    int ends[2];
    ASSERT_EQ(0, pipe(ends));
    fcntl(ends[0], F_SETFL, O_NONBLOCK);
    GIOChannel* empty = g_io_channel_unix_new(ends[0]);
    g_io_channel_set_encoding(empty, nullptr, nullptr);
    GSource* watch = TCEventIOTestPeer::Watch(&io);
    ASSERT_NE(nullptr, watch);

    EXPECT_FALSE(TCEventIOTestPeer::CallWatch(empty, TCEventIOTestPeer::WatchData(&io)));
    EXPECT_EQ(nullptr, TCEventIOTestPeer::Watch(&io));
    EXPECT_EQ(0u, io.CountEvent());
    EXPECT_EQ(0u, io.log.Count("event"));
    EXPECT_EQ(0u, io.log.Count("clear"));
    EXPECT_TRUE(capture.Lines().empty()) << capture.Dump();

    // Called from GLib, FALSE removes the watch; called directly here, the
    // test removes it as GLib would.
    g_source_destroy(watch);
    g_io_channel_unref(empty);
    close(ends[0]);
    close(ends[1]);
}
