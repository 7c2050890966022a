/* SPDX-License-Identifier: Apache-2.0 */
// Shared pieces of the gadget tests: the trace the test modules write to,
// a recording host proxy, and app-control helpers.
#ifndef HARVO_TEST_GADGET_TEST_SUPPORT_H
#define HARVO_TEST_GADGET_TEST_SUPPORT_H

#include <app_control-host.h>
#include <app_control.h>
#include <dlog.h>
#include <gtest/gtest.h>
#include <ui-gadget-host.h>
#include <ui-gadget-module.h>
#include <ui-gadget.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "TCGadgetProxy.h"

namespace gadget_test {

using Trace = std::vector<std::string>;

// Each test program includes this header from one source file only.
inline Trace& Traces() {
    static Trace traces;
    return traces;
}

inline std::string Extra(app_control_h control, const char* key) {
    char* value = nullptr;
    std::string text = "<none>";
    if (control != nullptr &&
        app_control_get_extra_data(control, key, &value) == APP_CONTROL_ERROR_NONE) {
        text = value;
        free(value);
    }
    return text;
}

inline int ExtraCount(app_control_h control) {
    int count = -1;
    app_control_host_extra_data_count(control, &count);
    return count;
}

// An app control with up to three pairs; the caller destroys it.
inline app_control_h Control(std::initializer_list<std::pair<const char*, const char*>> pairs) {
    app_control_h control = nullptr;
    app_control_create(&control);
    for (const auto& pair : pairs)
        app_control_add_extra_data(control, pair.first, pair.second);
    return control;
}

// A host proxy that records its hooks and answers the gadget's questions.
// Every gadget test loads the test modules and starts with no trace and
// ends with no gadget.
class GadgetFixture : public ::testing::Test {
protected:
    void SetUp() override {
        ug_host_set_module_path(GADGET_TEST_MODULE_DIR);
        Traces().clear();
    }
    void TearDown() override { ug_destroy_all(); }
};

class RecordingProxy : public Quelt::TCGadgetProxy {
public:
    void t_OnLayoutReady(ui_gadget_s*, ug_mode mode) override {
        Traces().push_back("proxy:layout:" + std::to_string(mode));
    }
    void t_OnResult(ui_gadget_s*, app_control_s* result) override {
        Traces().push_back("proxy:result:" + Extra(result, "answer"));
    }
    void t_OnDestroy(ui_gadget_s*) override { Traces().push_back("proxy:destroy"); }
    void t_OnEnd() override { Traces().push_back("proxy:end"); }
    Quelt::TCMessage t_HostInformationRequested(Quelt::TCMessage& request) override {
        Traces().push_back("proxy:asked:" + request.m_type + ":" + request.GetMessage());
        Quelt::TCMessage reply;
        if (answer) {
            reply.m_type = "host-type";
            reply.SetMessage("{\"from\":\"host\"}");
        }
        return reply;
    }
    // Exposes what the tests look at.
    const std::string& Name() const { return m_gadgetName; }
    void* CachedLayout() const { return m_layout; }
    bool answer = true;
    static size_t RegistrySize() { return m_CreatedGadgetProxys.size(); }
    static size_t NamesSize() { return m_CreatedGadgetNames.size(); }
    static bool Registered(const std::string& name) {
        return m_CreatedGadgetProxys.count(name) != 0;
    }
};

}  // namespace gadget_test

// Called by the test modules (looked up by name at run time).
extern "C" __attribute__((visibility("default"))) void gadget_test_trace(const char* text) {
    gadget_test::Traces().emplace_back(text);
}

#endif
