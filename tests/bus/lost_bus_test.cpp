// SPDX-License-Identifier: Apache-2.0
// An endpoint whose bus daemon dies: the process keeps running, one error
// line says which endpoint lost what, every later call fails with false and
// its own line, and closing and creating again reaches a new daemon.
//
// Each scenario runs in a fresh child process (a death test that exits by
// itself): GLib keeps one system bus connection per process, and the
// scenario needs one to a bus of its own that it can kill.

#include <dlog.h>
#include <signal.h>

#include <cstdio>
#include <cstdlib>
#include <sstream>
#include <string>

#include "BusTestSupport.h"
#include "LogCapture.h"
#include "PrivateBus.h"
#include "TCServer.h"

namespace {

using harvo_bus_test::CountPrefix;
using harvo_bus_test::PumpForLog;
using harvo_bus_test::PumpUntil;
using harvo_bus_test::RecordingServer;
using harvo_test::LogCapture;
using harvo_test::PrivateBus;
using Quelt::SERVER_TYPE_APP;
using Quelt::SERVER_TYPE_PROXY;
using Quelt::TCMessage;
using Quelt::TCServerTestPeer;

const char kClosedLine[] = "deaf lost the bus name deaf.message: the bus connection is closed";

// Collects the scenario's failed checks; the child prints them and exits
// with their count (0: every check held).
class Checks {
public:
    void Expect(bool holds, const std::string& what) {
        if (!holds)
            failures_ << "failed: " << what << "\n";
        failed_ += holds ? 0 : 1;
    }
    [[noreturn]] void Finish(const LogCapture& capture) {
        if (failed_ > 0)
            std::fprintf(stderr, "%s--- log ---\n%s", failures_.str().c_str(),
                         capture.Dump().c_str());
        std::fflush(stderr);
        std::exit(failed_ > 125 ? 125 : failed_);
    }

private:
    std::ostringstream failures_;
    int failed_ = 0;
};

// The daemon is killed with SIGKILL, as a crash would end it.
void KillDaemon(PrivateBus& bus) {
    kill(bus.Pid(), SIGKILL);
    bus.Stop();  // reaps it and removes its directory
}

void TheDaemonDiesUnderAnEndpoint() {
    PrivateBus bus;
    std::string error;
    if (!bus.Start(HARVO_BUS_CONFIG, &error)) {
        std::fprintf(stderr, "no bus: %s\n", error.c_str());
        std::exit(100);
    }
    Checks checks;
    LogCapture capture;
    RecordingServer app("deaf", SERVER_TYPE_APP);
    checks.Expect(app.CreateDBusServer(), "the endpoint is created");
    checks.Expect(PumpUntil([&] { return app.IsServiceAvailable("deaf"); }),
                  "the endpoint owns its name");

    KillDaemon(bus);
    checks.Expect(PumpForLog(capture, DLOG_ERROR, kClosedLine), "the lost-name line");
    checks.Expect(CountPrefix(capture, DLOG_ERROR, "deaf lost the bus name") == 1,
                  "one lost-name line");

    // Every later call fails with false and a line; nothing crashes.
    capture.Clear();
    TCMessage message;
    message.m_type = "echo";
    TCMessage reply;
    checks.Expect(!app.SendMessage("elsewhere", &message, true, &reply, -1), "a send fails");
    checks.Expect(!app.SendSignal("tick", &message), "an emission fails");
    checks.Expect(!app.IsServiceAvailable("deaf"), "the presence query fails");
    checks.Expect(capture.CountFramework(DLOG_ERROR, "dbus connection is not open") == 3,
                  "each failed call says the connection is not open");

    // What an application can do: close the endpoint, and create it again
    // once a bus is there.
    app.CloseDBusServer();
    checks.Expect(TCServerTestPeer::Connection(app) == nullptr, "the close lets go of the bus");
    PrivateBus second;
    checks.Expect(second.Start(HARVO_BUS_CONFIG, &error), "a new daemon starts: " + error);
    checks.Expect(app.CreateDBusServer(), "the endpoint is created again");
    RecordingServer proxy("watcher", SERVER_TYPE_PROXY);
    checks.Expect(proxy.CreateDBusProxy(), "a proxy connects to the new daemon");
    checks.Expect(PumpUntil([&] { return proxy.IsServiceAvailable("deaf"); }),
                  "the endpoint owns its name on the new daemon");
    proxy.CloseDBusProxy();
    app.CloseDBusServer();
    second.Stop();
    checks.Finish(capture);
}

void TheDaemonDiesUnderAProxy() {
    PrivateBus bus;
    std::string error;
    if (!bus.Start(HARVO_BUS_CONFIG, &error)) {
        std::fprintf(stderr, "no bus: %s\n", error.c_str());
        std::exit(100);
    }
    Checks checks;
    LogCapture capture;
    RecordingServer proxy("viewer", SERVER_TYPE_PROXY);
    checks.Expect(proxy.CreateDBusProxy(), "the proxy connects");
    GDBusConnection* connection = TCServerTestPeer::Connection(proxy);
    KillDaemon(bus);
    checks.Expect(PumpUntil([&] { return g_dbus_connection_is_closed(connection) != FALSE; }),
                  "the connection sees the daemon go");
    // A proxy owns no name: it hears of the loss at its next call.
    checks.Expect(CountPrefix(capture, DLOG_ERROR, "viewer lost") == 0,
                  "no lost-name line for a proxy");
    checks.Expect(!proxy.IsServiceAvailable("deaf"), "the presence query fails");
    checks.Expect(capture.HasFramework(DLOG_ERROR, "dbus connection is not open"),
                  "the failed query says the connection is not open");
    proxy.CloseDBusProxy();
    checks.Finish(capture);
}

TEST(BusLostDeathTest, TheDaemonDiesUnderAnEndpoint) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(TheDaemonDiesUnderAnEndpoint(), ::testing::ExitedWithCode(0), "");
}

TEST(BusLostDeathTest, TheDaemonDiesUnderAProxy) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(TheDaemonDiesUnderAProxy(), ::testing::ExitedWithCode(0), "");
}

}  // namespace
