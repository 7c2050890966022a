// SPDX-License-Identifier: Apache-2.0
// Synchronous sends whose receiver does not run in time: the sender waits
// twenty seconds and still reports success.
#include <gtest/gtest.h>

#include <dlog.h>

#include <chrono>
#include <memory>
#include <thread>

#include "EventTestSupport.h"
#include "LogCapture.h"
#include "TCEventIO.h"

using event_test::Call;
using event_test::Clock;
using event_test::DispatchAll;
using event_test::LocalLoop;
using event_test::RecordingIO;
using event_test::UserEvent;
using harvo_test::LogCapture;
using Quelt::TCEvent;
using Quelt::TCEventIO;

namespace {

const int kUser = 100;
const int kSyncFromHandler = 101;
const auto kTwentySeconds = std::chrono::seconds(20);

}  // namespace

TEST(EventIOSyncSlow, SyncSendToALoopThatNeverRunsReturnsTrueAfterTwentySeconds) {
    LogCapture capture;
    LocalLoop local;  // not dispatched while the sender waits
    RecordingIO io("asleep");
    ASSERT_TRUE(io.Init(local.loop));

    auto event = std::make_unique<TCEvent>(UserEvent(&io, kUser));
    const TCEvent* original = event.get();
    const Clock::time_point start = Clock::now();
    EXPECT_TRUE(TCEventIO::SendSyncEvent(event.get()));
    EXPECT_GE(Clock::now() - start, kTwentySeconds);
    EXPECT_EQ(0u, io.log.Count("event"));
    EXPECT_EQ(1u, io.CountEvent());
    EXPECT_FALSE(capture.HasFramework(DLOG_ERROR, "SendSyncEvent fails!"));
    // The caller may drop its event now: the queue holds a copy.
    event.reset();

    // The loop runs the late event on that copy, never on the caller's
    // object, and frees the semaphore pair.
    EXPECT_EQ(1, DispatchAll(local.context));
    std::vector<Call> calls = io.log.Calls("event");
    ASSERT_EQ(1u, calls.size());
    EXPECT_NE(original, calls[0].event);
    EXPECT_EQ(kUser, calls[0].type);
    EXPECT_TRUE(calls[0].sync);
    EXPECT_EQ(1u, capture.CountFramework(DLOG_WARN,
                                         "synchronous event 100 for asleep runs on a copy: its "
                                         "sender stopped waiting for it"));
    io.Final();
}

// A handler on the loop's thread that sends synchronously to its own IO used
// to wait the full twenty seconds for itself; the event now runs at once.
TEST(EventIOSyncSlow, SyncSendFromTheLoopsOwnThreadRunsAtOnce) {
    LocalLoop local;
    RecordingIO io("self");
    ASSERT_TRUE(io.Init(local.loop));

    TCEvent inner = UserEvent(&io, kUser);
    bool innerResult = false;
    io.onEvent = [&](const TCEvent* event) {
        if (event->type != kSyncFromHandler)
            return;
        innerResult = TCEventIO::SendSyncEvent(&inner);
    };
    TCEvent outer = UserEvent(&io, kSyncFromHandler);
    ASSERT_TRUE(TCEventIO::SendEvent(&outer));

    EXPECT_EQ(1, DispatchAll(local.context));
    EXPECT_TRUE(innerResult);
    std::vector<Call> calls = io.log.Calls("event");
    ASSERT_EQ(2u, calls.size());
    EXPECT_EQ(kSyncFromHandler, calls[0].type);
    EXPECT_EQ(&inner, calls[1].event);
    EXPECT_TRUE(calls[1].sync);
    EXPECT_TRUE(io.log.AllOn(std::this_thread::get_id()));
    EXPECT_EQ(0u, io.CountEvent());
    io.Final();
}
