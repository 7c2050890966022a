// SPDX-License-Identifier: Apache-2.0
// The host side of UI gadgets: the proxy registry, the library's callbacks
// and the host half of the information exchange.

#include <gtest/gtest.h>

#include "GadgetTestSupport.h"
#include "LogCapture.h"

using gadget_test::Control;
using gadget_test::Extra;
using gadget_test::RecordingProxy;
using gadget_test::Trace;
using gadget_test::Traces;
using harvo_test::LogCapture;
using Quelt::TCGadgetProxy;
using Quelt::TCMessage;

namespace {

class GadgetProxyTest : public gadget_test::GadgetFixture {
protected:
    LogCapture capture_;
};

TEST_F(GadgetProxyTest, NullNameIsRefused) {
    RecordingProxy proxy;
    EXPECT_FALSE(proxy.CreateGadget(nullptr, nullptr, UG_MODE_FULLVIEW, nullptr));
    EXPECT_TRUE(capture_.HasFramework(DLOG_ERROR, "name is NULL!"));
}

TEST_F(GadgetProxyTest, CreateRegistersAndReportsLayout) {
    size_t names = RecordingProxy::NamesSize();
    RecordingProxy proxy;
    ASSERT_TRUE(proxy.CreateGadget(nullptr, "cppgadget", UG_MODE_FRAMEVIEW, nullptr));
    EXPECT_TRUE(RecordingProxy::Registered("cppgadget"));
    EXPECT_EQ(names + 1, RecordingProxy::NamesSize());
    EXPECT_TRUE(capture_.HasFramework(DLOG_DEBUG, "m_CreatedGadgetProxys.size() = 1"));
    EXPECT_TRUE(capture_.HasFramework(DLOG_DEBUG, "ug cppgadget"));
    char text[48];
    snprintf(text, sizeof(text), "m_gadgetHandle = %p",
             static_cast<void*>(proxy.GetGadgetHandle()));
    EXPECT_TRUE(capture_.HasFramework(DLOG_DEBUG, text));
    EXPECT_EQ(proxy.GetLayout(), proxy.CachedLayout());
    EXPECT_EQ(UG_MODE_FRAMEVIEW, proxy.GetGadgetMode());
    EXPECT_EQ(nullptr, proxy.GetParentLayout());
    EXPECT_EQ((Trace{"t_OnCreate", "t_OnStart", "proxy:layout:1"}), Traces());
}

TEST_F(GadgetProxyTest, TwoProxiesWithOneName) {
    size_t names = RecordingProxy::NamesSize();
    auto* first = new RecordingProxy;
    RecordingProxy second;
    ASSERT_TRUE(first->CreateGadget(nullptr, "cppgadget", UG_MODE_FULLVIEW, nullptr));
    EXPECT_FALSE(second.CreateGadget(nullptr, "cppgadget", UG_MODE_FULLVIEW, nullptr));
    EXPECT_TRUE(capture_.HasFramework(DLOG_ERROR, "cppgadget name has been used!"));
    EXPECT_EQ(nullptr, second.GetGadgetHandle());
    EXPECT_EQ("cppgadget", second.Name());
    // The end callback frees the name.
    EXPECT_TRUE(first->Destroy());
    EXPECT_TRUE(capture_.HasFramework(DLOG_DEBUG,
                                      "after t_OnEnd, erase cppgadget from CreatedGadget map!"));
    EXPECT_FALSE(RecordingProxy::Registered("cppgadget"));
    delete first;
    RecordingProxy third;
    EXPECT_TRUE(third.CreateGadget(nullptr, "cppgadget", UG_MODE_FULLVIEW, nullptr));
    EXPECT_EQ(names + 2, RecordingProxy::NamesSize());  // duplicates kept
}

TEST_F(GadgetProxyTest, RefusedProxyErasesTheOtherEntryOnDestruction) {
    RecordingProxy first;
    ASSERT_TRUE(first.CreateGadget(nullptr, "cppgadget", UG_MODE_FULLVIEW, nullptr));
    {
        RecordingProxy refused;
        EXPECT_FALSE(refused.CreateGadget(nullptr, "cppgadget", UG_MODE_FULLVIEW, nullptr));
    }
    EXPECT_TRUE(capture_.HasFramework(DLOG_DEBUG, "erase cppgadget from CreatedGadget map!"));
    EXPECT_FALSE(RecordingProxy::Registered("cppgadget"));
}

TEST_F(GadgetProxyTest, UnknownModuleUndoesRegistration) {
    size_t names = RecordingProxy::NamesSize();
    RecordingProxy proxy;
    EXPECT_FALSE(proxy.CreateGadget(nullptr, "nosuchgadget", UG_MODE_FULLVIEW, nullptr));
    EXPECT_TRUE(capture_.HasFramework(DLOG_ERROR, "ug_create[nosuchgadget] failed!"));
    EXPECT_FALSE(RecordingProxy::Registered("nosuchgadget"));
    EXPECT_EQ(names + 1, RecordingProxy::NamesSize());
}

TEST_F(GadgetProxyTest, ResultAfterTheProxyIsGoneIsDropped) {
    char name[] = "gone";
    app_control_h result = Control({{"answer", "1"}});
    TCGadgetProxy::OnResult(nullptr, result, name);
    TCGadgetProxy::OnLayoutReady(nullptr, UG_MODE_FULLVIEW, name);
    TCGadgetProxy::OnDestroy(nullptr, name);
    TCGadgetProxy::OnEnd(nullptr, name);
    app_control_destroy(result);
    EXPECT_EQ(4u, capture_.CountFramework(DLOG_ERROR, "gone name has not been used!"));
    TCGadgetProxy::OnResult(nullptr, nullptr, nullptr);
    TCGadgetProxy::OnLayoutReady(nullptr, UG_MODE_FULLVIEW, nullptr);
    TCGadgetProxy::OnDestroy(nullptr, nullptr);
    TCGadgetProxy::OnEnd(nullptr, nullptr);
    EXPECT_EQ(4u, capture_.CountFramework(DLOG_ERROR, "Null pointer!"));
    EXPECT_TRUE(Traces().empty());
}

TEST_F(GadgetProxyTest, NullLayoutDisablesThePage) {
    RecordingProxy proxy;
    ASSERT_TRUE(proxy.CreateGadget(nullptr, "cppgadget", UG_MODE_FULLVIEW, nullptr));
    Traces().clear();
    // A handle the library no longer knows has no layout.
    std::string name = proxy.Name();
    TCGadgetProxy::OnLayoutReady(nullptr, UG_MODE_FULLVIEW, &name[0]);
    EXPECT_TRUE(capture_.HasFramework(DLOG_DEBUG, "UG Return NULL Layout, Disable this page."));
    EXPECT_TRUE(Traces().empty());
    EXPECT_EQ(nullptr, proxy.GetGadgetHandle());
}

TEST_F(GadgetProxyTest, UserResultAndQueryWithDefaultAnswer) {
    TCGadgetProxy plain;  // t_HostInformationRequested not overridden
    ASSERT_TRUE(plain.CreateGadget(nullptr, "cppgadget", UG_MODE_FULLVIEW, nullptr));
    Traces().clear();
    app_control_h ask = Control({{"text", "ask"}, {"ask_type", "who"}, {"ask_info", "x"}});
    EXPECT_EQ(0, ug_send_message(plain.GetGadgetHandle(), ask));
    app_control_destroy(ask);
    EXPECT_EQ((Trace{"t_OnMessage:ask", "host::"}), Traces());
    EXPECT_TRUE(capture_.HasFramework(DLOG_DEBUG, "It is Gadget Mode, received [QUERY]"));
    EXPECT_TRUE(capture_.HasFramework(DLOG_DEBUG, "It is Gadget Type, received [who]"));
    EXPECT_TRUE(capture_.HasFramework(DLOG_DEBUG, "It is Gadget Info, received [x]"));

    // A result without the mode key reaches t_OnResult.
    RecordingProxy other;
    ASSERT_TRUE(other.CreateGadget(nullptr, "cgadget", UG_MODE_FULLVIEW, nullptr));
    Traces().clear();
    app_control_h result = Control({{"answer", "42"}});
    EXPECT_EQ(0, ug_send_result(other.GetGadgetHandle(), result));
    app_control_destroy(result);
    EXPECT_EQ((Trace{"proxy:result:42"}), Traces());
}

// The order a gadget receives, as a raw module would see it.
TEST_F(GadgetProxyTest, ResultWithEmptyModeOrOtherModeValue) {
    RecordingProxy proxy;
    ASSERT_TRUE(proxy.CreateGadget(nullptr, "cgadget", UG_MODE_FULLVIEW, nullptr));
    Traces().clear();
    app_control_h empty = Control({{"__CORE_GADGET_MODE__", ""}, {"answer", "e"}});
    EXPECT_EQ(0, ug_send_result(proxy.GetGadgetHandle(), empty));
    app_control_destroy(empty);
    app_control_h other = Control({{"__CORE_GADGET_MODE__", "PING"}, {"answer", "o"}});
    EXPECT_EQ(0, ug_send_result(proxy.GetGadgetHandle(), other));
    app_control_destroy(other);
    EXPECT_EQ((Trace{"proxy:result:e"}), Traces());
    EXPECT_TRUE(capture_.HasFramework(DLOG_DEBUG, "It is Gadget Mode, received [PING]"));
    EXPECT_TRUE(capture_.HasFramework(DLOG_DEBUG, "fail to read gadget type"));
    EXPECT_TRUE(capture_.HasFramework(DLOG_DEBUG, "fail to read gadget info"));
}

TEST_F(GadgetProxyTest, GadgetQuestionGetsTheHostAnswer) {
    RecordingProxy proxy;
    ASSERT_TRUE(proxy.CreateGadget(nullptr, "cppgadget", UG_MODE_FULLVIEW, nullptr));
    Traces().clear();
    app_control_h ask = Control({{"text", "ask"}, {"ask_type", "who"}, {"ask_info", "{}"}});
    EXPECT_EQ(0, ug_send_message(proxy.GetGadgetHandle(), ask));
    app_control_destroy(ask);
    EXPECT_EQ(
        (Trace{"t_OnMessage:ask", "proxy:asked:who:{}", "host:host-type:{\"from\":\"host\"}"}),
        Traces());
}

TEST_F(GadgetProxyTest, DestroyWithFlagFalseLetsTheGadgetDestroyItself) {
    RecordingProxy proxy;
    ASSERT_TRUE(proxy.CreateGadget(nullptr, "cgadget", UG_MODE_FULLVIEW, nullptr));
    ui_gadget_h handle = proxy.GetGadgetHandle();
    Traces().clear();
    proxy.t_SetFlagDestroyUG(false);
    EXPECT_TRUE(proxy.Destroy());
    EXPECT_TRUE(capture_.HasFramework(DLOG_DEBUG, "[t_bFlagDestroyUG] 0"));
    EXPECT_TRUE(capture_.HasFramework(DLOG_DEBUG, "It is Gadget Info, received [QUERY]"));
    EXPECT_TRUE(capture_.HasFramework(DLOG_DEBUG, "It is Gadget type, received [REQUEST]"));
    EXPECT_TRUE(capture_.HasFramework(DLOG_DEBUG, "It is Gadget info, received [DESTROY]"));
    EXPECT_EQ((Trace{"c:destroy"}), Traces());
    EXPECT_EQ(nullptr, proxy.GetGadgetHandle());
    // A second Destroy passes the null handle to the library.
    proxy.t_SetFlagDestroyUG(true);
    EXPECT_FALSE(proxy.Destroy());
    EXPECT_TRUE(capture_.HasFramework(DLOG_ERROR, "ug_destroy failed!"));
    EXPECT_EQ(0, ug_destroy(handle));
}

TEST_F(GadgetProxyTest, DestroyOrderCarriesOnlyTheThreeKeys) {
    RecordingProxy proxy;
    ASSERT_TRUE(proxy.CreateGadget(nullptr, "keyprobe", UG_MODE_FULLVIEW, nullptr));
    ui_gadget_h handle = proxy.GetGadgetHandle();
    Traces().clear();
    proxy.t_SetFlagDestroyUG(false);
    EXPECT_TRUE(proxy.Destroy());
    EXPECT_EQ((Trace{"keys:3:QUERY:REQUEST:DESTROY"}), Traces());
    EXPECT_EQ(0, ug_destroy(handle));
}

TEST_F(GadgetProxyTest, QuestionToTheGadgetCarriesTypeAndInfo) {
    RecordingProxy proxy;
    ASSERT_TRUE(proxy.CreateGadget(nullptr, "keyprobe", UG_MODE_FULLVIEW, nullptr));
    Traces().clear();
    TCMessage request;
    request.m_type = "t";
    request.SetMessage("{}");
    TCMessage answer = proxy.GetGadgetInformation(request);
    EXPECT_EQ((Trace{"keys:3:QUERY:t:{}"}), Traces());
    EXPECT_TRUE(capture_.HasFramework(DLOG_DEBUG, "(t:{})"));
    // No REPLY came: the answer is empty.
    EXPECT_EQ("", answer.m_type);
    EXPECT_EQ("", answer.GetMessage());
}

TEST_F(GadgetProxyTest, PauseResumeActOnEveryGadget) {
    RecordingProxy a;
    RecordingProxy b;
    ASSERT_TRUE(a.CreateGadget(nullptr, "cppgadget", UG_MODE_FULLVIEW, nullptr));
    ASSERT_TRUE(b.CreateGadget(nullptr, "cgadget", UG_MODE_FULLVIEW, nullptr));
    Traces().clear();
    EXPECT_TRUE(a.Pause());
    EXPECT_TRUE(a.Resume());
    EXPECT_EQ((Trace{"t_OnPause", "c:pause", "t_OnResume", "c:resume"}), Traces());
}

TEST_F(GadgetProxyTest, DestroyMeReachesOnDestroyOnly) {
    RecordingProxy proxy;
    ASSERT_TRUE(proxy.CreateGadget(nullptr, "cppgadget", UG_MODE_FULLVIEW, nullptr));
    Traces().clear();
    EXPECT_EQ(0, ug_destroy_me(proxy.GetGadgetHandle()));
    EXPECT_EQ((Trace{"proxy:destroy"}), Traces());
    EXPECT_TRUE(RecordingProxy::Registered("cppgadget"));
    Traces().clear();
    EXPECT_TRUE(proxy.Destroy());
    EXPECT_EQ((Trace{"t_OnDestroy", "proxy:end"}), Traces());
    EXPECT_FALSE(RecordingProxy::Registered("cppgadget"));
}

}  // namespace
