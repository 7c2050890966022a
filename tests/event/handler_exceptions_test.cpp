// SPDX-License-Identifier: Apache-2.0
// Application code that throws where GLib calls the framework: an event
// handler (asynchronous and synchronous events), an alarm callback and a
// task's main function. Each exception becomes one error line and the loop
// goes on.
#include <gtest/gtest.h>

#include <dlog.h>

#include <atomic>
#include <chrono>
#include <future>
#include <stdexcept>
#include <string>

#include "EventTestSupport.h"
#include "LogCapture.h"
#include "TCAlarm.h"
#include "TCEventIO.h"
#include "TCTask.h"

using event_test::DispatchAll;
using event_test::LocalLoop;
using event_test::LoopThread;
using event_test::RecordingIO;
using event_test::UserEvent;
using harvo_test::LogCapture;
using Quelt::TCEvent;
using Quelt::TCEventIO;

namespace {

const int kUser = 100;

// Throws for events tagged 1, with a std::exception, and for events
// tagged 2, with something else.
void ThrowOnTag(const TCEvent* event) {
    const intptr_t tag = reinterpret_cast<intptr_t>(event->param.p);
    if (tag == 1)
        throw std::runtime_error("handler failed");
    if (tag == 2)
        throw 7;
}

}  // namespace

TEST(HandlerExceptions, AnEventHandlerThatThrowsIsReportedAndTheQueueGoesOn) {
    LocalLoop loop;
    RecordingIO io("throwing");
    io.onEvent = ThrowOnTag;
    ASSERT_TRUE(io.Init(loop.loop));
    LogCapture capture;
    for (intptr_t tag : {1, 2, 3}) {
        TCEvent event = UserEvent(&io, kUser, tag);
        ASSERT_TRUE(TCEventIO::SendEvent(&event));
    }
    DispatchAll(loop.context);
    // Every event was handled and cleared, the throwing ones included.
    EXPECT_EQ(io.log.Count("event"), 3u);
    EXPECT_EQ(io.log.Count("clear"), 3u);
    const auto lines = capture.Framework("exception from OnEvent: handler failed");
    ASSERT_EQ(lines.size(), 1u) << capture.Dump();
    EXPECT_EQ(lines[0].func, "m_InterIOWatch");
    EXPECT_EQ(capture.CountFramework(DLOG_ERROR, "exception from OnEvent: handler failed"), 1u);
    EXPECT_EQ(capture.CountFramework(DLOG_ERROR, "exception from OnEvent: not a std::exception"),
              1u);
    io.Final();
}

TEST(HandlerExceptions, ASynchronousSenderIsReleasedWhenTheHandlerThrows) {
    LoopThread loop;
    loop.Start();
    RecordingIO io("throwsync");
    // A synchronous event's parameter carries the sender's semaphores, so
    // the first event throws by order, not by tag.
    std::atomic<bool> throwNext{true};
    io.onEvent = [&](const TCEvent*) {
        if (throwNext.exchange(false))
            throw std::runtime_error("handler failed");
    };
    ASSERT_TRUE(io.Init(loop.loop()));
    LogCapture capture;
    TCEvent event = UserEvent(&io, kUser, 0);
    // Returns (rather than waiting for its 20 seconds) once the handler ran.
    EXPECT_TRUE(TCEventIO::SendSyncEvent(&event));
    EXPECT_TRUE(capture.HasFramework(DLOG_ERROR, "exception from OnEvent: handler failed"));
    TCEvent next = UserEvent(&io, kUser, 0);
    EXPECT_TRUE(TCEventIO::SendSyncEvent(&next));
    EXPECT_EQ(io.log.Count("event"), 2u);
    loop.Stop();
    io.Final();
}

namespace {

struct Ticks {
    int calls = 0;
};

bool ThrowingTick(void* data) {
    Ticks* ticks = static_cast<Ticks*>(data);
    ++ticks->calls;
    if (ticks->calls <= 2)
        throw std::runtime_error("tick failed");
    return true;
}

}  // namespace

TEST(HandlerExceptions, AnAlarmCallbackThatThrowsKeepsTheAlarmGoing) {
    LocalLoop loop;
    TCEventIO io("alarmed");
    ASSERT_TRUE(io.Init(loop.loop));
    LogCapture capture;
    Quelt::TCAlarm alarm;
    Ticks ticks;
    ASSERT_TRUE(alarm.Create(&io, 1, 4));
    ASSERT_TRUE(alarm.SetAlarmCallback(&ThrowingTick, &ticks));
    // A guard timer keeps the iteration waking up; the limit is generous.
    GSource* guard = g_timeout_source_new(20);
    g_source_set_callback(
        guard, [](gpointer) -> gboolean { return TRUE; }, nullptr, nullptr);
    g_source_attach(guard, loop.context);
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (ticks.calls < 4 && std::chrono::steady_clock::now() < deadline)
        g_main_context_iteration(loop.context, TRUE);
    g_source_destroy(guard);
    g_source_unref(guard);
    // The two failed ticks count like any other: the alarm ran its four.
    EXPECT_EQ(ticks.calls, 4);
    const auto lines = capture.Framework("exception from alarm callback: tick failed");
    ASSERT_EQ(lines.size(), 2u) << capture.Dump();
    EXPECT_EQ(lines[0].func, "m_GSourceFunc");
    alarm.Destroy();
    io.Final();
}

namespace {

// A task whose main function throws once its loop has ended.
class ThrowingTask : public Quelt::TCTask {
public:
    ThrowingTask() : TCTask("thrower") {}

    // Set once the task's loop is built, so that Destroy finds it.
    std::promise<void> ready;

protected:
    bool t_Create() override {
        ready.set_value();
        return true;
    }
    void t_Main() override {
        TCTask::t_Main();
        throw std::runtime_error("main failed");
    }
};

}  // namespace

TEST(HandlerExceptions, ATaskWhoseMainThrowsEndsItsThreadCleanly) {
    LogCapture capture;
    ThrowingTask task;
    std::future<void> ready = task.ready.get_future();
    ASSERT_TRUE(task.Create("thrower", false, 0));
    ASSERT_EQ(ready.wait_for(std::chrono::seconds(20)), std::future_status::ready);
    // The exit event ends the loop, t_Main throws, the thread still tears
    // its IOs down and ends, and the join returns.
    task.Destroy();
    const auto lines = capture.Framework("exception from t_Main: main failed");
    ASSERT_EQ(lines.size(), 1u) << capture.Dump();
    EXPECT_EQ(capture.CountFramework(DLOG_ERROR, "exception from t_Main: main failed"), 1u);
    EXPECT_EQ(lines[0].func, "m_ThreadProcess");
    EXPECT_TRUE(capture.HasFramework(DLOG_INFO, "Final IO begin"));
}
