/* SPDX-License-Identifier: Apache-2.0 */
/*
 * App control: the subset of Tizen's app control that harvo-fw uses, a
 * bundle of string key/value pairs passed between a host and a gadget.
 * Host implementation with the same names, types and results as Tizen.
 */
#ifndef HARVO_HOST_APP_CONTROL_H
#define HARVO_HOST_APP_CONTROL_H

#include <errno.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct app_control_s* app_control_h;

typedef enum {
    APP_CONTROL_ERROR_NONE = 0,
    APP_CONTROL_ERROR_INVALID_PARAMETER = -EINVAL,
    APP_CONTROL_ERROR_OUT_OF_MEMORY = -ENOMEM,
    /* Below zero and outside the errno range, so distinct from the above. */
    APP_CONTROL_ERROR_KEY_NOT_FOUND = -0x10001
} app_control_error_e;

/* Creates an empty bundle into |*app_control|; release it with
 * app_control_destroy. */
int app_control_create(app_control_h* app_control);

/* Releases the bundle and every key and value it holds. */
int app_control_destroy(app_control_h app_control);

/* Copies |key| and |value| into the bundle; an existing key gets the new
 * value. Null arguments and an empty key are refused. */
int app_control_add_extra_data(app_control_h app_control, const char* key, const char* value);

/* Stores a new copy of the value of |key| into |*value| (the caller frees
 * it with free()); APP_CONTROL_ERROR_KEY_NOT_FOUND when the key is absent,
 * with |*value| untouched. */
int app_control_get_extra_data(app_control_h app_control, const char* key, char** value);

#ifdef __cplusplus
}
#endif

#endif /* HARVO_HOST_APP_CONTROL_H */
