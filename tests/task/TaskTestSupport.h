/* SPDX-License-Identifier: Apache-2.0 */
// Helpers shared by the task and alarm tests: cross-thread signals, a
// journal of what ran on which thread, a probe task with every hook
// recorded, and an IO that records its Init/Final.
#ifndef HARVO_TEST_TASKTESTSUPPORT_H
#define HARVO_TEST_TASKTESTSUPPORT_H

#include <glib.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "TCEvent.h"
#include "TCEventIO.h"
#include "TCTask.h"

namespace task_test {

// Generous limit for anything that crosses threads.
constexpr std::chrono::milliseconds kWait(10000);

// Counts notifications; waiters block until the count reaches a value.
class Signal {
public:
    void Notify() {
        {
            std::lock_guard<std::mutex> guard(mutex_);
            ++count_;
        }
        changed_.notify_all();
    }
    bool WaitFor(int count, std::chrono::milliseconds timeout = kWait) {
        std::unique_lock<std::mutex> lock(mutex_);
        return changed_.wait_for(lock, timeout, [&] { return count_ >= count; });
    }
    int Count() {
        std::lock_guard<std::mutex> guard(mutex_);
        return count_;
    }

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    int count_ = 0;
};

// A one-shot gate: Wait blocks until Open.
class Gate {
public:
    void Open() {
        {
            std::lock_guard<std::mutex> guard(mutex_);
            open_ = true;
        }
        changed_.notify_all();
    }
    bool Wait(std::chrono::milliseconds timeout = kWait) {
        std::unique_lock<std::mutex> lock(mutex_);
        return changed_.wait_for(lock, timeout, [&] { return open_; });
    }

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    bool open_ = false;
};

struct JournalEntry {
    std::string what;
    GThread* thread;
};

// What happened, in order, and on which thread.
class Journal {
public:
    void Add(const std::string& what) {
        std::lock_guard<std::mutex> guard(mutex_);
        entries_.push_back({what, g_thread_self()});
    }
    std::vector<JournalEntry> Entries() {
        std::lock_guard<std::mutex> guard(mutex_);
        return entries_;
    }
    std::vector<std::string> Names() {
        std::vector<std::string> names;
        for (const JournalEntry& entry : Entries())
            names.push_back(entry.what);
        return names;
    }
    // The thread of the first entry called |what|, or null.
    GThread* ThreadOf(const std::string& what) {
        for (const JournalEntry& entry : Entries()) {
            if (entry.what == what)
                return entry.thread;
        }
        return nullptr;
    }

private:
    std::mutex mutex_;
    std::vector<JournalEntry> entries_;
};

// Calls |signal|->Notify() when |context| is finalised. A task's thread
// unrefs its loop and then its context as the very last thing it does, and
// finalising the context destroys every source still attached to it, so
// this tells the test that the thread has let go of its loop.
inline void NotifyWhenContextFinalised(GMainContext* context, Signal* signal) {
    struct WatchSource {
        GSource base;
        Signal* signal;
    };
    static GSourceFuncs funcs = {
        [](GSource*, gint* timeout) -> gboolean {
            *timeout = -1;
            return FALSE;
        },
        [](GSource*) -> gboolean { return FALSE; },
        [](GSource*, GSourceFunc, gpointer) -> gboolean { return TRUE; },
        [](GSource* source) { reinterpret_cast<WatchSource*>(source)->signal->Notify(); },
        nullptr,
        nullptr,
    };
    GSource* source = g_source_new(&funcs, sizeof(WatchSource));
    reinterpret_cast<WatchSource*>(source)->signal = signal;
    g_source_attach(source, context);
    g_source_unref(source);  // the context owns it from now on
}

// Posts a user event of |type| to |receiver| (asynchronous, copied).
inline bool PostUserEvent(Quelt::TCHandler* receiver, int type, void* param = nullptr) {
    Quelt::TCEvent event;
    event.receiver = receiver;
    event.type = type;
    event.deleted = false;
    event.sync = false;
    event.param.p = param;
    return Quelt::SendEvent(&event);
}

// An attachable IO that records Init and Final; Init answers |initResult|.
class RecordingIO : public Quelt::TCIOBase {
public:
    RecordingIO(std::string name, Journal* journal, bool initResult = true)
        : name_(std::move(name)), journal_(journal), initResult_(initResult) {}
    // Runs inside Init with the loop given (set before the task is created).
    std::function<void(GMainLoop*)> onInit;

    bool Init(GMainLoop* loop) override {
        loop_ = loop;
        journal_->Add(name_ + ".Init");
        if (onInit)
            onInit(loop);
        return initResult_;
    }
    void Final() override { journal_->Add(name_ + ".Final"); }
    GMainLoop* loop() const { return loop_; }

private:
    std::string name_;
    Journal* journal_;
    bool initResult_;
    GMainLoop* loop_ = nullptr;
};

// A task that records every hook in a journal and lets the test add IOs,
// make t_Create fail, hold the loop back, and act inside its handler.
class ProbeTask : public Quelt::TCTask {
public:
    ProbeTask(const char* name, Journal* journal) : TCTask(name), journal_(journal) {}

    // Set before Create.
    std::vector<Quelt::TCIOBase*> extraIOs;
    bool createResult = true;
    std::function<void(ProbeTask*)> onCreate;                            // runs inside t_Create
    std::function<void(ProbeTask*, const Quelt::TCEvent*)> onUserEvent;  // inside the handler
    Gate* mainGate = nullptr;  // t_Main waits for it before running the loop

    Signal created;     // t_Create ran
    Signal destroyed;   // t_Destroy ran
    Signal userEvents;  // a user event was handled

    bool Init(GMainLoop* loop) override {
        journal_->Add("task.Init");
        return TCTask::Init(loop);
    }
    void Final() override {
        journal_->Add("task.Final");
        TCTask::Final();
    }

protected:
    void t_AddIO() override {
        journal_->Add("t_AddIO");
        for (Quelt::TCIOBase* io : extraIOs)
            AddIO(io);
    }
    bool t_Create() override {
        journal_->Add("t_Create");
        if (onCreate)
            onCreate(this);
        created.Notify();
        return createResult;
    }
    void t_Main() override {
        journal_->Add("t_Main");
        if (mainGate != nullptr)
            mainGate->Wait();
        TCTask::t_Main();
    }
    void t_Destroy() override {
        journal_->Add("t_Destroy");
        destroyed.Notify();
    }
    bool t_OnMEvent(const Quelt::TCEvent* event) override {
        journal_->Add("event " + std::to_string(event->type));
        if (onUserEvent)
            onUserEvent(this, event);
        userEvents.Notify();
        return true;
    }

private:
    Journal* journal_;
};

}  // namespace task_test

#endif  // HARVO_TEST_TASKTESTSUPPORT_H
