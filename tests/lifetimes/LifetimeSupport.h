/* SPDX-License-Identifier: Apache-2.0 */
// Shared pieces of the lifetime tests: gates, loops on threads of their
// own, an endpoint whose handler runs a hook, and a watchdog for deadlocks.
#ifndef HARVO_TEST_LIFETIMES_LIFETIMESUPPORT_H
#define HARVO_TEST_LIFETIMES_LIFETIMESUPPORT_H

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "EndpointGuard.h"
#include "Gate.h"
#include "EventPayloads.h"
#include "ThreadAnnotations.h"
#include "bus/BusTestSupport.h"

namespace lifetime_test {

using harvo_bus_test::kLimit;
using std::chrono::milliseconds;

// Waits take the test's generous limit unless told otherwise.
class Gate : public harvo_test::Gate {
public:
    bool WaitForWaiters(int count, milliseconds limit = kLimit) {
        return harvo_test::Gate::WaitForWaiters(count, limit);
    }
    bool WaitUntilOpen(milliseconds limit = kLimit) {
        return harvo_test::Gate::WaitUntilOpen(limit);
    }
};

// Threads that a deadlock would keep forever cannot be joined: when |thread|
// has not finished within |limit|, the program ends at once with a failure
// that names |what|. Joins it otherwise.
inline void JoinOrDie(std::thread& thread, std::shared_future<void> done, const char* what,
                      milliseconds limit = kLimit) {
    if (done.wait_for(limit) != std::future_status::ready) {
        std::fprintf(stderr, "FAILED: %s did not finish within %lld ms (deadlock)\n", what,
                     static_cast<long long>(limit.count()));
        std::fflush(stderr);
        _exit(1);
    }
    thread.join();
}

// A thread running |work| whose end JoinOrDie can wait for.
class Watched {
public:
    Watched(const char* what, std::function<void()> work) : what_(what) {
        std::promise<void> finished;
        done_ = finished.get_future().share();
        thread_ = std::thread([work = std::move(work), finished = std::move(finished)]() mutable {
            work();
            finished.set_value();
        });
    }
    ~Watched() { Join(); }
    void Join(milliseconds limit = kLimit) {
        if (thread_.joinable())
            JoinOrDie(thread_, done_, what_, limit);
    }
    bool Finished() const {
        return done_.wait_for(std::chrono::seconds(0)) == std::future_status::ready;
    }

private:
    const char* what_;
    std::shared_future<void> done_;
    std::thread thread_;
};

// A GLib main loop on a thread of its own, with its context pushed as the
// thread-default one: endpoints created there receive their calls there.
class LoopThread {
public:
    LoopThread() {
        context_ = g_main_context_new();
        loop_ = g_main_loop_new(context_, FALSE);
        std::promise<void> running;
        auto started = running.get_future();
        thread_ = std::thread([this, running = std::move(running)]() mutable {
            g_main_context_push_thread_default(context_);
            GSource* ready = g_idle_source_new();
            Quelt::detail::HandOver(&running);
            g_source_set_callback(
                ready,
                [](gpointer data) -> gboolean {
                    Quelt::detail::TakeOver(data);
                    static_cast<std::promise<void>*>(data)->set_value();
                    return G_SOURCE_REMOVE;
                },
                &running, nullptr);
            g_source_attach(ready, context_);
            g_source_unref(ready);
            g_main_loop_run(loop_);
            // What GDBus queued meanwhile still runs, as a loop would.
            while (g_main_context_iteration(context_, FALSE)) {
            }
            g_main_context_pop_thread_default(context_);
        });
        started.wait();
    }
    ~LoopThread() { Stop(); }

    // Runs |work| on the loop's thread and waits until it returned.
    void Run(std::function<void()> work) {
        struct Call {
            std::function<void()> work;
            std::promise<void> done;
        } call{std::move(work), {}};
        auto done = call.done.get_future();
        // GLib hands the call to the loop's thread under locks the race
        // detector does not see.
        Quelt::detail::HandOver(&call);
        g_main_context_invoke(
            context_,
            [](gpointer data) -> gboolean {
                Quelt::detail::TakeOver(data);
                Call* call = static_cast<Call*>(data);
                call->work();
                call->done.set_value();
                return G_SOURCE_REMOVE;
            },
            &call);
        done.wait();
    }

    void Stop() {
        if (!thread_.joinable())
            return;
        g_main_loop_quit(loop_);
        thread_.join();
        g_main_loop_unref(loop_);
        g_main_context_unref(context_);
    }

    GMainContext* Context() const { return context_; }
    GMainLoop* Loop() const { return loop_; }

private:
    GMainContext* context_ = nullptr;
    GMainLoop* loop_ = nullptr;
    std::thread thread_;
};

// An endpoint whose message handler runs a hook. The hook is held by a
// shared pointer that the handler copies first, so a test may delete the
// endpoint while a handler still runs it.
class HookedServer : public Quelt::TCServer {
public:
    using Hook = std::function<void(const Quelt::TCMessage* message, Quelt::TCMessage* reply)>;

    HookedServer(const std::string& name, Quelt::TCServerType type) : TCServer(name, type) {}

    void SetHook(Hook hook) {
        std::lock_guard<std::mutex> guard(mutex_);
        hook_ = std::make_shared<Hook>(std::move(hook));
    }

    bool IfMessageReceived(const char* /*from*/, const Quelt::TCMessage* message,
                           Quelt::TCMessage* reply, const char* /*signalName*/) override {
        std::shared_ptr<Hook> hook;
        {
            std::lock_guard<std::mutex> guard(mutex_);
            hook = hook_;
        }
        received_.fetch_add(1);
        if (hook)
            (*hook)(message, reply);
        return true;
    }

    bool IfMessageReplied(const char* /*from*/, const Quelt::TCMessage* /*reply*/) override {
        replied_.fetch_add(1);
        return true;
    }

    int Received() const { return received_.load(); }
    int Replied() const { return replied_.load(); }

private:
    std::mutex mutex_;
    std::shared_ptr<Hook> hook_;
    std::atomic<int> received_{0};
    std::atomic<int> replied_{0};
};

// Waits until |done| holds, checking every millisecond, at most |limit|:
// for conditions that other threads' callbacks change without notifying.
inline bool WaitUntil(const std::function<bool()>& done, milliseconds limit = kLimit) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (!done()) {
        if (std::chrono::steady_clock::now() >= deadline)
            return false;
        std::this_thread::sleep_for(milliseconds(1));
    }
    return true;
}

// One round trip to the bus daemon on the process's system bus connection:
// every message the daemon sent this connection before has been received
// (and its callbacks queued) when it returns.
inline void SettleBus() {
    GDBusConnection* bus = g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, nullptr);
    ASSERT_NE(nullptr, bus);
    GVariant* answer = g_dbus_connection_call_sync(
        bus, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", "GetId",
        nullptr, nullptr, G_DBUS_CALL_FLAGS_NONE, -1, nullptr, nullptr);
    if (answer != nullptr)
        g_variant_unref(answer);
    g_object_unref(bus);
}

// Waits until |context| (null: the default one), iterated by another
// thread, has run every callback queued before at a higher priority.
inline void RunAfterPendingCallbacks(GMainContext* context) {
    std::promise<void> ran;
    auto done = ran.get_future();
    GSource* idle = g_idle_source_new();
    g_source_set_priority(idle, G_PRIORITY_LOW);
    Quelt::detail::HandOver(&ran);
    g_source_set_callback(
        idle,
        [](gpointer data) -> gboolean {
            Quelt::detail::TakeOver(data);
            static_cast<std::promise<void>*>(data)->set_value();
            return G_SOURCE_REMOVE;
        },
        &ran, nullptr);
    g_source_attach(idle, context);
    g_source_unref(idle);
    done.wait();
}

// Sets a shortened wait of the library for one scope.
class ShortCloseWait {
public:
    explicit ShortCloseWait(unsigned ms) { Quelt::detail::SetOtherThreadWaitLimitMsForTests(ms); }
    ~ShortCloseWait() { Quelt::detail::SetOtherThreadWaitLimitMsForTests(0); }
};

class ShortSyncWait {
public:
    explicit ShortSyncWait(unsigned long us) { Quelt::detail::SetSyncWaitUsForTests(us); }
    ~ShortSyncWait() { Quelt::detail::SetSyncWaitUsForTests(0); }
};

}  // namespace lifetime_test

#endif  // HARVO_TEST_LIFETIMES_LIFETIMESUPPORT_H
