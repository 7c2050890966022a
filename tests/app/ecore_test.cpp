// SPDX-License-Identifier: Apache-2.0
// An Ecore service (a TCApplication subclass of type ECORE_SERVICE): AppMain
// runs it on the Ecore loop until ecore_main_loop_quit; a refused creation
// still terminates.
#include "AppTestSupport.h"

namespace {

using harvo_app_test::EcoreService;
using harvo_app_test::kUserEvent;
using harvo_app_test::RecordingApp;
using Quelt::TCServerTestPeer;

using Service = RecordingApp<EcoreService>;

char* kArgv[] = {const_cast<char*>("ecore_test"), nullptr};

class EcoreTest : public ::testing::Test {
protected:
    const std::thread::id main_ = std::this_thread::get_id();
};

TEST_F(EcoreTest, RunsCreateStartEventsThenTerminateUntilTheEcoreLoopQuits) {
    harvo_test::LogCapture capture;
    Service app("ecore.order");
    int initCountDuringRun = 0;
    app.onStart = [&] { return app.Post(kUserEvent); };
    app.onEvent = [&](const Quelt::TCEvent*) {
        // ecore_init is held while the service runs.
        initCountDuringRun = ecore_init() - 1;
        ecore_shutdown();
        ecore_main_loop_quit();
    };
    harvo_app_test::LoopWatchdog watchdog(&app);

    EXPECT_EQ(0, Quelt::AppMain(1, kArgv, &app));

    EXPECT_EQ((std::vector<std::string>{"create", "start", "event:100", "terminate"}), app.Hooks());
    EXPECT_TRUE(app.AllOn(main_));
    EXPECT_EQ(1, initCountDuringRun);
    EXPECT_EQ(1, ecore_init());
    EXPECT_EQ(0, ecore_shutdown());
    EXPECT_TRUE(harvo_app_test::HasLineFrom(capture, DLOG_DEBUG, "Main Begin", "AppMain"));
    EXPECT_FALSE(capture.HasFramework(DLOG_DEBUG, "Service Begin"));
    EXPECT_FALSE(capture.HasFramework(DLOG_DEBUG, "Application Begin"));
    EXPECT_TRUE(harvo_app_test::HasLineFrom(capture, DLOG_INFO, "", "OnCreate"));
    EXPECT_TRUE(harvo_app_test::HasLineFrom(capture, DLOG_INFO, "", "OnTerminate"));
    EXPECT_EQ(0u, TCServerTestPeer::Registry().count("ecore.order"));
    EXPECT_EQ(nullptr, app.GetMainLoop());
}

TEST_F(EcoreTest, RefusedCreateStillTerminatesAndFails) {
    harvo_test::LogCapture capture;
    Service app("ecore.refused");
    app.onCreate = [] { return false; };

    EXPECT_EQ(-1, Quelt::AppMain(1, kArgv, &app));

    EXPECT_EQ((std::vector<std::string>{"create", "terminate"}), app.Hooks());
    EXPECT_TRUE(harvo_app_test::HasLineFrom(capture, DLOG_ERROR, "fail!", "OnCreate"));
    EXPECT_TRUE(harvo_app_test::HasLineFrom(capture, DLOG_ERROR, "Failed to create the service",
                                            "AppMain"));
    EXPECT_EQ(0u, harvo_bus_test::CountPrefix(capture, DLOG_INFO, "m_CreateDBus type"));
    EXPECT_EQ(1, ecore_init());
    EXPECT_EQ(0, ecore_shutdown());
}

TEST_F(EcoreTest, AQuitFromAnotherThreadEndsTheService) {
    Service app("ecore.thread");
    std::thread other;
    app.onStart = [&] {
        other = std::thread([] { ecore_main_loop_quit(); });
        return true;
    };
    harvo_app_test::LoopWatchdog watchdog(&app);

    EXPECT_EQ(0, Quelt::AppMain(1, kArgv, &app));
    other.join();

    EXPECT_EQ((std::vector<std::string>{"create", "start", "terminate"}), app.Hooks());
}

}  // namespace
