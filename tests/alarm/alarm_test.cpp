// SPDX-License-Identifier: Apache-2.0
// TCAlarm: binding to an IO's loop, arming, counts, stopping from the
// callback, Reset and Destroy from the callback and from another thread, and
// the thread the callback runs on.
//
// Most cases bind the alarm to an event IO whose context the test thread
// iterates itself, so every firing happens inside the test's own calls. A
// second "control" alarm on the same context proves that the loop went on
// well past the moment the alarm under test would have fired.
#include <gtest/gtest.h>

#include <glib.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <mutex>
#include <vector>

#include "TCAlarm.h"
#include "TCEventIO.h"
#include "TCLock.h"
#include "TCTask.h"
#include "../task/TaskTestSupport.h"

using Quelt::QUELT_INFINITY;
using Quelt::TCAlarm;
using task_test::Journal;
using task_test::kWait;
using task_test::ProbeTask;
using task_test::Signal;

namespace {

// What an alarm's callback saw. Thread-safe: the callback may run on a task.
class Probe {
public:
    ~Probe() {
        for (GSource* source : sources_)
            g_source_unref(source);
    }

    // The callback's answer; an action, when set, runs first and decides.
    bool result = true;
    std::function<bool(Probe&, int call)> action;
    Signal fired;

    int Calls() {
        std::lock_guard<std::mutex> guard(mutex_);
        return calls_;
    }
    std::vector<GThread*> Threads() {
        std::lock_guard<std::mutex> guard(mutex_);
        return threads_;
    }
    // The distinct sources that dispatched the callback (kept referenced).
    std::vector<GSource*> Sources() {
        std::lock_guard<std::mutex> guard(mutex_);
        return sources_;
    }
    bool AllSourcesDestroyed() {
        for (GSource* source : Sources()) {
            if (!g_source_is_destroyed(source))
                return false;
        }
        return true;
    }

    static bool Callback(void* data) {
        Probe* probe = static_cast<Probe*>(data);
        int call;
        {
            std::lock_guard<std::mutex> guard(probe->mutex_);
            call = ++probe->calls_;
            probe->threads_.push_back(g_thread_self());
            GSource* current = g_main_current_source();
            if (current != nullptr && std::find(probe->sources_.begin(), probe->sources_.end(),
                                                current) == probe->sources_.end()) {
                probe->sources_.push_back(g_source_ref(current));
            }
        }
        bool answer = probe->action ? probe->action(*probe, call) : probe->result;
        probe->fired.Notify();
        return answer;
    }

private:
    std::mutex mutex_;
    int calls_ = 0;
    std::vector<GThread*> threads_;
    std::vector<GSource*> sources_;
};

// True when every recorded call ran on |thread|.
bool AllOn(const std::vector<GThread*>& threads, GThread* thread) {
    return std::all_of(threads.begin(), threads.end(),
                       [&](GThread* each) { return each == thread; });
}

// Iterates |context| on this thread until |done| holds or the limit passes.
// A guard timeout wakes the iteration regularly so the limit is honoured even
// when no other source is due.
bool IterateUntil(GMainContext* context, const std::function<bool()>& done,
                  std::chrono::milliseconds limit = kWait) {
    GSource* guard = g_timeout_source_new(20);
    g_source_set_callback(
        guard, [](gpointer) -> gboolean { return TRUE; }, nullptr, nullptr);
    g_source_attach(guard, context);
    auto deadline = std::chrono::steady_clock::now() + limit;
    while (!done() && std::chrono::steady_clock::now() < deadline) {
        g_main_context_iteration(context, TRUE);
    }
    g_source_destroy(guard);
    g_source_unref(guard);
    return done();
}

// An event IO on a context that only the test thread iterates.
class AlarmOnOwnLoop : public ::testing::Test {
protected:
    void SetUp() override {
        context_ = g_main_context_new();
        loop_ = g_main_loop_new(context_, FALSE);
        ASSERT_TRUE(io_.Init(loop_));
    }
    void TearDown() override {
        io_.Final();
        g_main_loop_unref(loop_);
        g_main_context_unref(context_);
    }

    // Runs a control alarm of |count| firings every |interval| ms on the same
    // context until it is used up and gone.
    void RunControl(unsigned long interval, unsigned long count) {
        TCAlarm control;
        Probe probe;
        ASSERT_TRUE(control.Create(&io_, interval, count));
        ASSERT_TRUE(control.SetAlarmCallback(&Probe::Callback, &probe));
        ASSERT_TRUE(IterateUntil(context_, [&] {
            return probe.Calls() == static_cast<int>(count) && probe.AllSourcesDestroyed();
        }));
        control.Destroy();
    }

    GMainContext* context_ = nullptr;
    GMainLoop* loop_ = nullptr;
    Quelt::TCEventIO io_{"alarmio"};
};

}  // namespace

TEST(Alarm, SetAlarmCallbackBeforeCreateFails) {
    TCAlarm alarm;
    Probe probe;
    EXPECT_FALSE(alarm.SetAlarmCallback(&Probe::Callback, &probe));
    EXPECT_FALSE(alarm.Reset(5, 1));
    alarm.Destroy();  // not created: nothing to do
    alarm.Destroy();
    EXPECT_EQ(0, probe.Calls());
}

TEST(Alarm, ResetBeforeSetAlarmCallbackFails) {
    TCAlarm alarm;
    EXPECT_TRUE(alarm.Create(nullptr, 5, 1));
    EXPECT_FALSE(alarm.Reset(5, 1));
    EXPECT_FALSE(alarm.Reset(0, 0));
    alarm.Destroy();
}

TEST(Alarm, NullCallbackIsRefusedAndLeavesTheAlarmUnarmed) {
    TCAlarm alarm;
    int data = 0;
    EXPECT_TRUE(alarm.Create(nullptr, 5, 1));
    EXPECT_FALSE(alarm.SetAlarmCallback(nullptr, &data));
    EXPECT_FALSE(alarm.Reset(5, 1));
    alarm.Destroy();
}

TEST_F(AlarmOnOwnLoop, IntervalZeroArmsButNeverFires) {
    TCAlarm alarm;
    Probe probe;
    ASSERT_TRUE(alarm.Create(&io_, 0, 5));
    EXPECT_TRUE(alarm.SetAlarmCallback(&Probe::Callback, &probe));
    RunControl(10, 5);  // 50 ms of loop iterations
    EXPECT_EQ(0, probe.Calls());
    alarm.Destroy();
}

TEST_F(AlarmOnOwnLoop, CountZeroArmsButNeverFires) {
    TCAlarm alarm;
    Probe probe;
    ASSERT_TRUE(alarm.Create(&io_, 2, 0));
    EXPECT_TRUE(alarm.SetAlarmCallback(&Probe::Callback, &probe));
    RunControl(10, 5);  // 25 intervals of the alarm under test
    EXPECT_EQ(0, probe.Calls());
    alarm.Destroy();
}

TEST_F(AlarmOnOwnLoop, CountThreeRunsThreeTimesThenTheCountReadsUnlimited) {
    TCAlarm alarm;
    Probe probe;
    ASSERT_TRUE(alarm.Create(&io_, 2, 3));
    ASSERT_TRUE(alarm.SetAlarmCallback(&Probe::Callback, &probe));
    ASSERT_TRUE(IterateUntil(context_, [&] { return probe.Calls() >= 3; }));
    // The source goes away on the tick after the third call.
    ASSERT_TRUE(IterateUntil(context_, [&] { return probe.AllSourcesDestroyed(); }));
    RunControl(10, 4);
    EXPECT_EQ(3, probe.Calls());
    ASSERT_EQ(1u, probe.Sources().size());
    EXPECT_TRUE(AllOn(probe.Threads(), g_thread_self()));
    EXPECT_EQ(context_, g_source_get_context(probe.Sources()[0]));

    // The used-up count now reads as unlimited: arming again keeps firing
    // well beyond the three calls of before.
    ASSERT_TRUE(alarm.SetAlarmCallback(&Probe::Callback, &probe));
    EXPECT_TRUE(IterateUntil(context_, [&] { return probe.Calls() >= 3 + 8; }));
    alarm.Destroy();
    EXPECT_TRUE(probe.AllSourcesDestroyed());
}

TEST_F(AlarmOnOwnLoop, FalseFromTheCallbackStopsAtOnceAndResetStartsAgain) {
    TCAlarm alarm;
    Probe probe;
    probe.result = false;
    ASSERT_TRUE(alarm.Create(&io_, 2, QUELT_INFINITY));
    ASSERT_TRUE(alarm.SetAlarmCallback(&Probe::Callback, &probe));
    ASSERT_TRUE(IterateUntil(context_, [&] { return probe.Calls() >= 1; }));
    // Stopped by the very call that answered false.
    EXPECT_TRUE(probe.AllSourcesDestroyed());
    RunControl(10, 4);
    EXPECT_EQ(1, probe.Calls());

    probe.result = true;
    EXPECT_TRUE(alarm.Reset(2, 2));
    ASSERT_TRUE(IterateUntil(context_, [&] { return probe.Calls() >= 3; }));
    ASSERT_TRUE(IterateUntil(context_, [&] { return probe.AllSourcesDestroyed(); }));
    RunControl(10, 4);
    EXPECT_EQ(3, probe.Calls());
    EXPECT_EQ(2u, probe.Sources().size());
    alarm.Destroy();
}

TEST_F(AlarmOnOwnLoop, ResetWithAZeroValueStopsAndNonZeroValuesRestart) {
    TCAlarm alarm;
    Probe probe;
    ASSERT_TRUE(alarm.Create(&io_, 2, QUELT_INFINITY));
    ASSERT_TRUE(alarm.SetAlarmCallback(&Probe::Callback, &probe));
    ASSERT_TRUE(IterateUntil(context_, [&] { return probe.Calls() >= 2; }));

    EXPECT_TRUE(alarm.Reset(0, 10));
    EXPECT_TRUE(probe.AllSourcesDestroyed());
    int calls = probe.Calls();
    RunControl(10, 3);
    EXPECT_EQ(calls, probe.Calls());

    EXPECT_TRUE(alarm.Reset(2, 0));
    RunControl(10, 3);
    EXPECT_EQ(calls, probe.Calls());

    EXPECT_TRUE(alarm.Reset(2, 1));
    ASSERT_TRUE(IterateUntil(context_, [&] { return probe.Calls() >= calls + 1; }));
    RunControl(10, 3);
    EXPECT_EQ(calls + 1, probe.Calls());
    alarm.Destroy();
}

TEST_F(AlarmOnOwnLoop, ASecondCreateChangesNothing) {
    TCAlarm alarm;
    Probe probe;
    ASSERT_TRUE(alarm.Create(&io_, 2, 2));
    EXPECT_TRUE(alarm.Create(nullptr, 100000, 50));
    ASSERT_TRUE(alarm.SetAlarmCallback(&Probe::Callback, &probe));
    // Still on the IO's context, with the first interval and count.
    ASSERT_TRUE(IterateUntil(context_, [&] { return probe.Calls() >= 2; }));
    RunControl(10, 3);
    EXPECT_EQ(2, probe.Calls());
    alarm.Destroy();
}

TEST_F(AlarmOnOwnLoop, ArmingTwiceRunsTwoTimeouts) {
    TCAlarm alarm;
    Probe probe;
    ASSERT_TRUE(alarm.Create(&io_, 2, QUELT_INFINITY));
    ASSERT_TRUE(alarm.SetAlarmCallback(&Probe::Callback, &probe));
    ASSERT_TRUE(alarm.SetAlarmCallback(&Probe::Callback, &probe));
    ASSERT_TRUE(IterateUntil(context_, [&] { return probe.Sources().size() == 2; }));

    // Destroy removes the second timeout only; the first finds no callback
    // on its next tick and goes away without calling anything.
    alarm.Destroy();
    int calls = probe.Calls();
    ASSERT_TRUE(IterateUntil(context_, [&] { return probe.AllSourcesDestroyed(); }));
    EXPECT_EQ(calls, probe.Calls());
}

TEST_F(AlarmOnOwnLoop, ResetFromInsideTheCallbackReplacesTheTimeout) {
    TCAlarm alarm;
    Probe probe;
    probe.action = [&](Probe&, int call) {
        if (call == 1) {
            EXPECT_TRUE(alarm.Reset(2, 2));
        }
        return true;
    };
    ASSERT_TRUE(alarm.Create(&io_, 2, QUELT_INFINITY));
    ASSERT_TRUE(alarm.SetAlarmCallback(&Probe::Callback, &probe));
    ASSERT_TRUE(IterateUntil(context_, [&] { return probe.Calls() >= 3; }));
    ASSERT_TRUE(IterateUntil(context_, [&] { return probe.AllSourcesDestroyed(); }));
    RunControl(10, 3);
    // One call of the first timeout, two of the new one.
    EXPECT_EQ(3, probe.Calls());
    EXPECT_EQ(2u, probe.Sources().size());
    alarm.Destroy();
}

TEST_F(AlarmOnOwnLoop, DestroyFromInsideTheCallbackStopsAndUnbinds) {
    TCAlarm alarm;
    Probe probe;
    probe.action = [&](Probe&, int) {
        alarm.Destroy();
        return true;
    };
    ASSERT_TRUE(alarm.Create(&io_, 2, QUELT_INFINITY));
    ASSERT_TRUE(alarm.SetAlarmCallback(&Probe::Callback, &probe));
    ASSERT_TRUE(IterateUntil(context_, [&] { return probe.Calls() >= 1; }));
    EXPECT_TRUE(probe.AllSourcesDestroyed());
    RunControl(10, 3);
    EXPECT_EQ(1, probe.Calls());
    // Unarmed and no longer created.
    EXPECT_FALSE(alarm.Reset(2, 1));
    EXPECT_FALSE(alarm.SetAlarmCallback(&Probe::Callback, &probe));
}

TEST_F(AlarmOnOwnLoop, ADestroyedAlarmCanBeCreatedAgain) {
    TCAlarm alarm;
    Probe probe;
    ASSERT_TRUE(alarm.Create(&io_, 2, QUELT_INFINITY));
    ASSERT_TRUE(alarm.SetAlarmCallback(&Probe::Callback, &probe));
    alarm.Destroy();
    ASSERT_TRUE(alarm.Create(&io_, 2, 1));
    ASSERT_TRUE(alarm.SetAlarmCallback(&Probe::Callback, &probe));
    ASSERT_TRUE(IterateUntil(context_, [&] { return probe.Calls() >= 1; }));
    RunControl(10, 3);
    EXPECT_EQ(1, probe.Calls());
    EXPECT_EQ(1u, probe.Sources().size());
    alarm.Destroy();
}

TEST(Alarm, WithoutAnIOTheAlarmFiresOnTheDefaultContext) {
    GMainContext* defaultContext = g_main_context_default();
    TCAlarm alarm;
    Probe probe;
    ASSERT_TRUE(alarm.Create(nullptr, 2, 2));
    ASSERT_TRUE(alarm.SetAlarmCallback(&Probe::Callback, &probe));
    ASSERT_TRUE(IterateUntil(defaultContext, [&] { return probe.Calls() >= 2; }));
    ASSERT_TRUE(IterateUntil(defaultContext, [&] { return probe.AllSourcesDestroyed(); }));
    EXPECT_EQ(2, probe.Calls());
    ASSERT_EQ(1u, probe.Sources().size());
    EXPECT_EQ(defaultContext, g_source_get_context(probe.Sources()[0]));
    EXPECT_TRUE(AllOn(probe.Threads(), g_thread_self()));
    alarm.Destroy();
}

TEST(Alarm, AnIOWithoutALoopMeansTheDefaultContext) {
    GMainContext* defaultContext = g_main_context_default();
    Quelt::TCEventIO io("defaultio");
    ASSERT_TRUE(io.Init(nullptr));
    TCAlarm alarm;
    Probe probe;
    ASSERT_TRUE(alarm.Create(&io, 2, 1));
    ASSERT_TRUE(alarm.SetAlarmCallback(&Probe::Callback, &probe));
    ASSERT_TRUE(IterateUntil(defaultContext,
                             [&] { return probe.AllSourcesDestroyed() && probe.Calls() == 1; }));
    EXPECT_EQ(defaultContext, g_source_get_context(probe.Sources()[0]));
    alarm.Destroy();
    io.Final();
}

namespace {

// A running task for the cross-thread cases.
class AlarmOnTask : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(task_.Create("alarmtask", false, 0));
        ASSERT_TRUE(task_.created.WaitFor(1));
    }
    void TearDown() override { task_.Destroy(); }

    // Waits until the task's loop has finished whatever it was doing: a
    // synchronous event runs after every dispatch already under way.
    void Barrier() {
        Quelt::TCEvent event;
        event.receiver = &task_;
        event.type = 600;
        ASSERT_TRUE(Quelt::SendSyncEvent(&event));
    }

    // A control alarm on the task: returns once it has fired |count| times
    // and its timeout is gone.
    void RunControl(unsigned long interval, unsigned long count) {
        TCAlarm control;
        Probe probe;
        ASSERT_TRUE(control.Create(&task_, interval, count));
        ASSERT_TRUE(control.SetAlarmCallback(&Probe::Callback, &probe));
        ASSERT_TRUE(probe.fired.WaitFor(static_cast<int>(count)));
        Barrier();
        control.Destroy();
    }

    Journal journal_;
    ProbeTask task_{"alarmtask", &journal_};
};

}  // namespace

TEST_F(AlarmOnTask, TheCallbackRunsOnTheTaskThread) {
    TCAlarm alarm;
    Probe probe;
    ASSERT_TRUE(alarm.Create(&task_, 2, 3));
    ASSERT_TRUE(alarm.SetAlarmCallback(&Probe::Callback, &probe));
    ASSERT_TRUE(probe.fired.WaitFor(3));
    RunControl(10, 3);
    EXPECT_EQ(3, probe.Calls());

    GThread* taskThread = journal_.ThreadOf("t_Main");
    ASSERT_NE(nullptr, taskThread);
    EXPECT_NE(g_thread_self(), taskThread);
    EXPECT_TRUE(AllOn(probe.Threads(), taskThread));
    ASSERT_EQ(1u, probe.Sources().size());
    EXPECT_EQ(g_main_loop_get_context(task_.GetMainLoop()),
              g_source_get_context(probe.Sources()[0]));
    alarm.Destroy();
}

TEST_F(AlarmOnTask, ResetAndDestroyFromAnotherThreadWhileItFires) {
    TCAlarm alarm;
    Probe probe;
    ASSERT_TRUE(alarm.Create(&task_, 1, QUELT_INFINITY));
    ASSERT_TRUE(alarm.SetAlarmCallback(&Probe::Callback, &probe));
    ASSERT_TRUE(probe.fired.WaitFor(3));

    // Reset races with the firing timeout; the lock keeps them apart.
    for (int round = 0; round < 20; ++round) {
        EXPECT_TRUE(alarm.Reset(1 + round % 2, QUELT_INFINITY));
    }
    int calls = probe.Calls();
    ASSERT_TRUE(probe.fired.WaitFor(calls + 3));

    alarm.Destroy();
    // A firing blocked on the lock during Destroy finds no callback and does
    // nothing; once Destroy returned, no call can begin any more.
    calls = probe.Calls();
    RunControl(5, 4);
    EXPECT_EQ(calls, probe.Calls());
    EXPECT_FALSE(alarm.Reset(1, 1));
    GThread* taskThread = journal_.ThreadOf("t_Main");
    EXPECT_TRUE(AllOn(probe.Threads(), taskThread));
}

TEST_F(AlarmOnTask, ResetAndDestroyFromInsideTheCallbackOnTheTask) {
    TCAlarm alarm;
    Probe probe;
    probe.action = [&](Probe&, int call) {
        if (call == 1) {
            EXPECT_TRUE(alarm.Reset(2, 2));
        }
        if (call == 3)
            alarm.Destroy();
        return true;
    };
    ASSERT_TRUE(alarm.Create(&task_, 2, QUELT_INFINITY));
    ASSERT_TRUE(alarm.SetAlarmCallback(&Probe::Callback, &probe));
    ASSERT_TRUE(probe.fired.WaitFor(3));
    RunControl(10, 3);
    EXPECT_EQ(3, probe.Calls());
    EXPECT_FALSE(alarm.Reset(2, 1));
    alarm.Destroy();
}
