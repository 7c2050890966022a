// SPDX-License-Identifier: Apache-2.0
// A UI application: AppMain runs it through the platform's UI application
// loop (the host's, here): create, the launch request, pause/resume and the
// language change raised by the platform, terminate.
#include "AppTestSupport.h"

#include <signal.h>
#include <unistd.h>

namespace {

using harvo_app_test::kUserEvent;
using harvo_app_test::RecordingApp;
using Quelt::TCEFLApplication;
using Quelt::TCServerTestPeer;

using UIApp = RecordingApp<TCEFLApplication>;

char* kArgv[] = {const_cast<char*>("efl_test"), nullptr};

class EFLTest : public ::testing::Test {
protected:
    const std::thread::id main_ = std::this_thread::get_id();
};

TEST_F(EFLTest, RunsCreateServiceRaisedHooksThenTerminateOnTheMainThread) {
    harvo_test::LogCapture capture;
    UIApp app("efl.order");
    std::thread platform;
    app.onStart = [&] { return app.Post(kUserEvent); };
    // Once the queue serves events, another thread plays the platform.
    app.onEvent = [&](const Quelt::TCEvent*) {
        platform = std::thread([] {
            EXPECT_EQ(APP_ERROR_NONE, ui_app_host_raise_pause());
            EXPECT_EQ(APP_ERROR_NONE, ui_app_host_raise_resume());
            EXPECT_EQ(APP_ERROR_NONE, ui_app_host_raise_language_changed());
        });
    };
    app.onLangChanged = [] { ui_app_exit(); };
    harvo_app_test::LoopWatchdog watchdog(&app);

    EXPECT_EQ(0, Quelt::AppMain(1, kArgv, &app));
    platform.join();

    EXPECT_EQ((std::vector<std::string>{"create", "start", "service", "event:100", "pause",
                                        "resume", "lang", "terminate"}),
              app.Hooks());
    EXPECT_TRUE(app.AllOn(main_));
    EXPECT_TRUE(harvo_app_test::HasLineFrom(capture, DLOG_DEBUG, "Main Begin", "AppMain"));
    EXPECT_TRUE(harvo_app_test::HasLineFrom(capture, DLOG_DEBUG, "Application Begin", "AppMain"));
    EXPECT_TRUE(harvo_app_test::HasLineFrom(capture, DLOG_INFO, "", "OnCreate"));
    EXPECT_TRUE(harvo_app_test::HasLineFrom(capture, DLOG_INFO, "", "OnService"));
    EXPECT_TRUE(harvo_app_test::HasLineFrom(capture, DLOG_INFO, "", "OnTerminate"));
    EXPECT_FALSE(capture.HasFramework(DLOG_DEBUG, "Service Begin"));
    EXPECT_EQ(0u, TCServerTestPeer::Registry().count("efl.order"));
    // A UI application has no stored loop of its own.
    EXPECT_EQ(nullptr, app.GetMainLoop());
    // Ecore was held for the run and given back.
    EXPECT_EQ(1, ecore_init());
    EXPECT_EQ(0, ecore_shutdown());
}

TEST_F(EFLTest, PauseAndResumeReachTheirHooksAsOftenAsRaised) {
    UIApp app("efl.pauses");
    app.onService = [] {
        for (int i = 0; i < 3; ++i) {
            ui_app_host_raise_pause();
            ui_app_host_raise_resume();
        }
        ui_app_exit();
    };
    harvo_app_test::LoopWatchdog watchdog(&app);

    EXPECT_EQ(0, Quelt::AppMain(1, kArgv, &app));

    EXPECT_EQ((std::vector<std::string>{"create", "start", "service", "pause", "resume", "pause",
                                        "resume", "pause", "resume", "terminate"}),
              app.Hooks());
}

TEST_F(EFLTest, OtherPlatformEventsDoNotReachTheLanguageHook) {
    UIApp app("efl.events");
    app.onService = [] {
        ui_app_host_raise_event(APP_EVENT_LOW_MEMORY);
        ui_app_host_raise_event(APP_EVENT_LOW_BATTERY);
        ui_app_host_raise_event(APP_EVENT_REGION_FORMAT_CHANGED);
        ui_app_host_raise_event(APP_EVENT_LANGUAGE_CHANGED);
        ui_app_exit();
    };
    harvo_app_test::LoopWatchdog watchdog(&app);

    EXPECT_EQ(0, Quelt::AppMain(1, kArgv, &app));

    EXPECT_EQ((std::vector<std::string>{"create", "start", "service", "lang", "terminate"}),
              app.Hooks());
}

TEST_F(EFLTest, RefusedCreateIsALoopErrorWithoutTerminate) {
    harvo_test::LogCapture capture;
    UIApp app("efl.refused");
    app.onCreate = [] { return false; };

    EXPECT_EQ(-1, Quelt::AppMain(1, kArgv, &app));

    // The platform does not terminate an application that failed to start.
    EXPECT_EQ((std::vector<std::string>{"create"}), app.Hooks());
    EXPECT_TRUE(harvo_app_test::HasLineFrom(capture, DLOG_ERROR, "fail!", "OnCreate"));
    EXPECT_TRUE(
        harvo_app_test::HasLineFrom(capture, DLOG_ERROR, "app_efl_main return err!", "AppMain"));
    EXPECT_EQ(0u, harvo_bus_test::CountPrefix(capture, DLOG_INFO, "m_CreateDBus type"));
    EXPECT_LT(harvo_bus_test::IndexOf(capture, "fail!"),
              harvo_bus_test::IndexOf(capture, "app_efl_main return err!"));
    EXPECT_EQ(1, ecore_init());  // given back on the error path too
    EXPECT_EQ(0, ecore_shutdown());
}

// A second application in the process: its AppMain cannot start another
// UI application loop, and its bus server could not be created either.
TEST_F(EFLTest, ASecondApplicationInTheProcessIsRefused) {
    harvo_test::LogCapture capture;
    // Outlives both runs: g_pAppBase ends up pointing at it, and every log
    // line reads its name from there.
    UIApp second("efl.second");
    UIApp app("efl.first");
    int secondResult = 0;
    bool secondCreated = true;
    app.onService = [&] {
        secondCreated = Quelt::TCApplication::OnCreate(&second);
        secondResult = Quelt::AppMain(1, kArgv, &second);
        ui_app_exit();
    };
    harvo_app_test::LoopWatchdog watchdog(&app);

    EXPECT_EQ(0, Quelt::AppMain(1, kArgv, &app));

    EXPECT_FALSE(secondCreated);
    EXPECT_TRUE(capture.HasFramework(
        DLOG_ERROR, "only one eflapplication/daemon service can be created in one process!"));
    EXPECT_TRUE(capture.HasFramework(DLOG_ERROR, "Create DBus server fail!"));
    EXPECT_EQ(-1, secondResult);
    EXPECT_TRUE(capture.HasFramework(DLOG_ERROR, "app_efl_main return err!"));
    // The first one ran to its end; g_pAppBase is whatever AppMain saw last:
    // nothing ever clears or restores it.
    EXPECT_EQ((std::vector<std::string>{"create", "start", "service", "terminate"}), app.Hooks());
    EXPECT_EQ((std::vector<std::string>{"create"}), second.Hooks());
    EXPECT_EQ(static_cast<Quelt::TCApplication*>(&second), g_pAppBase);
    EXPECT_STREQ("efl.second", Quelt::GetProjectName());
}

class EFLSignalTest : public EFLTest, public ::testing::WithParamInterface<int> {};

// SIGINT and SIGTERM end the UI application through its terminate path:
// the hook runs and the bus server is closed.
TEST_P(EFLSignalTest, EndsThroughTerminate) {
    harvo_test::LogCapture capture;
    UIApp app("efl.signal");
    static int signum;
    signum = GetParam();
    bool served = false;
    app.onService = [&] {
        served = TCServerTestPeer::Registry().count("efl.signal") == 1;
        g_idle_add(
            [](gpointer) -> gboolean {
                kill(getpid(), signum);
                return G_SOURCE_REMOVE;
            },
            nullptr);
    };
    harvo_app_test::LoopWatchdog watchdog(&app);

    EXPECT_EQ(0, Quelt::AppMain(1, kArgv, &app));

    EXPECT_TRUE(served);
    EXPECT_EQ((std::vector<std::string>{"create", "start", "service", "terminate"}), app.Hooks());
    EXPECT_EQ(0u, TCServerTestPeer::Registry().count("efl.signal"));
    EXPECT_TRUE(capture.HasFramework(DLOG_DEBUG, "close connection and all close motion finished"));
}

INSTANTIATE_TEST_SUITE_P(IntAndTerm, EFLSignalTest, ::testing::Values(SIGINT, SIGTERM));

}  // namespace
