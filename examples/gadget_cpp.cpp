// SPDX-License-Identifier: Apache-2.0
// A UI gadget written in C++ on Quelt::TCGadgetActivity, built as the module
// libug-hello_cpp.so that a host loads by the name "hello_cpp"
// (examples/gadget_host.cpp embeds it).
//
// What it shows:
//   - the module's two entry points: UG_MODULE_INIT creates the activity and
//     hands it to the UI gadget library with Quelt::InitUIGadget;
//     UG_MODULE_EXIT deletes it;
//   - t_OnCreate returning the gadget's layout (any non-null object: the
//     host platform draws nothing);
//   - asking the host a question with GetHostInformation (in t_OnStart) and
//     answering the host's question in t_GadgetInformationRequested.
//
// The narration goes to standard output, prefixed with "[gadget cpp]".

#include <cstdio>
#include <string>

#include <harvo-fw/TCGadgetActivity.h>

using Quelt::TCGadgetActivity;
using Quelt::TCMessage;

namespace {

void Say(const std::string& text) {
    std::printf("[gadget cpp] %s\n", text.c_str());
}

// The gadget's "layout": a real gadget would build its widgets here.
struct Layout {
    const char* title;
} g_layout = {"hello from C++"};

class HelloGadget : public TCGadgetActivity {
public:
    // No bus server: host and gadget talk through the UI gadget library.
    HelloGadget() : TCGadgetActivity("hello_cpp", false) {}

    void* t_OnCreate(ui_gadget_s*, ug_mode mode, app_control_s*) override {
        Say(std::string("t_OnCreate (") + (mode == UG_MODE_FULLVIEW ? "full view" : "frame view") +
            "): returning the layout \"" + g_layout.title + "\"");
        return &g_layout;
    }

    // The host answers before GetHostInformation returns.
    void t_OnStart(ui_gadget_s*, app_control_s*) override {
        TCMessage question;
        question.m_type = "theme";
        question.SetMessage(R"({"ask":"which colour should I use?"})");
        Say("t_OnStart: asking the host " + question.GetMessage());
        TCMessage answer = GetHostInformation(question);
        Say("host answered: type \"" + answer.m_type + "\", " + answer.GetMessage());
    }

    TCMessage t_GadgetInformationRequested(TCMessage& request) override {
        Say("the host asks: type \"" + request.m_type + "\", " + request.GetMessage());
        TCMessage answer;
        answer.m_type = "status";
        answer.SetMessage(R"({"gadget":"hello_cpp","answer":"all fine, 3 items shown"})");
        return answer;
    }

    void t_OnDestroy(ui_gadget_s*, app_control_s*) override { Say("t_OnDestroy: closing"); }
};

}  // namespace

extern "C" UG_MODULE_API int UG_MODULE_INIT(struct ug_module_ops* ops) {
    Say("UG_MODULE_INIT: creating the activity");
    return Quelt::InitUIGadget(ops, new HelloGadget(), UG_OPT_INDICATOR_ENABLE);
}

extern "C" UG_MODULE_API void UG_MODULE_EXIT(struct ug_module_ops* ops) {
    Say("UG_MODULE_EXIT: deleting the activity");
    delete static_cast<TCGadgetActivity*>(ops->priv);  // priv is what InitUIGadget stored
}
