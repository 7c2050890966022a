// SPDX-License-Identifier: Apache-2.0
// Many producers, one task: eight threads post their events into one task
// at the same time while the task's handler checks each producer's sequence.
// No event may be lost or run twice, each producer's order must hold, every
// event runs on the task's thread, and Destroy then joins cleanly.
#include <gtest/gtest.h>

#include <dlog.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <mutex>
#include <thread>
#include <vector>

#include "LogCapture.h"
#include "TCEvent.h"
#include "TCEventIO.h"
#include "TCTask.h"
#include "TaskTestSupport.h"

namespace {

#if defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define HARVO_STRESS_TSAN 1
#endif
#if __has_feature(address_sanitizer)
#define HARVO_STRESS_ASAN 1
#endif
#endif
#if defined(__SANITIZE_THREAD__)
#define HARVO_STRESS_TSAN 1
#endif
#if defined(__SANITIZE_ADDRESS__)
#define HARVO_STRESS_ASAN 1
#endif

constexpr int kProducers = 8;
// ThreadSanitizer makes every lock, pipe write and event copy many times
// slower; the count is scaled down there so the run stays well inside the
// test timeout on two cores.
#if defined(HARVO_STRESS_TSAN)
constexpr uint32_t kPerProducer = 50000;
#else
constexpr uint32_t kPerProducer = 100000;
#endif
// User event types: kTypeBase + producer number.
constexpr int kTypeBase = 1000;
// A producer never runs more than this many events ahead of the handler. The
// wake pipe holds 64 KiB of unread wake bytes; a sender that finds it full
// blocks inside the queue's lock, and the loop, which must take that lock
// before it reads a byte, can then never catch up. 8 x 2048 bytes stays far
// below the pipe's capacity.
constexpr uint32_t kWindow = 2048;
constexpr uint32_t kNotifyEvery = 256;

// Counts what it receives and checks every producer's sequence.
class CountingTask : public Quelt::TCTask {
public:
    CountingTask() : TCTask("stress") {
        for (int i = 0; i < kProducers; ++i) {
            handled_[i].store(0);
            next_[i] = 0;
        }
    }

    // Handled events of |producer|; producers wait on |progress| for it.
    uint32_t Handled(int producer) const { return handled_[producer].load(); }
    std::mutex progressMutex;
    std::condition_variable progress;

    // Read after the handler has finished (synchronised through progress).
    uint64_t total = 0;
    uint64_t outOfOrder = 0;  // a sequence number other than the next expected
    uint64_t foreign = 0;     // an event that no producer sent
    uint64_t wrongThread = 0;
    uint32_t next_[kProducers];

protected:
    // The loop was built in the caller (initInCaller); t_Main is the first
    // hook on the task's own thread.
    void t_Main() override {
        taskThread_ = g_thread_self();
        TCTask::t_Main();
    }

    bool t_OnMEvent(const Quelt::TCEvent* event) override {
        if (g_thread_self() != taskThread_)
            ++wrongThread;
        int producer = event->type - kTypeBase;
        if (producer < 0 || producer >= kProducers) {
            ++foreign;
            return true;
        }
        uint32_t sequence = static_cast<uint32_t>(reinterpret_cast<uintptr_t>(event->param.p));
        if (sequence != next_[producer])
            ++outOfOrder;
        next_[producer] = sequence + 1;
        uint32_t handled = handled_[producer].load() + 1;
        handled_[producer].store(handled);
        {
            // Taking the lock after publishing the count means a producer
            // that is about to wait cannot miss it.
            std::lock_guard<std::mutex> guard(progressMutex);
            ++total;
        }
        // Waking the producers only every few events keeps the handler cheap;
        // a waiting producer has a whole window of events in flight.
        if (handled % kNotifyEvery == 0 || handled == kPerProducer)
            progress.notify_all();
        return true;
    }

private:
    GThread* taskThread_ = nullptr;
    std::atomic<uint32_t> handled_[kProducers];
};

}  // namespace

TEST(TaskStress, EightProducersLoseNothingDuplicateNothingAndKeepTheirOrder) {
    harvo_test::LogCapture capture;
    CountingTask task;
    ASSERT_TRUE(task.Create("stress", true, 0));

    task_test::Gate start;
    std::atomic<int> refused{0};
    std::vector<std::thread> producers;
    for (int producer = 0; producer < kProducers; ++producer) {
        producers.emplace_back([&, producer] {
            start.Wait();
            for (uint32_t sequence = 0; sequence < kPerProducer; ++sequence) {
                if (sequence >= kWindow) {
                    std::unique_lock<std::mutex> lock(task.progressMutex);
                    task.progress.wait(lock,
                                       [&] { return sequence - task.Handled(producer) < kWindow; });
                }
                Quelt::TCEvent event;
                event.receiver = &task;
                event.type = kTypeBase + producer;
                event.param.p = reinterpret_cast<void*>(static_cast<uintptr_t>(sequence));
                if (!Quelt::SendEvent(&event))
                    refused.fetch_add(1);
            }
        });
    }

    auto began = std::chrono::steady_clock::now();
    start.Open();
    for (std::thread& producer : producers)
        producer.join();
    const uint64_t expected = static_cast<uint64_t>(kProducers) * kPerProducer;
    {
        std::unique_lock<std::mutex> lock(task.progressMutex);
        ASSERT_TRUE(task.progress.wait_for(lock, std::chrono::seconds(90),
                                           [&] { return task.total >= expected; }))
            << "handled " << task.total << " of " << expected;
    }
    auto elapsed = std::chrono::duration_cast<std::chrono::milliseconds>(
        std::chrono::steady_clock::now() - began);

    task.Destroy();

    EXPECT_EQ(0, refused.load());
    EXPECT_EQ(expected, task.total);
    EXPECT_EQ(0u, task.outOfOrder);
    EXPECT_EQ(0u, task.foreign);
    EXPECT_EQ(0u, task.wrongThread);
    for (int producer = 0; producer < kProducers; ++producer) {
        EXPECT_EQ(kPerProducer, task.next_[producer]) << "producer " << producer;
        EXPECT_EQ(kPerProducer, task.Handled(producer)) << "producer " << producer;
    }
    EXPECT_EQ(0u, task.CountEvent());
    EXPECT_EQ(1u, capture.CountFramework(DLOG_DEBUG, "task is destroyed!"));
    EXPECT_EQ(0u, capture.CountFramework(DLOG_ERROR, "event io stress has destroyed!"));
    std::printf("%llu events from %d producers in %lld ms (%zu lock retries by the loop)\n",
                static_cast<unsigned long long>(expected), kProducers,
                static_cast<long long>(elapsed.count()),
                capture.CountFramework(DLOG_ERROR, "Try lock mutex fail!"));
}
