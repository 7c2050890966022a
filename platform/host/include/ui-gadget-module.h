/* SPDX-License-Identifier: Apache-2.0 */
/*
 * UI gadget library, module side (ui-gadget-1): the operations a gadget
 * module gives the library, and the calls a gadget makes back.
 *
 * A module is a shared object libug-NAME.so exporting UG_MODULE_INIT (fills
 * the operations; 0 on success) and UG_MODULE_EXIT.
 */
#ifndef __UI_GADGET_MODULE_H__
#define __UI_GADGET_MODULE_H__

#include <app_control.h>
#include <ui-gadget.h>

#ifdef __cplusplus
extern "C" {
#endif

/* The module's operations; |priv| is handed back to each. */
struct ug_module_ops {
    void* (*create)(ui_gadget_h ug, enum ug_mode mode, app_control_h service, void* priv);
    void (*start)(ui_gadget_h ug, app_control_h service, void* priv);
    void (*pause)(ui_gadget_h ug, app_control_h service, void* priv);
    void (*resume)(ui_gadget_h ug, app_control_h service, void* priv);
    void (*destroy)(ui_gadget_h ug, app_control_h service, void* priv);
    void (*message)(ui_gadget_h ug, app_control_h msg, app_control_h service, void* priv);
    void (*event)(ui_gadget_h ug, enum ug_event event, app_control_h service, void* priv);
    void (*key_event)(ui_gadget_h ug, enum ug_key_event event, app_control_h service, void* priv);
    void (*destroying)(ui_gadget_h ug, app_control_h service, void* priv);
    void* reserved[3];
    void* priv;
    enum ug_option opt;
};

/* Module entry points, defined by each gadget module. */
#ifndef UG_MODULE_API
#define UG_MODULE_API __attribute__((visibility("default")))
#endif
UG_MODULE_API int UG_MODULE_INIT(struct ug_module_ops* ops);
UG_MODULE_API void UG_MODULE_EXIT(struct ug_module_ops* ops);

/* Runs the host's result_cb before it returns. */
int ug_send_result(ui_gadget_h ug, app_control_h result);
/* Asks the host to destroy this gadget: runs the host's destroy_cb. */
int ug_destroy_me(ui_gadget_h ug);

#ifdef __cplusplus
}
#endif

#endif /* __UI_GADGET_MODULE_H__ */
