// SPDX-License-Identifier: Apache-2.0
// Host implementation of the UI application loop on GLib's default main
// context.
//
// Everything the platform "raises" (pause, resume, system events, exit,
// SIGINT/SIGTERM) goes through one FIFO of deliveries. A delivery is run by
// an idle source on the default context, and idle sources are attached only
// once the loop is about to run: an idle dispatched before g_main_loop_run
// would quit a loop that is not running yet, and that quit would be lost.
// Each idle takes the delivery at the front of the FIFO, so deliveries run
// in the order raised whatever order GLib dispatches the idles in.

#include "app.h"
#include "app-host.h"

#include <glib-unix.h>
#include <glib.h>
#include <signal.h>

#include <algorithm>
#include <deque>
#include <mutex>
#include <new>
#include <vector>

struct app_event_info {
    app_event_type_e type;
};

struct app_event_handler {
    app_event_type_e type;
    app_event_cb callback;
    void* user_data;
};

namespace {

enum class DeliveryKind { kPause, kResume, kEvent, kExit };

struct Delivery {
    DeliveryKind kind;
    app_event_type_e event_type;
};

struct AppState {
    std::mutex lock;
    bool running = false;       // between ui_app_main's start and its return
    bool loop_started = false;  // idle sources may be attached
    bool exiting = false;       // the exit delivery ran: drop what follows
    GMainLoop* loop = nullptr;
    ui_app_lifecycle_callback_s callbacks = {};
    void* user_data = nullptr;
    std::deque<Delivery> queue;
    std::vector<GSource*> idles;    // attached, not yet dispatched; our refs
    std::vector<GSource*> signals;  // SIGINT and SIGTERM watches; our refs
    std::vector<app_event_handler*> handlers;
};

AppState& State() {
    // Never destroyed: another thread may raise while the process exits.
    static AppState* state = new AppState();
    return *state;
}

gboolean RunDelivery(gpointer data);

bool IsEventType(app_event_type_e type) {
    int value = static_cast<int>(type);
    return value >= APP_EVENT_LOW_MEMORY && value <= APP_EVENT_SUSPENDED_STATE_CHANGED;
}

// Attaches the idle that will run one queued delivery. Lock held.
void AttachIdleLocked(AppState& state) {
    GSource* idle = g_idle_source_new();
    g_source_set_callback(idle, RunDelivery, idle, nullptr);
    state.idles.push_back(idle);
    g_source_attach(idle, g_main_context_default());
}

// Queues |delivery|; APP_ERROR_INVALID_CONTEXT without a running loop.
int Enqueue(const Delivery& delivery) {
    AppState& state = State();
    std::lock_guard<std::mutex> guard(state.lock);
    if (!state.running)
        return APP_ERROR_INVALID_CONTEXT;
    state.queue.push_back(delivery);
    if (state.loop_started)
        AttachIdleLocked(state);
    return APP_ERROR_NONE;
}

// Runs every handler registered for |type|. A handler removed by an
// earlier one of the same round is skipped.
void DispatchEvent(app_event_type_e type) {
    AppState& state = State();
    std::vector<app_event_handler*> matching;
    {
        std::lock_guard<std::mutex> guard(state.lock);
        for (app_event_handler* handler : state.handlers) {
            if (handler->type == type)
                matching.push_back(handler);
        }
    }
    app_event_info info = {type};
    for (app_event_handler* handler : matching) {
        app_event_cb callback = nullptr;
        void* user_data = nullptr;
        {
            std::lock_guard<std::mutex> guard(state.lock);
            auto found = std::find(state.handlers.begin(), state.handlers.end(), handler);
            if (found == state.handlers.end())
                continue;
            callback = handler->callback;
            user_data = handler->user_data;
        }
        callback(&info, user_data);
    }
}

gboolean RunDelivery(gpointer data) {
    GSource* self = static_cast<GSource*>(data);
    AppState& state = State();
    Delivery delivery;
    ui_app_lifecycle_callback_s callbacks;
    void* user_data;
    {
        std::lock_guard<std::mutex> guard(state.lock);
        auto found = std::find(state.idles.begin(), state.idles.end(), self);
        if (found != state.idles.end()) {
            state.idles.erase(found);
            g_source_unref(self);  // the context keeps its own reference
        }
        if (state.queue.empty() || state.exiting)
            return G_SOURCE_REMOVE;
        delivery = state.queue.front();
        state.queue.pop_front();
        if (delivery.kind == DeliveryKind::kExit)
            state.exiting = true;
        callbacks = state.callbacks;
        user_data = state.user_data;
    }
    switch (delivery.kind) {
        case DeliveryKind::kPause:
            if (callbacks.pause != nullptr)
                callbacks.pause(user_data);
            break;
        case DeliveryKind::kResume:
            if (callbacks.resume != nullptr)
                callbacks.resume(user_data);
            break;
        case DeliveryKind::kEvent:
            DispatchEvent(delivery.event_type);
            break;
        case DeliveryKind::kExit:
            // Only reached inside g_main_loop_run: the idles are attached
            // just before it starts.
            g_main_loop_quit(state.loop);
            break;
    }
    return G_SOURCE_REMOVE;
}

// SIGINT and SIGTERM end the loop the same way ui_app_exit does, so
// terminate still runs.
gboolean OnTerminationSignal(gpointer) {
    Enqueue(Delivery{DeliveryKind::kExit, APP_EVENT_LOW_MEMORY});
    return G_SOURCE_CONTINUE;
}

void WatchSignalsLocked(AppState& state) {
    for (int signum : {SIGINT, SIGTERM}) {
        GSource* watch = g_unix_signal_source_new(signum);
        g_source_set_callback(watch, OnTerminationSignal, nullptr, nullptr);
        g_source_attach(watch, g_main_context_default());
        state.signals.push_back(watch);
    }
}

// Ends a run: detaches every source of this run and forgets what is still
// queued. Removing the last watch of a signal gives it back its default
// action.
void EndRun(AppState& state) {
    std::vector<GSource*> sources;
    GMainLoop* loop;
    {
        std::lock_guard<std::mutex> guard(state.lock);
        sources.swap(state.idles);
        sources.insert(sources.end(), state.signals.begin(), state.signals.end());
        state.signals.clear();
        state.queue.clear();
        state.callbacks = {};
        state.user_data = nullptr;
        loop = state.loop;
        state.loop = nullptr;
        state.loop_started = false;
        state.exiting = false;
        state.running = false;
    }
    for (GSource* source : sources) {
        g_source_destroy(source);
        g_source_unref(source);
    }
    g_main_loop_unref(loop);
}

}  // namespace

extern "C" int ui_app_main(int, char**, ui_app_lifecycle_callback_s* callback, void* user_data) {
    if (callback == nullptr)
        return APP_ERROR_INVALID_PARAMETER;
    AppState& state = State();
    {
        std::lock_guard<std::mutex> guard(state.lock);
        if (state.running)
            return APP_ERROR_ALREADY_RUNNING;
        state.running = true;
        state.callbacks = *callback;
        state.user_data = user_data;
        state.loop = g_main_loop_new(nullptr, FALSE);
        WatchSignalsLocked(state);
    }

    if (callback->create != nullptr && !callback->create(user_data)) {
        EndRun(state);
        return APP_ERROR_INVALID_CONTEXT;
    }

    // The launch request of this start, with an empty bundle.
    if (callback->app_control != nullptr) {
        app_control_h launch = nullptr;
        if (app_control_create(&launch) == APP_CONTROL_ERROR_NONE) {
            callback->app_control(launch, user_data);
            app_control_destroy(launch);
        }
    }

    GMainLoop* loop;
    {
        std::lock_guard<std::mutex> guard(state.lock);
        state.loop_started = true;
        for (size_t i = 0; i < state.queue.size(); ++i)
            AttachIdleLocked(state);
        loop = state.loop;
    }
    g_main_loop_run(loop);

    if (callback->terminate != nullptr)
        callback->terminate(user_data);
    EndRun(state);
    return APP_ERROR_NONE;
}

extern "C" void ui_app_exit(void) {
    Enqueue(Delivery{DeliveryKind::kExit, APP_EVENT_LOW_MEMORY});
}

extern "C" int ui_app_add_event_handler(app_event_handler_h* handler, app_event_type_e event_type,
                                        app_event_cb callback, void* user_data) {
    if (handler == nullptr || callback == nullptr || !IsEventType(event_type))
        return APP_ERROR_INVALID_PARAMETER;
    app_event_handler* created =
        new (std::nothrow) app_event_handler{event_type, callback, user_data};
    if (created == nullptr)
        return APP_ERROR_OUT_OF_MEMORY;
    AppState& state = State();
    std::lock_guard<std::mutex> guard(state.lock);
    state.handlers.push_back(created);
    *handler = created;
    return APP_ERROR_NONE;
}

extern "C" int ui_app_remove_event_handler(app_event_handler_h handler) {
    AppState& state = State();
    {
        std::lock_guard<std::mutex> guard(state.lock);
        auto found = std::find(state.handlers.begin(), state.handlers.end(), handler);
        if (handler == nullptr || found == state.handlers.end())
            return APP_ERROR_INVALID_PARAMETER;
        state.handlers.erase(found);
    }
    delete handler;
    return APP_ERROR_NONE;
}

extern "C" int ui_app_host_raise_pause(void) {
    return Enqueue(Delivery{DeliveryKind::kPause, APP_EVENT_LOW_MEMORY});
}

extern "C" int ui_app_host_raise_resume(void) {
    return Enqueue(Delivery{DeliveryKind::kResume, APP_EVENT_LOW_MEMORY});
}

extern "C" int ui_app_host_raise_event(app_event_type_e event_type) {
    if (!IsEventType(event_type))
        return APP_ERROR_INVALID_PARAMETER;
    return Enqueue(Delivery{DeliveryKind::kEvent, event_type});
}

extern "C" int ui_app_host_raise_language_changed(void) {
    return ui_app_host_raise_event(APP_EVENT_LANGUAGE_CHANGED);
}

extern "C" bool ui_app_host_is_running(void) {
    AppState& state = State();
    std::lock_guard<std::mutex> guard(state.lock);
    return state.running;
}

extern "C" int ui_app_host_event_info_type(app_event_info_h event_info) {
    return (event_info != nullptr) ? static_cast<int>(event_info->type) : -1;
}
