// SPDX-License-Identifier: Apache-2.0
// The host side of a UI gadget: the proxy registry, the library's callbacks
// and the host half of the host/gadget information exchange.

#include "TCGadgetProxy.h"

#include <cstdlib>
#include <cstring>
#include <memory>

#include "Guarded.h"
#include "QueltLog.h"

namespace Quelt {

std::map<std::string, TCGadgetProxy*> TCGadgetProxy::m_CreatedGadgetProxys;
std::vector<std::string> TCGadgetProxy::m_CreatedGadgetNames;

namespace {

const char kModeKey[] = "__CORE_GADGET_MODE__";
const char kTypeKey[] = "__CORE_GADGET_TYPE__";
const char kInfoKey[] = "__CORE_GADGET_INFO__";

// Reads |key| into |*value| (caller frees); false when absent or on error.
bool ReadExtra(app_control_s* control, const char* key, char** value) {
    *value = nullptr;
    return app_control_get_extra_data(control, key, value) == APP_CONTROL_ERROR_NONE &&
           *value != nullptr;
}

}  // namespace

TCGadgetProxy::TCGadgetProxy()
    : m_reserved1(nullptr),
      m_layout(nullptr),
      m_gadgetHandle(nullptr),
      m_reserved2(-1),
      t_bFlagDestroyUG(true) {}

TCGadgetProxy::~TCGadgetProxy() {
    if (m_gadgetHandle != nullptr)
        Destroy();
    // By name: a proxy refused for a name in use erases the other's entry.
    auto it = m_CreatedGadgetProxys.find(m_gadgetName);
    if (it != m_CreatedGadgetProxys.end()) {
        QLOGD("erase %s from CreatedGadget map!", m_gadgetName.c_str());
        m_CreatedGadgetProxys.erase(it);
    }
}

void TCGadgetProxy::t_OnLayoutReady(ui_gadget_s*, ug_mode) {
    QLOGD("");
}

void TCGadgetProxy::t_OnResult(ui_gadget_s*, app_control_s*) {
    QLOGD("");
}

void TCGadgetProxy::t_OnDestroy(ui_gadget_s*) {
    QLOGD("");
}

void TCGadgetProxy::t_OnEnd() {
    QLOGD("");
}

TCMessage TCGadgetProxy::t_HostInformationRequested(TCMessage&) {
    return TCMessage();
}

bool TCGadgetProxy::CreateGadget(ui_gadget_s* parent, const char* name, ug_mode mode,
                                 app_control_s* service) {
    QLOGD("");
    if (name == nullptr) {
        QLOGE("name is NULL!");
        return false;
    }
    m_gadgetName = name;
    if (m_CreatedGadgetProxys.count(m_gadgetName) != 0) {
        QLOGE("%s name has been used!", name);
        return false;
    }
    m_CreatedGadgetProxys[m_gadgetName] = this;
    QLOGD("m_CreatedGadgetProxys.size() = %zu", m_CreatedGadgetProxys.size());
    m_CreatedGadgetNames.push_back(m_gadgetName);

    ug_cbs cbs;
    memset(&cbs, 0, sizeof(cbs));
    cbs.layout_cb = OnLayoutReady;
    cbs.result_cb = OnResult;
    cbs.destroy_cb = OnDestroy;
    cbs.end_cb = OnEnd;
    // The name, not the proxy: a late callback finds a proxy that is gone
    // missing from the registry instead of touching freed memory.
    cbs.priv = const_cast<char*>(m_gadgetName.c_str());
    m_gadgetHandle = ug_create(parent, name, mode, service, &cbs);
    if (m_gadgetHandle != nullptr)
        return true;
    QLOGE("ug_create[%s] failed!", name);
    m_CreatedGadgetProxys.erase(m_gadgetName);
    return false;
}

bool TCGadgetProxy::Destroy() {
    QLOGD("[t_bFlagDestroyUG] %d", t_bFlagDestroyUG);
    if (t_bFlagDestroyUG) {
        if (ug_destroy(m_gadgetHandle) != 0) {
            QLOGE("ug_destroy failed!");
            return false;
        }
    } else {
        QLOGD("");
        app_control_h order = nullptr;
        if (app_control_create(&order) != APP_CONTROL_ERROR_NONE) {
            QLOGE("service create failed");
            m_gadgetHandle = nullptr;
            return false;
        }
        app_control_add_extra_data(order, kModeKey, "QUERY");
        app_control_add_extra_data(order, kTypeKey, "REQUEST");
        app_control_add_extra_data(order, kInfoKey, "DESTROY");
        // The gadget runs its own destroy path on this order.
        ug_send_message(m_gadgetHandle, order);
        app_control_destroy(order);
    }
    m_gadgetHandle = nullptr;
    return true;
}

bool TCGadgetProxy::Pause() {
    QLOGD("");
    if (ug_pause() != 0) {
        QLOGE("ug_pause failed!");
        return false;
    }
    return true;
}

bool TCGadgetProxy::Resume() {
    QLOGD("");
    if (ug_resume() != 0) {
        QLOGE("ug_resume failed!");
        return false;
    }
    return true;
}

void TCGadgetProxy::t_SetFlagDestroyUG(bool flag) {
    t_bFlagDestroyUG = flag;
}

TCMessage TCGadgetProxy::GetGadgetInformation(TCMessage& request) {
    std::string text = request.GetMessage();
    std::string type = request.m_type;
    QLOGD("(%s:%s)", type.c_str(), text.c_str());
    m_GadgetInformation.SetMessage("");
    m_GadgetInformation.m_type = "";
    app_control_h query = nullptr;
    if (app_control_create(&query) != APP_CONTROL_ERROR_NONE) {
        QLOGE("service create failed");
    } else {
        app_control_add_extra_data(query, kModeKey, "QUERY");
        app_control_add_extra_data(query, kTypeKey, type.c_str());
        app_control_add_extra_data(query, kInfoKey, text.c_str());
        // The gadget's REPLY arrives through OnResult before this returns.
        ug_send_message(m_gadgetHandle, query);
        app_control_destroy(query);
    }
    return m_GadgetInformation;
}

void* TCGadgetProxy::GetLayout() {
    return ug_get_layout(m_gadgetHandle);
}

void* TCGadgetProxy::GetParentLayout() {
    return ug_get_parent_layout(m_gadgetHandle);
}

ug_mode TCGadgetProxy::GetGadgetMode() {
    return ug_get_mode(m_gadgetHandle);
}

ui_gadget_s* TCGadgetProxy::GetGadgetHandle() {
    return m_gadgetHandle;
}

void TCGadgetProxy::OnLayoutReady(ui_gadget_s* ug, ug_mode mode, void* priv) {
    QLOGD("");
    if (priv == nullptr) {
        QLOGE("Null pointer!");
        return;
    }
    std::string name = static_cast<const char*>(priv);
    QLOGD("ug %s", name.c_str());
    auto it = m_CreatedGadgetProxys.find(name);
    if (it == m_CreatedGadgetProxys.end()) {
        QLOGE("%s name has not been used!", name.c_str());
        return;
    }
    TCGadgetProxy* proxy = it->second;
    proxy->m_gadgetHandle = ug;
    QLOGD("m_gadgetHandle = %p", static_cast<void*>(ug));
    proxy->m_layout = ug_get_layout(ug);
    if (proxy->m_layout != nullptr)
        QUELT_CALL_GUARDED("t_OnLayoutReady", [&] { proxy->t_OnLayoutReady(ug, mode); });
    else
        QLOGD("UG Return NULL Layout, Disable this page.");
}

void TCGadgetProxy::OnResult(ui_gadget_s* ug, app_control_s* result, void* priv) {
    QLOGD("");
    if (priv == nullptr) {
        QLOGE("Null pointer!");
        return;
    }
    std::string name = static_cast<const char*>(priv);
    QLOGD("ug %s", name.c_str());
    auto it = m_CreatedGadgetProxys.find(name);
    if (it == m_CreatedGadgetProxys.end()) {
        QLOGE("%s name has not been used!", name.c_str());
        return;
    }
    it->second->m_ProcessResult(ug, result);
}

void TCGadgetProxy::OnDestroy(ui_gadget_s* ug, void* priv) {
    QLOGD("");
    if (priv == nullptr) {
        QLOGE("Null pointer!");
        return;
    }
    std::string name = static_cast<const char*>(priv);
    QLOGD("ug %s", name.c_str());
    auto it = m_CreatedGadgetProxys.find(name);
    if (it == m_CreatedGadgetProxys.end()) {
        QLOGE("%s name has not been used!", name.c_str());
        return;
    }
    QUELT_CALL_GUARDED("t_OnDestroy", [&] { it->second->t_OnDestroy(ug); });
}

void TCGadgetProxy::OnEnd(ui_gadget_s*, void* priv) {
    QLOGD("");
    if (priv == nullptr) {
        QLOGE("Null pointer!");
        return;
    }
    // A copy: t_OnEnd may delete the proxy that owns the text.
    std::string name = static_cast<const char*>(priv);
    QLOGD("ug %s", name.c_str());
    auto it = m_CreatedGadgetProxys.find(name);
    if (it == m_CreatedGadgetProxys.end()) {
        QLOGE("%s name has not been used!", name.c_str());
        return;
    }
    QUELT_CALL_GUARDED("t_OnEnd", [&] { it->second->t_OnEnd(); });
    QLOGD("after t_OnEnd, erase %s from CreatedGadget map!", name.c_str());
    m_CreatedGadgetProxys.erase(name);
}

void TCGadgetProxy::m_ProcessResult(ui_gadget_s* ug, app_control_s* result) {
    char* mode = nullptr;
    // A missing or empty mode marks a message outside the exchange.
    if (!ReadExtra(result, kModeKey, &mode) || mode[0] == '\0') {
        free(mode);
        QLOGD("");
        QUELT_CALL_GUARDED("t_OnResult", [&] { t_OnResult(ug, result); });
        return;
    }
    QLOGD("It is Gadget Mode, received [%s]", mode);
    char* type = nullptr;
    if (ReadExtra(result, kTypeKey, &type))
        QLOGD("It is Gadget Type, received [%s]", type);
    else
        QLOGD("fail to read gadget type");
    char* info = nullptr;
    if (ReadExtra(result, kInfoKey, &info))
        QLOGD("It is Gadget Info, received [%s]", info);
    else
        QLOGD("fail to read gadget info");

    TCMessage request;
    if (info != nullptr)
        request.SetMessage(info);
    if (type != nullptr)
        request.m_type = type;

    if (strcmp(mode, "QUERY") == 0) {
        // A hook that throws is answered with an empty reply: the gadget
        // waits for one.
        // (Made in place from the hook's result, which is not copied, so
        // that its text is sent as the hook wrote it.)
        std::unique_ptr<TCMessage> answered;
        if (!QUELT_CALL_GUARDED("t_HostInformationRequested", [&] {
                answered.reset(new TCMessage(t_HostInformationRequested(request)));
            }))
            answered.reset(new TCMessage());
        TCMessage& reply = *answered;
        app_control_h answer = nullptr;
        if (app_control_create(&answer) != APP_CONTROL_ERROR_NONE) {
            QLOGE("service create failed");
        } else {
            app_control_add_extra_data(answer, kModeKey, "REPLY");
            app_control_add_extra_data(answer, kTypeKey, reply.m_type.c_str());
            app_control_add_extra_data(answer, kInfoKey, reply.GetMessage().c_str());
            ug_send_message(ug, answer);
            app_control_destroy(answer);
        }
    } else if (strcmp(mode, "REPLY") == 0) {
        m_GadgetInformation = request;
    }
    free(mode);
    free(type);
    free(info);
}

}  // namespace Quelt
