// SPDX-License-Identifier: Apache-2.0
// A host UI application that embeds two UI gadgets: "hello_cpp"
// (examples/gadget_cpp.cpp, on TCGadgetActivity) and "hello_c"
// (examples/gadget_c.c, on the pelx_ interface).
//
// What it shows, in order:
//   1. where modules are found: ug_host_set_module_path (host platform only;
//      on a device the platform's UI gadget directory is used), the
//      directory given on the command line or else this program's own;
//   2. one Quelt::TCGadgetProxy per gadget, embedding it with CreateGadget;
//      a gadget's question arrives in t_HostInformationRequested (asked with
//      GetHostInformation) or in t_OnResult (a plain result);
//   3. asking a gadget with GetGadgetInformation (the answer is back when
//      the call returns), and with a plain user message;
//   4. two ways to close a gadget: Destroy with t_SetFlagDestroyUG(true)
//      calls ug_destroy; with false it sends the gadget the destroy request
//      (REQUEST / DESTROY), and the gadget closes itself;
//   5. leaving through ui_app_exit and the terminate callback.
//
// Usage: gadget_host [MODULE_DIR]
// The narration goes to standard output, prefixed with "[host]"; the
// framework's own log lines go to standard error.

#include <glib.h>
#include <unistd.h>

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <string>

#include <app.h>
#include <app_control.h>
#include <harvo-fw/harvo-fw.h>
#include <harvo-fw/TCGadgetProxy.h>
#include <ui-gadget-host.h>

using Quelt::TCGadgetProxy;
using Quelt::TCMessage;

namespace {

void Say(const std::string& text) {
    std::printf("[host]       %s\n", text.c_str());
}

std::string Extra(app_control_s* control, const char* key) {
    char* value = nullptr;
    std::string text;
    if (app_control_get_extra_data(control, key, &value) == APP_CONTROL_ERROR_NONE &&
        value != nullptr)
        text = value;
    free(value);
    return text;
}

// One proxy class for both gadgets; |label| only names it in the narration.
class HelloProxy : public TCGadgetProxy {
public:
    explicit HelloProxy(const char* label) : m_label(label) {}
    bool ended = false;

    void t_OnLayoutReady(ui_gadget_s*, ug_mode) override {
        Say(m_label + ": layout ready (" + (GetLayout() != nullptr ? "non-null" : "null") +
            " layout)");
    }

    // The C gadget's plain results: a question, or an answer to ours.
    void t_OnResult(ui_gadget_s* ug, app_control_s* result) override {
        std::string question = Extra(result, "question");
        std::string answer = Extra(result, "answer");
        if (!answer.empty())
            Say(m_label + " answered: " + answer);
        if (!question.empty()) {
            Say(m_label + " asks \"" + question + "\": answering \"English\"");
            app_control_h reply = nullptr;
            if (app_control_create(&reply) != APP_CONTROL_ERROR_NONE)
                return;
            app_control_add_extra_data(reply, "answer", "English");
            ug_send_message(ug, reply);  // a user message: it reaches the gadget's message hook
            app_control_destroy(reply);
        }
    }

    // The library's "destroy me" request; not used by these gadgets.
    void t_OnDestroy(ui_gadget_s*) override { Say(m_label + ": t_OnDestroy"); }

    void t_OnEnd() override {
        ended = true;
        Say(m_label + ": t_OnEnd, the gadget is gone");
    }

    // A question asked with GetHostInformation.
    TCMessage t_HostInformationRequested(TCMessage& request) override {
        Say(m_label + " asks: type \"" + request.m_type + "\", " + request.GetMessage());
        TCMessage answer;
        answer.m_type = request.m_type;
        answer.SetMessage(R"({"host":"gadget_host","answer":"blue"})");
        Say("answering " + answer.GetMessage());
        return answer;
    }

private:
    std::string m_label;
};

struct Host {
    HelloProxy cppGadget{"hello_cpp"};
    HelloProxy cGadget{"hello_c"};
    bool ok = false;
};

// The gadgets' module directory: argv[1], or this program's own directory.
std::string ModuleDir(int argc, char** argv) {
    if (argc > 1)
        return argv[1];
    char path[PATH_MAX];
    ssize_t size = readlink("/proc/self/exe", path, sizeof(path) - 1);
    if (size <= 0)
        return ".";
    std::string exe(path, static_cast<size_t>(size));
    return exe.substr(0, exe.rfind('/'));
}

bool Embed(HelloProxy& proxy, const char* name) {
    Say(std::string("CreateGadget(\"") + name + "\")");
    app_control_h service = nullptr;
    app_control_create(&service);
    bool created = proxy.CreateGadget(nullptr, name, UG_MODE_FRAMEVIEW, service);
    app_control_destroy(service);
    Say(std::string("CreateGadget(\"") + name + "\"): " + (created ? "created" : "FAILED"));
    return created;
}

// The whole conversation, once the main loop runs.
gboolean Run(gpointer data) {
    Host* host = static_cast<Host*>(data);
    if (!Embed(host->cppGadget, "hello_cpp") || !Embed(host->cGadget, "hello_c")) {
        ui_app_exit();
        return G_SOURCE_REMOVE;
    }
    Say("live gadgets: " + std::to_string(ug_host_gadget_count()));

    TCMessage question;
    question.m_type = "status";
    question.SetMessage(R"({"ask":"how are you?"})");
    Say("GetGadgetInformation(hello_cpp) " + question.GetMessage());
    TCMessage cppAnswer = host->cppGadget.GetGadgetInformation(question);
    Say("hello_cpp answered: type \"" + cppAnswer.m_type + "\", " + cppAnswer.GetMessage());

    // A C gadget has no information hook: the framework answers for it,
    // with an empty message. Ask it with a plain user message instead.
    TCMessage cAnswer = host->cGadget.GetGadgetInformation(question);
    Say("GetGadgetInformation(hello_c): type \"" + cAnswer.m_type + "\", message \"" +
        cAnswer.GetMessage() + "\" (empty: C gadgets answer plain messages)");
    app_control_h ask = nullptr;
    if (app_control_create(&ask) == APP_CONTROL_ERROR_NONE) {
        app_control_add_extra_data(ask, "question", "how are you?");
        Say("ug_send_message(hello_c) {question: \"how are you?\"}");
        ug_send_message(host->cGadget.GetGadgetHandle(), ask);
        app_control_destroy(ask);
    }

    Say("closing hello_cpp with ug_destroy (t_SetFlagDestroyUG(true))");
    host->cppGadget.t_SetFlagDestroyUG(true);
    bool cppClosed = host->cppGadget.Destroy();
    Say(std::string("hello_cpp closed: ") + (cppClosed && host->cppGadget.ended ? "yes" : "NO"));

    Say("closing hello_c with the destroy request (t_SetFlagDestroyUG(false))");
    host->cGadget.t_SetFlagDestroyUG(false);
    bool cClosed = host->cGadget.Destroy();
    Say(std::string("hello_c closed itself: ") + (cClosed ? "yes" : "NO"));
    // The gadget ran its own destroy; the library still holds its module
    // until it is destroyed there too (its activity logs that it is already
    // destroyed).
    Say("ug_destroy_all: unloading what the library still holds");
    ug_destroy_all();
    Say("live gadgets: " + std::to_string(ug_host_gadget_count()));

    host->ok = cppClosed && cClosed && host->cppGadget.ended && host->cGadget.ended &&
               cppAnswer.GetMessage().find("hello_cpp") != std::string::npos;
    ui_app_exit();  // ui_app_main returns after the terminate callback
    return G_SOURCE_REMOVE;
}

bool OnCreate(void* data) {
    Say("create: the main loop starts next");
    g_idle_add(Run, data);
    return true;
}

void OnTerminate(void*) {
    Say("terminate");
}

}  // namespace

int main(int argc, char** argv) {
    std::setvbuf(stdout, nullptr, _IOLBF, 0);  // keep the narration in order in a pipe
    std::string dir = ModuleDir(argc, argv);
    Say("module path: " + dir);
    ug_host_set_module_path(dir.c_str());

    Host host;
    ui_app_lifecycle_callback_s callbacks = {};
    callbacks.create = OnCreate;
    callbacks.terminate = OnTerminate;
    int result = ui_app_main(argc, argv, &callbacks, &host);
    Say(std::string("ui_app_main returned ") + std::to_string(result) +
        (host.ok ? ", all done" : ", FAILED"));
    return result == APP_ERROR_NONE && host.ok ? 0 : 1;
}
