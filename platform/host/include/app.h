/* SPDX-License-Identifier: Apache-2.0 */
/*
 * The UI application loop: the subset of Tizen's application framework
 * that harvo-fw uses. Host implementation with the same names, types and
 * results as Tizen.
 *
 * ui_app_main runs, on the calling thread: create, then the launch request
 * (app_control, with a bundle the loop creates and destroys), then the loop
 * on GLib's default main context until ui_app_exit (or SIGINT/SIGTERM),
 * then terminate. GLib sources attached to the default context (IO
 * watches, timeouts, GDBus) are served while the loop runs, as on the
 * device where the loop is Ecore's on that same context.
 *
 * app-host.h (host only) raises pause, resume and the system events onto a
 * running loop from any thread.
 */
#ifndef HARVO_HOST_APP_H
#define HARVO_HOST_APP_H

#include <errno.h>
#include <stdbool.h>

#include "app_control.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef enum {
    APP_ERROR_NONE = 0,
    APP_ERROR_INVALID_PARAMETER = -EINVAL,
    APP_ERROR_OUT_OF_MEMORY = -ENOMEM,
    /* ui_app_main is already running in this process. */
    APP_ERROR_ALREADY_RUNNING = -EALREADY,
    /* Below zero and outside the errno range: the call does not fit the
     * application's state (e.g. create refused to start). */
    APP_ERROR_INVALID_CONTEXT = -0x10101
} app_error_e;

typedef bool (*app_create_cb)(void* user_data);
typedef void (*app_terminate_cb)(void* user_data);
typedef void (*app_pause_cb)(void* user_data);
typedef void (*app_resume_cb)(void* user_data);
typedef void (*app_control_cb)(app_control_h app_control, void* user_data);

/* Field order is part of the interface. Any callback may be null. */
typedef struct {
    app_create_cb create;
    app_terminate_cb terminate;
    app_pause_cb pause;
    app_resume_cb resume;
    app_control_cb app_control;
} ui_app_lifecycle_callback_s;

typedef enum {
    APP_EVENT_LOW_MEMORY,
    APP_EVENT_LOW_BATTERY,
    APP_EVENT_LANGUAGE_CHANGED,
    APP_EVENT_DEVICE_ORIENTATION_CHANGED,
    APP_EVENT_REGION_FORMAT_CHANGED,
    APP_EVENT_SUSPENDED_STATE_CHANGED
} app_event_type_e;

typedef struct app_event_info* app_event_info_h;
typedef struct app_event_handler* app_event_handler_h;

typedef void (*app_event_cb)(app_event_info_h event_info, void* user_data);

/* Runs the application (see above) and returns when the loop has ended and
 * terminate has run: APP_ERROR_NONE on a normal end;
 * APP_ERROR_INVALID_PARAMETER for a null |callback|;
 * APP_ERROR_ALREADY_RUNNING when another ui_app_main runs in the process;
 * APP_ERROR_INVALID_CONTEXT when create returned false (the loop is not run
 * and terminate is not called). |argc| and |argv| are not interpreted. */
int ui_app_main(int argc, char** argv, ui_app_lifecycle_callback_s* callback, void* user_data);

/* Ends the running loop; any thread may call it. An exit asked for during
 * create or app_control ends the loop as soon as it starts. Without a
 * running ui_app_main it does nothing. */
void ui_app_exit(void);

/* Registers |callback| for |event_type|; it runs on the loop's thread with
 * |user_data|. Handlers may be added before ui_app_main and stay
 * registered until removed. */
int ui_app_add_event_handler(app_event_handler_h* handler, app_event_type_e event_type,
                             app_event_cb callback, void* user_data);

/* Unregisters and releases |handler|; APP_ERROR_INVALID_PARAMETER for a
 * handler that is not registered. */
int ui_app_remove_event_handler(app_event_handler_h handler);

#ifdef __cplusplus
}
#endif

#endif /* HARVO_HOST_APP_H */
