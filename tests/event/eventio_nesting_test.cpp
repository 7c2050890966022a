// SPDX-License-Identifier: Apache-2.0
// A handler that runs a main loop of its own on the queue's context: the
// queue never hands it the next event before it returns, and the nested
// loop does not spin on the wake bytes that wait meanwhile.
#include <gtest/gtest.h>

#include <dlog.h>
#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include "EventTestSupport.h"
#include "LogCapture.h"
#include "TCEventIO.h"

using event_test::Call;
using event_test::DispatchAll;
using event_test::DispatchOne;
using event_test::LocalLoop;
using event_test::LoopThread;
using event_test::RecordingIO;
using event_test::UserEvent;
using harvo_test::LogCapture;
using Quelt::TCEvent;
using Quelt::TCEventIO;
using Quelt::TCEventIOTestPeer;

namespace {

const int kUser = 100;
const int kNest = 200;  // the handler runs a nested loop for this type
// How long a nested loop runs: long enough for a spinning loop to poll
// thousands of times, short enough to keep the suite quick.
const guint kNestedMs = 150;
// A nested loop that waits in poll wakes for its own timeout and little
// else; a spinning one wakes thousands of times within kNestedMs.
const int kFewWakeUps = 20;

std::vector<intptr_t> Tags(const std::vector<Call>& calls) {
    std::vector<intptr_t> tags;
    for (const Call& call : calls)
        tags.push_back(call.tag);
    return tags;
}

// Counts the polls of every context that uses it (one per wake-up of the
// loop, or per iteration that finds something ready).
std::atomic<int> g_polls{0};

gint CountingPoll(GPollFD* fds, guint nfds, gint timeout) {
    g_polls.fetch_add(1);
    return g_poll(fds, nfds, timeout);
}

gboolean QuitLoop(gpointer loop) {
    g_main_loop_quit(static_cast<GMainLoop*>(loop));
    return G_SOURCE_REMOVE;
}

// What a nested loop saw.
struct NestedRun {
    int polls = 0;
    size_t eventsBefore = 0;
    size_t eventsAfter = 0;
    size_t clearsAfter = 0;
    bool timerRan = false;
};

// Runs a loop on |context| for |ms| milliseconds; |during| runs once from
// inside it (another source of the same context).
NestedRun RunNestedLoop(GMainContext* context, guint ms, const RecordingIO& io,
                        std::function<void()> during = nullptr) {
    NestedRun run;
    run.eventsBefore = io.log.Count("event");
    GMainLoop* nested = g_main_loop_new(context, FALSE);

    struct During {
        std::function<void()> call;
        bool* ran;
    } inside{std::move(during), &run.timerRan};
    GSource* other = g_timeout_source_new(1);
    g_source_set_callback(
        other,
        [](gpointer data) -> gboolean {
            auto* d = static_cast<During*>(data);
            *d->ran = true;
            if (d->call)
                d->call();
            return G_SOURCE_REMOVE;
        },
        &inside, nullptr);
    g_source_attach(other, context);
    g_source_unref(other);

    GSource* end = g_timeout_source_new(ms);
    g_source_set_callback(end, QuitLoop, nested, nullptr);
    g_source_attach(end, context);
    g_source_unref(end);

    const int pollsBefore = g_polls.load();
    g_main_loop_run(nested);
    run.polls = g_polls.load() - pollsBefore;
    run.eventsAfter = io.log.Count("event");
    run.clearsAfter = io.log.Count("clear");
    g_main_loop_unref(nested);
    return run;
}

bool PipeIsEmpty(int readEnd) {
    char byte;
    return read(readEnd, &byte, 1) == -1 && errno == EAGAIN;
}

class EventIONesting : public ::testing::Test {
protected:
    void SetUp() override {
        g_main_context_set_poll_func(local.context, CountingPoll);
        ASSERT_TRUE(io.Init(local.loop));
        io.onEvent = [this](const TCEvent* event) {
            if (event->type != kNest)
                return;
            if (beforeNesting)
                beforeNesting();
            runs.push_back(RunNestedLoop(local.context, kNestedMs, io, during));
        };
    }
    void TearDown() override { io.Final(); }

    bool Send(int type, intptr_t tag) {
        TCEvent event = UserEvent(&io, type, tag);
        return TCEventIO::SendEvent(&event);
    }

    LocalLoop local;
    RecordingIO io{"nesting"};
    std::vector<NestedRun> runs;
    std::function<void()> beforeNesting;  // runs in the handler, before its loop
    std::function<void()> during;         // runs inside each nested loop
};

}  // namespace

TEST_F(EventIONesting, QueuedEventsWaitUntilTheNestingHandlerReturns) {
    ASSERT_TRUE(Send(kNest, 1));
    ASSERT_TRUE(Send(kUser, 2));
    ASSERT_TRUE(Send(kUser, 3));

    ASSERT_TRUE(DispatchOne(local.context));
    ASSERT_EQ(1u, runs.size());
    // The nested loop ran other sources but not the queue's next events.
    EXPECT_TRUE(runs[0].timerRan);
    EXPECT_EQ(1u, runs[0].eventsBefore);
    EXPECT_EQ(1u, runs[0].eventsAfter);
    EXPECT_EQ((std::vector<intptr_t>{1}), Tags(io.log.Calls("event")));
    EXPECT_EQ(0u, runs[0].clearsAfter);  // the nesting event clears after it returns

    // Back in the outer loop the queue goes on, one event per wake-up.
    EXPECT_EQ(2u, io.CountEvent());
    ASSERT_TRUE(DispatchOne(local.context));
    EXPECT_EQ(1u, io.CountEvent());
    EXPECT_EQ(1, DispatchAll(local.context));
    EXPECT_EQ((std::vector<intptr_t>{1, 2, 3}), Tags(io.log.Calls("event")));
    EXPECT_EQ((std::vector<intptr_t>{1, 2, 3}), Tags(io.log.Calls("clear")));
    // Every wake byte went with its event.
    EXPECT_TRUE(PipeIsEmpty(TCEventIOTestPeer::ReadEnd(&io)));
}

TEST_F(EventIONesting, TheNestedLoopDoesNotSpinOnWaitingWakeBytes) {
    // Queued by the nesting handler itself: their wake bytes wait in the
    // pipe, unread, for the whole nested loop.
    beforeNesting = [this] {
        for (intptr_t tag = 2; tag <= 5; ++tag)
            ASSERT_TRUE(Send(kUser, tag));
    };
    ASSERT_TRUE(Send(kNest, 1));

    ASSERT_TRUE(DispatchOne(local.context));
    ASSERT_EQ(1u, runs.size());
    EXPECT_TRUE(runs[0].timerRan);
    EXPECT_LE(runs[0].polls, kFewWakeUps) << "the nested loop woke " << runs[0].polls << " times";
    EXPECT_EQ(4, DispatchAll(local.context));
    EXPECT_EQ((std::vector<intptr_t>{1, 2, 3, 4, 5}), Tags(io.log.Calls("event")));
}

TEST_F(EventIONesting, EventsSentWhileNestedArriveAfterwardsInOrder) {
    // Sent from inside the nested loop, so their wake bytes reach the pipe
    // while the nesting handler runs.
    during = [this] {
        ASSERT_TRUE(Send(kUser, 2));
        ASSERT_TRUE(Send(kUser, 3));
    };
    ASSERT_TRUE(Send(kNest, 1));

    ASSERT_TRUE(DispatchOne(local.context));
    ASSERT_EQ(1u, runs.size());
    EXPECT_TRUE(runs[0].timerRan);
    EXPECT_EQ(1u, runs[0].eventsAfter);
    EXPECT_LE(runs[0].polls, kFewWakeUps) << "the nested loop woke " << runs[0].polls << " times";
    EXPECT_EQ(2u, io.CountEvent());
    EXPECT_EQ(2, DispatchAll(local.context));
    EXPECT_EQ((std::vector<intptr_t>{1, 2, 3}), Tags(io.log.Calls("event")));
    EXPECT_TRUE(PipeIsEmpty(TCEventIOTestPeer::ReadEnd(&io)));
}

TEST_F(EventIONesting, ANestingHandlerThatNestsAgainStillGetsNoEvent) {
    // The nested loop's own source dispatches a second nesting event's
    // worth of loop: two levels deep, the queue still waits.
    during = [this] {
        during = nullptr;
        runs.push_back(RunNestedLoop(local.context, kNestedMs, io));
    };
    ASSERT_TRUE(Send(kNest, 1));
    ASSERT_TRUE(Send(kUser, 2));

    ASSERT_TRUE(DispatchOne(local.context));
    ASSERT_EQ(2u, runs.size());  // the inner run is recorded first
    EXPECT_EQ(1u, runs[0].eventsAfter);
    EXPECT_EQ(1u, runs[1].eventsAfter);
    EXPECT_LE(runs[0].polls, kFewWakeUps);
    EXPECT_EQ(1, DispatchAll(local.context));
    EXPECT_EQ((std::vector<intptr_t>{1, 2}), Tags(io.log.Calls("event")));
}

TEST(EventIONestingOtherQueues, ANestedLoopServesTheOtherQueuesOfItsContext) {
    LocalLoop local;
    RecordingIO nesting("nesting");
    RecordingIO other("other");
    ASSERT_TRUE(nesting.Init(local.loop));
    ASSERT_TRUE(other.Init(local.loop));
    std::vector<NestedRun> runs;
    nesting.onEvent = [&](const TCEvent* event) {
        if (event->type == kNest)
            runs.push_back(RunNestedLoop(local.context, kNestedMs, nesting));
    };
    TCEvent nest = UserEvent(&nesting, kNest, 1);
    TCEvent mine = UserEvent(&nesting, kUser, 2);
    TCEvent theirs = UserEvent(&other, kUser, 3);
    ASSERT_TRUE(TCEventIO::SendEvent(&nest));
    ASSERT_TRUE(TCEventIO::SendEvent(&mine));
    ASSERT_TRUE(TCEventIO::SendEvent(&theirs));

    // Dispatch until the nesting handler has run (the other queue may come
    // first: both are ready at the same priority).
    while (runs.empty())
        ASSERT_TRUE(DispatchOne(local.context));
    EXPECT_EQ((std::vector<intptr_t>{3}), Tags(other.log.Calls("event")));
    EXPECT_EQ(1u, runs[0].eventsAfter);
    EXPECT_EQ((std::vector<intptr_t>{1}), Tags(nesting.log.Calls("event")));
    DispatchAll(local.context);
    EXPECT_EQ((std::vector<intptr_t>{1, 2}), Tags(nesting.log.Calls("event")));
    nesting.Final();
    other.Final();
}

TEST(EventIONestingThreads, EventsFromAnotherThreadWaitForTheNestingHandler) {
    LoopThread loop;
    RecordingIO io("nesting-thread");
    ASSERT_TRUE(io.Init(loop.loop()));
    std::promise<void> entered;
    std::promise<void> sent;
    std::shared_future<void> sentFuture = sent.get_future().share();
    std::vector<NestedRun> runs;
    io.onEvent = [&](const TCEvent* event) {
        if (event->type != kNest)
            return;
        entered.set_value();
        // The other thread sends while this handler runs its nested loop;
        // the loop runs until those sends are done and a little after.
        GMainContext* context = loop.context();
        GMainLoop* nested = g_main_loop_new(context, FALSE);
        GSource* poller = g_timeout_source_new(5);
        struct State {
            std::shared_future<void> sent;
            GMainLoop* nested;
            int ticksAfterSent;
        } state{sentFuture, nested, 0};
        g_source_set_callback(
            poller,
            [](gpointer data) -> gboolean {
                auto* s = static_cast<State*>(data);
                if (s->sent.wait_for(std::chrono::seconds(0)) != std::future_status::ready)
                    return G_SOURCE_CONTINUE;
                if (++s->ticksAfterSent < 10)
                    return G_SOURCE_CONTINUE;
                g_main_loop_quit(s->nested);
                return G_SOURCE_REMOVE;
            },
            &state, nullptr);
        g_source_attach(poller, context);
        g_source_unref(poller);
        NestedRun run;
        run.eventsBefore = io.log.Count("event");
        g_main_loop_run(nested);
        run.eventsAfter = io.log.Count("event");
        g_main_loop_unref(nested);
        runs.push_back(run);
    };
    loop.Start();

    TCEvent nest = UserEvent(&io, kNest, 1);
    ASSERT_TRUE(TCEventIO::SendEvent(&nest));
    entered.get_future().wait();
    for (intptr_t tag = 2; tag <= 4; ++tag) {
        TCEvent event = UserEvent(&io, kUser, tag);
        ASSERT_TRUE(TCEventIO::SendEvent(&event));
    }
    sent.set_value();

    ASSERT_TRUE(io.log.WaitFor("event", 4, std::chrono::seconds(30)));
    ASSERT_EQ(1u, runs.size());
    EXPECT_EQ(1u, runs[0].eventsAfter);
    EXPECT_EQ((std::vector<intptr_t>{1, 2, 3, 4}), Tags(io.log.Calls("event")));
    EXPECT_TRUE(io.log.AllOn(loop.id()));
    loop.Stop();
    io.Final();
}

TEST(EventIONestingThreads, SyncSendWaitsForTheNestingHandler) {
    LogCapture capture;
    LoopThread loop;
    RecordingIO io("nesting-sync");
    ASSERT_TRUE(io.Init(loop.loop()));
    std::promise<void> entered;
    std::atomic<bool> nestedDone{false};
    std::vector<NestedRun> runs;
    io.onEvent = [&](const TCEvent* event) {
        if (event->type == kNest) {
            entered.set_value();
            runs.push_back(RunNestedLoop(loop.context(), kNestedMs, io));
            nestedDone = true;
        }
    };
    loop.Start();

    TCEvent nest = UserEvent(&io, kNest, 1);
    ASSERT_TRUE(TCEventIO::SendEvent(&nest));
    entered.get_future().wait();
    TCEvent sync = UserEvent(&io, kUser, 2);
    EXPECT_TRUE(TCEventIO::SendSyncEvent(&sync));
    // The sync event ran only after the nesting handler had returned.
    EXPECT_TRUE(nestedDone.load());
    ASSERT_EQ(1u, runs.size());
    EXPECT_EQ(1u, runs[0].eventsAfter);
    std::vector<Call> calls = io.log.Calls("event");
    ASSERT_EQ(2u, calls.size());
    EXPECT_EQ(&sync, calls[1].event);
    EXPECT_TRUE(calls[1].sync);
    loop.Stop();
    io.Final();
}
