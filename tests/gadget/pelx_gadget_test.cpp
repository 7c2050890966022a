// SPDX-License-Identifier: Apache-2.0
// Gadgets written in C: the callback record, its setters and getters, the
// module entry and exit, and the forwarding of the wrapper activity.

#include <gtest/gtest.h>

#include "GadgetTestSupport.h"
#include "LogCapture.h"
#include "Quelt.h"
#include "TCEvent.h"
#include "TCWrapperGadgetActivity.h"
#include "pelx.h"

using gadget_test::Control;
using gadget_test::RecordingProxy;
using gadget_test::Trace;
using gadget_test::Traces;
using harvo_test::LogCapture;
using Quelt::TCGadgetActivity;
using Quelt::TCMessage;
using Quelt::TCWrapperGadgetActivity;

namespace {

class PelxGadgetTest : public gadget_test::GadgetFixture {
protected:
    LogCapture capture_;
};

void* CreateCb(ui_gadget_s*, ug_mode, app_control_s*, void* priv) {
    return priv;
}

TEST_F(PelxGadgetTest, RecordStartsEmptyAndSettersFill) {
    int priv = 0;
    pelx_gadget_activity_ops* ops = pelx_create_gadget_activity_ops(&priv);
    ASSERT_NE(nullptr, ops);
    static_assert(sizeof(pelx_gadget_activity_ops) == 13 * sizeof(void*), "thirteen slots");
    EXPECT_EQ(&priv, pelx_get_gadget_priv_data(ops));
    EXPECT_EQ(nullptr, pelx_get_gadget_event_handler(ops));
    EXPECT_EQ(nullptr, ops->create_cb);
    EXPECT_EQ(nullptr, ops->pelx_msg_replied_cb);
    pelx_set_gadget_create_cb(ops, CreateCb);
    EXPECT_EQ(&CreateCb, ops->create_cb);
    pelx_destory_gadget_activity_ops(ops);
    pelx_destory_gadget_activity_ops(nullptr);
}

TEST_F(PelxGadgetTest, NullRecordIsIgnored) {
    pelx_set_gadget_create_cb(nullptr, CreateCb);
    pelx_set_gadget_start_cb(nullptr, nullptr);
    pelx_set_gadget_pause_cb(nullptr, nullptr);
    pelx_set_gadget_resume_cb(nullptr, nullptr);
    pelx_set_gadget_destroy_cb(nullptr, nullptr);
    pelx_set_gadget_message_cb(nullptr, nullptr);
    pelx_set_gadget_event_cb(nullptr, nullptr);
    pelx_set_gadget_pelx_event_cb(nullptr, nullptr);
    pelx_set_gadget_clear_pelx_event_cb(nullptr, nullptr);
    pelx_set_gadget_pelx_msg_received_cb(nullptr, nullptr);
    pelx_set_gadget_pelx_msg_replied_cb(nullptr, nullptr);
    EXPECT_EQ(nullptr, pelx_get_gadget_priv_data(nullptr));
    EXPECT_EQ(nullptr, pelx_get_gadget_event_handler(nullptr));
    EXPECT_TRUE(capture_.Lines().empty()) << capture_.Dump();
}

TEST_F(PelxGadgetTest, AppNameIsTheProjectName) {
    EXPECT_STREQ(Quelt::GetProjectName(), pelx_get_app_name());
}

TEST_F(PelxGadgetTest, InitAndExitWithNullTable) {
    EXPECT_EQ(-1, pelx_init_ui_gadget(nullptr, nullptr, UG_OPT_INDICATOR_ENABLE, "x", false));
    EXPECT_EQ(nullptr, pelx_exit_ui_gadget(nullptr));
    EXPECT_EQ(2u, capture_.CountFramework(DLOG_ERROR, "NULL pointer!"));
    ug_module_ops empty{};
    EXPECT_EQ(nullptr, pelx_exit_ui_gadget(&empty));
}

TEST_F(PelxGadgetTest, InitFillsTheTableAndExitReturnsTheRecord) {
    int priv = 0;
    pelx_gadget_activity_ops* gops = pelx_create_gadget_activity_ops(&priv);
    ug_module_ops ops{};
    EXPECT_EQ(0, pelx_init_ui_gadget(&ops, gops, UG_OPT_OVERLAP_ENABLE, "cdirect", false));
    EXPECT_NE(nullptr, pelx_get_gadget_event_handler(gops));
    EXPECT_EQ(pelx_get_gadget_event_handler(gops), ops.priv);
    EXPECT_EQ(&TCGadgetActivity::OnCreate, ops.create);
    EXPECT_EQ(&TCGadgetActivity::OnEvent, ops.event);
    EXPECT_EQ(UG_OPT_OVERLAP_ENABLE, ops.opt);
    EXPECT_EQ(gops, pelx_exit_ui_gadget(&ops));
    EXPECT_NE(nullptr, ops.priv);  // stale, not cleared
    pelx_destory_gadget_activity_ops(gops);
}

TEST_F(PelxGadgetTest, FullCGadgetThroughTheLibrary) {
    RecordingProxy proxy;
    ASSERT_TRUE(proxy.CreateGadget(nullptr, "cgadget", UG_MODE_FULLVIEW, nullptr));
    EXPECT_EQ((Trace{"c:create", "c:start", "proxy:layout:0"}), Traces());
    Traces().clear();
    app_control_h user = Control({{"text", "hi"}});
    EXPECT_EQ(0, ug_send_message(proxy.GetGadgetHandle(), user));
    app_control_destroy(user);
    EXPECT_TRUE(capture_.HasFramework(DLOG_DEBUG, "not supported"));
    EXPECT_TRUE(proxy.Pause());
    EXPECT_TRUE(proxy.Resume());
    EXPECT_EQ(0, ug_send_event(UG_EVENT_ROTATE_LANDSCAPE));
    // A protocol question is the base class's; it never reaches the C gadget.
    TCMessage request;
    request.m_type = "q";
    TCMessage answer = proxy.GetGadgetInformation(request);
    EXPECT_EQ("", answer.m_type);
    EXPECT_TRUE(proxy.Destroy());
    EXPECT_EQ((Trace{"c:message", "c:pause", "c:resume", "c:event:6", "c:destroy", "proxy:end",
                     "c:exit"}),
              Traces());
    EXPECT_FALSE(capture_.HasFramework(DLOG_ERROR, "null ops"));
}

TEST_F(PelxGadgetTest, OnlyCreateSetLogsNullOpsForTheRest) {
    RecordingProxy proxy;
    ASSERT_TRUE(proxy.CreateGadget(nullptr, "cgadgetmin", UG_MODE_FULLVIEW, nullptr));
    EXPECT_EQ(1u, capture_.CountFramework(DLOG_ERROR, "null ops"));  // start
    app_control_h user = Control({{"text", "hi"}});
    EXPECT_EQ(0, ug_send_message(proxy.GetGadgetHandle(), user));
    app_control_destroy(user);
    EXPECT_TRUE(proxy.Pause());
    EXPECT_TRUE(proxy.Resume());
    EXPECT_EQ(0, ug_send_event(UG_EVENT_LOW_MEMORY));
    EXPECT_EQ(5u, capture_.CountFramework(DLOG_ERROR, "null ops"));
    EXPECT_TRUE(proxy.Destroy());
    EXPECT_EQ(6u, capture_.CountFramework(DLOG_ERROR, "null ops"));
    EXPECT_EQ((Trace{"c:create", "proxy:layout:0", "proxy:end", "c:exit"}), Traces());
}

TEST_F(PelxGadgetTest, CreateReturningNullCallsDestroy) {
    RecordingProxy proxy;
    app_control_h service = Control({{"layout", "null"}});
    EXPECT_FALSE(proxy.CreateGadget(nullptr, "cgadget", UG_MODE_FULLVIEW, service));
    app_control_destroy(service);
    EXPECT_EQ((Trace{"c:create", "c:destroy", "c:exit"}), Traces());
}

// Wrapper forwarding of events and in-process messages.
struct Seen {
    int events = 0;
    int clears = 0;
    std::string sender;
    std::string info;
};

bool OnPelxEvent(pelx_event_s* event, void* priv) {
    auto* seen = static_cast<Seen*>(priv);
    seen->events++;
    return pelx_get_event_type(event) == 77;
}

void OnClear(pelx_event_s*, void* priv) {
    static_cast<Seen*>(priv)->clears++;
}

bool OnReceived(const char* sender, pelx_message_s* message, pelx_message_s* reply, const char*,
                void* priv) {
    auto* seen = static_cast<Seen*>(priv);
    seen->sender = sender != nullptr ? sender : "";
    seen->info = pelx_get_message_info(message) != nullptr ? pelx_get_message_info(message) : "";
    pelx_set_message_info(reply, strdup("{\"r\":1}"));
    pelx_set_message_code(reply, 9);
    return true;
}

bool OnReplied(const char* sender, pelx_message_s*, void* priv) {
    static_cast<Seen*>(priv)->sender = sender;
    return true;
}

TEST_F(PelxGadgetTest, WrapperForwardsEventsAndMessages) {
    Seen seen;
    pelx_gadget_activity_ops* gops = pelx_create_gadget_activity_ops(&seen);
    TCWrapperGadgetActivity activity(gops, "wrapped", false);
    Quelt::TCEvent event;
    event.type = 77;
    EXPECT_FALSE(activity.t_OnMEvent(&event));
    activity.t_ClearMEvent(&event);
    EXPECT_FALSE(activity.IfMessageReplied("peer", nullptr));
    EXPECT_EQ(3u, capture_.CountFramework(DLOG_ERROR, "null ops"));

    pelx_set_gadget_pelx_event_cb(gops, OnPelxEvent);
    pelx_set_gadget_clear_pelx_event_cb(gops, OnClear);
    pelx_set_gadget_pelx_msg_received_cb(gops, OnReceived);
    pelx_set_gadget_pelx_msg_replied_cb(gops, OnReplied);
    EXPECT_TRUE(activity.t_OnMEvent(&event));
    activity.t_ClearMEvent(&event);
    EXPECT_EQ(1, seen.events);
    EXPECT_EQ(1, seen.clears);

    TCMessage message;
    message.SetMessage("{\"m\":2}");
    TCMessage reply;
    EXPECT_TRUE(activity.IfMessageReceived("peer", &message, &reply, nullptr));
    EXPECT_EQ("peer", seen.sender);
    EXPECT_EQ("{\"m\":2}", seen.info);
    EXPECT_EQ(9u, reply.m_code);
    EXPECT_EQ("{\"r\":1}", reply.GetMessage());
    EXPECT_TRUE(activity.IfMessageReplied("other", &message));
    EXPECT_EQ("other", seen.sender);
    pelx_destory_gadget_activity_ops(gops);
}

// A message handed over without a reply object still reaches the C
// callback, with an empty reply record; copying that record back has no
// target, so the copy reports its one "NULL msg" line and nothing else.
TEST_F(PelxGadgetTest, NullReplyIsCopiedBackAndReportedOnce) {
    Seen seen;
    pelx_gadget_activity_ops* gops = pelx_create_gadget_activity_ops(&seen);
    pelx_set_gadget_pelx_msg_received_cb(gops, OnReceived);
    TCWrapperGadgetActivity activity(gops, "wrapped", false);

    TCMessage message;
    message.SetMessage("{\"m\":3}");
    EXPECT_TRUE(activity.IfMessageReceived("peer", &message, nullptr, nullptr));
    EXPECT_EQ("peer", seen.sender);
    EXPECT_EQ("{\"m\":3}", seen.info);
    EXPECT_EQ(1u, capture_.CountFramework(DLOG_ERROR, "NULL msg"));
    EXPECT_EQ(0u, capture_.CountFramework(DLOG_ERROR, "null ops"));
    pelx_destory_gadget_activity_ops(gops);
}

}  // namespace
