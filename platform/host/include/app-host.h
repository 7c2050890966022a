/* SPDX-License-Identifier: Apache-2.0 */
/**
 * \file app-host.h
 * Host-only extension of the UI application loop: lets tests and examples
 * play the part of the platform, which on a device raises pause, resume and
 * the system events. Not part of Tizen's application framework; never
 * include it from framework sources.
 *
 * Every raise may come from any thread. It is queued and delivered on the
 * loop's thread, in the order raised, once the loop runs (a raise during
 * create or app_control waits for the loop). Deliveries still queued when
 * the loop ends are dropped. Pause and resume are delivered exactly as
 * raised: the host keeps no visibility state.
 */
#ifndef HARVO_HOST_APP_HOST_H
#define HARVO_HOST_APP_HOST_H

#include <stdbool.h>

#include "app.h"

#ifdef __cplusplus
extern "C" {
#endif

/** @{ */
/** Raises pause (or resume) as the platform would. \return APP_ERROR_NONE
 * when queued; APP_ERROR_INVALID_CONTEXT without a running ui_app_main. */
int ui_app_host_raise_pause(void);
int ui_app_host_raise_resume(void);
/** @} */

/** Runs every handler registered for \p event_type
 * (APP_ERROR_INVALID_PARAMETER for a value outside app_event_type_e). */
int ui_app_host_raise_event(app_event_type_e event_type);

/** Same as ui_app_host_raise_event(APP_EVENT_LANGUAGE_CHANGED). */
int ui_app_host_raise_language_changed(void);

/** Whether ui_app_main is between its start and its return. */
bool ui_app_host_is_running(void);

/** The type of the event an app_event_cb was called for (-1 for null). */
int ui_app_host_event_info_type(app_event_info_h event_info);

#ifdef __cplusplus
}
#endif

#endif /* HARVO_HOST_APP_HOST_H */
