/* SPDX-License-Identifier: Apache-2.0 */
/*
 * UI gadget library, host side (ui-gadget-1): the host application creates,
 * drives and destroys gadgets, and receives their results.
 *
 * Delivery is synchronous on the caller's thread: ug_send_message runs the
 * module's message operation before it returns, ug_create runs the
 * module's create (and, when it returns a layout, start and the host's
 * layout_cb).
 *
 * Results: 0 on success, -1 on error; null on error for pointers.
 */
#ifndef __UI_GADGET_H__
#define __UI_GADGET_H__

#include <app_control.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct ui_gadget_s* ui_gadget_h;

enum ug_mode { UG_MODE_FULLVIEW, UG_MODE_FRAMEVIEW, UG_MODE_INVALID, UG_MODE_MAX };

enum ug_event {
    UG_EVENT_NONE = 0,
    UG_EVENT_LOW_MEMORY,
    UG_EVENT_LOW_BATTERY,
    UG_EVENT_LANG_CHANGE,
    UG_EVENT_ROTATE_PORTRAIT,
    UG_EVENT_ROTATE_PORTRAIT_UPSIDEDOWN,
    UG_EVENT_ROTATE_LANDSCAPE,
    UG_EVENT_ROTATE_LANDSCAPE_UPSIDEDOWN,
    UG_EVENT_REGION_CHANGE,
    UG_EVENT_MAX
};

enum ug_key_event { UG_KEY_EVENT_NONE = 0, UG_KEY_EVENT_END, UG_KEY_EVENT_MAX };

enum ug_option {
    UG_OPT_INDICATOR_ENABLE = 0,
    UG_OPT_INDICATOR_PORTRAIT_ONLY = 1,
    UG_OPT_INDICATOR_LANDSCAPE_ONLY = 2,
    UG_OPT_INDICATOR_DISABLE = 3,
    UG_OPT_INDICATOR_MANUAL = 4,
    UG_OPT_OVERLAP_ENABLE = 8,
    UG_OPT_MAX
};

/* The host's callbacks for one gadget; |priv| is handed back to each. */
struct ug_cbs {
    void (*layout_cb)(ui_gadget_h ug, enum ug_mode mode, void* priv);
    void (*result_cb)(ui_gadget_h ug, app_control_h result, void* priv);
    void (*destroy_cb)(ui_gadget_h ug, void* priv);
    void (*end_cb)(ui_gadget_h ug, void* priv);
    void* priv;
    void* reserved[3];
};

ui_gadget_h ug_create(ui_gadget_h parent, const char* name, enum ug_mode mode,
                      app_control_h service, struct ug_cbs* cbs);
int ug_destroy(ui_gadget_h ug);
int ug_destroy_all(void);
/* Pause and resume act on every gadget of the process. */
int ug_pause(void);
int ug_resume(void);
int ug_send_message(ui_gadget_h ug, app_control_h msg);
int ug_send_event(enum ug_event event);
void* ug_get_layout(ui_gadget_h ug);
void* ug_get_parent_layout(ui_gadget_h ug);
void* ug_get_window(void);
enum ug_mode ug_get_mode(ui_gadget_h ug);

#ifdef __cplusplus
}
#endif

#endif /* __UI_GADGET_H__ */
