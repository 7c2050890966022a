// SPDX-License-Identifier: Apache-2.0
// The module side of UI gadgets: the activity's callbacks and lifecycle, and
// the gadget half of the information exchange, driven through the host UI
// gadget library with the test modules.

#include <gtest/gtest.h>

#include "GadgetTestSupport.h"
#include "LogCapture.h"
#include "TCGadgetActivity.h"

using gadget_test::Control;
using gadget_test::Extra;
using gadget_test::RecordingProxy;
using gadget_test::Trace;
using gadget_test::Traces;
using harvo_test::LogCapture;
using Quelt::TCGadgetActivity;
using Quelt::TCMessage;

namespace {

const char kMode[] = "__CORE_GADGET_MODE__";
const char kType[] = "__CORE_GADGET_TYPE__";
const char kInfo[] = "__CORE_GADGET_INFO__";

class GadgetActivityTest : public gadget_test::GadgetFixture {
protected:
    LogCapture capture_;
};

TEST_F(GadgetActivityTest, CreateWithoutBusRunsHooksInOrder) {
    RecordingProxy proxy;
    ASSERT_TRUE(proxy.CreateGadget(nullptr, "cppgadget", UG_MODE_FULLVIEW, nullptr));
    EXPECT_EQ((Trace{"t_OnCreate", "t_OnStart", "proxy:layout:0"}), Traces());
    EXPECT_FALSE(capture_.HasFramework(DLOG_INFO, "Create DBus server begin"));
    char layout[32];
    snprintf(layout, sizeof(layout), "result : %p", proxy.GetLayout());
    EXPECT_EQ(1u, capture_.CountFramework(DLOG_INFO, layout));
    EXPECT_FALSE(capture_.HasFramework(DLOG_WARN, "ug_destroy_me"));
    EXPECT_NE(nullptr, proxy.GetLayout());
}

TEST_F(GadgetActivityTest, DestroyWithoutBusStillClosesTheServer) {
    RecordingProxy proxy;
    ASSERT_TRUE(proxy.CreateGadget(nullptr, "cppgadget", UG_MODE_FULLVIEW, nullptr));
    EXPECT_TRUE(proxy.Destroy());
    EXPECT_EQ((Trace{"t_OnCreate", "t_OnStart", "proxy:layout:0", "t_OnDestroy", "proxy:end"}),
              Traces());
    EXPECT_FALSE(capture_.HasFramework(DLOG_INFO, "Create DBus server begin"));
    // Once by the destroy callback, once by the destructor at module exit.
    EXPECT_EQ(2u, capture_.CountFramework(DLOG_DEBUG, "close cppgadget begin"));
    EXPECT_EQ(2u, capture_.CountFramework(DLOG_DEBUG, "cppgadget has closed."));
}

TEST_F(GadgetActivityTest, NullLayoutRunsTheFullDestroyOnce) {
    RecordingProxy proxy;
    app_control_h service = Control({{"layout", "null"}});
    EXPECT_FALSE(proxy.CreateGadget(nullptr, "cppgadget", UG_MODE_FULLVIEW, service));
    app_control_destroy(service);
    EXPECT_EQ((Trace{"t_OnCreate", "t_OnDestroy"}), Traces());
    EXPECT_EQ(1u, capture_.CountFramework(DLOG_INFO, "result : (nil)"));
    EXPECT_TRUE(capture_.HasFramework(DLOG_WARN, "ug_destroy_me"));
    EXPECT_FALSE(capture_.HasFramework(DLOG_INFO, "Activity is already destroyed."));
    EXPECT_TRUE(capture_.HasFramework(DLOG_ERROR, "ug_create[cppgadget] failed!"));
}

TEST_F(GadgetActivityTest, DefaultOnCreateDestroysAtOnce) {
    RecordingProxy proxy;
    EXPECT_FALSE(proxy.CreateGadget(nullptr, "cppdefault", UG_MODE_FULLVIEW, nullptr));
    EXPECT_EQ(1u, capture_.CountFramework(DLOG_INFO, "result : (nil)"));
    EXPECT_TRUE(capture_.HasFramework(DLOG_WARN, "ug_destroy_me"));
    // The default t_OnDestroy ran: its debug entry trace.
    auto lines = capture_.Framework("");
    bool defaultDestroy = false;
    for (const auto& line : lines)
        defaultDestroy |= line.func == "t_OnDestroy" && line.file == "TCGadgetActivity.cpp";
    EXPECT_TRUE(defaultDestroy) << capture_.Dump();
    EXPECT_FALSE(capture_.HasFramework(DLOG_INFO, "Activity is already destroyed."));
}

TEST_F(GadgetActivityTest, UserMessageReachesOnMessageOtherModesNothing) {
    RecordingProxy proxy;
    ASSERT_TRUE(proxy.CreateGadget(nullptr, "cppgadget", UG_MODE_FULLVIEW, nullptr));
    Traces().clear();
    app_control_h user = Control({{"text", "hello"}});
    EXPECT_EQ(0, ug_send_message(proxy.GetGadgetHandle(), user));
    app_control_destroy(user);
    EXPECT_EQ((Trace{"t_OnMessage:hello"}), Traces());
    EXPECT_TRUE(capture_.HasFramework(DLOG_DEBUG, "User Message"));

    Traces().clear();
    app_control_h other = Control({{kMode, "OTHER"}, {"text", "x"}});
    EXPECT_EQ(0, ug_send_message(proxy.GetGadgetHandle(), other));
    app_control_destroy(other);
    EXPECT_TRUE(Traces().empty());
    EXPECT_TRUE(capture_.HasFramework(DLOG_DEBUG, "It is Gadget Info, received [OTHER]"));
    EXPECT_TRUE(capture_.HasFramework(DLOG_DEBUG, "fail to read gadget type"));
    EXPECT_TRUE(capture_.HasFramework(DLOG_DEBUG, "fail to read gadget info"));
}

TEST_F(GadgetActivityTest, EmptyModeIsAUserMessage) {
    RecordingProxy proxy;
    ASSERT_TRUE(proxy.CreateGadget(nullptr, "cppgadget", UG_MODE_FULLVIEW, nullptr));
    Traces().clear();
    app_control_h msg = Control({{kMode, ""}, {"text", "plain"}});
    EXPECT_EQ(0, ug_send_message(proxy.GetGadgetHandle(), msg));
    app_control_destroy(msg);
    EXPECT_EQ((Trace{"t_OnMessage:plain"}), Traces());
    EXPECT_TRUE(capture_.HasFramework(DLOG_DEBUG, "User Message"));
}

TEST_F(GadgetActivityTest, HostQuestionIsAnsweredByResult) {
    RecordingProxy proxy;
    ASSERT_TRUE(proxy.CreateGadget(nullptr, "cppgadget", UG_MODE_FULLVIEW, nullptr));
    Traces().clear();
    TCMessage request;
    request.m_type = "version";
    request.SetMessage("{\"q\":1}");
    TCMessage answer = proxy.GetGadgetInformation(request);
    EXPECT_EQ("gadget-type", answer.m_type);
    EXPECT_EQ("{\"from\":\"cpp\"}", answer.GetMessage());
    EXPECT_EQ((Trace{"t_GadgetInformationRequested:version:{\"q\":1}"}), Traces());
    EXPECT_TRUE(capture_.HasFramework(DLOG_DEBUG, "It is Gadget Info, received [QUERY]"));
    EXPECT_TRUE(capture_.HasFramework(DLOG_DEBUG, "It is Gadget type, received [version]"));
    EXPECT_TRUE(capture_.HasFramework(DLOG_DEBUG, "It is Gadget info, received [{\"q\":1}]"));
    EXPECT_FALSE(capture_.HasFramework(DLOG_ERROR, "Call OnDestroy forcibly"));
}

TEST_F(GadgetActivityTest, RequestDestroyAsksThenDestroysThenReplies) {
    RecordingProxy proxy;
    ASSERT_TRUE(proxy.CreateGadget(nullptr, "cppgadget", UG_MODE_FULLVIEW, nullptr));
    ui_gadget_h handle = proxy.GetGadgetHandle();
    Traces().clear();
    proxy.t_SetFlagDestroyUG(false);
    EXPECT_TRUE(proxy.Destroy());
    EXPECT_EQ((Trace{"t_GadgetInformationRequested:REQUEST:DESTROY", "t_OnDestroy"}), Traces());
    EXPECT_TRUE(capture_.HasFramework(DLOG_ERROR, "Call OnDestroy forcibly"));
    // The REPLY went out after the destroy.
    EXPECT_TRUE(capture_.HasFramework(DLOG_DEBUG, "It is Gadget Type, received [gadget-type]"));
    EXPECT_EQ(nullptr, proxy.GetGadgetHandle());

    Traces().clear();
    EXPECT_EQ(0, ug_destroy(handle));
    EXPECT_TRUE(capture_.HasFramework(DLOG_INFO, "Activity is already destroyed."));
    EXPECT_EQ((Trace{"proxy:end"}), Traces());
}

TEST_F(GadgetActivityTest, LowerCaseDestroyDoesNotDestroy) {
    RecordingProxy proxy;
    ASSERT_TRUE(proxy.CreateGadget(nullptr, "cppgadget", UG_MODE_FULLVIEW, nullptr));
    Traces().clear();
    TCMessage request;
    request.m_type = "REQUEST";
    request.SetMessage("destroy");
    proxy.GetGadgetInformation(request);
    EXPECT_EQ((Trace{"t_GadgetInformationRequested:REQUEST:destroy"}), Traces());
    EXPECT_FALSE(capture_.HasFramework(DLOG_ERROR, "Call OnDestroy forcibly"));
}

TEST_F(GadgetActivityTest, GetHostInformationReturnsTheHostAnswer) {
    RecordingProxy proxy;
    ASSERT_TRUE(proxy.CreateGadget(nullptr, "cppgadget", UG_MODE_FULLVIEW, nullptr));
    Traces().clear();
    app_control_h ask = Control({{"text", "ask"}, {"ask_type", "who"}, {"ask_info", "{\"a\":2}"}});
    EXPECT_EQ(0, ug_send_message(proxy.GetGadgetHandle(), ask));
    app_control_destroy(ask);
    EXPECT_EQ((Trace{"t_OnMessage:ask", "proxy:asked:who:{\"a\":2}",
                     "host:host-type:{\"from\":\"host\"}"}),
              Traces());
    EXPECT_TRUE(capture_.HasFramework(DLOG_DEBUG, "(who:{\"a\":2})"));
}

// A host that answers the first question only.
struct SilentHost {
    int questions = 0;
};

void AnswerOnce(ui_gadget_h ug, app_control_h result, void* priv) {
    auto* host = static_cast<SilentHost*>(priv);
    if (Extra(result, kMode) != "QUERY" || host->questions++ > 0)
        return;
    app_control_h reply = Control({{kMode, "REPLY"}, {kType, "first"}, {kInfo, "{\"n\":1}"}});
    ug_send_message(ug, reply);
    app_control_destroy(reply);
}

TEST_F(GadgetActivityTest, GetHostInformationWithoutAnswerIsEmpty) {
    SilentHost host;
    ug_cbs cbs{};
    cbs.result_cb = AnswerOnce;
    cbs.priv = &host;
    ui_gadget_h ug = ug_create(nullptr, "cppgadget", UG_MODE_FULLVIEW, nullptr, &cbs);
    ASSERT_NE(nullptr, ug);
    Traces().clear();
    app_control_h ask = Control({{"text", "ask"}, {"ask_type", "t"}, {"ask_info", "i"}});
    EXPECT_EQ(0, ug_send_message(ug, ask));
    EXPECT_EQ(0, ug_send_message(ug, ask));
    app_control_destroy(ask);
    EXPECT_EQ((Trace{"t_OnMessage:ask", "host:first:{\"n\":1}", "t_OnMessage:ask", "host::"}),
              Traces());
    EXPECT_EQ(2, host.questions);
}

TEST_F(GadgetActivityTest, PauseResumeEventReachTheHooks) {
    RecordingProxy proxy;
    ASSERT_TRUE(proxy.CreateGadget(nullptr, "cppgadget", UG_MODE_FULLVIEW, nullptr));
    Traces().clear();
    EXPECT_TRUE(proxy.Pause());
    EXPECT_TRUE(proxy.Resume());
    EXPECT_EQ(0, ug_send_event(UG_EVENT_LOW_BATTERY));
    EXPECT_EQ((Trace{"t_OnPause", "t_OnResume", "t_OnEvent:2"}), Traces());
}

TEST_F(GadgetActivityTest, NullPrivateDataIsRefused) {
    EXPECT_EQ(nullptr, TCGadgetActivity::OnCreate(nullptr, UG_MODE_FULLVIEW, nullptr, nullptr));
    EXPECT_TRUE(capture_.HasFramework(DLOG_ERROR, "NULL pointer error!"));
    EXPECT_EQ(1u, capture_.CountFramework(DLOG_INFO, "result : (nil)"));
    EXPECT_TRUE(capture_.HasFramework(DLOG_WARN, "ug_destroy_me"));
    EXPECT_EQ(1u, capture_.CountFramework(DLOG_ERROR, "NULL pointer!"));  // the tail's destroy
    TCGadgetActivity::OnStart(nullptr, nullptr, nullptr);
    TCGadgetActivity::OnPause(nullptr, nullptr, nullptr);
    TCGadgetActivity::OnResume(nullptr, nullptr, nullptr);
    TCGadgetActivity::OnDestroy(nullptr, nullptr, nullptr);
    TCGadgetActivity::OnMessage(nullptr, nullptr, nullptr, nullptr);
    TCGadgetActivity::OnEvent(nullptr, UG_EVENT_LOW_MEMORY, nullptr, nullptr);
    EXPECT_EQ(7u, capture_.CountFramework(DLOG_ERROR, "NULL pointer!"));
}

TEST_F(GadgetActivityTest, InitUIGadgetFillsSevenSlots) {
    EXPECT_EQ(-1, Quelt::InitUIGadget(nullptr, nullptr, UG_OPT_INDICATOR_ENABLE));
    EXPECT_TRUE(capture_.HasFramework(DLOG_ERROR, "NULL pointer!"));
    ug_module_ops ops{};
    auto keyEvent = reinterpret_cast<void (*)(ui_gadget_h, ug_key_event, app_control_h, void*)>(
        &TCGadgetActivity::OnEvent);
    ops.key_event = keyEvent;
    TCGadgetActivity activity("direct", false);
    EXPECT_EQ(0, Quelt::InitUIGadget(&ops, &activity, UG_OPT_INDICATOR_DISABLE));
    EXPECT_EQ(&TCGadgetActivity::OnCreate, ops.create);
    EXPECT_EQ(&TCGadgetActivity::OnStart, ops.start);
    EXPECT_EQ(&TCGadgetActivity::OnPause, ops.pause);
    EXPECT_EQ(&TCGadgetActivity::OnResume, ops.resume);
    EXPECT_EQ(&TCGadgetActivity::OnDestroy, ops.destroy);
    EXPECT_EQ(&TCGadgetActivity::OnMessage, ops.message);
    EXPECT_EQ(&TCGadgetActivity::OnEvent, ops.event);
    EXPECT_EQ(keyEvent, ops.key_event);  // left as it was
    EXPECT_EQ(nullptr, ops.destroying);
    EXPECT_EQ(static_cast<void*>(&activity), ops.priv);
    EXPECT_EQ(UG_OPT_INDICATOR_DISABLE, ops.opt);
}

TEST_F(GadgetActivityTest, FreshActivityHasNoHandleAndDestroyOnlyLogs) {
    TCGadgetActivity activity("fresh", false);
    EXPECT_EQ(nullptr, activity.GetGadgetHandle());
    EXPECT_EQ(ug_get_window(), activity.GetWindow());
    TCGadgetActivity::OnDestroy(nullptr, nullptr, &activity);
    EXPECT_TRUE(capture_.HasFramework(DLOG_INFO, "Activity is already destroyed."));
    TCMessage empty;
    TCMessage request;
    EXPECT_EQ("", activity.t_GadgetInformationRequested(request).m_type);
    EXPECT_EQ("", activity.t_GadgetInformationRequested(request).GetMessage());
}

}  // namespace
