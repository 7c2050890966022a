// SPDX-License-Identifier: Apache-2.0
// A tour of harvo-fw's event core: a worker task, the three ways to post an
// event to it, an alarm on its loop, and a clean shutdown.
//
// The narration goes to standard output. The framework's own log lines
// (thread creation, IO initialisation, "task is destroyed!", ...) go to the
// platform log, which the host platform layer prints to standard error.
// The empty red lines among them are written by TCSemaphore::Destroy, once
// per semaphore released (a synchronous send uses a pair of them).
//
// What to look for:
//   - every event and every alarm tick runs on the worker's thread, never on
//     the thread that posted it;
//   - an urgent event jumps ahead of the events already waiting;
//   - a synchronous send returns only after the worker has run the event;
//   - Destroy sends the exit event and waits for the worker's thread.

#include <cstdio>
#include <string>
#include <thread>

#include <harvo-fw/harvo-fw.h>

using Quelt::TCAlarm;
using Quelt::TCEvent;
using Quelt::TCSemaphore;
using Quelt::TCTask;

namespace {

// User event types: anything outside the framework's own codes 1 to 6.
enum { EVENT_HOLD = 100, EVENT_TEXT = 101 };

std::thread::id g_mainThread;

const char* Where() {
    return std::this_thread::get_id() == g_mainThread ? "main thread" : "worker thread";
}

void Say(const std::string& text) {
    std::printf("[%-13s] %s\n", Where(), text.c_str());
    std::fflush(stdout);
}

// The worker: a task is a thread with its own GLib main loop and is itself an
// event queue. Events whose type the framework does not handle reach
// t_OnMEvent on the worker's thread.
class Worker : public TCTask {
public:
    Worker() : TCTask("worker") { m_Release.Create(0); }
    ~Worker() override { m_Release.Destroy(); }

    // Lets a held event finish (see EVENT_HOLD below).
    void Release() { m_Release.Give(); }

protected:
    bool t_Create() override {
        Say("t_Create: the worker's loop and its IOs are ready");
        return true;
    }
    void t_Destroy() override { Say("t_Destroy: the loop has ended, every IO is finalised"); }

    bool t_OnMEvent(const TCEvent* event) override {
        if (event->type == EVENT_HOLD) {
            // Keeps the worker busy so that the next events pile up in its
            // queue; the main thread releases it.
            Say("busy with the hold event until the main thread releases it");
            m_Release.Take();
            return true;
        }
        if (event->type == EVENT_TEXT) {
            Say("event: " + event->message.m_value["text"].asString());
            return true;
        }
        return false;  // not ours
    }

private:
    TCSemaphore m_Release;
};

// Posts a text event, asynchronously (a copy is queued at the back) or
// urgently (a copy is queued at the front).
void PostText(Worker* worker, const char* text, bool urgent) {
    TCEvent event;
    event.receiver = worker;  // the handler that must run it
    event.type = EVENT_TEXT;
    event.message.m_value["text"] = text;  // a JSON body: {"text": ...}
    event.message.Generate();
    bool queued = urgent ? Quelt::SendUrgentEvent(&event) : Quelt::SendEvent(&event);
    Say(std::string(urgent ? "posted urgently: " : "posted: ") + text +
        (queued ? "" : " (refused)"));
}

struct Ticks {
    TCSemaphore done;
    int count = 0;
};

// The alarm's callback runs on the loop of the IO it was created on: here
// the worker's. Returning true keeps it firing.
bool OnTick(void* data) {
    Ticks* ticks = static_cast<Ticks*>(data);
    ticks->count += 1;
    Say("alarm tick " + std::to_string(ticks->count));
    ticks->done.Give();
    return true;
}

}  // namespace

int main() {
    g_mainThread = std::this_thread::get_id();
    Worker worker;

    std::printf("\n--- 1. Start the worker\n");
    // initInCaller = true builds the loop here, before the thread starts, so
    // the worker accepts events as soon as Create returns; that is also why
    // t_Create runs on the main thread. (With false the thread builds the
    // loop itself, and events sent before it is ready are refused.)
    if (!worker.Create("worker", true, 0)) {
        Say("could not start the worker");
        return 1;
    }

    std::printf("\n--- 2. Asynchronous and urgent events\n");
    TCEvent hold;
    hold.receiver = &worker;
    hold.type = EVENT_HOLD;
    Quelt::SendEvent(&hold);
    PostText(&worker, "first", false);
    PostText(&worker, "second", false);
    PostText(&worker, "third", false);
    PostText(&worker, "urgent: runs before the three above", true);
    worker.Release();

    std::printf("\n--- 3. A synchronous event\n");
    // The caller's own object is queued and the call returns once the
    // worker has run it (at most 20 seconds), so it also tells us that the
    // events above have all run.
    TCEvent sync;
    sync.receiver = &worker;
    sync.type = EVENT_TEXT;
    sync.message.m_value["text"] = "synchronous: the sender waits for this one";
    sync.message.Generate();
    Quelt::SendSyncEvent(&sync);
    Say("SendSyncEvent returned");

    std::printf("\n--- 4. An alarm on the worker's loop\n");
    Ticks ticks;
    ticks.done.Create(0);
    TCAlarm alarm;
    alarm.Create(&worker, 100, 3);  // every 100 ms, three times
    alarm.SetAlarmCallback(&OnTick, &ticks);
    for (int i = 0; i < 3; ++i)
        ticks.done.Try(5000000);  // microseconds
    Say("three ticks seen");
    // An alarm must be destroyed before its task, and must outlive the
    // task's loop: only Destroy below guarantees that no tick runs any more.
    alarm.Destroy();

    std::printf("\n--- 5. Stop the worker\n");
    worker.Destroy();
    Say("worker joined");
    ticks.done.Destroy();
    return 0;
}
