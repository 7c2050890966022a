// SPDX-License-Identifier: Apache-2.0
// While AppMain's loop runs, each application type serves its event queue,
// bus messages from another process, the signals it subscribed to and the
// replies to its own asynchronous sends, all on the main thread.
#include "AppTestSupport.h"

namespace {

using harvo_app_test::EcoreService;
using harvo_app_test::kUserEvent;
using harvo_app_test::RecordingApp;
using Quelt::TCApplication;
using Quelt::TCEvent;
using Quelt::TCMessage;

char* kArgv[] = {const_cast<char*>("serving_test"), nullptr};
const char kPeer[] = "serving.peer";
const char kApp[] = "serving.app";

// Runs one application of |Base|'s type through the whole exchange:
//  1. the peer (another process) sends it a synchronous bus message;
//  2. the peer emits a signal the application subscribed to;
//  3. the signal callback posts an event to the application's queue;
//  4. the event handler sends the peer an asynchronous message;
//  5. the reply's hook ends the loop.
template <class Base>
void RunExchange() {
    if (Base(kApp).GetAppType() == TCApplication::DAEMON_SERVICE)
        harvo_app_test::LendDefaultContextReference();  // the daemon's extra release
    const std::thread::id main = std::this_thread::get_id();
    harvo_bus_test::PeerProcess peer({"serve", kPeer});
    ASSERT_EQ("READY", peer.WaitLine("READY"));

    RecordingApp<Base> app(kApp);
    std::string sent;
    std::string emitted;
    std::thread driver;
    app.onStart = [&] {
        bool subscribed = app.SubscribeSignal(
            kPeer, "tick",
            [](const char* from, const char* signalName, TCMessage* message, void* data) {
                auto* self = static_cast<RecordingApp<Base>*>(data);
                self->Record(std::string("signal:") + from + ":" + signalName + ":" +
                             message->GetString());
                self->Post(kUserEvent);
            },
            &app);
        harvo_bus_test::SettleSubscriptions(app);
        // Plays the other process's part while the loop runs.
        driver = std::thread([&] {
            peer.WriteLine(std::string("send ") + kApp + " hello 41 {\"n\":1}");
            sent = peer.WaitLine("SENT");
            peer.WriteLine("emit tick {\"t\":2}");
            emitted = peer.WaitLine("EMITTED");
        });
        return subscribed;
    };
    app.onMessage = [](const TCMessage* message, TCMessage* reply) {
        reply->m_type = "hello-back";
        reply->m_code = message->m_code + 1;
        reply->SetMessage("{\"ok\":true}");
    };
    app.onEvent = [&](const TCEvent*) {
        TCMessage ask = harvo_bus_test::MakeMessage("echo", 7, "{\"q\":3}");
        TCMessage reply;
        EXPECT_TRUE(app.SendMessage(kPeer, &ask, false, &reply, -1));
    };
    app.onReplied = [&](const TCMessage*) { harvo_app_test::QuitLoopOf(&app); };
    harvo_app_test::LoopWatchdog watchdog(&app);

    EXPECT_EQ(0, Quelt::AppMain(1, kArgv, &app));
    driver.join();

    EXPECT_EQ("SENT 1 hello-back 42 {\"ok\":true}", sent);
    EXPECT_EQ("EMITTED 1", emitted);
    const std::vector<std::string> hooks = app.Hooks();
    std::vector<std::string> served;
    for (const auto& hook : hooks)
        if (hook != "service")
            served.push_back(hook);
    EXPECT_EQ(
        (std::vector<std::string>{"create", "start", std::string("message:") + kPeer + ":hello",
                                  std::string("signal:") + kPeer + ":tick:{\"t\":2}", "event:100",
                                  std::string("replied:") + kPeer + ":re:echo", "terminate"}),
        served);
    EXPECT_TRUE(app.AllOn(main));
}

TEST(ServingTest, TheUIApplicationServesWhileItsLoopRuns) {
    RunExchange<Quelt::TCEFLApplication>();
}

TEST(ServingTest, TheEcoreServiceServesWhileItsLoopRuns) {
    RunExchange<EcoreService>();
}

TEST(ServingTest, TheDaemonServiceServesWhileItsLoopRuns) {
    RunExchange<Quelt::TCDaemonService>();
}

}  // namespace
