// SPDX-License-Identifier: Apache-2.0
// The event IO across threads: a loop running on a thread of its own,
// synchronous sends, pings, and a flood of events.
#include <gtest/gtest.h>

#include <dlog.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include "EventPayloads.h"
#include "EventTestSupport.h"
#include "LogCapture.h"
#include "TCEventIO.h"

using event_test::Call;
using event_test::Clock;
using event_test::LocalLoop;
using event_test::LoopThread;
using event_test::RecordingIO;
using event_test::SeparateHandler;
using event_test::UserEvent;
using harvo_test::LogCapture;
using Quelt::TCEvent;
using Quelt::TCEventIO;
using Quelt::TCEventIOTestPeer;

namespace {

const int kUser = 100;
const std::chrono::seconds kGenerous(30);

// Objects that a test leaves to a thread that stays blocked for good; kept
// reachable so leak checkers do not count them.
std::vector<void*>& KeptForBlockedThreads() {
    static std::vector<void*>* kept = new std::vector<void*>();
    return *kept;
}

}  // namespace

TEST(EventIOThreads, HandlersRunOnTheLoopThreadInEachSendersOrder) {
    LoopThread loop;
    loop.Start();
    RecordingIO io("worker");
    SeparateHandler other(&io);
    ASSERT_TRUE(io.Init(loop.loop()));

    const int kEach = 200;
    auto produce = [&](Quelt::TCHandler* receiver, intptr_t base) {
        for (intptr_t i = 0; i < kEach; ++i) {
            TCEvent event = UserEvent(receiver, kUser, base + i);
            ASSERT_TRUE(TCEventIO::SendEvent(&event));
        }
    };
    std::thread producer(produce, &other, 1000000);
    produce(&io, 0);
    producer.join();

    ASSERT_TRUE(io.log.WaitFor("clear", kEach, kGenerous));
    ASSERT_TRUE(other.log.WaitFor("clear", kEach, kGenerous));
    loop.Stop();

    EXPECT_TRUE(io.log.AllOn(loop.id()));
    EXPECT_TRUE(other.log.AllOn(loop.id()));
    EXPECT_NE(std::this_thread::get_id(), loop.id());
    std::vector<Call> mine = io.log.Calls("event");
    std::vector<Call> theirs = other.log.Calls("event");
    ASSERT_EQ(static_cast<size_t>(kEach), mine.size());
    ASSERT_EQ(static_cast<size_t>(kEach), theirs.size());
    for (int i = 0; i < kEach; ++i) {
        EXPECT_EQ(i, mine[i].tag);
        EXPECT_EQ(1000000 + i, theirs[i].tag);
    }
    io.Final();
}

TEST(EventIOThreads, SyncSendWaitsUntilTheHandlerRanOnTheCallersObject) {
    LogCapture capture;
    LoopThread loop;
    loop.Start();
    RecordingIO io("sync");
    SeparateHandler other(&io);
    ASSERT_TRUE(io.Init(loop.loop()));

    TCEvent event = UserEvent(&io, kUser, 0);
    ASSERT_TRUE(TCEventIO::SendSyncEvent(&event));
    // The handler has run by the time the call returns.
    std::vector<Call> calls = io.log.Calls("event");
    ASSERT_EQ(1u, calls.size());
    EXPECT_EQ(&event, calls[0].event);
    EXPECT_TRUE(calls[0].sync);
    EXPECT_EQ(loop.id(), calls[0].thread);
    EXPECT_TRUE(event.sync);

    // The free function, to a handler that is not the IO itself.
    TCEvent second = UserEvent(&other, kUser, 0);
    ASSERT_TRUE(Quelt::SendSyncEvent(&second));
    calls = other.log.Calls("event");
    ASSERT_EQ(1u, calls.size());
    EXPECT_EQ(&second, calls[0].event);
    EXPECT_TRUE(calls[0].sync);
    EXPECT_EQ(loop.id(), calls[0].thread);

    loop.Stop();
    // A synchronous event has no clear step: the sender keeps its object.
    EXPECT_EQ(0u, io.log.Count("clear"));
    EXPECT_EQ(0u, other.log.Count("clear"));
    EXPECT_FALSE(capture.HasFramework(DLOG_ERROR, "SendSyncEvent fails!"));
    io.Final();
}

TEST(EventIOThreads, SyncSendOverwritesTheCallersParam) {
    LoopThread loop;
    loop.Start();
    RecordingIO io("param");
    ASSERT_TRUE(io.Init(loop.loop()));
    TCEvent event = UserEvent(&io, kUser, 12345);
    ASSERT_TRUE(TCEventIO::SendSyncEvent(&event));
    std::vector<Call> calls = io.log.Calls("event");
    ASSERT_EQ(1u, calls.size());
    // The handler saw the semaphore pair, not the caller's own pointer.
    EXPECT_NE(12345, calls[0].tag);
    EXPECT_NE(0, calls[0].tag);
    loop.Stop();
    io.Final();
}

TEST(EventIOThreads, ExecuteEventRunsItsCallableOnTheLoopThread) {
    LogCapture capture;
    LoopThread loop;
    loop.Start();
    RecordingIO io("executor");
    ASSERT_TRUE(io.Init(loop.loop()));

    std::promise<std::thread::id> ranOn;
    TCEvent event = UserEvent(&io, Quelt::EVENT_EXECUTE);
    event.param.p =
        new Quelt::TCExecuteCallable([&ranOn] { ranOn.set_value(std::this_thread::get_id()); });
    ASSERT_TRUE(TCEventIO::SendEvent(&event));
    std::future<std::thread::id> id = ranOn.get_future();
    ASSERT_EQ(std::future_status::ready, id.wait_for(kGenerous));
    EXPECT_EQ(loop.id(), id.get());
    ASSERT_TRUE(io.log.WaitFor("clear", 1, kGenerous));
    loop.Stop();
    EXPECT_TRUE(capture.HasFramework(DLOG_INFO, "execute function in this event io"));
    EXPECT_TRUE(capture.HasFramework(DLOG_INFO, "clear message memory"));
    EXPECT_TRUE(io.log.AllOn(loop.id()));
    io.Final();
}

TEST(EventIOThreads, PingRoundTripSucceedsAndLeavesTheTargetLoopBlocked) {
    // The loop thread stays blocked in the ping's clear step for good, so it
    // is abandoned together with its loop and IO.
    class PingProbe : public RecordingIO {
    public:
        PingProbe() : RecordingIO("pinged") {}
        void t_Clear(TCEvent* event) override {
            if (event->type == Quelt::EVENT_PING)
                log.Add("ping clear entered", event);
            TCEventIO::t_Clear(event);
            if (event->type == Quelt::EVENT_PING)
                log.Add("ping clear left", event);
        }
    };
    LoopThread* loop = new LoopThread();
    PingProbe* io = new PingProbe();
    KeptForBlockedThreads().push_back(loop);
    KeptForBlockedThreads().push_back(io);
    loop->Start();
    ASSERT_TRUE(io->Init(loop->loop()));

    EXPECT_TRUE(TCEventIO::Ping(io, 5000000));
    ASSERT_TRUE(io->log.WaitFor("ping clear entered", 1, kGenerous));
    EXPECT_EQ(loop->id(), io->log.Calls("ping clear entered")[0].thread);

    // The pinger gave the second semaphore once and the handler took it:
    // the clear step's take waits for ever, and nothing else runs there.
    TCEvent later = UserEvent(io, kUser, 1);
    ASSERT_TRUE(TCEventIO::SendEvent(&later));
    EXPECT_FALSE(io->log.WaitFor("event", 1, std::chrono::milliseconds(300)));
    EXPECT_EQ(0u, io->log.Count("ping clear left"));
    EXPECT_EQ(1u, io->CountEvent());
    loop->Abandon();
}

TEST(EventIOThreads, PingToAStoppedLoopFailsAfterAtLeastTheMinimumWait) {
    LogCapture capture;
    LocalLoop local;  // never dispatched
    RecordingIO io("stopped");
    ASSERT_TRUE(io.Init(local.loop));

    for (unsigned long asked : {0UL, 10UL, 2000UL}) {
        const Clock::time_point start = Clock::now();
        EXPECT_FALSE(TCEventIO::Ping(&io, asked));
        const auto waited =
            std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - start);
        EXPECT_GE(waited.count(), 2100) << "asked " << asked;
    }
    EXPECT_EQ(3u, io.CountEvent());

    // A longer timeout is kept as asked.
    const Clock::time_point start = Clock::now();
    EXPECT_FALSE(TCEventIO::Ping(&io, 50000));
    EXPECT_GE(std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - start).count(),
              50000);

    // Final clears the unanswered pings: each clear takes the second
    // semaphore the pinger gave and frees the pair.
    io.Final();
    EXPECT_EQ(0u, io.CountEvent());
    EXPECT_EQ(4u, io.log.Count("clear"));
    EXPECT_EQ(0u, io.log.Count("event"));
}

TEST(EventIOThreads, PingToAnUninitialisedIoFails) {
    LogCapture capture;
    RecordingIO io("down");
    EXPECT_FALSE(TCEventIO::Ping(&io, 100000));
    EXPECT_TRUE(capture.HasFramework(DLOG_ERROR, "event io down has destroyed!"));
}

// ---------------------------------------------------------------------------
// A flood of events

namespace {

const int kFlood = 100000;

// Sends |count| numbered user events to |io| from a thread of its own.
// With a |maxBacklog| it waits while that many events are queued, so that
// the pipe never fills up (see the death test below for what happens then).
class FloodWriter {
public:
    FloodWriter(RecordingIO* io, int count, unsigned maxBacklog = 0)
        : thread_([this, io, count, maxBacklog] {
              for (int i = 0; i < count; ++i) {
                  while (maxBacklog != 0 && io->CountEvent() >= maxBacklog) {
                      std::this_thread::sleep_for(std::chrono::microseconds(200));
                  }
                  TCEvent event = UserEvent(io, kUser, i);
                  if (!TCEventIO::SendEvent(&event))
                      failed_ = true;
                  sent_.store(i + 1);
              }
              done_.set_value();
          }) {}

    int sent() const { return sent_.load(); }
    bool failed() const { return failed_; }
    bool WaitDone(std::chrono::milliseconds timeout) {
        return done_future_.wait_for(timeout) == std::future_status::ready;
    }
    void Join() { thread_.join(); }
    void Detach() { thread_.detach(); }

private:
    std::atomic<int> sent_{0};
    std::atomic<bool> failed_{false};
    std::promise<void> done_;
    std::future<void> done_future_ = done_.get_future();
    std::thread thread_;
};

// Polls |io|'s queue length until it has stayed the same for |still|.
unsigned WaitUntilTheQueueStopsGrowing(RecordingIO* io, std::chrono::milliseconds still,
                                       std::chrono::seconds limit) {
    const Clock::time_point deadline = Clock::now() + limit;
    unsigned last = io->CountEvent();
    Clock::time_point lastChange = Clock::now();
    while (Clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
        unsigned now = io->CountEvent();
        if (now != last) {
            last = now;
            lastChange = Clock::now();
        } else if (Clock::now() - lastChange >= still) {
            break;
        }
    }
    return last;
}

// Runs in a child process: the threads it leaves stay blocked for good.
// Exits 0 after writing both findings, 1 with the reason otherwise.
void FloodWithoutRunningLoop() {
    LogCapture* capture = new LogCapture();
    LoopThread* loop = new LoopThread();
    RecordingIO* io = new RecordingIO("flood");
    if (!io->Init(loop->loop()))
        std::_Exit(1);
    const int capacity = fcntl(TCEventIOTestPeer::WriteEnd(io), F_GETPIPE_SZ);

    FloodWriter* writer = new FloodWriter(io, kFlood);
    const unsigned queued =
        WaitUntilTheQueueStopsGrowing(io, std::chrono::milliseconds(500), std::chrono::seconds(60));
    if (queued >= static_cast<unsigned>(kFlood) || static_cast<int>(queued) != capacity ||
        writer->WaitDone(std::chrono::milliseconds(200)) || writer->failed()) {
        std::fprintf(stderr, "flood: queued %u, pipe capacity %d\n", queued, capacity);
        std::_Exit(1);
    }
    std::fprintf(stderr, "flood: writer blocked at %u of %d\n", queued, kFlood);

    // The writer holds the lock while it waits in write(); the loop only
    // tries the lock, so it cannot take an event to free the pipe.
    loop->Start();
    if (!capture->WaitForFramework(DLOG_ERROR, "Try lock mutex fail!", kGenerous) ||
        io->CountEvent() != queued || io->log.Count("event") != 0) {
        std::fprintf(stderr, "flood: the loop took events\n");
        std::_Exit(1);
    }
    std::fprintf(stderr, "flood: the loop cannot take the lock\n");
    std::_Exit(0);
}

}  // namespace

TEST(EventIOFloodDeathTest, WriterWithoutRunningLoopBlocksWhenThePipeIsFull) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(FloodWithoutRunningLoop(), ::testing::ExitedWithCode(0),
                "flood: writer blocked at [0-9]+ of 100000.*the loop cannot take the lock");
}

TEST(EventIOFlood, HundredThousandEventsQueuedBeforeTheLoopRunsArriveInOrder) {
    LoopThread loop;
    RecordingIO io("stream");
    ASSERT_TRUE(io.Init(loop.loop()));
    const unsigned capacity =
        static_cast<unsigned>(fcntl(TCEventIOTestPeer::WriteEnd(&io), F_GETPIPE_SZ));
    const unsigned backlog = capacity / 2;

    // The loop is not running yet: the queue fills up to the writer's limit
    // and stays there.
    FloodWriter writer(&io, kFlood, backlog);
    EXPECT_EQ(backlog, WaitUntilTheQueueStopsGrowing(&io, std::chrono::milliseconds(300),
                                                     std::chrono::seconds(60)));
    EXPECT_EQ(0u, io.log.Count("event"));

    loop.Start();
    ASSERT_TRUE(writer.WaitDone(std::chrono::minutes(3)));
    writer.Join();
    EXPECT_FALSE(writer.failed());
    ASSERT_TRUE(io.log.WaitFor("clear", kFlood, std::chrono::minutes(3)));
    loop.Stop();

    std::vector<Call> calls = io.log.Calls("event");
    ASSERT_EQ(static_cast<size_t>(kFlood), calls.size());
    for (int i = 0; i < kFlood; ++i) {
        ASSERT_EQ(i, calls[i].tag) << "at " << i;
    }
    EXPECT_TRUE(io.log.AllOn(loop.id()));
    EXPECT_EQ(0u, io.CountEvent());
    io.Final();
}
