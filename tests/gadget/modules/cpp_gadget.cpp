// SPDX-License-Identifier: Apache-2.0
// A gadget module written in C++ on TCGadgetActivity, for the gadget tests.
// Built as libug-cppgadget.so (no bus), libug-cppgadgetbus.so (bus server)
// and libug-cppdefault.so (no hook overridden at all).
//
// Behaviour asked for through app-control keys:
//   create service "layout" = "null": t_OnCreate returns null
//   user message "ask_type"/"ask_info": GetHostInformation with them; the
//     answer is traced as "host:<type>:<info>"
//   the answer to the host's question is "gadget-type" / {"from":"cpp"}

#include <harvo-fw/TCGadgetActivity.h>

#include <cstdlib>
#include <string>

#include "GadgetTrace.h"

using Quelt::TCGadgetActivity;
using Quelt::TCMessage;

namespace {

#ifndef GADGET_DEFAULT_HOOKS

int g_layout;

std::string Extra(app_control_s* control, const char* key) {
    char* value = nullptr;
    std::string text;
    if (control != nullptr &&
        app_control_get_extra_data(control, key, &value) == APP_CONTROL_ERROR_NONE) {
        text = value;
        free(value);
    }
    return text;
}

class CppGadget : public TCGadgetActivity {
public:
    CppGadget(std::string name, bool bus) : TCGadgetActivity(name, bus) {}

    void* t_OnCreate(ui_gadget_s*, ug_mode, app_control_s* service) override {
        gadget_trace("t_OnCreate");
        if (Extra(service, "layout") == "null")
            return nullptr;
        return &g_layout;
    }
    void t_OnStart(ui_gadget_s*, app_control_s*) override { gadget_trace("t_OnStart"); }
    void t_OnPause(ui_gadget_s*, app_control_s*) override { gadget_trace("t_OnPause"); }
    void t_OnResume(ui_gadget_s*, app_control_s*) override { gadget_trace("t_OnResume"); }
    void t_OnDestroy(ui_gadget_s*, app_control_s*) override { gadget_trace("t_OnDestroy"); }
    void t_OnMessage(ui_gadget_s*, app_control_s* msg, app_control_s*) override {
        gadget_trace(("t_OnMessage:" + Extra(msg, "text")).c_str());
        std::string askType = Extra(msg, "ask_type");
        if (!askType.empty()) {
            TCMessage request;
            request.m_type = askType;
            request.SetMessage(Extra(msg, "ask_info"));
            TCMessage answer = GetHostInformation(request);
            gadget_trace(("host:" + answer.m_type + ":" + answer.GetMessage()).c_str());
        }
    }
    void t_OnEvent(ui_gadget_s*, ug_event event, app_control_s*) override {
        gadget_trace(("t_OnEvent:" + std::to_string(event)).c_str());
    }
    TCMessage t_GadgetInformationRequested(TCMessage& request) override {
        gadget_trace(("t_GadgetInformationRequested:" + request.m_type + ":" + request.GetMessage())
                         .c_str());
        TCMessage reply;
        reply.m_type = "gadget-type";
        reply.SetMessage("{\"from\":\"cpp\"}");
        return reply;
    }
};

#else

class CppGadget : public TCGadgetActivity {
public:
    CppGadget(std::string name, bool bus) : TCGadgetActivity(name, bus) {}
};

#endif

#ifndef GADGET_BUS
#define GADGET_BUS false
#endif
#ifndef GADGET_NAME
#define GADGET_NAME "cppgadget"
#endif

}  // namespace

extern "C" UG_MODULE_API int UG_MODULE_INIT(struct ug_module_ops* ops) {
    return Quelt::InitUIGadget(ops, new CppGadget(GADGET_NAME, GADGET_BUS),
                               UG_OPT_INDICATOR_ENABLE);
}

extern "C" UG_MODULE_API void UG_MODULE_EXIT(struct ug_module_ops* ops) {
    delete static_cast<TCGadgetActivity*>(ops->priv);
}
