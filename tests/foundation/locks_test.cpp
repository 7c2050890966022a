// SPDX-License-Identifier: Apache-2.0
// TCSemaphore and TCMutex: counting, timeouts (0, finite, QUELT_INFINITY),
// recursion depth, unlock by a non-owner, Destroy and Try after Destroy.
//
// Threads are synchronised with the lock classes themselves; a finite Try
// that is expected to fail only observes that a waiter is still blocked.
#include <gtest/gtest.h>

#include <dlog.h>
#include <glib.h>

#include <atomic>
#include <functional>
#include <future>
#include <thread>
#include <vector>

#include "LogCapture.h"
#include "TCLock.h"

using harvo_test::LogCapture;
using Quelt::QUELT_INFINITY;
using Quelt::TCMutex;
using Quelt::TCSemaphore;

namespace {

constexpr unsigned long kGenerous = 20000000;  // 20 s, in microseconds
constexpr unsigned long kShort = 20000;        // 20 ms

// Runs |job| on a new thread and returns its result.
bool OnOtherThread(const std::function<bool()>& job) {
    return std::async(std::launch::async, job).get();
}

// Tries the mutex from another thread; gives it back at once when taken,
// so that no finished thread is ever left as the owner.
bool OtherThreadTry(TCMutex& mutex, unsigned long timeout) {
    return OnOtherThread([&mutex, timeout] {
        bool taken = mutex.Try(timeout);
        if (taken)
            mutex.Unlock();
        return taken;
    });
}

// A thread that takes a mutex on request and holds it until told to let go.
class Holder {
public:
    explicit Holder(TCMutex& mutex) : mutex_(mutex) {
        held_.Create(0);
        release_.Create(0);
        done_.Create(0);
        thread_ = std::thread([this] {
            mutex_.Lock();
            held_.Give();
            release_.Take();
            mutex_.Unlock();
            done_.Give();
        });
        held_.Take();
    }
    // Unlocks on the holding thread and waits until it has.
    void Release() {
        release_.Give();
        done_.Take();
    }
    ~Holder() {
        thread_.join();
        held_.Destroy();
        release_.Destroy();
        done_.Destroy();
    }

private:
    TCMutex& mutex_;
    TCSemaphore held_;
    TCSemaphore release_;
    TCSemaphore done_;
    std::thread thread_;
};

}  // namespace

// ---------------------------------------------------------------------------
// QUELT_INFINITY

TEST(QueltInfinity, IsTheLargest32BitValue) {
    EXPECT_EQ(4294967295UL, QUELT_INFINITY);
    EXPECT_EQ(0u, static_cast<uint32_t>(QUELT_INFINITY + 1));
}

// ---------------------------------------------------------------------------
// TCSemaphore

TEST(TCSemaphore, CreateSetsTheCountAndLogsNothing) {
    LogCapture capture;
    TCSemaphore sem;
    EXPECT_TRUE(sem.Create(2));
    EXPECT_TRUE(sem.Try(0));
    EXPECT_TRUE(sem.Try(0));
    EXPECT_FALSE(sem.Try(0));
    sem.Give();
    EXPECT_TRUE(sem.Try(0));
    EXPECT_TRUE(capture.Lines().empty()) << capture.Dump();
    sem.Destroy();
}

TEST(TCSemaphore, TryZeroOnAnEmptySemaphoreFailsSilently) {
    TCSemaphore sem;
    ASSERT_TRUE(sem.Create(0));
    LogCapture capture;
    EXPECT_FALSE(sem.Try(0));
    // A timeout writes no message: callers log their own.
    EXPECT_TRUE(capture.Lines().empty()) << capture.Dump();
    sem.Destroy();
}

TEST(TCSemaphore, TryWithALimitWaitsAtLeastThatLong) {
    TCSemaphore sem;
    ASSERT_TRUE(sem.Create(0));
    LogCapture capture;
    gint64 start = g_get_monotonic_time();
    EXPECT_FALSE(sem.Try(kShort));
    EXPECT_GE(g_get_monotonic_time() - start, static_cast<gint64>(kShort));
    EXPECT_TRUE(capture.Lines().empty()) << capture.Dump();
    sem.Destroy();
}

TEST(TCSemaphore, TryWithALimitGetsAUnitGivenByAnotherThread) {
    TCSemaphore sem;
    ASSERT_TRUE(sem.Create(0));
    std::thread giver([&sem] { sem.Give(); });
    EXPECT_TRUE(sem.Try(kGenerous));
    giver.join();
    EXPECT_FALSE(sem.Try(0));  // the one unit was used
    sem.Destroy();
}

TEST(TCSemaphore, TryInfinityTakesAnAvailableUnitAtOnce) {
    TCSemaphore sem;
    ASSERT_TRUE(sem.Create(1));
    EXPECT_TRUE(sem.Try(QUELT_INFINITY));
    EXPECT_FALSE(sem.Try(0));
    sem.Destroy();
}

TEST(TCSemaphore, TryInfinityBlocksUntilAnotherThreadGives) {
    TCSemaphore sem;
    TCSemaphore started;
    TCSemaphore finished;
    ASSERT_TRUE(sem.Create(0));
    ASSERT_TRUE(started.Create(0));
    ASSERT_TRUE(finished.Create(0));
    std::atomic<bool> result{false};
    std::thread waiter([&] {
        started.Give();
        result = sem.Try(QUELT_INFINITY);
        finished.Give();
    });
    started.Take();
    // Still waiting: no unit has been given.
    EXPECT_FALSE(finished.Try(50000));
    sem.Give();
    EXPECT_TRUE(finished.Try(kGenerous));
    waiter.join();
    EXPECT_TRUE(result);
    EXPECT_FALSE(sem.Try(0));
    sem.Destroy();
    started.Destroy();
    finished.Destroy();
}

TEST(TCSemaphore, TakeBlocksUntilGiveAndEachGiveReleasesOneTaker) {
    constexpr int kTakers = 3;
    TCSemaphore sem;
    TCSemaphore finished;
    ASSERT_TRUE(sem.Create(0));
    ASSERT_TRUE(finished.Create(0));
    std::vector<std::thread> takers;
    for (int i = 0; i < kTakers; ++i) {
        takers.emplace_back([&] {
            sem.Take();
            finished.Give();
        });
    }
    for (int i = 0; i < kTakers; ++i) {
        sem.Give();
        EXPECT_TRUE(finished.Try(kGenerous)) << "taker " << i;
    }
    for (std::thread& taker : takers)
        taker.join();
    EXPECT_FALSE(sem.Try(0));
    EXPECT_FALSE(finished.Try(0));
    sem.Destroy();
    finished.Destroy();
}

TEST(TCSemaphore, CountsEveryUnitAcrossThreads) {
    constexpr int kUnits = 2000;
    TCSemaphore sem;
    ASSERT_TRUE(sem.Create(0));
    std::thread producer([&sem] {
        for (int i = 0; i < kUnits; ++i)
            sem.Give();
    });
    for (int i = 0; i < kUnits; ++i)
        ASSERT_TRUE(sem.Try(kGenerous));
    producer.join();
    EXPECT_FALSE(sem.Try(0));
    sem.Destroy();
}

TEST(TCSemaphore, DestroyLogsAnEmptyErrorLine) {
    TCSemaphore sem;
    ASSERT_TRUE(sem.Create(3));
    LogCapture capture;
    sem.Destroy();
    ASSERT_EQ(1u, capture.Lines().size()) << capture.Dump();
    EXPECT_EQ(1u, capture.CountFramework(DLOG_ERROR, ""));
    std::vector<harvo_test::FrameworkLine> lines = capture.Framework("");
    ASSERT_EQ(1u, lines.size());
    EXPECT_EQ("TCHandler.cpp", lines[0].file);
    EXPECT_EQ("Destroy", lines[0].func);
    EXPECT_EQ("nil", lines[0].project);
}

TEST(TCSemaphore, TryAfterDestroyLogsAndFails) {
    TCSemaphore sem;
    ASSERT_TRUE(sem.Create(5));  // units left over do not matter
    sem.Destroy();
    LogCapture capture;
    EXPECT_FALSE(sem.Try(0));
    EXPECT_FALSE(sem.Try(kShort));
    EXPECT_EQ(2u, capture.CountFramework(DLOG_ERROR, "m_EventMutex is NULL")) << capture.Dump();
    EXPECT_EQ(2u, capture.Lines().size());
    std::vector<harvo_test::FrameworkLine> lines = capture.Framework("m_EventMutex is NULL");
    ASSERT_EQ(2u, lines.size());
    EXPECT_EQ("TCHandler.cpp", lines[0].file);
    EXPECT_EQ("Try", lines[0].func);
}

TEST(TCSemaphore, TryOnANeverCreatedSemaphoreLogsAndFails) {
    TCSemaphore sem;
    LogCapture capture;
    EXPECT_FALSE(sem.Try(1000));
    EXPECT_EQ(1u, capture.CountFramework(DLOG_ERROR, "m_EventMutex is NULL")) << capture.Dump();
}

TEST(TCSemaphore, DestroyedSemaphoreCanBeCreatedAgain) {
    TCSemaphore sem;
    ASSERT_TRUE(sem.Create(0));
    sem.Destroy();
    ASSERT_TRUE(sem.Create(1));
    EXPECT_TRUE(sem.Try(0));
    sem.Destroy();
}

// ---------------------------------------------------------------------------
// TCMutex

TEST(TCMutex, CreateLeavesItFree) {
    LogCapture capture;
    TCMutex mutex;
    EXPECT_TRUE(mutex.Create());
    EXPECT_TRUE(OtherThreadTry(mutex, 0));
    EXPECT_TRUE(mutex.Try(0));
    mutex.Unlock();
    EXPECT_TRUE(capture.Lines().empty()) << capture.Dump();
    mutex.Destroy();
}

TEST(TCMutex, HolderRelocksAndFreesOnlyAfterMatchingUnlocks) {
    TCMutex mutex;
    ASSERT_TRUE(mutex.Create());
    LogCapture capture;

    mutex.Lock();
    mutex.Lock();                            // by Lock
    EXPECT_TRUE(mutex.Try(0));               // by Try, without waiting
    EXPECT_TRUE(mutex.Try(kShort));          // by Try with a limit
    EXPECT_TRUE(mutex.Try(QUELT_INFINITY));  // and without limit: no blocking
    // Depth 5 now.
    EXPECT_FALSE(OtherThreadTry(mutex, 0));
    for (int unlocked = 1; unlocked < 5; ++unlocked) {
        mutex.Unlock();
        EXPECT_FALSE(OtherThreadTry(mutex, 0)) << "after " << unlocked << " unlocks";
    }
    EXPECT_FALSE(OtherThreadTry(mutex, kShort));
    mutex.Unlock();  // the fifth
    EXPECT_TRUE(OtherThreadTry(mutex, 0));
    EXPECT_TRUE(OtherThreadTry(mutex, kShort));
    // Taken afresh by this thread, at depth 1.
    EXPECT_TRUE(mutex.Try(0));
    mutex.Unlock();
    EXPECT_TRUE(OtherThreadTry(mutex, 0));

    EXPECT_TRUE(capture.Lines().empty()) << capture.Dump();
    mutex.Destroy();
}

TEST(TCMutex, UnlockByANonOwnerIsIgnored) {
    TCMutex mutex;
    ASSERT_TRUE(mutex.Create());
    mutex.Lock();
    mutex.Lock();
    LogCapture capture;
    OnOtherThread([&mutex] {
        for (int i = 0; i < 5; ++i)
            mutex.Unlock();
        return true;
    });
    EXPECT_TRUE(capture.Lines().empty()) << capture.Dump();
    // Owner, depth and semaphore are as they were: still held, at depth 2.
    EXPECT_FALSE(OtherThreadTry(mutex, 0));
    mutex.Unlock();
    EXPECT_FALSE(OtherThreadTry(mutex, 0));
    mutex.Unlock();
    EXPECT_TRUE(OtherThreadTry(mutex, 0));
    mutex.Destroy();
}

TEST(TCMutex, UnlockOfAFreeMutexIsIgnored) {
    TCMutex mutex;
    ASSERT_TRUE(mutex.Create());
    LogCapture capture;
    mutex.Unlock();
    mutex.Unlock();
    EXPECT_TRUE(capture.Lines().empty()) << capture.Dump();
    // The semaphore was not given twice: one holder at a time still.
    mutex.Lock();
    EXPECT_FALSE(OtherThreadTry(mutex, 0));
    mutex.Unlock();
    mutex.Destroy();
}

TEST(TCMutex, TryZeroAndTryWithALimitFailWhileAnotherThreadHolds) {
    TCMutex mutex;
    ASSERT_TRUE(mutex.Create());
    LogCapture capture;
    {
        Holder holder(mutex);
        EXPECT_FALSE(mutex.Try(0));
        gint64 start = g_get_monotonic_time();
        EXPECT_FALSE(mutex.Try(kShort));
        EXPECT_GE(g_get_monotonic_time() - start, static_cast<gint64>(kShort));
        holder.Release();
    }
    EXPECT_TRUE(mutex.Try(0));
    mutex.Unlock();
    // The failed tries wrote nothing; the three lines are the holder's
    // semaphores being destroyed.
    EXPECT_EQ(3u, capture.Lines().size()) << capture.Dump();
    EXPECT_EQ(3u, capture.CountFramework(DLOG_ERROR, "")) << capture.Dump();
    mutex.Destroy();
}

TEST(TCMutex, TryWithALimitSucceedsWhenTheHolderUnlocksInTime) {
    TCMutex mutex;
    ASSERT_TRUE(mutex.Create());
    Holder holder(mutex);
    TCSemaphore waiting;
    TCSemaphore finished;
    ASSERT_TRUE(waiting.Create(0));
    ASSERT_TRUE(finished.Create(0));
    std::atomic<bool> result{false};
    std::thread waiter([&] {
        waiting.Give();
        result = mutex.Try(kGenerous);
        if (result)
            mutex.Unlock();
        finished.Give();
    });
    waiting.Take();
    EXPECT_FALSE(finished.Try(50000));  // still waiting for the holder
    holder.Release();
    EXPECT_TRUE(finished.Try(kGenerous));
    waiter.join();
    EXPECT_TRUE(result);
    waiting.Destroy();
    finished.Destroy();
    mutex.Destroy();
}

TEST(TCMutex, TryInfinityBlocksUntilTheHolderUnlocks) {
    TCMutex mutex;
    ASSERT_TRUE(mutex.Create());
    Holder holder(mutex);
    TCSemaphore waiting;
    TCSemaphore finished;
    ASSERT_TRUE(waiting.Create(0));
    ASSERT_TRUE(finished.Create(0));
    std::atomic<bool> result{false};
    std::thread waiter([&] {
        waiting.Give();
        result = mutex.Try(QUELT_INFINITY);
        if (result)
            mutex.Unlock();
        finished.Give();
    });
    waiting.Take();
    EXPECT_FALSE(finished.Try(50000));  // blocked on the holder
    holder.Release();
    EXPECT_TRUE(finished.Try(kGenerous));
    waiter.join();
    EXPECT_TRUE(result);
    EXPECT_TRUE(mutex.Try(0));
    mutex.Unlock();
    waiting.Destroy();
    finished.Destroy();
    mutex.Destroy();
}

TEST(TCMutex, LockBlocksUntilTheHolderUnlocks) {
    TCMutex mutex;
    ASSERT_TRUE(mutex.Create());
    Holder holder(mutex);
    TCSemaphore finished;
    ASSERT_TRUE(finished.Create(0));
    std::thread locker([&] {
        mutex.Lock();
        mutex.Unlock();
        finished.Give();
    });
    EXPECT_FALSE(finished.Try(50000));
    holder.Release();
    EXPECT_TRUE(finished.Try(kGenerous));
    locker.join();
    finished.Destroy();
    mutex.Destroy();
}

TEST(TCMutex, ExcludesOtherThreadsAtEveryDepth) {
    constexpr int kThreads = 4;
    constexpr int kRounds = 2000;
    TCMutex mutex;
    ASSERT_TRUE(mutex.Create());
    long counter = 0;  // guarded by |mutex| only
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&mutex, &counter, t] {
            for (int i = 0; i < kRounds; ++i) {
                if (t % 2 == 0) {
                    mutex.Lock();
                } else {
                    ASSERT_TRUE(mutex.Try(kGenerous));
                }
                mutex.Lock();  // nested
                long seen = counter;
                counter = seen + 1;
                mutex.Unlock();
                mutex.Unlock();
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(kThreads * kRounds, counter);
    mutex.Destroy();
}

TEST(TCMutex, DestroyTwiceIsHarmless) {
    TCMutex mutex;
    ASSERT_TRUE(mutex.Create());
    LogCapture capture;
    mutex.Destroy();
    mutex.Destroy();
    // Only the first releases the semaphore (which writes its empty line).
    EXPECT_EQ(1u, capture.Lines().size()) << capture.Dump();
    EXPECT_EQ(1u, capture.CountFramework(DLOG_ERROR, ""));
}

TEST(TCMutex, DestroyOfANeverCreatedMutexDoesNothing) {
    TCMutex mutex;
    LogCapture capture;
    mutex.Destroy();
    EXPECT_TRUE(capture.Lines().empty()) << capture.Dump();
}

TEST(TCMutex, TryAfterDestroyLogsAndFails) {
    TCMutex mutex;
    ASSERT_TRUE(mutex.Create());
    mutex.Destroy();
    LogCapture capture;
    EXPECT_FALSE(mutex.Try(0));
    EXPECT_FALSE(mutex.Try(kShort));
    EXPECT_EQ(2u, capture.CountFramework(DLOG_ERROR, "m_EventMutex is NULL")) << capture.Dump();
    EXPECT_EQ(2u, capture.Lines().size());
}

TEST(TCMutex, CanBeCreatedAgainAfterDestroy) {
    TCMutex mutex;
    ASSERT_TRUE(mutex.Create());
    mutex.Destroy();
    ASSERT_TRUE(mutex.Create());
    mutex.Lock();
    EXPECT_FALSE(OtherThreadTry(mutex, 0));
    mutex.Unlock();
    EXPECT_TRUE(OtherThreadTry(mutex, 0));
    mutex.Destroy();
}
