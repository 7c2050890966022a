// SPDX-License-Identifier: Apache-2.0
// An application whose own hooks throw: the exception stops at the
// framework's callback, one error line names it, and the lifecycle goes on
// (a create that threw fails like a refused one; a terminate that threw
// still closes the queue and the endpoint).
#include "AppTestSupport.h"

#include <stdexcept>

namespace {

using harvo_app_test::kUserEvent;
using harvo_app_test::RecordingApp;
using Quelt::TCDaemonService;
using Quelt::TCServerTestPeer;

using Daemon = RecordingApp<TCDaemonService>;

char* kArgv[] = {const_cast<char*>("throwing_app_test"), nullptr};

class ThrowingApp : public ::testing::Test {
protected:
    // The daemon's AppMain releases one reference of the default context
    // that it never took; the rest of this process still uses the context.
    void SetUp() override { harvo_app_test::LendDefaultContextReference(); }
};

TEST_F(ThrowingApp, ACreateThatThrowsFailsLikeARefusedOne) {
    harvo_test::LogCapture capture;
    Daemon app("daemon.throwing");
    app.onCreate = []() -> bool { throw std::runtime_error("no config"); };

    EXPECT_EQ(-1, Quelt::AppMain(1, kArgv, &app));

    EXPECT_EQ((std::vector<std::string>{"create", "terminate"}), app.Hooks());
    EXPECT_TRUE(harvo_app_test::HasLineFrom(capture, DLOG_ERROR,
                                            "exception from t_OnCreate: no config", "OnCreate"));
    EXPECT_TRUE(harvo_app_test::HasLineFrom(capture, DLOG_ERROR, "fail!", "OnCreate"));
    EXPECT_EQ(0u, TCServerTestPeer::Registry().count("daemon.throwing"));
}

TEST_F(ThrowingApp, AnEventHandlerAndATerminateThatThrowLeaveTheLifecycleIntact) {
    harvo_test::LogCapture capture;
    Daemon app("daemon.throwing");
    int events = 0;
    app.onStart = [&] { return app.Post(kUserEvent) && app.Post(kUserEvent); };
    app.onEvent = [&](const Quelt::TCEvent*) {
        if (++events == 1)
            throw std::runtime_error("bad event");
        g_main_loop_quit(app.GetMainLoop());
    };
    app.onTerminate = [] { throw std::logic_error("bad terminate"); };
    harvo_app_test::LoopWatchdog watchdog(&app);

    EXPECT_EQ(0, Quelt::AppMain(1, kArgv, &app));

    EXPECT_EQ((std::vector<std::string>{"create", "start", "event:100", "event:100", "terminate"}),
              app.Hooks());
    EXPECT_TRUE(harvo_app_test::HasLineFrom(capture, DLOG_ERROR,
                                            "exception from OnEvent: bad event", "m_InterIOWatch"));
    EXPECT_TRUE(harvo_app_test::HasLineFrom(
        capture, DLOG_ERROR, "exception from t_OnTerminate: bad terminate", "OnTerminate"));
    // The terminate path still closed the endpoint.
    EXPECT_EQ(0u, TCServerTestPeer::Registry().count("daemon.throwing"));
}

}  // namespace
