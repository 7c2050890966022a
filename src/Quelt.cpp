// SPDX-License-Identifier: Apache-2.0
// Free functions of namespace Quelt.

#include "Quelt.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <Ecore.h>
#include <app.h>
#include <glib.h>

#include "ApplicationState.h"
#include "QueltLog.h"
#include "TCApplication.h"
#include "TCEventIO.h"
#include "TCGadgetActivity.h"
#include "TCServer.h"

// The process's application; set by AppMain and never cleared.
Quelt::TCApplication* g_pAppBase = nullptr;

namespace Quelt {

const char* GetProjectName() {
    // A destroyed application is no application (g_pAppBase is never
    // cleared and may still point at it).
    if (g_pAppBase == nullptr || detail::IsApplicationGone(g_pAppBase))
        return "nil";
    return g_pAppBase->GetApplicationName();
}

const char* GetAppName() {
    return GetProjectName();
}

namespace detail {

void AssertFail(const char* expr, const char* file, const char* func, int line) {
    __dlog_print(LOG_ID_MAIN, DLOG_FATAL, QUELT_LOG_TAG,
                 "%s: %s(%d) > " QUELT_COLOUR_RED " [%s]assertion failed: %s" QUELT_COLOUR_RESET
                 "\n",
                 file, func, line, GetProjectName(), expr);
    std::fprintf(stderr, "%s:%d: %s: Assertion `%s' failed.\n", file, line, func, expr);
    std::fflush(stderr);
    std::abort();
}

}  // namespace detail
}  // namespace Quelt

// ---------------------------------------------------------------------------
// Sending events: the public entry points of the event IO.

namespace Quelt {

bool SendEvent(TCEvent* event) {
    return TCEventIO::SendEvent(event);
}

bool SendSyncEvent(TCEvent* event) {
    return TCEventIO::SendSyncEvent(event);
}

bool SendUrgentEvent(TCEvent* event) {
    return TCEventIO::SendUrgentEvent(event);
}

}  // namespace Quelt

// ---------------------------------------------------------------------------
// The entry point: one application per process, run on the calling thread.

namespace Quelt {

namespace {

// The platform's lifecycle callbacks of a UI application.
ui_app_lifecycle_callback_s EFLCallbacks() {
    ui_app_lifecycle_callback_s callbacks;
    memset(&callbacks, 0, sizeof(callbacks));
    callbacks.create = TCApplication::OnCreate;
    callbacks.terminate = TCApplication::OnTerminate;
    callbacks.pause = TCApplication::OnPause;
    callbacks.resume = TCApplication::OnResume;
    callbacks.app_control = TCApplication::OnService;
    return callbacks;
}

}  // namespace

// Every branch runs the application's lifecycle on the calling thread and
// returns when its loop has ended. The log lines are written here, so that
// they all name AppMain.
int AppMain(int argc, char** argv, TCApplication* app) {
    g_pAppBase = app;
    if (app == nullptr) {
        QLOGE("Allocate Application fail!");
        return -1;
    }
    QLOGD("Main Begin");

    if (app->GetAppType() == TCApplication::EFL_APPLICATION) {
        QLOGD("Application Begin");
        ecore_init();
        ui_app_lifecycle_callback_s callbacks = EFLCallbacks();
        // The handler stays registered for the life of the process.
        app_event_handler_h languageHandler = nullptr;
        ui_app_add_event_handler(&languageHandler, APP_EVENT_LANGUAGE_CHANGED,
                                 TCApplication::OnLangChanged, app);
        if (ui_app_main(argc, argv, &callbacks, app) != 0) {
            QLOGE("app_efl_main return err!");
            ecore_shutdown();
            return -1;
        }
        ecore_shutdown();
        return 0;
    }

    if (app->GetAppType() == TCApplication::ECORE_SERVICE) {
        // Ends when something calls ecore_main_loop_quit.
        ecore_init();
        if (!TCApplication::OnCreate(app)) {
            QLOGE("Failed to create the service");
            TCApplication::OnTerminate(app);
            ecore_shutdown();
            return -1;
        }
        ecore_main_loop_begin();
        TCApplication::OnTerminate(app);
        ecore_shutdown();
        return 0;
    }

    // DAEMON_SERVICE, and any other type: a GLib main loop over the default
    // context, stored in the server part so that a hook or handler can quit
    // it (g_main_loop_quit(app->GetMainLoop())).
    QLOGD("Service Begin");
    GMainLoop* loop = g_main_loop_new(NULL, FALSE);
    if (loop == NULL) {
        QLOGE("Failed to create the mainloop");
        return -1;
    }
    GMainContext* context = g_main_loop_get_context(loop);
    static_cast<TCServer*>(app)->m_mainLoop = loop;
    int result = 0;
    if (!TCApplication::OnCreate(app)) {
        QLOGE("Failed to create the service");
        result = -1;
    } else {
        g_main_loop_run(loop);
    }
    TCApplication::OnTerminate(app);
    g_main_loop_unref(loop);
    // This releases a reference of the default context that
    // g_main_loop_get_context never gave: the framework has always done so
    // and keeps doing it. A process that goes on using the default context
    // after AppMain must hold a reference of its own. The stored loop
    // pointer is left as it is.
    g_main_context_unref(context);
    return result;
}

// ---------------------------------------------------------------------------
// Messages and signals by server name.

bool SendMessage(const char* source, const char* dest, const TCMessage* message, bool sync,
                 TCMessage* reply) {
    return TCServer::SendMessage(source, dest, message, sync, reply);
}

bool SendSignal(const char* source, const char* signalName, const TCMessage* message) {
    return TCServer::SendSignal(source, signalName, message);
}

bool SubscribeSignal(const char* source, const char* from, const char* signalName,
                     TCNativeSignalHandler handler, void* userData) {
    return TCServer::SubscribeSignal(source, from, signalName, handler, userData);
}

bool SubscribeKeySignal(const char* source, const char* from, const char* signalName,
                        TCNativeSignalHandler handler, void* userData) {
    return TCServer::SubscribeKeySignal(source, from, signalName, handler, userData);
}

bool UnSubscribeSignal(const char* source, const char* from, const char* signalName) {
    return TCServer::UnSubscribeSignal(source, from, signalName);
}

bool UnSubscribeKeySignal(const char* source, const char* from, const char* signalName) {
    return TCServer::UnSubscribeKeySignal(source, from, signalName);
}

}  // namespace Quelt

// ---------------------------------------------------------------------------
// UI gadget entry

namespace Quelt {

int InitUIGadget(ug_module_ops* ops, TCGadgetActivity* activity, ug_option option) {
    if (ops == nullptr) {
        QLOGE("NULL pointer!");
        return -1;
    }
    ops->create = TCGadgetActivity::OnCreate;
    ops->start = TCGadgetActivity::OnStart;
    ops->pause = TCGadgetActivity::OnPause;
    ops->resume = TCGadgetActivity::OnResume;
    ops->destroy = TCGadgetActivity::OnDestroy;
    ops->message = TCGadgetActivity::OnMessage;
    ops->event = TCGadgetActivity::OnEvent;
    ops->priv = activity;
    ops->opt = option;
    return 0;
}

}  // namespace Quelt
