// SPDX-License-Identifier: Apache-2.0
// Tests of the host UI gadget library: loading modules by name and the order
// in which module operations and host callbacks run.

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "app_control.h"
#include "ui-gadget-host.h"
#include "ui-gadget-module.h"
#include "ui-gadget.h"

namespace {
std::vector<std::string> g_trace;
}

// Called by the test modules (looked up by name at run time).
extern "C" __attribute__((visibility("default"))) void ug_test_trace(const char* text) {
    g_trace.emplace_back(text);
}

namespace {

using Trace = std::vector<std::string>;

struct Host {
    ui_gadget_h handle = nullptr;
    int mode = -1;
    std::string answer;
    bool destroyOnRequest = false;
};

void OnLayout(ui_gadget_h ug, enum ug_mode mode, void* priv) {
    static_cast<Host*>(priv)->handle = ug;
    static_cast<Host*>(priv)->mode = mode;
    g_trace.emplace_back("layout_cb");
}

void OnResult(ui_gadget_h, app_control_h result, void* priv) {
    char* value = nullptr;
    if (app_control_get_extra_data(result, "answer", &value) == APP_CONTROL_ERROR_NONE) {
        static_cast<Host*>(priv)->answer = value;
        free(value);
    }
    g_trace.emplace_back("result_cb");
}

void OnDestroyRequest(ui_gadget_h ug, void* priv) {
    g_trace.emplace_back("destroy_cb");
    if (static_cast<Host*>(priv)->destroyOnRequest) {
        g_trace.emplace_back(ug_destroy(ug) == 0 ? "ug_destroy-ok" : "ug_destroy-failed");
    }
}

void OnEnd(ui_gadget_h, void*) {
    g_trace.emplace_back("end_cb");
}

class UiGadgetTest : public ::testing::Test {
protected:
    void SetUp() override {
        ug_host_set_module_path(UG_TEST_MODULE_DIR);
        g_trace.clear();
        cbs_.layout_cb = OnLayout;
        cbs_.result_cb = OnResult;
        cbs_.destroy_cb = OnDestroyRequest;
        cbs_.end_cb = OnEnd;
        cbs_.priv = &host_;
    }
    void TearDown() override {
        ug_destroy_all();
        ug_host_set_module_path(nullptr);
    }

    app_control_h Control(const char* key, const char* value) {
        app_control_h control = nullptr;
        EXPECT_EQ(APP_CONTROL_ERROR_NONE, app_control_create(&control));
        if (key != nullptr)
            app_control_add_extra_data(control, key, value);
        return control;
    }

    Host host_;
    ug_cbs cbs_{};
};

TEST_F(UiGadgetTest, CreateRunsInitCreateStartThenLayout) {
    app_control_h service = Control("from", "host");
    ui_gadget_h ug = ug_create(nullptr, "testorder", UG_MODE_FRAMEVIEW, service, &cbs_);
    app_control_destroy(service);
    ASSERT_NE(nullptr, ug);
    EXPECT_EQ((Trace{"init", "create:1:priv", "start:service", "layout_cb"}), g_trace);
    EXPECT_EQ(ug, host_.handle);
    EXPECT_EQ(UG_MODE_FRAMEVIEW, host_.mode);
    EXPECT_EQ(UG_MODE_FRAMEVIEW, ug_get_mode(ug));
    EXPECT_NE(nullptr, ug_get_layout(ug));
    EXPECT_EQ(1, ug_host_gadget_count());
}

TEST_F(UiGadgetTest, DestroyRunsDestroyEndThenExit) {
    ui_gadget_h ug = ug_create(nullptr, "testorder", UG_MODE_FULLVIEW, nullptr, &cbs_);
    ASSERT_NE(nullptr, ug);
    g_trace.clear();
    EXPECT_EQ(0, ug_destroy(ug));
    EXPECT_EQ((Trace{"destroy", "end_cb", "exit"}), g_trace);
    EXPECT_EQ(0, ug_host_gadget_count());
    // The handle is gone: every call on it fails.
    EXPECT_EQ(-1, ug_destroy(ug));
    EXPECT_EQ(nullptr, ug_get_layout(ug));
    EXPECT_EQ(UG_MODE_INVALID, ug_get_mode(ug));
}

TEST_F(UiGadgetTest, CreateReturningNullIsNotCreated) {
    app_control_h service = Control("create", "null");
    ui_gadget_h ug = ug_create(nullptr, "testorder", UG_MODE_FULLVIEW, service, &cbs_);
    app_control_destroy(service);
    EXPECT_EQ(nullptr, ug);
    EXPECT_EQ((Trace{"init", "create:0:priv", "exit"}), g_trace);
    EXPECT_EQ(0, ug_host_gadget_count());
}

TEST_F(UiGadgetTest, UnknownModuleMissingEntriesAndFailedInitGiveNull) {
    EXPECT_EQ(nullptr, ug_create(nullptr, "nosuchgadget", UG_MODE_FULLVIEW, nullptr, &cbs_));
    EXPECT_EQ(nullptr, ug_create(nullptr, "testnoentry", UG_MODE_FULLVIEW, nullptr, &cbs_));
    EXPECT_EQ(nullptr, ug_create(nullptr, "testinitfail", UG_MODE_FULLVIEW, nullptr, &cbs_));
    EXPECT_EQ((Trace{"init"}), g_trace);  // only the failing INIT ran
    EXPECT_EQ(nullptr, ug_create(nullptr, nullptr, UG_MODE_FULLVIEW, nullptr, &cbs_));
    EXPECT_EQ(nullptr, ug_create(nullptr, "", UG_MODE_FULLVIEW, nullptr, &cbs_));
    EXPECT_EQ(nullptr, ug_create(nullptr, "testorder", UG_MODE_INVALID, nullptr, &cbs_));
    EXPECT_EQ(0, ug_host_gadget_count());
}

TEST_F(UiGadgetTest, ModulePathFromEnvironmentWhenNoneSet) {
    ug_host_set_module_path(nullptr);
    setenv("UG_MODULE_PATH", "/nonexistent:" UG_TEST_MODULE_DIR, 1);
    ui_gadget_h ug = ug_create(nullptr, "testorder", UG_MODE_FULLVIEW, nullptr, &cbs_);
    unsetenv("UG_MODULE_PATH");
    EXPECT_NE(nullptr, ug);
    // Without any list the loader's own search does not know the directory.
    EXPECT_EQ(nullptr, ug_create(nullptr, "testorder", UG_MODE_FULLVIEW, nullptr, &cbs_));
}

TEST_F(UiGadgetTest, MessageAndResultAreSynchronous) {
    ui_gadget_h ug = ug_create(nullptr, "testorder", UG_MODE_FULLVIEW, nullptr, &cbs_);
    ASSERT_NE(nullptr, ug);
    g_trace.clear();
    app_control_h msg = Control("result", "yes");
    EXPECT_EQ(0, ug_send_message(ug, msg));
    app_control_destroy(msg);
    EXPECT_EQ((Trace{"message", "result_cb", "result-sent"}), g_trace);
    EXPECT_EQ("42", host_.answer);
    EXPECT_EQ(-1, ug_send_message(ug, nullptr));
    EXPECT_EQ(-1, ug_send_message(nullptr, msg));
    EXPECT_EQ(-1, ug_send_result(nullptr, msg));
}

TEST_F(UiGadgetTest, DestroyMeRunsOnlyTheHostDestroyCallback) {
    ui_gadget_h ug = ug_create(nullptr, "testorder", UG_MODE_FULLVIEW, nullptr, &cbs_);
    ASSERT_NE(nullptr, ug);
    g_trace.clear();
    app_control_h msg = Control("destroy_me", "yes");
    EXPECT_EQ(0, ug_send_message(ug, msg));
    EXPECT_EQ((Trace{"message", "destroy_cb", "destroy_me-ok"}), g_trace);
    EXPECT_EQ(1, ug_host_gadget_count());

    // A host that destroys on request: the whole tear-down runs inside.
    host_.destroyOnRequest = true;
    g_trace.clear();
    EXPECT_EQ(0, ug_destroy_me(ug));
    EXPECT_EQ((Trace{"destroy_cb", "destroy", "end_cb", "exit", "ug_destroy-ok"}), g_trace);
    EXPECT_EQ(-1, ug_destroy_me(ug));
    app_control_destroy(msg);
}

TEST_F(UiGadgetTest, PauseResumeAndEventReachEveryGadget) {
    ui_gadget_h first = ug_create(nullptr, "testorder", UG_MODE_FULLVIEW, nullptr, &cbs_);
    ui_gadget_h second = ug_create(first, "testorder", UG_MODE_FRAMEVIEW, nullptr, nullptr);
    ASSERT_NE(nullptr, first);
    ASSERT_NE(nullptr, second);
    EXPECT_EQ(ug_get_layout(first), ug_get_parent_layout(second));
    EXPECT_EQ(nullptr, ug_get_parent_layout(first));
    g_trace.clear();
    EXPECT_EQ(0, ug_pause());
    EXPECT_EQ(0, ug_resume());
    EXPECT_EQ(0, ug_send_event(UG_EVENT_LANG_CHANGE));
    EXPECT_EQ(-1, ug_send_event(UG_EVENT_MAX));
    EXPECT_EQ((Trace{"pause", "pause", "resume", "resume", "event:3", "event:3"}), g_trace);
    g_trace.clear();
    EXPECT_EQ(0, ug_destroy_all());  // newest first; the second has no callbacks
    EXPECT_EQ((Trace{"destroy", "exit", "destroy", "end_cb", "exit"}), g_trace);
}

TEST_F(UiGadgetTest, WindowIsOneHostObject) {
    EXPECT_NE(nullptr, ug_get_window());
    EXPECT_EQ(ug_get_window(), ug_get_window());
}

}  // namespace
