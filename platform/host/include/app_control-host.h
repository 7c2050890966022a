/* SPDX-License-Identifier: Apache-2.0 */
/**
 * \file app_control-host.h
 * Host-only extension of app control: lets tests and tools look inside a
 * bundle. Not part of Tizen's app control; never include it from framework
 * sources.
 */
#ifndef HARVO_HOST_APP_CONTROL_HOST_H
#define HARVO_HOST_APP_CONTROL_HOST_H

#include <stdbool.h>

#include "app_control.h"

#ifdef __cplusplus
extern "C" {
#endif

/** Stores the number of extra-data entries of \p app_control into
 * \p count. */
int app_control_host_extra_data_count(app_control_h app_control, int* count);

/** Called once per entry, in ascending key order; return false to stop.
 * \p key and \p value are only valid during the call, and the callback
 * must not modify the bundle it walks. */
typedef bool (*app_control_host_extra_data_cb)(const char* key, const char* value, void* user_data);

/** Walks the entries of \p app_control with \p callback and
 * \p user_data; APP_CONTROL_ERROR_INVALID_PARAMETER for a null bundle or
 * callback. */
int app_control_host_foreach_extra_data(app_control_h app_control,
                                        app_control_host_extra_data_cb callback, void* user_data);

#ifdef __cplusplus
}
#endif

#endif /* HARVO_HOST_APP_CONTROL_HOST_H */
