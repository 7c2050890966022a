// SPDX-License-Identifier: Apache-2.0
// A gadget activity that forwards each hook to the C gadget's callbacks.

#include "TCWrapperGadgetActivity.h"

#include "QueltLog.h"
#include "TCWrapperMessageOpr.h"

namespace Quelt {

TCWrapperGadgetActivity::TCWrapperGadgetActivity(pelx_gadget_activity_ops* ops, std::string name,
                                                 bool bCreateDBus)
    : TCGadgetActivity(name, bCreateDBus), m_pOps(ops) {}

TCWrapperGadgetActivity::~TCWrapperGadgetActivity() {}

void* TCWrapperGadgetActivity::t_OnCreate(ui_gadget_s* ug, ug_mode mode, app_control_s* service) {
    QLOGD("");
    if (m_pOps == nullptr || m_pOps->create_cb == nullptr) {
        QLOGE("null ops");
        return nullptr;
    }
    return m_pOps->create_cb(ug, mode, service, m_pOps->priv_data);
}

void TCWrapperGadgetActivity::t_OnStart(ui_gadget_s* ug, app_control_s* service) {
    QLOGD("");
    if (m_pOps == nullptr || m_pOps->start_cb == nullptr) {
        QLOGE("null ops");
        return;
    }
    m_pOps->start_cb(ug, service, m_pOps->priv_data);
}

void TCWrapperGadgetActivity::t_OnPause(ui_gadget_s* ug, app_control_s* service) {
    QLOGD("");
    if (m_pOps == nullptr || m_pOps->pause_cb == nullptr) {
        QLOGE("null ops");
        return;
    }
    m_pOps->pause_cb(ug, service, m_pOps->priv_data);
}

void TCWrapperGadgetActivity::t_OnResume(ui_gadget_s* ug, app_control_s* service) {
    QLOGD("");
    if (m_pOps == nullptr || m_pOps->resume_cb == nullptr) {
        QLOGE("null ops");
        return;
    }
    m_pOps->resume_cb(ug, service, m_pOps->priv_data);
}

void TCWrapperGadgetActivity::t_OnDestroy(ui_gadget_s* ug, app_control_s* service) {
    QLOGD("");
    if (m_pOps == nullptr || m_pOps->destroy_cb == nullptr) {
        QLOGE("null ops");
        return;
    }
    m_pOps->destroy_cb(ug, service, m_pOps->priv_data);
}

void TCWrapperGadgetActivity::t_OnMessage(ui_gadget_s* ug, app_control_s* msg,
                                          app_control_s* service) {
    // The trace text is historical: user messages are forwarded.
    QLOGD("not supported");
    if (m_pOps == nullptr || m_pOps->message_cb == nullptr) {
        QLOGE("null ops");
        return;
    }
    m_pOps->message_cb(ug, msg, service, m_pOps->priv_data);
}

void TCWrapperGadgetActivity::t_OnEvent(ui_gadget_s* ug, ug_event event, app_control_s* service) {
    QLOGD("");
    if (m_pOps == nullptr || m_pOps->event_cb == nullptr) {
        QLOGE("null ops");
        return;
    }
    m_pOps->event_cb(ug, event, service, m_pOps->priv_data);
}

bool TCWrapperGadgetActivity::t_OnMEvent(const TCEvent* event) {
    QLOGD("");
    if (m_pOps == nullptr || m_pOps->pelx_event_cb == nullptr) {
        QLOGE("null ops");
        return false;
    }
    // The C record lives only during the call.
    TCWrapperEvent wrapper(event);
    return m_pOps->pelx_event_cb(wrapper.GetMEvent(), m_pOps->priv_data);
}

void TCWrapperGadgetActivity::t_ClearMEvent(TCEvent* event) {
    QLOGD("");
    if (m_pOps == nullptr || m_pOps->clear_pelx_event_cb == nullptr) {
        QLOGE("null ops");
        return;
    }
    TCWrapperEvent wrapper(event);
    m_pOps->clear_pelx_event_cb(wrapper.GetMEvent(), m_pOps->priv_data);
}

bool TCWrapperGadgetActivity::IfMessageReceived(const char* from, const TCMessage* message,
                                                TCMessage* reply, const char* signalName) {
    QLOGD("");
    if (m_pOps == nullptr || m_pOps->pelx_msg_received_cb == nullptr) {
        QLOGE("null ops");
        return false;
    }
    TCWrapperMessage wrappedMessage(message);
    TCWrapperMessage wrappedReply(reply);
    bool result =
        m_pOps->pelx_msg_received_cb(from, wrappedMessage.GetMMessager(),
                                     wrappedReply.GetMMessager(), signalName, m_pOps->priv_data);
    // What the C callback wrote is what the sender receives. A null reply is
    // handed to the copy as well, which reports it with its own log line.
    ConvertToMessage(wrappedReply.GetMMessager(), reply);
    return result;
}

bool TCWrapperGadgetActivity::IfMessageReplied(const char* from, const TCMessage* reply) {
    QLOGD("");
    if (m_pOps == nullptr || m_pOps->pelx_msg_replied_cb == nullptr) {
        QLOGE("null ops");
        return false;
    }
    TCWrapperMessage wrapped(reply);
    return m_pOps->pelx_msg_replied_cb(from, wrapped.GetMMessager(), m_pOps->priv_data);
}

}  // namespace Quelt
