// SPDX-License-Identifier: Apache-2.0
// The exported functions for gadgets written in C: the callback record,
// its setters and getters, and the module entry and exit.

#include <cstdlib>
#include <new>
#include <string>

#include "Quelt.h"
#include "QueltLog.h"
#include "TCWrapperGadgetActivity.h"
#include "pelx.h"

using Quelt::TCGadgetActivity;
using Quelt::TCWrapperGadgetActivity;

extern "C" {

PELX_API pelx_gadget_activity_ops* pelx_create_gadget_activity_ops(void* priv_data) {
    auto* ops = new pelx_gadget_activity_ops();  // every slot null
    ops->priv_data = priv_data;
    return ops;
}

// The misspelt name is the exported one.
PELX_API void pelx_destory_gadget_activity_ops(pelx_gadget_activity_ops* ops) {
    delete ops;
}

PELX_API void pelx_set_gadget_create_cb(pelx_gadget_activity_ops* ops, pelx_gadget_create_cb cb) {
    if (ops != nullptr)
        ops->create_cb = cb;
}

PELX_API void pelx_set_gadget_start_cb(pelx_gadget_activity_ops* ops, pelx_gadget_state_cb cb) {
    if (ops != nullptr)
        ops->start_cb = cb;
}

PELX_API void pelx_set_gadget_pause_cb(pelx_gadget_activity_ops* ops, pelx_gadget_state_cb cb) {
    if (ops != nullptr)
        ops->pause_cb = cb;
}

PELX_API void pelx_set_gadget_resume_cb(pelx_gadget_activity_ops* ops, pelx_gadget_state_cb cb) {
    if (ops != nullptr)
        ops->resume_cb = cb;
}

PELX_API void pelx_set_gadget_destroy_cb(pelx_gadget_activity_ops* ops, pelx_gadget_state_cb cb) {
    if (ops != nullptr)
        ops->destroy_cb = cb;
}

PELX_API void pelx_set_gadget_message_cb(pelx_gadget_activity_ops* ops, pelx_gadget_message_cb cb) {
    if (ops != nullptr)
        ops->message_cb = cb;
}

PELX_API void pelx_set_gadget_event_cb(pelx_gadget_activity_ops* ops, pelx_gadget_event_cb cb) {
    if (ops != nullptr)
        ops->event_cb = cb;
}

PELX_API void pelx_set_gadget_pelx_event_cb(pelx_gadget_activity_ops* ops,
                                            pelx_gadget_pelx_event_cb cb) {
    if (ops != nullptr)
        ops->pelx_event_cb = cb;
}

PELX_API void pelx_set_gadget_clear_pelx_event_cb(pelx_gadget_activity_ops* ops,
                                                  pelx_gadget_clear_pelx_event_cb cb) {
    if (ops != nullptr)
        ops->clear_pelx_event_cb = cb;
}

PELX_API void pelx_set_gadget_pelx_msg_received_cb(pelx_gadget_activity_ops* ops,
                                                   pelx_gadget_msg_received_cb cb) {
    if (ops != nullptr)
        ops->pelx_msg_received_cb = cb;
}

PELX_API void pelx_set_gadget_pelx_msg_replied_cb(pelx_gadget_activity_ops* ops,
                                                  pelx_gadget_msg_replied_cb cb) {
    if (ops != nullptr)
        ops->pelx_msg_replied_cb = cb;
}

PELX_API void* pelx_get_gadget_priv_data(pelx_gadget_activity_ops* ops) {
    return ops != nullptr ? ops->priv_data : nullptr;
}

PELX_API void* pelx_get_gadget_event_handler(pelx_gadget_activity_ops* ops) {
    return ops != nullptr ? ops->event_handler : nullptr;
}

PELX_API const char* pelx_get_app_name(void) {
    return Quelt::GetProjectName();
}

PELX_API int pelx_init_ui_gadget(struct ug_module_ops* ops, pelx_gadget_activity_ops* gops,
                                 enum ug_option option, const char* name, bool bCreateDBus) {
    if (ops == nullptr) {
        QLOGE("NULL pointer!");
        return -1;
    }
    std::string gadgetName(name);
    auto* activity = new TCWrapperGadgetActivity(gops, gadgetName, bCreateDBus);
    // The handle the C gadget passes to the sending functions.
    gops->event_handler = static_cast<TCGadgetActivity*>(activity);
    return Quelt::InitUIGadget(ops, activity, option);
}

PELX_API pelx_gadget_activity_ops* pelx_exit_ui_gadget(struct ug_module_ops* ops) {
    if (ops == nullptr) {
        QLOGE("NULL pointer!");
        return nullptr;
    }
    auto* activity = static_cast<TCGadgetActivity*>(ops->priv);
    if (activity == nullptr)
        return nullptr;
    pelx_gadget_activity_ops* gops = static_cast<TCWrapperGadgetActivity*>(activity)->GetOps();
    // The destructor finalises the event IO and closes the bus server. The
    // private data of |ops| is left stale.
    delete activity;
    return gops;
}

}  // extern "C"
