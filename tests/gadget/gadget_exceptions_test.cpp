// SPDX-License-Identifier: Apache-2.0
// Gadget hooks that throw, on the host side: the UI gadget library calls
// the proxy from C, so an exception stops at the proxy's callback with one
// error line, and a question the host's hook could not answer still gets
// an (empty) answer, for the gadget waits for one.

#include <gtest/gtest.h>

#include <stdexcept>

#include "GadgetTestSupport.h"
#include "LogCapture.h"

using gadget_test::Control;
using gadget_test::RecordingProxy;
using gadget_test::Trace;
using gadget_test::Traces;
using harvo_test::LogCapture;

namespace {

class ThrowingProxy : public RecordingProxy {
public:
    void t_OnLayoutReady(ui_gadget_s* ug, ug_mode mode) override {
        RecordingProxy::t_OnLayoutReady(ug, mode);
        throw std::runtime_error("no room for it");
    }
    Quelt::TCMessage t_HostInformationRequested(Quelt::TCMessage& request) override {
        RecordingProxy::t_HostInformationRequested(request);
        throw std::runtime_error("cannot answer");
    }
};

class GadgetExceptions : public gadget_test::GadgetFixture {
protected:
    LogCapture capture_;
};

TEST_F(GadgetExceptions, AHostHookThatThrowsIsReportedAndTheGadgetGetsAnEmptyAnswer) {
    ThrowingProxy proxy;
    ASSERT_TRUE(proxy.CreateGadget(nullptr, "cppgadget", UG_MODE_FULLVIEW, nullptr));
    EXPECT_EQ((Trace{"t_OnCreate", "t_OnStart", "proxy:layout:0"}), Traces());
    const auto layout = capture_.Framework("exception from t_OnLayoutReady: no room for it");
    ASSERT_EQ(layout.size(), 1u) << capture_.Dump();
    EXPECT_EQ(layout[0].func, "OnLayoutReady");

    Traces().clear();
    app_control_h ask = Control({{"text", "ask"}, {"ask_type", "who"}, {"ask_info", "{\"a\":2}"}});
    EXPECT_EQ(0, ug_send_message(proxy.GetGadgetHandle(), ask));
    app_control_destroy(ask);
    // The gadget's GetHostInformation returned, with an empty answer.
    EXPECT_EQ((Trace{"t_OnMessage:ask", "proxy:asked:who:{\"a\":2}", "host::"}), Traces());
    const auto asked =
        capture_.Framework("exception from t_HostInformationRequested: cannot answer");
    ASSERT_EQ(asked.size(), 1u) << capture_.Dump();
    EXPECT_EQ(asked[0].func, "m_ProcessResult");
    EXPECT_TRUE(proxy.Destroy());
}

}  // namespace
