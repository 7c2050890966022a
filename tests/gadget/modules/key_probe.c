/* SPDX-License-Identifier: Apache-2.0 */
/*
 * A raw gadget module (no framework) that reports every message it gets as
 * "keys:<count>:<mode>:<type>:<info>", so tests see exactly what a host sent.
 */
#include <stdio.h>
#include <stdlib.h>

#include <app_control-host.h>
#include <app_control.h>
#include <ui-gadget-module.h>

#include "GadgetTrace.h"

static int g_layout;

static void read_key(app_control_h control, const char* key, char* out, size_t size) {
    char* value = NULL;
    if (app_control_get_extra_data(control, key, &value) == APP_CONTROL_ERROR_NONE) {
        snprintf(out, size, "%s", value);
        free(value);
    } else {
        snprintf(out, size, "-");
    }
}

static void* on_create(ui_gadget_h ug, enum ug_mode mode, app_control_h service, void* priv) {
    (void)ug;
    (void)mode;
    (void)service;
    (void)priv;
    return &g_layout;
}

static void on_message(ui_gadget_h ug, app_control_h msg, app_control_h service, void* priv) {
    char mode[32], type[32], info[32], text[128];
    int count = -1;
    (void)ug;
    (void)service;
    (void)priv;
    app_control_host_extra_data_count(msg, &count);
    read_key(msg, "__CORE_GADGET_MODE__", mode, sizeof(mode));
    read_key(msg, "__CORE_GADGET_TYPE__", type, sizeof(type));
    read_key(msg, "__CORE_GADGET_INFO__", info, sizeof(info));
    snprintf(text, sizeof(text), "keys:%d:%s:%s:%s", count, mode, type, info);
    gadget_trace(text);
}

UG_MODULE_API int UG_MODULE_INIT(struct ug_module_ops* ops) {
    ops->create = on_create;
    ops->message = on_message;
    return 0;
}

UG_MODULE_API void UG_MODULE_EXIT(struct ug_module_ops* ops) {
    (void)ops;
}
