/* SPDX-License-Identifier: Apache-2.0 */
/*
 * A gadget module written in C on the pelx interface, for the gadget tests.
 * libug-cgadget.so sets every callback; libug-cgadgetmin.so only create_cb.
 * libug-cgadgetbus.so also creates its bus server.
 */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <app_control.h>
#include <harvo-fw/pelx.h>
#include <ui-gadget-module.h>

#include "GadgetTrace.h"

static int g_layout;
static int g_priv;

static void* on_create(struct ui_gadget_s* ug, enum ug_mode mode, struct app_control_s* service,
                       void* priv) {
    char* value = NULL;
    int null_layout = 0;
    (void)ug;
    (void)mode;
    if (app_control_get_extra_data(service, "layout", &value) == APP_CONTROL_ERROR_NONE) {
        null_layout = strcmp(value, "null") == 0;
        free(value);
    }
    gadget_trace(priv == &g_priv ? "c:create" : "c:create:bad-priv");
    return null_layout ? NULL : &g_layout;
}

#ifndef C_GADGET_MINIMAL
static void on_start(struct ui_gadget_s* ug, struct app_control_s* service, void* priv) {
    (void)ug;
    (void)service;
    (void)priv;
    gadget_trace("c:start");
}

static void on_pause(struct ui_gadget_s* ug, struct app_control_s* service, void* priv) {
    (void)ug;
    (void)service;
    (void)priv;
    gadget_trace("c:pause");
}

static void on_resume(struct ui_gadget_s* ug, struct app_control_s* service, void* priv) {
    (void)ug;
    (void)service;
    (void)priv;
    gadget_trace("c:resume");
}

static void on_destroy(struct ui_gadget_s* ug, struct app_control_s* service, void* priv) {
    (void)ug;
    (void)service;
    (void)priv;
    gadget_trace("c:destroy");
}

static void on_message(struct ui_gadget_s* ug, struct app_control_s* msg,
                       struct app_control_s* service, void* priv) {
    (void)ug;
    (void)msg;
    (void)service;
    (void)priv;
    gadget_trace("c:message");
}

static void on_event(struct ui_gadget_s* ug, enum ug_event event, struct app_control_s* service,
                     void* priv) {
    char text[32];
    (void)ug;
    (void)service;
    (void)priv;
    snprintf(text, sizeof(text), "c:event:%d", (int)event);
    gadget_trace(text);
}

/* Answers every bus message with {"echo":<the message's info>} and code 7. */
static bool on_received(const char* sender, pelx_message_s* message, pelx_message_s* reply,
                        const char* extra, void* priv) {
    const char* info = pelx_get_message_info(message);
    size_t size = strlen(info != NULL ? info : "null") + 16;
    char* text = (char*)malloc(size);
    (void)sender;
    (void)extra;
    (void)priv;
    snprintf(text, size, "{\"echo\":%s}", info != NULL ? info : "null");
    pelx_set_message_info(reply, text);
    pelx_set_message_code(reply, 7);
    gadget_trace("c:received");
    return true;
}
#endif

static struct ug_module_ops* g_ops;

#ifndef C_GADGET_BUS
#define C_GADGET_BUS false
#endif
#ifndef C_GADGET_NAME
#define C_GADGET_NAME "cgadget"
#endif

UG_MODULE_API int UG_MODULE_INIT(struct ug_module_ops* ops) {
    pelx_gadget_activity_ops* gops = pelx_create_gadget_activity_ops(&g_priv);
    pelx_set_gadget_create_cb(gops, on_create);
#ifndef C_GADGET_MINIMAL
    pelx_set_gadget_start_cb(gops, on_start);
    pelx_set_gadget_pause_cb(gops, on_pause);
    pelx_set_gadget_resume_cb(gops, on_resume);
    pelx_set_gadget_destroy_cb(gops, on_destroy);
    pelx_set_gadget_message_cb(gops, on_message);
    pelx_set_gadget_event_cb(gops, on_event);
    pelx_set_gadget_pelx_msg_received_cb(gops, on_received);
#endif
    g_ops = ops;
    return pelx_init_ui_gadget(ops, gops, UG_OPT_INDICATOR_ENABLE, C_GADGET_NAME, C_GADGET_BUS);
}

UG_MODULE_API void UG_MODULE_EXIT(struct ug_module_ops* ops) {
    pelx_gadget_activity_ops* gops = pelx_exit_ui_gadget(ops);
    gadget_trace(gops != NULL && pelx_get_gadget_priv_data(gops) == &g_priv ? "c:exit"
                                                                            : "c:exit:bad");
    pelx_destory_gadget_activity_ops(gops);
}
