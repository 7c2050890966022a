/* SPDX-License-Identifier: Apache-2.0 */
/**
 * \file TCApplication.h
 * TCApplication: the one application object of a process.
 *
 * It is at once a bus endpoint (TCServer, first base) and the event queue
 * of the main loop (TCEventIO, second base). Quelt::AppMain stores it in
 * g_pAppBase and runs the main loop that fits its type; the static
 * lifecycle callbacks below drive the t_On... hooks on the main thread:
 *
 *   OnCreate:    t_OnCreate, the bus server, the event queue on the
 *                default main context, t_OnStart
 *   OnService:   t_OnService (a launch request)
 *   OnPause / OnResume / OnLangChanged: the matching hook
 *   OnTerminate: t_OnTerminate, the event queue finalised, the bus closed
 *
 * TCEFLApplication is a UI application (the platform's UI application
 * loop); TCDaemonService a service on a plain GLib main loop, which a hook
 * or handler ends with g_main_loop_quit(GetMainLoop()). A subclass of
 * TCApplication may pass ECORE_SERVICE to run on the Ecore loop.
 *
 * Lifetime: the owner destroys the object after AppMain has returned; the
 * destructor neither finalises nor closes (OnTerminate did).
 */
#ifndef HARVO_FW_TCAPPLICATION_H
#define HARVO_FW_TCAPPLICATION_H

#include "harvo-fw-export.h"

#include <glib.h>

#include <cstdint>
#include <string>

#include "Quelt.h"
#include "TCEventIO.h"
#include "TCServer.h"

/** The platform's launch-request bundle and event information. */
struct app_control_s;
struct app_event_info;

namespace Quelt {

/** The process's application object: at once its bus endpoint (TCServer)
 *  and its main event queue (TCEventIO). Quelt::AppMain runs it; the
 *  lifecycle hooks run on the main thread in the order create, start, then
 *  pause/resume/service as the platform reports them, then terminate. */
class HARVO_FW_API TCApplication : public TCServer, public TCEventIO {
public:
    /** A fixed 32-bit type: AppMain runs any other value as a daemon. */
    enum APP_TYPE : int32_t {
        EFL_APPLICATION = 0,  ///< ui_app_main
        ECORE_SERVICE = 1,    ///< ecore_main_loop_begin
        DAEMON_SERVICE = 2,   ///< a GMainLoop on the default context
    };

    /** |name| is copied; it names the bus endpoint and the event queue, and
     * is what GetProjectName answers once AppMain has run. A null name is
     * taken as "". */
    TCApplication(APP_TYPE type, const char* name);
    /** Frees the name; does not call Final or CloseDBusServer. */
    virtual ~TCApplication();

    /* Hooks, in this order after TCServer's own virtual operations. */

    /** First step of creation; false refuses to start. Default true. */
    virtual bool t_OnCreate();
    /** Last step of creation, with the bus server and the event queue up;
     * its result is the creation's. Default true. */
    virtual bool t_OnStart();
    /** A launch request arrived (UI application). Default nothing. */
    virtual void t_OnService(app_control_s* appControl);
    /** The application went to the background (UI application). Default
     *  nothing. */
    virtual void t_OnPause();
    /** The application came back to the foreground (UI application).
     *  Default nothing. */
    virtual void t_OnResume();
    /** First step of termination, before the queue and the bus go. */
    virtual void t_OnTerminate();
    /** The platform language changed (the event information is not passed
     * on). */
    virtual void t_OnLangChanged();

    /** Lifecycle callbacks for the platform loops; |data| is the
     * application. */
    static bool OnCreate(void* data);
    /** Runs t_OnTerminate, then finalises the event queue and closes the
     *  bus endpoint. */
    static void OnTerminate(void* data);
    /** Runs t_OnPause. */
    static void OnPause(void* data);
    /** Runs t_OnResume. */
    static void OnResume(void* data);
    /** Runs t_OnService with \p appControl (not owned). */
    static void OnService(app_control_s* appControl, void* data);
    /** Runs t_OnLangChanged; \p eventInfo is not passed on. */
    static void OnLangChanged(app_event_info* eventInfo, void* data);

    /** The type given at construction: which loop AppMain runs. */
    APP_TYPE GetAppType() const { return m_appType; }
    /** The heap copy of the name given at construction. */
    const char* GetApplicationName() const { return m_appName; }

    /** Both bases answer these; the server's are meant: the daemon's main
     * loop stored by AppMain (null for the other types) and the endpoint
     * name (the same text as the queue's). */
    using TCServer::GetMainLoop;
    /** The endpoint name (see TCServer::GetName). */
    using TCServer::GetName;

private:
    APP_TYPE m_appType;
    char* m_appName;  ///< strdup'ed; freed by the destructor
};

/** A UI application, run by the platform's UI application loop. */
class HARVO_FW_API TCEFLApplication : public TCApplication {
public:
    /** An application of type EFL_APPLICATION named \p name (copied). */
    explicit TCEFLApplication(const char* name);
};

/** A service, run by a GLib main loop on the default main context. */
class HARVO_FW_API TCDaemonService : public TCApplication {
public:
    /** An application of type DAEMON_SERVICE named \p name (copied). */
    explicit TCDaemonService(const char* name);
};

}  // namespace Quelt

/** The application handed to Quelt::AppMain (null until then, and null
 * after AppMain(…, nullptr)); AppMain never clears it. */
extern HARVO_FW_API Quelt::TCApplication* g_pAppBase;

#endif  // HARVO_FW_TCAPPLICATION_H
