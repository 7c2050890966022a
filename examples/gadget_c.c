/* SPDX-License-Identifier: Apache-2.0 */
/*
 * A UI gadget written in C on the pelx_ interface, built as the module
 * libug-hello_c.so that a host loads by the name "hello_c"
 * (examples/gadget_host.cpp embeds it).
 *
 * What it shows:
 *   - UG_MODULE_INIT filling a pelx_gadget_activity_ops record with the
 *     gadget's callbacks and handing it to pelx_init_ui_gadget, which
 *     creates the framework's activity behind it; UG_MODULE_EXIT taking the
 *     record back with pelx_exit_ui_gadget and freeing it;
 *   - every callback receiving the gadget's own data (priv) last;
 *   - plain user messages and results of the UI gadget library: the gadget
 *     asks the host a question with a result when it starts, and answers
 *     the host's question with a result.
 *
 * The narration goes to standard output, prefixed with "[gadget c]".
 */
#include <stdio.h>
#include <stdlib.h>

#include <app_control.h>
#include <harvo-fw/pelx.h>
#include <ui-gadget-module.h>

/* The gadget's own data, handed back to every callback. */
struct hello_gadget {
    const char* title; /* what a real gadget would show */
    int questions_answered;
};

static struct hello_gadget g_gadget = {"hello from C", 0};

/* Sends one user result {key: value} to the host. */
static void send_result(struct ui_gadget_s* ug, const char* key, const char* value) {
    app_control_h result = NULL;
    if (app_control_create(&result) != APP_CONTROL_ERROR_NONE)
        return;
    app_control_add_extra_data(result, key, value);
    ug_send_result(ug, result); /* the host's result callback runs before this returns */
    app_control_destroy(result);
}

/* The value of |key| in |control| (caller frees), or NULL. */
static char* get_extra(struct app_control_s* control, const char* key) {
    char* value = NULL;
    if (app_control_get_extra_data(control, key, &value) != APP_CONTROL_ERROR_NONE)
        return NULL;
    return value;
}

static void* on_create(struct ui_gadget_s* ug, enum ug_mode mode, struct app_control_s* service,
                       void* priv) {
    struct hello_gadget* gadget = priv;
    (void)ug;
    (void)mode;
    (void)service;
    printf("[gadget c]   create_cb: returning the layout \"%s\"\n", gadget->title);
    return gadget; /* the layout: any non-null object on the host platform */
}

static void on_start(struct ui_gadget_s* ug, struct app_control_s* service, void* priv) {
    (void)service;
    (void)priv;
    printf("[gadget c]   start_cb: asking the host \"which language?\"\n");
    send_result(ug, "question", "which language?");
}

static void on_message(struct ui_gadget_s* ug, struct app_control_s* msg,
                       struct app_control_s* service, void* priv) {
    struct hello_gadget* gadget = priv;
    char* answer = get_extra(msg, "answer");
    char* question = get_extra(msg, "question");
    (void)service;
    if (answer != NULL)
        printf("[gadget c]   host answered: \"%s\"\n", answer);
    if (question != NULL) {
        printf("[gadget c]   the host asks: \"%s\"\n", question);
        gadget->questions_answered++;
        send_result(ug, "answer", "{\"gadget\":\"hello_c\",\"answer\":\"written in C, all fine\"}");
    }
    free(answer);
    free(question);
}

static void on_destroy(struct ui_gadget_s* ug, struct app_control_s* service, void* priv) {
    struct hello_gadget* gadget = priv;
    (void)ug;
    (void)service;
    printf("[gadget c]   destroy_cb: closing (%d question(s) answered)\n",
           gadget->questions_answered);
}

UG_MODULE_API int UG_MODULE_INIT(struct ug_module_ops* ops) {
    pelx_gadget_activity_ops* gops = pelx_create_gadget_activity_ops(&g_gadget);
    printf("[gadget c]   UG_MODULE_INIT: creating the activity\n");
    pelx_set_gadget_create_cb(gops, on_create);
    pelx_set_gadget_start_cb(gops, on_start);
    pelx_set_gadget_message_cb(gops, on_message);
    pelx_set_gadget_destroy_cb(gops, on_destroy);
    /* No bus server (false): host and gadget talk through the library. */
    return pelx_init_ui_gadget(ops, gops, UG_OPT_INDICATOR_ENABLE, "hello_c", false);
}

UG_MODULE_API void UG_MODULE_EXIT(struct ug_module_ops* ops) {
    printf("[gadget c]   UG_MODULE_EXIT: deleting the activity\n");
    pelx_destory_gadget_activity_ops(pelx_exit_ui_gadget(ops));
}
