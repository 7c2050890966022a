// SPDX-License-Identifier: Apache-2.0
// The lock classes wake a waiter only when there is one: a give or an
// unlock that nobody waits for makes no system call, and every give that
// has a waiter still wakes exactly one.
//
// The system calls are counted by strace on a second run of this same
// program that performs only the uncontended work (the "Probe" tests, which
// are disabled in ordinary runs). Where strace is missing or cannot trace,
// the count is skipped with the reason; the semantics tests always run.
#include <gtest/gtest.h>

#include <glib.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <future>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "TCLock.h"

using Quelt::QUELT_INFINITY;
using Quelt::TCMutex;
using Quelt::TCSemaphore;

namespace {

constexpr unsigned long kGenerous = 20000000;  // 20 s, in microseconds
constexpr int kProbeRounds = 10000;

// The "calls" column of strace -c for futex, or -1 when absent.
long FutexCallsIn(const std::string& summary) {
    std::istringstream lines(summary);
    std::string line;
    while (std::getline(lines, line)) {
        std::istringstream fields(line);
        std::vector<std::string> words;
        std::string word;
        while (fields >> word)
            words.push_back(word);
        // % time, seconds, usecs/call, calls, [errors,] syscall
        if (words.size() >= 5 && words.back() == "futex")
            return std::atol(words[3].c_str());
    }
    return -1;
}

std::string ReadFile(const std::string& path) {
    std::ifstream in(path);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

// Runs this program's probe |test| under strace and returns the futex calls
// it made; sets |why| and returns -1 when it cannot.
long CountFutexCalls(const std::string& test, std::string* why) {
    if (system("strace -qq -o /dev/null true >/dev/null 2>&1") != 0) {
        *why = "strace is not installed or cannot trace here";
        return -1;
    }
    char self[4096] = {0};
    if (readlink("/proc/self/exe", self, sizeof(self) - 1) <= 0) {
        *why = "cannot find this program";
        return -1;
    }
    char summary[] = "/tmp/harvo-lock-wakeups-XXXXXX";
    int fd = mkstemp(summary);
    if (fd < 0) {
        *why = "cannot make a temporary file";
        return -1;
    }
    close(fd);
    // The leak checker of sanitizer builds traces the process itself at
    // exit, which it cannot do under strace: the probe leaves it out.
    const char* sanitizerOptions = getenv("ASAN_OPTIONS");
    std::string options = std::string(sanitizerOptions != nullptr ? sanitizerOptions : "") +
                          (sanitizerOptions != nullptr && *sanitizerOptions ? ":" : "") +
                          "detect_leaks=0";
    std::string command =
        "ASAN_OPTIONS='" + options + "' strace -f -qq -c -e trace=futex -o " + summary + " '" +
        self + "' --gtest_also_run_disabled_tests --gtest_filter=" + test + " >/dev/null 2>&1";
    int status = system(command.c_str());
    std::string text = ReadFile(summary);
    unlink(summary);
    if (status != 0) {
        *why = "the probe failed under strace: " + text;
        return -1;
    }
    // No futex line at all: not one call.
    long calls = FutexCallsIn(text);
    return calls < 0 ? 0 : calls;
}

}  // namespace

// --- Probes: run only under strace, by the tests below ----------------------

TEST(DISABLED_LockWakeupProbe, UncontendedMutex) {
    TCMutex mutex;
    ASSERT_TRUE(mutex.Create());
    for (int i = 0; i < kProbeRounds; ++i) {
        mutex.Lock();
        mutex.Unlock();
        ASSERT_TRUE(mutex.Try(1000));
        mutex.Unlock();
    }
    mutex.Destroy();
}

TEST(DISABLED_LockWakeupProbe, GivesWithNobodyWaiting) {
    TCSemaphore semaphore;
    ASSERT_TRUE(semaphore.Create(0));
    for (int i = 0; i < kProbeRounds; ++i) {
        semaphore.Give();
        semaphore.Take();
        semaphore.Give();
        ASSERT_TRUE(semaphore.Try(1000));
    }
    semaphore.Destroy();
}

// --- What the probes count ---------------------------------------------------

// Start-up, the test framework and the log may make a few futex calls of
// their own; one per operation would be tens of thousands.
constexpr long kFewCalls = 100;

TEST(LockWakeups, AnUncontendedMutexMakesNoWakeUpCall) {
    std::string why;
    long calls = CountFutexCalls("DISABLED_LockWakeupProbe.UncontendedMutex", &why);
    if (calls < 0)
        GTEST_SKIP() << why;
    EXPECT_LT(calls, kFewCalls) << "futex calls for " << 2 * kProbeRounds << " lock/unlock pairs";
}

TEST(LockWakeups, AGiveWithNobodyWaitingMakesNoWakeUpCall) {
    std::string why;
    long calls = CountFutexCalls("DISABLED_LockWakeupProbe.GivesWithNobodyWaiting", &why);
    if (calls < 0)
        GTEST_SKIP() << why;
    EXPECT_LT(calls, kFewCalls) << "futex calls for " << 2 * kProbeRounds << " give/take pairs";
}

// --- Every give that has a waiter still wakes one ----------------------------

TEST(LockWakeups, AWaiterThatTimedOutNoLongerCountsAndTheNextOneIsWoken) {
    TCSemaphore semaphore;
    ASSERT_TRUE(semaphore.Create(0));
    EXPECT_FALSE(std::async(std::launch::async, [&] { return semaphore.Try(1000); }).get());

    std::promise<void> starting;
    auto taker = std::async(std::launch::async, [&] {
        starting.set_value();
        semaphore.Take();
        return true;
    });
    starting.get_future().wait();
    semaphore.Give();
    ASSERT_EQ(std::future_status::ready, taker.wait_for(std::chrono::seconds(30)));
    EXPECT_TRUE(taker.get());
    EXPECT_FALSE(semaphore.Try(0));
    semaphore.Destroy();
}

TEST(LockWakeups, GivesInARowWakeAsManyWaiters) {
    TCSemaphore semaphore;
    TCSemaphore ready;
    ASSERT_TRUE(semaphore.Create(0));
    ASSERT_TRUE(ready.Create(0));
    constexpr int kWaiters = 4;
    std::atomic<int> woken{0};
    std::vector<std::thread> waiters;
    for (int i = 0; i < kWaiters; ++i) {
        waiters.emplace_back([&, i] {
            ready.Give();
            // Half wait without limit, half with one.
            bool got = (i % 2 == 0) ? (semaphore.Take(), true) : semaphore.Try(kGenerous);
            if (got)
                woken.fetch_add(1);
        });
    }
    for (int i = 0; i < kWaiters; ++i)
        ready.Take();
    for (int i = 0; i < kWaiters; ++i)
        semaphore.Give();
    for (auto& waiter : waiters)
        waiter.join();
    EXPECT_EQ(kWaiters, woken.load());
    EXPECT_FALSE(semaphore.Try(0));
    semaphore.Destroy();
    ready.Destroy();
}

TEST(LockWakeups, APingPongOfTwoThreadsLosesNoWakeUp) {
    // The hand-over of a synchronous event: each side gives the other's
    // semaphore and waits on its own, many times over.
    TCSemaphore there;
    TCSemaphore back;
    ASSERT_TRUE(there.Create(0));
    ASSERT_TRUE(back.Create(0));
    constexpr int kRounds = 20000;
    std::atomic<int> lost{0};
    std::thread echo([&] {
        for (int i = 0; i < kRounds; ++i) {
            if (!there.Try(kGenerous))
                lost.fetch_add(1);
            back.Give();
        }
    });
    for (int i = 0; i < kRounds; ++i) {
        there.Give();
        if (i % 2 == 0)
            back.Take();
        else if (!back.Try(kGenerous))
            lost.fetch_add(1);
    }
    echo.join();
    EXPECT_EQ(0, lost.load());
    there.Destroy();
    back.Destroy();
}

TEST(LockWakeups, AContendedMutexStillExcludesAndHandsOver) {
    TCMutex mutex;
    ASSERT_TRUE(mutex.Create());
    constexpr int kThreads = 4;
    constexpr int kRounds = 5000;
    long counter = 0;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < kRounds; ++i) {
                if (t % 2 == 0) {
                    mutex.Lock();
                } else {
                    ASSERT_TRUE(mutex.Try(QUELT_INFINITY));
                }
                mutex.Lock();  // recursion on the way
                counter += 1;
                mutex.Unlock();
                mutex.Unlock();
            }
        });
    }
    for (auto& thread : threads)
        thread.join();
    EXPECT_EQ(long(kThreads) * kRounds, counter);
    mutex.Destroy();
}
