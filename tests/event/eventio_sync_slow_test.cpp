// SPDX-License-Identifier: Apache-2.0
// Synchronous sends whose receiver does not run in time: the sender waits
// twenty seconds and still reports success.
#include <gtest/gtest.h>

#include <dlog.h>

#include <chrono>
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

    TCEvent event = UserEvent(&io, kUser);
    const Clock::time_point start = Clock::now();
    EXPECT_TRUE(TCEventIO::SendSyncEvent(&event));
    EXPECT_GE(Clock::now() - start, kTwentySeconds);
    EXPECT_EQ(0u, io.log.Count("event"));
    EXPECT_EQ(1u, io.CountEvent());
    EXPECT_FALSE(capture.HasFramework(DLOG_ERROR, "SendSyncEvent fails!"));

    // The loop still runs the late event on the caller's object, which is
    // alive here, and then frees the semaphore pair.
    EXPECT_EQ(1, DispatchAll(local.context));
    std::vector<Call> calls = io.log.Calls("event");
    ASSERT_EQ(1u, calls.size());
    EXPECT_EQ(&event, calls[0].event);
    EXPECT_TRUE(calls[0].sync);
    io.Final();
}

TEST(EventIOSyncSlow, SyncSendFromTheLoopsOwnThreadWaitsTheFullTwentySeconds) {
    LocalLoop local;
    RecordingIO io("self");
    ASSERT_TRUE(io.Init(local.loop));

    // A handler on the loop's thread sends synchronously to its own IO: the
    // event can only run after the handler returns.
    TCEvent inner = UserEvent(&io, kUser);
    bool innerResult = false;
    Clock::duration waited{};
    io.onEvent = [&](const TCEvent* event) {
        if (event->type != kSyncFromHandler)
            return;
        const Clock::time_point start = Clock::now();
        innerResult = TCEventIO::SendSyncEvent(&inner);
        waited = Clock::now() - start;
    };
    TCEvent outer = UserEvent(&io, kSyncFromHandler);
    ASSERT_TRUE(TCEventIO::SendEvent(&outer));

    EXPECT_EQ(2, DispatchAll(local.context));
    EXPECT_TRUE(innerResult);
    EXPECT_GE(waited, kTwentySeconds);
    std::vector<Call> calls = io.log.Calls("event");
    ASSERT_EQ(2u, calls.size());
    EXPECT_EQ(kSyncFromHandler, calls[0].type);
    EXPECT_EQ(&inner, calls[1].event);
    EXPECT_TRUE(io.log.AllOn(std::this_thread::get_id()));
    io.Final();
}
