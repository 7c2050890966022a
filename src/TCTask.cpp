// SPDX-License-Identifier: Apache-2.0
// TCTask: a worker thread with its own main context and loop.

#include "TCTask.h"

#include <condition_variable>
#include <map>
#include <mutex>

#include "Guarded.h"
#include "QueltLog.h"

namespace Quelt {

namespace {

// How far a task's thread has come, kept beside the task (whose layout is
// fixed) and written by the thread itself: Destroy must not send the exit
// event before the loop exists (it would never arrive, and the join would
// wait for good), and the thread must not be left running on a task that
// goes away.
struct TaskRun {
    bool started = false;   // the loop was built, or failed to be
    bool loopRuns = false;  // built: t_Main runs (or is about to)
    bool ending = false;    // the loop is over: the thread finalises and ends
    bool ended = false;     // the thread is done with the task
};

std::mutex& TaskRunsMutex() {
    static auto* mutex = new std::mutex();
    return *mutex;
}

std::condition_variable& TaskRunsChanged() {
    static auto* changed = new std::condition_variable();
    return *changed;
}

std::map<const TCTask*, TaskRun>& TaskRuns() {
    static auto* runs = new std::map<const TCTask*, TaskRun>();
    return *runs;
}

template <typename Change>
void UpdateRun(const TCTask* task, Change change) {
    std::lock_guard<std::mutex> guard(TaskRunsMutex());
    change(TaskRuns()[task]);
    TaskRunsChanged().notify_all();
}

}  // namespace

TCTask::TCTask(const char* name)
    : TCEventIO(std::string(name != nullptr ? name : "")),
      m_pThread(nullptr),
      m_pIOList(nullptr),
      m_pContext(nullptr),
      m_pLoop(nullptr) {}

TCTask::~TCTask() {
    // The thread and the loop are Destroy's and the thread's business.
    QLOGI("");
    bool running = false;
    {
        std::lock_guard<std::mutex> guard(TaskRunsMutex());
        auto found = TaskRuns().find(this);
        if (found != TaskRuns().end()) {
            // A thread that is ending on its own is only joined below.
            running = !found->second.ended && !found->second.ending;
            TaskRuns().erase(found);
        }
    }
    GThread* thread = static_cast<GThread*>(g_atomic_pointer_get(&m_pThread));
    if (running && thread != nullptr) {
        // Its thread would go on with freed memory: stop here, loudly.
        QLOGE("task %s destroyed while its thread runs: call Destroy first", GetName().c_str());
        QUELT_ASSERT(!"task destroyed while its thread runs");
    }
    // A thread that ended by itself is joined, so that it is released.
    if (thread != nullptr)
        g_thread_join(thread);
}

bool TCTask::Create(const char* name, bool initInCaller, unsigned long option) {
    if (!m_NewThread(name, option, initInCaller)) {
        QLOGE("Create thread fail!");
        return false;
    }
    return true;
}

void TCTask::AddIO(TCIOBase* io) {
    // No lock: the list is only changed while the loop is being built.
    m_pIOList = g_list_append(m_pIOList, io);
    QLOGI("coroutine num : %d", static_cast<int>(g_list_length(m_pIOList)));
}

void TCTask::Destroy() {
    GThread* thread = static_cast<GThread*>(g_atomic_pointer_get(&m_pThread));
    if (thread != nullptr && thread == g_thread_self()) {
        // Joining ourselves would never return; the task must post the exit
        // event to its own handler instead.
        QLOGE(
            "Send event EVENT_EXIT_TASK to destroy when calling Destroy at the task what you want "
            "to destroy!");
        return;
    }
    bool loopRuns = m_pLoop != nullptr;
    if (thread != nullptr) {
        // A thread that is still building its loop is waited for: an exit
        // event sent before the loop exists would never end it.
        std::unique_lock<std::mutex> lock(TaskRunsMutex());
        TaskRunsChanged().wait(lock, [this] {
            const TaskRun& run = TaskRuns()[this];
            return run.started || run.ended;
        });
        const TaskRun& run = TaskRuns()[this];
        loopRuns = run.loopRuns && !run.ended;
    }
    if (loopRuns) {
        // The task's own handler quits the loop on this event, so t_Main
        // returns and the thread finalises its IOs itself.
        TCEvent exitEvent;
        exitEvent.receiver = this;
        exitEvent.type = EVENT_EXIT_TASK;
        exitEvent.sync = false;
        SendEvent(&exitEvent);
    }
    // A task whose thread was never started has nothing to join.
    if (thread != nullptr)
        g_thread_join(thread);
    g_atomic_pointer_set(&m_pThread, nullptr);
    QLOGD("task is destroyed!");
}

bool TCTask::t_Create() {
    return true;
}

void TCTask::t_Main() {
    QLOGI("begin");
    g_main_loop_run(m_pLoop);
    QLOGI("SERVICE %p End!", static_cast<void*>(m_pLoop));
}

void TCTask::t_Destroy() {}

void TCTask::t_AddIO() {}

bool TCTask::m_NewThread(const char* name, unsigned long option, bool initInCaller) {
    (void)option;  // accepted for compatibility; the thread uses GLib's defaults
    if (initInCaller && !m_InitMainLoop()) {
        Destroy();
        return false;
    }
    UpdateRun(this, [](TaskRun& run) { run = TaskRun(); });
    GError* error = nullptr;
    GThread* thread = g_thread_try_new(name, m_ThreadProcess, this, &error);
    // The thread stores itself as well (m_ThreadProcess), so both writes
    // carry the same value; atomics keep Destroy's own-thread test sound
    // even when an event reaches the task before this line runs.
    g_atomic_pointer_set(&m_pThread, thread);
    if (thread == nullptr) {
        if (error != nullptr) {
            QLOGE("Thread created fail,%s", error->message);
            g_error_free(error);
        }
        return false;
    }
    return true;
}

gpointer TCTask::m_ThreadProcess(gpointer task) {
    TCTask* self = static_cast<TCTask*>(task);
    g_atomic_pointer_set(&self->m_pThread, g_thread_self());
    // With initInCaller the loop already exists and m_InitMainLoop returns
    // at once.
    // The thread's entry is called from GLib: nothing may unwind out of it.
    // A task whose loop ended by an exception still tears down its IOs.
    // The start is reported whatever happens in the loop's building (an
    // exception included), so that Destroy never waits for good.
    bool built = false;
    QUELT_CALL_GUARDED("t_Main", [&] {
        built = self->m_InitMainLoop();
        UpdateRun(self, [built](TaskRun& run) {
            run.started = true;
            run.loopRuns = built;
        });
        if (built)
            self->t_Main();
    });
    // The loop has ended (or never ran): an exit event would find the queue
    // finalised.
    UpdateRun(self, [](TaskRun& run) {
        run.started = true;
        run.loopRuns = false;
        run.ending = true;
    });
    QUELT_CALL_GUARDED("m_Destroy", [&] { self->m_Destroy(); });
    // The last touch of the task: its owner may delete it from here on.
    UpdateRun(self, [](TaskRun& run) { run.ended = true; });
    return nullptr;
}

bool TCTask::m_InitMainLoop() {
    if (m_pLoop != nullptr)
        return true;
    if (m_pContext == nullptr)
        m_pContext = g_main_context_new();
    m_pLoop = g_main_loop_new(m_pContext, FALSE);
    if (m_pLoop == nullptr) {
        QLOGE("Failed to create the mainloop");
        return false;
    }
    // The task's own queue comes first, then whatever the subclass attaches.
    AddIO(this);
    t_AddIO();
    for (GList* node = m_pIOList; node != nullptr; node = node->next) {
        QLOGI("Init IO begin");
        if (!static_cast<TCIOBase*>(node->data)->Init(m_pLoop)) {
            QLOGE("Init fail!");
            return false;
        }
    }
    if (!t_Create()) {
        QLOGE("fail!");
        return false;
    }
    return true;
}

void TCTask::m_Destroy() {
    QLOGI("");
    // Every attached IO is finalised, including those whose Init never ran.
    for (GList* node = m_pIOList; node != nullptr; node = node->next) {
        QLOGI("Final IO begin");
        static_cast<TCIOBase*>(node->data)->Final();
    }
    g_list_free(m_pIOList);
    m_pIOList = nullptr;
    t_Destroy();
    // The loop goes first: it holds a reference on the context.
    if (m_pLoop != nullptr) {
        g_main_loop_unref(m_pLoop);
        m_pLoop = nullptr;
    }
    if (m_pContext != nullptr) {
        g_main_context_unref(m_pContext);
        m_pContext = nullptr;
    }
}

}  // namespace Quelt
