/* SPDX-License-Identifier: Apache-2.0 */
/*
 * Gadget modules for the UI gadget library's own tests. One source, built
 * several times:
 *   libug-testorder.so   a full module; every operation reports to the test
 *   libug-testinitfail.so  UG_MODULE_INIT refuses (-1)
 *   libug-testnoentry.so   exports no entry points at all
 * Reports go to ug_test_trace(), a function the test executable exports; it
 * is looked up at run time so the module has no link-time tie to the test.
 */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <app_control.h>
#include <ui-gadget-module.h>

#ifndef UG_TEST_NO_ENTRY

static int g_layout; /* the layout object handed to the library */

static void trace(const char* text) {
    void (*fn)(const char*) = (void (*)(const char*))dlsym(RTLD_DEFAULT, "ug_test_trace");
    if (fn != NULL)
        fn(text);
}

static int has_value(app_control_h control, const char* key, const char* value) {
    char* got = NULL;
    int same = 0;
    if (control != NULL &&
        app_control_get_extra_data(control, key, &got) == APP_CONTROL_ERROR_NONE) {
        same = value == NULL || strcmp(got, value) == 0;
        free(got);
    }
    return same;
}

static void* on_create(ui_gadget_h ug, enum ug_mode mode, app_control_h service, void* priv) {
    char text[64];
    snprintf(text, sizeof(text), "create:%d:%s", (int)mode, priv == &g_layout ? "priv" : "?");
    trace(text);
    (void)ug;
    if (has_value(service, "create", "null"))
        return NULL;
    return &g_layout;
}

static void on_start(ui_gadget_h ug, app_control_h service, void* priv) {
    (void)ug;
    (void)priv;
    trace(has_value(service, "from", "host") ? "start:service" : "start");
}

static void on_pause(ui_gadget_h ug, app_control_h service, void* priv) {
    (void)ug;
    (void)service;
    (void)priv;
    trace("pause");
}

static void on_resume(ui_gadget_h ug, app_control_h service, void* priv) {
    (void)ug;
    (void)service;
    (void)priv;
    trace("resume");
}

static void on_destroy(ui_gadget_h ug, app_control_h service, void* priv) {
    (void)ug;
    (void)service;
    (void)priv;
    trace("destroy");
}

/* "result" asks for a result back, "destroy_me" for the host to end us. */
static void on_message(ui_gadget_h ug, app_control_h msg, app_control_h service, void* priv) {
    (void)service;
    (void)priv;
    trace("message");
    if (has_value(msg, "result", NULL)) {
        app_control_h result = NULL;
        app_control_create(&result);
        app_control_add_extra_data(result, "answer", "42");
        trace(ug_send_result(ug, result) == 0 ? "result-sent" : "result-failed");
        app_control_destroy(result);
    }
    if (has_value(msg, "destroy_me", NULL))
        trace(ug_destroy_me(ug) == 0 ? "destroy_me-ok" : "destroy_me-failed");
}

static void on_event(ui_gadget_h ug, enum ug_event event, app_control_h service, void* priv) {
    char text[32];
    (void)ug;
    (void)service;
    (void)priv;
    snprintf(text, sizeof(text), "event:%d", (int)event);
    trace(text);
}

int UG_MODULE_INIT(struct ug_module_ops* ops) {
    trace("init");
    ops->create = on_create;
    ops->start = on_start;
    ops->pause = on_pause;
    ops->resume = on_resume;
    ops->destroy = on_destroy;
    ops->message = on_message;
    ops->event = on_event;
    ops->priv = &g_layout;
#ifdef UG_TEST_INIT_FAILS
    /* A filled table that must not be used: INIT reports failure. */
    return -1;
#else
    return 0;
#endif
}

void UG_MODULE_EXIT(struct ug_module_ops* ops) {
    (void)ops;
    trace("exit");
}

#else

int ug_test_no_entry_marker(void) {
    return 1;
}

#endif
