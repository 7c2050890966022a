// SPDX-License-Identifier: Apache-2.0
// Application endpoints made and run through the plain-function interface
// alone (pelx_create_app_endpoint, its callbacks and its loop), talking to
// a framework endpoint in another process on the private bus.

#include "BusTestSupport.h"
#include "pelx.h"

namespace {

using namespace harvo_bus_test;
using harvo_test::LogCapture;

std::string Text(const char* text) {
    return text != nullptr ? text : "";
}

// What the callbacks saw, and how the message callback answers.
struct Calls {
    std::mutex mutex;
    std::vector<std::string> messages;  // "from|type|code|info|signal"
    std::vector<std::string> replies;   // "from|type|code|info"
    GThread* thread = nullptr;
    bool answer = true;
    pelx_app_endpoint_s* quitFrom = nullptr;     // quit this loop from the callback
    pelx_app_endpoint_s* destroyFrom = nullptr;  // try to destroy it from the callback

    size_t MessageCount() {
        std::lock_guard<std::mutex> guard(mutex);
        return messages.size();
    }
    size_t ReplyCount() {
        std::lock_guard<std::mutex> guard(mutex);
        return replies.size();
    }
};

bool OnMessage(const char* from, pelx_message_s* message, pelx_message_s* reply,
               const char* signalName, void* data) {
    Calls* calls = static_cast<Calls*>(data);
    {
        std::lock_guard<std::mutex> guard(calls->mutex);
        calls->messages.push_back(Text(from) + "|" + Text(pelx_get_message_type(message)) + "|" +
                                  std::to_string(pelx_get_message_code(message)) + "|" +
                                  Text(pelx_get_message_info(message)) + "|" + Text(signalName));
        calls->thread = g_thread_self();
    }
    pelx_set_message_info(reply, strdup("{\"answered\":true}"));
    pelx_set_message_type(reply, strdup("re"));
    pelx_set_message_code(reply, pelx_get_message_code(message) + 100);
    if (calls->quitFrom != nullptr)
        pelx_quit_loop(calls->quitFrom);
    if (calls->destroyFrom != nullptr)
        pelx_destroy_app_endpoint(calls->destroyFrom);
    return calls->answer;
}

void OnReply(const char* from, pelx_message_s* reply, void* data) {
    Calls* calls = static_cast<Calls*>(data);
    std::lock_guard<std::mutex> guard(calls->mutex);
    calls->replies.push_back(Text(from) + "|" + Text(pelx_get_message_type(reply)) + "|" +
                             std::to_string(pelx_get_message_code(reply)) + "|" +
                             Text(pelx_get_message_info(reply)));
}

// Destroys the endpoint at the end of a scope.
struct Destroyer {
    pelx_app_endpoint_s* endpoint;
    ~Destroyer() { pelx_destroy_app_endpoint(endpoint); }
};

TEST(PelxAppEndpoint, ANullOrEmptyNameIsRefused) {
    LogCapture capture;
    EXPECT_EQ(nullptr, pelx_create_app_endpoint(nullptr));
    EXPECT_EQ(nullptr, pelx_create_app_endpoint(""));
    EXPECT_EQ(2u, capture.CountFramework(DLOG_WARN, "name is null"));
}

TEST(PelxAppEndpoint, NullEndpointsAreRefusedWithALine) {
    LogCapture capture;
    EXPECT_FALSE(pelx_set_app_message_cb(nullptr, OnMessage, nullptr));
    EXPECT_FALSE(pelx_set_app_reply_cb(nullptr, OnReply, nullptr));
    EXPECT_EQ(-1, pelx_run_loop(nullptr));
    pelx_iterate_loop(nullptr, 0);
    pelx_quit_loop(nullptr);
    pelx_destroy_app_endpoint(nullptr);
    EXPECT_EQ(5u, capture.CountFramework(DLOG_WARN, "endpoint is null"));
}

TEST(PelxAppEndpoint, AnswersAMessageFromAnotherProcessThroughItsCallback) {
    Calls calls;
    pelx_app_endpoint_s* app = pelx_create_app_endpoint("capp1");
    ASSERT_NE(nullptr, app);
    Destroyer destroyer{app};
    EXPECT_STREQ("capp1", pelx_get_app_name());
    ASSERT_TRUE(pelx_set_app_message_cb(app, OnMessage, &calls));

    PeerProcess peer({"serve", "cpeer1"});
    ASSERT_TRUE(StartServingPeer(peer));
    ASSERT_TRUE(peer.WriteLine("send capp1 hello 3 {\"a\":1}"));
    // The endpoint's context is this thread's default one: pumped meanwhile.
    EXPECT_EQ("SENT 1 re 103 {\"answered\":true}", peer.WaitLine("SENT", kLimit, true));
    ASSERT_EQ(1u, calls.MessageCount());
    EXPECT_EQ("cpeer1|hello|3|{\"a\":1}|", calls.messages[0]);
    EXPECT_EQ(g_thread_self(), calls.thread);
}

TEST(PelxAppEndpoint, ACallbackThatReturnsFalseFailsTheSendersCall) {
    Calls calls;
    calls.answer = false;
    pelx_app_endpoint_s* app = pelx_create_app_endpoint("capp2");
    ASSERT_NE(nullptr, app);
    Destroyer destroyer{app};
    ASSERT_TRUE(pelx_set_app_message_cb(app, OnMessage, &calls));
    PeerProcess peer({"serve", "cpeer2"});
    ASSERT_TRUE(StartServingPeer(peer));
    ASSERT_TRUE(peer.WriteLine("send capp2 hello 3 {}"));
    EXPECT_EQ("SENT 0 re 103 {\"dbus_result\":\"fail\",\"errmsg\":\"error handling\"}",
              peer.WaitLine("SENT", kLimit, true));
}

TEST(PelxAppEndpoint, WithoutCallbackAMessageGetsAnEmptyReplyAndAWarning) {
    pelx_app_endpoint_s* app = pelx_create_app_endpoint("capp3");
    ASSERT_NE(nullptr, app);
    Destroyer destroyer{app};
    PeerProcess peer({"serve", "cpeer3"});
    ASSERT_TRUE(StartServingPeer(peer));
    LogCapture capture;
    ASSERT_TRUE(peer.WriteLine("send capp3 hello 3 {}"));
    EXPECT_EQ("SENT 1  0 ", peer.WaitLine("SENT", kLimit, true));
    EXPECT_EQ(1u, capture.CountFramework(DLOG_WARN,
                                         "message from cpeer3 to capp3 answered empty: no "
                                         "message callback (pelx_set_app_message_cb)"));
}

TEST(PelxAppEndpoint, SendsWithTheExistingFunctionsAndGetsRepliesThroughItsCallback) {
    Calls calls;
    pelx_app_endpoint_s* app = pelx_create_app_endpoint("capp4");
    ASSERT_NE(nullptr, app);
    Destroyer destroyer{app};
    ASSERT_TRUE(pelx_set_app_reply_cb(app, OnReply, &calls));
    PeerProcess peer({"serve", "cpeer4"});
    ASSERT_TRUE(StartServingPeer(peer));

    pelx_message_s* message = pelx_create_message();
    pelx_set_message_type(message, strdup("echo"));
    pelx_set_message_info(message, strdup("{\"n\":4}"));
    pelx_set_message_code(message, 4);
    pelx_message_s* reply = pelx_create_message();
    // Synchronous: the reply record is filled.
    ASSERT_TRUE(pelx_send_message_sync("capp4", "cpeer4", message, reply));
    EXPECT_STREQ("re:echo", pelx_get_message_type(reply));
    EXPECT_EQ(5u, pelx_get_message_code(reply));
    // Asynchronous with a reply record: the reply callback gets it.
    ASSERT_TRUE(pelx_send_message("capp4", "cpeer4", message, reply));
    for (int i = 0; i < 2000 && calls.ReplyCount() == 0; ++i)
        pelx_iterate_loop(app, 10);
    ASSERT_EQ(1u, calls.ReplyCount());
    EXPECT_EQ("cpeer4|re:echo|5|{\"n\":4}", calls.replies[0]);
    pelx_destroy_message(reply);
    pelx_destroy_message(message);
}

TEST(PelxAppEndpoint, OnlyOnePerProcess) {
    pelx_app_endpoint_s* app = pelx_create_app_endpoint("capp5");
    ASSERT_NE(nullptr, app);
    Destroyer destroyer{app};
    LogCapture capture;
    EXPECT_EQ(nullptr, pelx_create_app_endpoint("capp5b"));
    EXPECT_EQ(1u, capture.CountFramework(
                      DLOG_ERROR,
                      "only one eflapplication/daemon service can be created in one process!"));
    EXPECT_EQ(1u, capture.CountFramework(DLOG_ERROR, "application endpoint capp5b not created"));
    EXPECT_STREQ("capp5", pelx_get_app_name());
}

TEST(PelxAppEndpoint, RunsUntilACallbackQuitsTheLoop) {
    Calls calls;
    pelx_app_endpoint_s* app = pelx_create_app_endpoint("capp6");
    ASSERT_NE(nullptr, app);
    Destroyer destroyer{app};
    calls.quitFrom = app;
    ASSERT_TRUE(pelx_set_app_message_cb(app, OnMessage, &calls));
    PeerProcess peer({"serve", "cpeer6"});
    ASSERT_TRUE(StartServingPeer(peer));
    ASSERT_TRUE(peer.WriteLine("send capp6 stop 1 {}"));
    EXPECT_EQ(0, pelx_run_loop(app));
    EXPECT_EQ(1u, calls.MessageCount());
    EXPECT_EQ("SENT 1 re 101 {\"answered\":true}", peer.WaitLine("SENT", kLimit, true));
}

TEST(PelxAppEndpoint, AQuitFromAnotherThreadOrBeforeTheRunEndsIt) {
    pelx_app_endpoint_s* app = pelx_create_app_endpoint("capp7");
    ASSERT_NE(nullptr, app);
    Destroyer destroyer{app};
    // Before the run: the next run ends at once.
    pelx_quit_loop(app);
    EXPECT_EQ(0, pelx_run_loop(app));
    // From another thread, while it runs (or before it starts: the same).
    std::thread quitter([app] { pelx_quit_loop(app); });
    EXPECT_EQ(0, pelx_run_loop(app));
    quitter.join();
}

TEST(PelxAppEndpoint, DestroyFromItsOwnCallbackIsRefused) {
    Calls calls;
    pelx_app_endpoint_s* app = pelx_create_app_endpoint("capp8");
    ASSERT_NE(nullptr, app);
    Destroyer destroyer{app};
    calls.destroyFrom = app;
    ASSERT_TRUE(pelx_set_app_message_cb(app, OnMessage, &calls));
    PeerProcess peer({"serve", "cpeer8"});
    ASSERT_TRUE(StartServingPeer(peer));
    LogCapture capture;
    ASSERT_TRUE(peer.WriteLine("send capp8 hello 1 {}"));
    EXPECT_EQ("SENT 1 re 101 {\"answered\":true}", peer.WaitLine("SENT", kLimit, true));
    EXPECT_EQ(1u, capture.CountFramework(DLOG_ERROR,
                                         "application endpoint capp8 not destroyed: called from "
                                         "its own callback (quit the loop there, and destroy it "
                                         "after pelx_run_loop returned)"));
}

TEST(PelxAppEndpoint, DestroyGivesUpTheNameAndTheApplication) {
    pelx_app_endpoint_s* app = pelx_create_app_endpoint("capp9");
    ASSERT_NE(nullptr, app);
    RecordingServer watcher("cwatcher9", Quelt::SERVER_TYPE_PROXY);
    ASSERT_TRUE(watcher.CreateDBusProxy());
    CloseAtExit closer(watcher);
    EXPECT_TRUE(PumpUntil([&] { return watcher.IsServiceAvailable("capp9"); }));
    pelx_destroy_app_endpoint(app);
    EXPECT_FALSE(watcher.IsServiceAvailable("capp9"));
    EXPECT_STREQ("nil", pelx_get_app_name());
    // And a new one may be made.
    pelx_app_endpoint_s* again = pelx_create_app_endpoint("capp9");
    ASSERT_NE(nullptr, again);
    pelx_destroy_app_endpoint(again);
}

TEST(PelxAppEndpoint, AnEndpointMadeOnAWorkerThreadIsServedThere) {
    Calls calls;
    std::atomic<bool> ready{false}, done{false};
    GThread* worker = nullptr;
    std::thread thread([&] {
        worker = g_thread_self();
        GMainContext* context = g_main_context_new();
        g_main_context_push_thread_default(context);
        pelx_app_endpoint_s* app = pelx_create_app_endpoint("capp10");
        if (app != nullptr) {
            pelx_set_app_message_cb(app, OnMessage, &calls);
            ready = true;
            while (!done)
                pelx_iterate_loop(app, 20);
            pelx_destroy_app_endpoint(app);
        }
        g_main_context_pop_thread_default(context);
        g_main_context_unref(context);
    });
    PeerProcess peer({"serve", "cpeer10"});
    ASSERT_TRUE(StartServingPeer(peer));
    ASSERT_TRUE(PumpUntil([&] { return ready.load(); }));
    ASSERT_TRUE(peer.WriteLine("send capp10 hello 2 {}"));
    EXPECT_EQ("SENT 1 re 102 {\"answered\":true}", peer.WaitLine("SENT"));
    done = true;
    thread.join();
    ASSERT_EQ(1u, calls.MessageCount());
    EXPECT_EQ(worker, calls.thread);
}

}  // namespace
