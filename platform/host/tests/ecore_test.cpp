// SPDX-License-Identifier: Apache-2.0
// Host Ecore: reference counting, and a main loop that serves GLib's
// default main context until it is told to quit, from inside or from
// another thread.
#include <gtest/gtest.h>

#include <Ecore.h>
#include <glib.h>

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

// A one-shot signal between threads.
class Flag {
public:
    void Set() {
        std::lock_guard<std::mutex> guard(mutex_);
        set_ = true;
        cond_.notify_all();
    }
    bool WaitFor(std::chrono::milliseconds limit) {
        std::unique_lock<std::mutex> lock(mutex_);
        return cond_.wait_for(lock, limit, [this] { return set_; });
    }

private:
    std::mutex mutex_;
    std::condition_variable cond_;
    bool set_ = false;
};

constexpr std::chrono::seconds kLimit(10);

// Ends a loop that a broken quit would leave running, so a failing test
// fails instead of hanging.
guint AddWatchdog() {
    return g_timeout_add_seconds(
        30,
        [](gpointer) -> gboolean {
            ADD_FAILURE() << "the loop did not quit";
            ecore_main_loop_quit();
            return G_SOURCE_REMOVE;
        },
        nullptr);
}

}  // namespace

TEST(HostEcore, InitAndShutdownAreReferenceCounted) {
    while (ecore_shutdown() > 0) {
    }
    EXPECT_EQ(0, ecore_shutdown());  // never below zero
    EXPECT_EQ(1, ecore_init());
    EXPECT_EQ(2, ecore_init());
    EXPECT_EQ(3, ecore_init());
    EXPECT_EQ(2, ecore_shutdown());
    EXPECT_EQ(1, ecore_shutdown());
    EXPECT_EQ(0, ecore_shutdown());
    EXPECT_EQ(0, ecore_shutdown());
    EXPECT_EQ(1, ecore_init());
    EXPECT_EQ(0, ecore_shutdown());
}

TEST(HostEcore, InitIsThreadSafe) {
    while (ecore_shutdown() > 0) {
    }
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([] {
            for (int i = 0; i < 1000; ++i)
                ecore_init();
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(3999, ecore_shutdown());
    while (ecore_shutdown() > 0) {
    }
}

TEST(HostEcore, LoopServesAnIdleSourceAndQuitsFromInsideIt) {
    ecore_init();
    guint watchdog = AddWatchdog();
    struct State {
        int calls = 0;
    } state;
    g_idle_add(
        [](gpointer data) -> gboolean {
            ++static_cast<State*>(data)->calls;
            ecore_main_loop_quit();
            return G_SOURCE_REMOVE;
        },
        &state);
    ecore_main_loop_begin();
    EXPECT_EQ(1, state.calls);
    g_source_remove(watchdog);
    ecore_shutdown();
}

TEST(HostEcore, LoopServesATimeoutSourceUntilQuit) {
    guint watchdog = AddWatchdog();
    int ticks = 0;
    g_timeout_add(
        5,
        [](gpointer data) -> gboolean {
            int* count = static_cast<int*>(data);
            if (++*count < 3)
                return G_SOURCE_CONTINUE;
            ecore_main_loop_quit();
            return G_SOURCE_REMOVE;
        },
        &ticks);
    ecore_main_loop_begin();
    EXPECT_EQ(3, ticks);
    g_source_remove(watchdog);
}

TEST(HostEcore, LoopServesAnIoWatchOnAPipe) {
    guint watchdog = AddWatchdog();
    int fds[2];
    ASSERT_EQ(0, pipe(fds));
    GIOChannel* channel = g_io_channel_unix_new(fds[0]);
    struct State {
        char got = 0;
    } state;
    guint watch = g_io_add_watch(
        channel, G_IO_IN,
        [](GIOChannel* source, GIOCondition, gpointer data) -> gboolean {
            char byte = 0;
            if (read(g_io_channel_unix_get_fd(source), &byte, 1) == 1)
                static_cast<State*>(data)->got = byte;
            ecore_main_loop_quit();
            return G_SOURCE_REMOVE;
        },
        &state);
    std::thread writer([fd = fds[1]] {
        char byte = 'w';
        EXPECT_EQ(1, write(fd, &byte, 1));
    });
    ecore_main_loop_begin();
    writer.join();
    EXPECT_EQ('w', state.got);
    (void)watch;
    g_io_channel_unref(channel);
    close(fds[0]);
    close(fds[1]);
    g_source_remove(watchdog);
}

TEST(HostEcore, QuitFromAnotherThreadThroughTheDefaultContext) {
    guint watchdog = AddWatchdog();
    struct State {
        GThread* loop_thread = g_thread_self();
        GThread* quit_thread = nullptr;
        Flag running;
    } state;
    // The loop announces that it runs; the other thread then hands the
    // quit to the default context, which runs it on the loop's thread.
    g_idle_add(
        [](gpointer data) -> gboolean {
            static_cast<State*>(data)->running.Set();
            return G_SOURCE_REMOVE;
        },
        &state);
    std::thread other([&state] {
        ASSERT_TRUE(state.running.WaitFor(kLimit));
        g_main_context_invoke(
            nullptr,
            [](gpointer data) -> gboolean {
                static_cast<State*>(data)->quit_thread = g_thread_self();
                ecore_main_loop_quit();
                return G_SOURCE_REMOVE;
            },
            &state);
    });
    ecore_main_loop_begin();
    other.join();
    EXPECT_EQ(state.loop_thread, state.quit_thread);
    g_source_remove(watchdog);
}

TEST(HostEcore, QuitCalledDirectlyFromAnotherThreadWakesTheLoop) {
    guint watchdog = AddWatchdog();
    Flag running;
    g_idle_add(
        [](gpointer data) -> gboolean {
            static_cast<Flag*>(data)->Set();
            return G_SOURCE_REMOVE;
        },
        &running);
    // Once the idle source has run the loop has nothing left to do but the
    // watchdog: it blocks, and only the quit's wake-up can end it in time.
    std::thread other([&running] {
        ASSERT_TRUE(running.WaitFor(kLimit));
        ecore_main_loop_quit();
    });
    gint64 start = g_get_monotonic_time();
    ecore_main_loop_begin();
    gint64 elapsed_us = g_get_monotonic_time() - start;
    other.join();
    EXPECT_LT(elapsed_us, 20 * G_USEC_PER_SEC);
    g_source_remove(watchdog);
}

TEST(HostEcore, QuitBeforeBeginEndsTheNextLoopAtOnce) {
    ecore_main_loop_quit();
    ecore_main_loop_begin();  // returns without blocking
    // The remembered quit is used up: the following loop runs normally.
    guint watchdog = AddWatchdog();
    bool served = false;
    g_idle_add(
        [](gpointer data) -> gboolean {
            *static_cast<bool*>(data) = true;
            ecore_main_loop_quit();
            return G_SOURCE_REMOVE;
        },
        &served);
    ecore_main_loop_begin();
    EXPECT_TRUE(served);
    g_source_remove(watchdog);
}

TEST(HostEcore, NestedLoopQuitEndsOnlyTheInnermost) {
    guint watchdog = AddWatchdog();
    std::vector<std::string> order;
    g_idle_add(
        [](gpointer data) -> gboolean {
            auto* steps = static_cast<std::vector<std::string>*>(data);
            steps->push_back("outer source");
            g_idle_add(
                [](gpointer inner_data) -> gboolean {
                    static_cast<std::vector<std::string>*>(inner_data)->push_back("inner source");
                    ecore_main_loop_quit();
                    return G_SOURCE_REMOVE;
                },
                steps);
            ecore_main_loop_begin();
            steps->push_back("inner loop ended");
            // The outer loop is still running and ends on this quit.
            ecore_main_loop_quit();
            return G_SOURCE_REMOVE;
        },
        &order);
    ecore_main_loop_begin();
    std::vector<std::string> expected = {"outer source", "inner source", "inner loop ended"};
    EXPECT_EQ(expected, order);
    g_source_remove(watchdog);
}
