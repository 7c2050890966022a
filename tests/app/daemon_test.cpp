// SPDX-License-Identifier: Apache-2.0
// A daemon service: AppMain runs it on its own GLib main loop over the
// default context, stored in the server part, until a handler quits that
// loop; creation failures still run OnTerminate.
#include "AppTestSupport.h"

#include "TCAlarm.h"

namespace {

using harvo_app_test::kUserEvent;
using harvo_app_test::RecordingApp;
using Quelt::TCDaemonService;
using Quelt::TCServer;
using Quelt::TCServerTestPeer;

using Daemon = RecordingApp<TCDaemonService>;

char* kArgv[] = {const_cast<char*>("daemon_test"), nullptr};

class DaemonTest : public ::testing::Test {
protected:
    // The daemon's AppMain releases one reference of the default context
    // that it never took; the rest of this process still uses the context.
    void SetUp() override { harvo_app_test::LendDefaultContextReference(); }

    const std::thread::id main_ = std::this_thread::get_id();
};

TEST_F(DaemonTest, RunsCreateStartEventsThenTerminateAndEndsWhenItsStoredLoopQuits) {
    harvo_test::LogCapture capture;
    Daemon app("daemon.order");
    bool loopWasRunning = false;
    bool nameOwned = false;
    app.onStart = [&] { return app.Post(kUserEvent); };
    app.onEvent = [&](const Quelt::TCEvent*) {
        // The loop AppMain stored is the one running this handler.
        loopWasRunning = app.GetMainLoop() != nullptr && g_main_loop_is_running(app.GetMainLoop());
        nameOwned = app.IsServiceAvailable("daemon.order");
        g_main_loop_quit(app.GetMainLoop());
    };
    harvo_app_test::LoopWatchdog watchdog(&app);

    EXPECT_EQ(0, Quelt::AppMain(1, kArgv, &app));

    EXPECT_EQ((std::vector<std::string>{"create", "start", "event:100", "terminate"}), app.Hooks());
    EXPECT_TRUE(app.AllOn(main_));
    EXPECT_TRUE(loopWasRunning);
    EXPECT_TRUE(nameOwned);
    EXPECT_TRUE(harvo_app_test::HasLineFrom(capture, DLOG_DEBUG, "Main Begin", "AppMain"));
    EXPECT_TRUE(harvo_app_test::HasLineFrom(capture, DLOG_DEBUG, "Service Begin", "AppMain"));
    EXPECT_TRUE(harvo_app_test::HasLineFrom(capture, DLOG_INFO, "", "OnCreate"));
    EXPECT_TRUE(harvo_app_test::HasLineFrom(capture, DLOG_INFO, "", "OnTerminate"));
    EXPECT_FALSE(capture.HasFramework(DLOG_DEBUG, "Application Begin"));
    EXPECT_EQ(0u, capture.CountFramework(DLOG_ERROR, "Failed to create the service"));
    // OnTerminate closed the server: it left the process's registry.
    EXPECT_EQ(0u, TCServerTestPeer::Registry().count("daemon.order"));
    // AppMain leaves the stored loop pointer and g_pAppBase as they are.
    EXPECT_NE(nullptr, app.GetMainLoop());
    EXPECT_EQ(&app, g_pAppBase);
}

bool QuitFromAlarm(void* data) {
    auto* app = static_cast<Daemon*>(data);
    app->Record("alarm");
    g_main_loop_quit(app->GetMainLoop());
    return true;
}

TEST_F(DaemonTest, AnAlarmOnTheApplicationsQueueCanEndTheLoop) {
    Daemon app("daemon.alarm");
    Quelt::TCAlarm alarm;
    app.onStart = [&] {
        return alarm.Create(&app, 10, 1) && alarm.SetAlarmCallback(QuitFromAlarm, &app);
    };
    app.onTerminate = [&] { alarm.Destroy(); };
    harvo_app_test::LoopWatchdog watchdog(&app);

    EXPECT_EQ(0, Quelt::AppMain(1, kArgv, &app));

    EXPECT_EQ((std::vector<std::string>{"create", "start", "alarm", "terminate"}), app.Hooks());
    EXPECT_TRUE(app.AllOn(main_));
}

TEST_F(DaemonTest, RefusedCreateFailsBeforeAnyBusServerAndStillTerminates) {
    harvo_test::LogCapture capture;
    Daemon app("daemon.refused");
    app.onCreate = [] { return false; };

    EXPECT_EQ(-1, Quelt::AppMain(1, kArgv, &app));

    EXPECT_EQ((std::vector<std::string>{"create", "terminate"}), app.Hooks());
    EXPECT_TRUE(harvo_app_test::HasLineFrom(capture, DLOG_ERROR, "fail!", "OnCreate"));
    EXPECT_TRUE(harvo_app_test::HasLineFrom(capture, DLOG_ERROR, "Failed to create the service",
                                            "AppMain"));
    // No bus server was ever asked for.
    EXPECT_EQ(0u, harvo_bus_test::CountPrefix(capture, DLOG_INFO, "m_CreateDBus type"));
    EXPECT_EQ(0u, TCServerTestPeer::Registry().count("daemon.refused"));
    const int refused = harvo_bus_test::IndexOf(capture, "fail!");
    const int failed = harvo_bus_test::IndexOf(capture, "Failed to create the service");
    EXPECT_LT(refused, failed);
}

// An application whose event queue cannot be attached.
class UnattachableDaemon : public Daemon {
public:
    using Daemon::Daemon;
    bool Init(GMainLoop*) override { return false; }
};

TEST_F(DaemonTest, AnEventQueueThatCannotAttachFailsCreation) {
    harvo_test::LogCapture capture;
    UnattachableDaemon app("daemon.noinit");

    EXPECT_EQ(-1, Quelt::AppMain(1, kArgv, &app));

    EXPECT_EQ((std::vector<std::string>{"create", "terminate"}), app.Hooks());
    EXPECT_TRUE(harvo_app_test::HasLineFrom(capture, DLOG_ERROR, "Init fail!", "OnCreate"));
    EXPECT_TRUE(capture.HasFramework(DLOG_ERROR, "Failed to create the service"));
    // The bus server was up; OnTerminate closed it.
    EXPECT_EQ(0u, TCServerTestPeer::Registry().count("daemon.noinit"));
}

TEST_F(DaemonTest, ARefusedStartFailsCreationAfterTheServerWasUp) {
    harvo_test::LogCapture capture;
    Daemon app("daemon.nostart");
    app.onStart = [] { return false; };

    EXPECT_EQ(-1, Quelt::AppMain(1, kArgv, &app));

    EXPECT_EQ((std::vector<std::string>{"create", "start", "terminate"}), app.Hooks());
    EXPECT_TRUE(capture.HasFramework(DLOG_ERROR, "Failed to create the service"));
    EXPECT_FALSE(capture.HasFramework(DLOG_ERROR, "fail!"));
    EXPECT_EQ(0u, TCServerTestPeer::Registry().count("daemon.nostart"));
}

TEST_F(DaemonTest, ASecondApplicationInTheProcessCannotCreateItsServer) {
    harvo_test::LogCapture capture;
    Daemon app("daemon.first");
    bool secondCreated = true;
    bool firstStillServes = false;
    app.onStart = [&] { return app.Post(kUserEvent); };
    app.onEvent = [&](const Quelt::TCEvent*) {
        TCDaemonService second("daemon.second");
        secondCreated = Quelt::TCApplication::OnCreate(&second);
        firstStillServes = TCServerTestPeer::Registry().count("daemon.first") == 1 &&
                           app.IsServiceAvailable("daemon.first");
        g_main_loop_quit(app.GetMainLoop());
    };
    harvo_app_test::LoopWatchdog watchdog(&app);

    EXPECT_EQ(0, Quelt::AppMain(1, kArgv, &app));

    EXPECT_FALSE(secondCreated);
    EXPECT_TRUE(firstStillServes);
    EXPECT_TRUE(capture.HasFramework(
        DLOG_ERROR, "only one eflapplication/daemon service can be created in one process!"));
    EXPECT_TRUE(
        harvo_app_test::HasLineFrom(capture, DLOG_ERROR, "Create DBus server fail!", "OnCreate"));
    EXPECT_EQ(0u, TCServerTestPeer::Registry().count("daemon.second"));
}

// An application type outside the three.
class OddType : public Quelt::TCApplication {
public:
    explicit OddType(const char* name) : TCApplication(static_cast<APP_TYPE>(7), name) {}
};

TEST_F(DaemonTest, AnUnknownTypeRunsAsADaemon) {
    harvo_test::LogCapture capture;
    RecordingApp<OddType> app("daemon.unknown");
    app.onStart = [&] { return app.Post(kUserEvent); };
    app.onEvent = [&](const Quelt::TCEvent*) { g_main_loop_quit(app.GetMainLoop()); };
    harvo_app_test::LoopWatchdog watchdog(&app);

    EXPECT_EQ(0, Quelt::AppMain(1, kArgv, &app));

    EXPECT_EQ((std::vector<std::string>{"create", "start", "event:100", "terminate"}), app.Hooks());
    EXPECT_TRUE(capture.HasFramework(DLOG_DEBUG, "Service Begin"));
}

// The bus name of a service that another process owns: the new owner asks
// with replacement allowed and replaces it, so the service runs.
TEST_F(DaemonTest, TakesOverABusNameThatAnotherProcessOwns) {
    harvo_bus_test::PeerProcess peer({"serve", "daemon.taken"});
    ASSERT_EQ("READY", peer.WaitLine("READY"));
    harvo_test::LogCapture capture;
    Daemon app("daemon.taken");
    std::string owner;
    std::string self;
    app.onStart = [&] { return app.Post(kUserEvent); };
    app.onEvent = [&](const Quelt::TCEvent*) {
        GDBusConnection* connection = TCServerTestPeer::Connection(app);
        self = g_dbus_connection_get_unique_name(connection);
        // Ownership moves when the bus has handled the request; poll it
        // from here (bounded), serving nothing else meanwhile is fine.
        for (int tries = 0; tries < 2000 && owner != self; ++tries) {
            GVariant* reply = g_dbus_connection_call_sync(
                connection, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
                "GetNameOwner", g_variant_new("(s)", "daemon.taken.message"), G_VARIANT_TYPE("(s)"),
                G_DBUS_CALL_FLAGS_NONE, -1, nullptr, nullptr);
            if (reply != nullptr) {
                const gchar* name = nullptr;
                g_variant_get(reply, "(&s)", &name);
                owner = name;
                g_variant_unref(reply);
            }
        }
        g_main_loop_quit(app.GetMainLoop());
    };
    harvo_app_test::LoopWatchdog watchdog(&app);

    EXPECT_EQ(0, Quelt::AppMain(1, kArgv, &app));

    EXPECT_EQ(self, owner);
    EXPECT_EQ((std::vector<std::string>{"create", "start", "event:100", "terminate"}), app.Hooks());
}

}  // namespace
