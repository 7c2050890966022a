/* SPDX-License-Identifier: Apache-2.0 */
// Shared pieces of the event tests: a peer into TCEventIO's private state,
// handlers that record every call (with the thread it ran on), and a loop
// that runs on a thread of its own.
#ifndef HARVO_TEST_EVENT_EVENTTESTSUPPORT_H
#define HARVO_TEST_EVENT_EVENTTESTSUPPORT_H

#include <fcntl.h>
#include <unistd.h>

#include <glib.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <map>
#include <future>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "TCEventIO.h"

namespace Quelt {

// Reaches the queue, the pipe, the lock and the watch callback.
class TCEventIOTestPeer {
public:
    static int ReadEnd(TCEventIO* io) { return io->m_PipeFileDes[0]; }
    static int WriteEnd(TCEventIO* io) { return io->m_PipeFileDes[1]; }
    static void SetWriteEnd(TCEventIO* io, int fd) { io->m_PipeFileDes[1] = fd; }
    static void SetFlagCreate(TCEventIO* io, bool created) { io->m_FlagCreate = created; }
    static bool FlagCreate(TCEventIO* io) { return io->m_FlagCreate; }
    static GSource* Watch(TCEventIO* io) { return io->m_pWatch; }
    static GIOChannel* Channel(TCEventIO* io) { return io->m_pChannel; }
    static GMainLoop* Loop(TCEventIO* io) { return io->m_pMainLoop; }

    static bool Put(TCEventIO* io, TCEvent* event) { return io->m_Put(event); }
    static bool Get(TCEventIO* io, TCEvent* out, TCEvent** syncOut, unsigned long timeout) {
        return io->m_Get(out, syncOut, timeout);
    }
    static gboolean CallWatch(GIOChannel* channel, gpointer data) {
        return TCEventIO::m_InterIOWatch(channel, G_IO_IN, data);
    }

    static void Lock(TCEventIO* io) { io->m_Lock.Lock(); }
    static void Unlock(TCEventIO* io) { io->m_Lock.Unlock(); }
    static bool TryLock(TCEventIO* io, unsigned long timeout) { return io->m_Lock.Try(timeout); }

    // The event IO's pointer as the watch receives it.
    static gpointer WatchData(TCEventIO* io) { return static_cast<gpointer>(io); }
};

}  // namespace Quelt

namespace event_test {

using Clock = std::chrono::steady_clock;

// One handler call.
struct Call {
    std::string what;  // "event" (OnEvent reached the handler) or "clear"
    int type = 0;
    intptr_t tag = 0;  // user events carry a sequence number in param.p
    const Quelt::TCEvent* event = nullptr;
    bool sync = false;
    bool deleted = false;
    std::string data;  // the first body's text
    std::thread::id thread;
};

// Thread-safe list of handler calls with waiting.
class CallLog {
public:
    void Add(const char* what, const Quelt::TCEvent* event) {
        Call call;
        call.what = what;
        call.type = event->type;
        call.tag = reinterpret_cast<intptr_t>(event->param.p);
        call.event = event;
        call.sync = event->sync;
        call.deleted = event->deleted;
        call.data = event->data.m_message;
        call.thread = std::this_thread::get_id();
        std::lock_guard<std::mutex> guard(mutex_);
        calls_.push_back(call);
        ++counts_[call.what];
        changed_.notify_all();
    }

    std::vector<Call> Calls() const {
        std::lock_guard<std::mutex> guard(mutex_);
        return calls_;
    }

    std::vector<Call> Calls(const std::string& what) const {
        std::vector<Call> out;
        for (const Call& call : Calls()) {
            if (call.what == what)
                out.push_back(call);
        }
        return out;
    }

    size_t Count(const std::string& what) const {
        std::lock_guard<std::mutex> guard(mutex_);
        auto it = counts_.find(what);
        return it == counts_.end() ? 0 : it->second;
    }

    // Waits until |what| has been recorded |n| times.
    bool WaitFor(const std::string& what, size_t n, std::chrono::milliseconds timeout) const {
        std::unique_lock<std::mutex> lock(mutex_);
        return changed_.wait_for(lock, timeout, [&] {
            auto it = counts_.find(what);
            return it != counts_.end() && it->second >= n;
        });
    }

    // Every call ran on |thread|.
    bool AllOn(std::thread::id thread) const {
        for (const Call& call : Calls()) {
            if (call.thread != thread)
                return false;
        }
        return true;
    }

private:
    mutable std::mutex mutex_;
    mutable std::condition_variable changed_;
    std::vector<Call> calls_;
    std::map<std::string, size_t> counts_;
};

// An event IO whose second-chance hooks record user events.
class RecordingIO : public Quelt::TCEventIO {
public:
    explicit RecordingIO(const std::string& name) : Quelt::TCEventIO(name) {}

    bool t_OnMEvent(const Quelt::TCEvent* event) override {
        log.Add("event", event);
        if (onEvent)
            onEvent(event);
        return true;
    }
    void t_ClearMEvent(Quelt::TCEvent* event) override { log.Add("clear", event); }

    CallLog log;
    std::function<void(const Quelt::TCEvent*)> onEvent;  // runs inside the handler
};

// A handler that is not itself an event IO: it is served by |io|.
class SeparateHandler : public Quelt::TCHandler {
public:
    explicit SeparateHandler(Quelt::TCEventIO* io) { m_pEventIO = io; }

    bool t_OnEvent(const Quelt::TCEvent* event) override {
        log.Add("event", event);
        return true;
    }
    void t_Clear(Quelt::TCEvent* event) override { log.Add("clear", event); }

    CallLog log;
};

// A user event for |receiver| carrying |tag| in param.p.
inline Quelt::TCEvent UserEvent(Quelt::TCHandler* receiver, int type, intptr_t tag = 0) {
    Quelt::TCEvent event;
    event.receiver = receiver;
    event.type = type;
    event.param.p = reinterpret_cast<void*>(tag);
    return event;
}

// Dispatches what is ready on |context| without blocking; true when a
// source ran. The event IO takes one event per dispatch.
inline bool DispatchOne(GMainContext* context) {
    return g_main_context_iteration(context, FALSE);
}

// Dispatches until nothing is ready.
inline int DispatchAll(GMainContext* context) {
    int runs = 0;
    while (DispatchOne(context))
        ++runs;
    return runs;
}

// A context with a loop, for IOs driven by the test's own thread.
struct LocalLoop {
    LocalLoop() : context(g_main_context_new()), loop(g_main_loop_new(context, FALSE)) {}
    ~LocalLoop() {
        g_main_loop_unref(loop);
        g_main_context_unref(context);
    }
    GMainContext* context;
    GMainLoop* loop;
};

// A main loop that runs on a thread of its own.
class LoopThread {
public:
    LoopThread() : context_(g_main_context_new()), loop_(g_main_loop_new(context_, FALSE)) {}
    ~LoopThread() {
        if (abandoned_)
            return;  // the thread still uses the loop: leave both
        Stop();
        g_main_loop_unref(loop_);
        g_main_context_unref(context_);
    }

    GMainLoop* loop() const { return loop_; }
    GMainContext* context() const { return context_; }

    // Starts the loop; returns once it runs.
    void Start() {
        std::promise<std::thread::id> started;
        std::future<std::thread::id> id = started.get_future();
        GMainContext* context = context_;
        GMainLoop* loop = loop_;
        thread_ = std::thread([context, loop, &started] {
            g_main_context_push_thread_default(context);
            // Ahead of every other source, so a busy watch cannot starve it.
            GSource* idle = g_idle_source_new();
            g_source_set_priority(idle, G_PRIORITY_HIGH);
            g_source_set_callback(
                idle,
                [](gpointer data) -> gboolean {
                    static_cast<std::promise<std::thread::id>*>(data)->set_value(
                        std::this_thread::get_id());
                    return G_SOURCE_REMOVE;
                },
                &started, nullptr);
            g_source_attach(idle, context);
            g_source_unref(idle);
            g_main_loop_run(loop);
            g_main_context_pop_thread_default(context);
        });
        id_ = id.get();
    }

    // Quits the loop and joins its thread.
    void Stop() {
        if (!thread_.joinable())
            return;
        g_main_loop_quit(loop_);
        thread_.join();
    }

    // Leaves the thread running on its own (for loops that stay blocked);
    // the context and loop are then never freed.
    void Abandon() {
        thread_.detach();
        abandoned_ = true;
    }

    std::thread::id id() const { return id_; }

private:
    GMainContext* context_;
    GMainLoop* loop_;
    std::thread thread_;
    std::thread::id id_;
    bool abandoned_ = false;
};

// The text of a " %s : %p" line.
inline std::string NameAndPointer(const std::string& name, const void* pointer) {
    char text[256];
    std::snprintf(text, sizeof(text), " %s : %p", name.c_str(), pointer);
    return text;
}

}  // namespace event_test

#endif  // HARVO_TEST_EVENT_EVENTTESTSUPPORT_H
