// SPDX-License-Identifier: Apache-2.0
// The module side of a UI gadget: the library's callbacks, the activity's
// lifecycle and the gadget half of the host/gadget information exchange.

#include "TCGadgetActivity.h"

#include <cstdlib>
#include <cstring>
#include <memory>

#include "Guarded.h"
#include "QueltLog.h"

namespace Quelt {

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

TCGadgetActivity::TCGadgetActivity(std::string name, bool bCreateDBus)
    : TCServer(name, SERVER_TYPE_GADGET),
      TCEventIO(name),
      m_pGadget(nullptr),
      m_bCreateDBus(bCreateDBus),
      m_bActivated(false) {}

TCGadgetActivity::~TCGadgetActivity() {
    // Both are harmless when destroy already ran.
    TCEventIO::Final();
    TCServer::CloseDBusServer();
}

void* TCGadgetActivity::t_OnCreate(ui_gadget_s*, ug_mode, app_control_s*) {
    QLOGD("");
    return nullptr;
}

void TCGadgetActivity::t_OnStart(ui_gadget_s*, app_control_s*) {
    QLOGD("");
}

void TCGadgetActivity::t_OnPause(ui_gadget_s*, app_control_s*) {
    QLOGD("");
}

void TCGadgetActivity::t_OnResume(ui_gadget_s*, app_control_s*) {
    QLOGD("");
}

void TCGadgetActivity::t_OnDestroy(ui_gadget_s*, app_control_s*) {
    QLOGD("");
}

void TCGadgetActivity::t_OnMessage(ui_gadget_s*, app_control_s*, app_control_s*) {
    QLOGD("");
}

void TCGadgetActivity::t_OnEvent(ui_gadget_s*, ug_event, app_control_s*) {
    QLOGD("");
}

TCMessage TCGadgetActivity::t_GadgetInformationRequested(TCMessage&) {
    return TCMessage();
}

void* TCGadgetActivity::OnCreate(ui_gadget_s* ug, ug_mode mode, app_control_s* service,
                                 void* priv) {
    QLOGI("");
    auto* activity = static_cast<TCGadgetActivity*>(priv);
    bool ready = false;
    if (activity == nullptr) {
        QLOGE("NULL pointer error!");
    } else {
        ready = true;
        if (activity->m_bCreateDBus) {
            QLOGI("Create DBus server begin");
            if (!activity->CreateDBusServer()) {
                QLOGE("Create DBus server fail!");
                ready = false;
            }
        }
        // A null loop: the queue attaches to the default main context.
        if (ready && !activity->TCEventIO::Init(nullptr)) {
            QLOGE("Init fail!");
            ready = false;
        }
    }
    if (ready) {
        activity->m_pGadget = ug;
        void* layout = nullptr;
        QUELT_CALL_GUARDED("t_OnCreate", [&] { layout = activity->t_OnCreate(ug, mode, service); });
        // Marked active whatever t_OnCreate returned, so that the tail below
        // runs the gadget's own destroy.
        activity->m_bActivated = true;
        QLOGI("result : %p", layout);
        if (layout != nullptr)
            return layout;
    } else {
        QLOGI("result : %p", static_cast<void*>(nullptr));
    }
    // The tear-down is done in place; the library learns of the failure from
    // the null result, so its ug_destroy_me is not needed.
    QLOGW("ug_destroy_me");
    OnDestroy(ug, service, priv);
    return nullptr;
}

void TCGadgetActivity::OnStart(ui_gadget_s* ug, app_control_s* service, void* priv) {
    QLOGI("");
    if (priv == nullptr) {
        QLOGE("NULL pointer!");
        return;
    }
    QUELT_CALL_GUARDED("t_OnStart",
                       [&] { static_cast<TCGadgetActivity*>(priv)->t_OnStart(ug, service); });
}

void TCGadgetActivity::OnPause(ui_gadget_s* ug, app_control_s* service, void* priv) {
    QLOGI("");
    if (priv == nullptr) {
        QLOGE("NULL pointer!");
        return;
    }
    QUELT_CALL_GUARDED("t_OnPause",
                       [&] { static_cast<TCGadgetActivity*>(priv)->t_OnPause(ug, service); });
}

void TCGadgetActivity::OnResume(ui_gadget_s* ug, app_control_s* service, void* priv) {
    QLOGI("");
    if (priv == nullptr) {
        QLOGE("NULL pointer!");
        return;
    }
    QUELT_CALL_GUARDED("t_OnResume",
                       [&] { static_cast<TCGadgetActivity*>(priv)->t_OnResume(ug, service); });
}

void TCGadgetActivity::OnDestroy(ui_gadget_s* ug, app_control_s* service, void* priv) {
    QLOGI("");
    auto* activity = static_cast<TCGadgetActivity*>(priv);
    if (activity == nullptr) {
        QLOGE("NULL pointer!");
        return;
    }
    if (!activity->m_bActivated) {
        QLOGI("Activity is already destroyed.");
        return;
    }
    QUELT_CALL_GUARDED("t_OnDestroy", [&] { activity->t_OnDestroy(ug, service); });
    activity->TCEventIO::Final();
    activity->CloseDBusServer();
    activity->m_bActivated = false;
}

void TCGadgetActivity::OnMessage(ui_gadget_s* ug, app_control_s* msg, app_control_s* service,
                                 void* priv) {
    if (priv == nullptr) {
        QLOGE("NULL pointer!");
        return;
    }
    static_cast<TCGadgetActivity*>(priv)->m_ProcessMessage(ug, msg, service, priv);
}

void TCGadgetActivity::OnEvent(ui_gadget_s* ug, ug_event event, app_control_s* service,
                               void* priv) {
    if (priv == nullptr) {
        QLOGE("NULL pointer!");
        return;
    }
    QUELT_CALL_GUARDED(
        "t_OnEvent", [&] { static_cast<TCGadgetActivity*>(priv)->t_OnEvent(ug, event, service); });
}

void TCGadgetActivity::m_ProcessMessage(ui_gadget_s* ug, app_control_s* msg, app_control_s* service,
                                        void* priv) {
    char* mode = nullptr;
    // A missing or empty mode marks a message outside the exchange.
    if (!ReadExtra(msg, kModeKey, &mode) || mode[0] == '\0') {
        free(mode);
        QLOGD("User Message");
        QUELT_CALL_GUARDED("t_OnMessage", [&] { t_OnMessage(ug, msg, service); });
        return;
    }
    QLOGD("It is Gadget Info, received [%s]", mode);
    char* type = nullptr;
    if (ReadExtra(msg, kTypeKey, &type))
        QLOGD("It is Gadget type, received [%s]", type);
    else
        QLOGD("fail to read gadget type");
    char* info = nullptr;
    if (ReadExtra(msg, kInfoKey, &info))
        QLOGD("It is Gadget info, received [%s]", info);
    else
        QLOGD("fail to read gadget info");

    TCMessage request;
    if (info != nullptr)
        request.SetMessage(info);
    if (type != nullptr)
        request.m_type = type;

    if (strcmp(mode, "QUERY") == 0) {
        // A hook that throws is answered with an empty reply: the host
        // waits for one.
        // (Made in place from the hook's result, which is not copied, so
        // that its text is sent as the hook wrote it.)
        std::unique_ptr<TCMessage> answered;
        if (!QUELT_CALL_GUARDED("t_GadgetInformationRequested", [&] {
                answered.reset(new TCMessage(t_GadgetInformationRequested(request)));
            }))
            answered.reset(new TCMessage());
        TCMessage& reply = *answered;
        app_control_h answer = nullptr;
        if (app_control_create(&answer) != APP_CONTROL_ERROR_NONE) {
            QLOGE("service create failed");
        } else {
            if (type != nullptr && info != nullptr && strcmp(type, "REQUEST") == 0 &&
                strcmp(info, "DESTROY") == 0) {
                QLOGE("Call OnDestroy forcibly");
                OnDestroy(ug, service, priv);
            }
            app_control_add_extra_data(answer, kModeKey, "REPLY");
            app_control_add_extra_data(answer, kTypeKey, reply.m_type.c_str());
            app_control_add_extra_data(answer, kInfoKey, reply.GetMessage().c_str());
            ug_send_result(ug, answer);
            app_control_destroy(answer);
        }
    } else if (strcmp(mode, "REPLY") == 0) {
        m_HostInformation = request;
    }
    free(mode);
    free(type);
    free(info);
}

TCMessage TCGadgetActivity::GetHostInformation(TCMessage& request) {
    std::string text = request.GetMessage();
    m_HostInformation.SetMessage("");
    m_HostInformation.m_type = "";
    QLOGD("(%s:%s)", request.m_type.c_str(), text.c_str());
    app_control_h query = nullptr;
    if (app_control_create(&query) != APP_CONTROL_ERROR_NONE) {
        QLOGE("service create failed");
    } else {
        app_control_add_extra_data(query, kModeKey, "QUERY");
        app_control_add_extra_data(query, kTypeKey, request.m_type.c_str());
        app_control_add_extra_data(query, kInfoKey, text.c_str());
        // The host answers with ug_send_message before this returns.
        ug_send_result(m_pGadget, query);
        app_control_destroy(query);
    }
    return m_HostInformation;
}

void* TCGadgetActivity::GetWindow() {
    return ug_get_window();
}

ui_gadget_s* TCGadgetActivity::GetGadgetHandle() {
    return m_pGadget;
}

}  // namespace Quelt
