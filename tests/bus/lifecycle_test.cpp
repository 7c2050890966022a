// SPDX-License-Identifier: Apache-2.0
// Creating and closing bus endpoints, the name callbacks and the
// service-presence query, on a private system bus.

#include <dlog.h>

#include <cstdlib>
#include <regex>
#include <string>

#include "BusTestSupport.h"
#include "LogCapture.h"
#include "TCServer.h"
#include "TCServerHelper.h"

namespace {

using harvo_bus_test::CloseAtExit;
using harvo_bus_test::CountPrefix;
using harvo_bus_test::IndexOf;
using harvo_bus_test::PeerProcess;
using harvo_bus_test::PumpUntil;
using harvo_bus_test::RecordingServer;
using harvo_bus_test::StartServingPeer;
using harvo_test::LogCapture;
using Quelt::SERVER_TYPE_APP;
using Quelt::SERVER_TYPE_GADGET;
using Quelt::SERVER_TYPE_PROXY;
using Quelt::TCServer;
using Quelt::TCServerTestPeer;

// Whether |busName| has an owner, asked through a proxy endpoint.
bool Owned(TCServer& proxy, const std::string& endpointName) {
    return proxy.IsServiceAvailable(endpointName.c_str());
}

// Waits (serving the default context) until the bus name of |endpoint| is
// owned or not, as |wanted| says.
bool WaitOwned(TCServer& proxy, const std::string& endpoint, bool wanted) {
    return PumpUntil([&] { return Owned(proxy, endpoint) == wanted; });
}

TEST(BusLifecycle, ApplicationOwnsItsNameAndExportsItsObject) {
    LogCapture capture;
    RecordingServer app("lifeapp", SERVER_TYPE_APP);
    ASSERT_TRUE(app.CreateDBusServer());
    CloseAtExit closer(app);

    EXPECT_TRUE(capture.HasFramework(DLOG_INFO, "m_CreateDBus type: 0"));
    GDBusConnection* connection = TCServerTestPeer::Connection(app);
    ASSERT_NE(connection, nullptr);
    char expected[64];
    snprintf(expected, sizeof(expected), "Get dbus connection success : %p",
             static_cast<void*>(connection));
    EXPECT_TRUE(capture.HasFramework(DLOG_INFO, expected));
    EXPECT_TRUE(capture.HasFramework(DLOG_DEBUG, "request a dbus name : lifeapp.message"));
    const std::string owned =
        "RequestName(lifeapp.message) success : " + std::to_string(TCServerTestPeer::OwnerId(app));
    EXPECT_TRUE(capture.HasFramework(DLOG_INFO, owned)) << capture.Dump();
    EXPECT_TRUE(capture.HasFramework(DLOG_INFO, "Register Obj Path(/lifeapp/message)"));
    EXPECT_NE(TCServerTestPeer::RegistrationId(app), 0u);
    EXPECT_TRUE(capture.HasFramework(
        DLOG_INFO, "Get register id : " + std::to_string(TCServerTestPeer::RegistrationId(app))));
    EXPECT_FALSE(capture.HasFramework(DLOG_WARN,
                                      "original name has illegal character, format to "
                                      "lifeapp.message"));

    EXPECT_EQ(app.GetBusName(), "lifeapp.message");
    EXPECT_EQ(app.GetObjectPathName(), "/lifeapp/message");
    EXPECT_EQ(TCServer::m_GetDbusServer("lifeapp"), &app);
    EXPECT_TRUE(TCServerTestPeer::Created(app));
    EXPECT_FALSE(g_dbus_connection_get_exit_on_close(connection));

    // The name is the bus's once the request has been processed.
    EXPECT_TRUE(WaitOwned(app, "lifeapp", true));
    // The object carries the interface named after the bus name.
    GDBusNodeInfo* info = TCServerTestPeer::NodeInfo(app);
    ASSERT_NE(info, nullptr);
    ASSERT_NE(info->interfaces[0], nullptr);
    EXPECT_STREQ(info->interfaces[0]->name, "lifeapp.message");
}

TEST(BusLifecycle, CloseReleasesNameObjectAndRegistryEntry) {
    RecordingServer proxy("lifeproxy", SERVER_TYPE_PROXY);
    ASSERT_TRUE(proxy.CreateDBusProxy());
    CloseAtExit proxyCloser(proxy);
    RecordingServer app("closing", SERVER_TYPE_APP);
    ASSERT_TRUE(app.CreateDBusServer());
    ASSERT_TRUE(WaitOwned(proxy, "closing", true));

    LogCapture capture;
    app.CloseDBusServer();
    EXPECT_TRUE(capture.HasFramework(DLOG_DEBUG, "close closing begin"));
    EXPECT_TRUE(capture.HasFramework(DLOG_DEBUG, "waiting all send message/signal finished 0d"));
    EXPECT_TRUE(capture.HasFramework(DLOG_DEBUG, "all send message/signal finished"));
    EXPECT_TRUE(capture.HasFramework(DLOG_DEBUG, "close connection and all close motion finished"));
    EXPECT_FALSE(capture.HasFramework(DLOG_DEBUG, "closing has closed."));
    EXPECT_LT(IndexOf(capture, "close closing begin"),
              IndexOf(capture, "waiting all send message/signal finished 0d"));
    EXPECT_LT(IndexOf(capture, "all send message/signal finished"),
              IndexOf(capture, "close connection and all close motion finished"));

    EXPECT_EQ(TCServerTestPeer::Connection(app), nullptr);
    EXPECT_EQ(TCServerTestPeer::OwnerId(app), 0u);
    EXPECT_EQ(TCServerTestPeer::RegistrationId(app), 0u);
    EXPECT_EQ(TCServerTestPeer::NodeInfo(app), nullptr);
    EXPECT_FALSE(TCServerTestPeer::Created(app));
    EXPECT_EQ(TCServerTestPeer::Registry().count("closing"), 0u);
    EXPECT_TRUE(WaitOwned(proxy, "closing", false));

    // A closed server may be created again.
    ASSERT_TRUE(app.CreateDBusServer());
    EXPECT_TRUE(WaitOwned(proxy, "closing", true));
    app.CloseDBusServer();
}

TEST(BusLifecycle, ClosingANeverCreatedServerOnlyLogs) {
    LogCapture capture;
    RecordingServer idle("idle", SERVER_TYPE_APP);
    idle.CloseDBusServer();
    EXPECT_TRUE(capture.HasFramework(DLOG_DEBUG, "close idle begin"));
    EXPECT_TRUE(capture.HasFramework(DLOG_DEBUG, "idle has closed."));
    EXPECT_EQ(CountPrefix(capture, DLOG_DEBUG, "waiting all send"), 0u);
    EXPECT_EQ(capture.Lines().size(), 2u) << capture.Dump();
    // Closing twice: the second close finds no connection either.
    RecordingServer twice("twice", SERVER_TYPE_APP);
    ASSERT_TRUE(twice.CreateDBusServer());
    twice.CloseDBusServer();
    capture.Clear();
    twice.CloseDBusServer();
    EXPECT_TRUE(capture.HasFramework(DLOG_DEBUG, "twice has closed."));
}

TEST(BusLifecycle, CreatingTwiceIsANoOp) {
    RecordingServer app("again", SERVER_TYPE_APP);
    ASSERT_TRUE(app.CreateDBusServer());
    CloseAtExit closer(app);
    const guint owner = TCServerTestPeer::OwnerId(app);
    LogCapture capture;
    EXPECT_TRUE(app.CreateDBusServer());
    EXPECT_TRUE(capture.HasFramework(DLOG_INFO, "m_CreateDBus type: 0"));
    EXPECT_EQ(capture.Lines().size(), 1u) << capture.Dump();
    EXPECT_EQ(TCServerTestPeer::OwnerId(app), owner);
}

TEST(BusLifecycle, OnlyOneApplicationPerProcess) {
    RecordingServer first("first", SERVER_TYPE_APP);
    ASSERT_TRUE(first.CreateDBusServer());
    CloseAtExit closer(first);
    LogCapture capture;
    RecordingServer second("second", SERVER_TYPE_APP);
    EXPECT_FALSE(second.CreateDBusServer());
    EXPECT_TRUE(capture.HasFramework(
        DLOG_ERROR, "only one eflapplication/daemon service can be created in one process!"));
    EXPECT_EQ(CountPrefix(capture, DLOG_DEBUG, "request a dbus name"), 0u);
    EXPECT_EQ(TCServer::m_GetDbusServer("first"), &first);
    EXPECT_EQ(TCServerTestPeer::Registry().count("second"), 0u);
    EXPECT_FALSE(TCServerTestPeer::Created(second));
    // The failed server still holds the connection; its close must leave
    // the first one alone.
    second.CloseDBusServer();
    EXPECT_EQ(TCServer::m_GetDbusServer("first"), &first);
    EXPECT_TRUE(first.IsServiceAvailable("first"));
}

TEST(BusLifecycle, ANameMayBeUsedOnce) {
    RecordingServer app("taken", SERVER_TYPE_APP);
    ASSERT_TRUE(app.CreateDBusServer());
    CloseAtExit closer(app);
    LogCapture capture;
    RecordingServer gadget("taken", SERVER_TYPE_GADGET);
    EXPECT_FALSE(gadget.CreateDBusServer());
    EXPECT_TRUE(capture.HasFramework(DLOG_ERROR, "taken name has been used!"));
    gadget.CloseDBusServer();
    // The close of the refused server does not remove the owner's entry.
    EXPECT_EQ(TCServer::m_GetDbusServer("taken"), &app);
}

TEST(BusLifecycle, GadgetNameCarriesTheApplicationName) {
    RecordingServer app("app", SERVER_TYPE_APP);
    ASSERT_TRUE(app.CreateDBusServer());
    CloseAtExit appCloser(app);
    LogCapture capture;
    RecordingServer gadget("g1", SERVER_TYPE_GADGET);
    ASSERT_TRUE(gadget.CreateDBusServer());
    CloseAtExit gadgetCloser(gadget);
    EXPECT_TRUE(capture.HasFramework(DLOG_INFO, "m_CreateDBus type: 1"));
    EXPECT_TRUE(capture.HasFramework(DLOG_DEBUG, "request a dbus name : app.g1.message"));
    EXPECT_TRUE(capture.HasFramework(DLOG_INFO, "Register Obj Path(/app/g1/message)"));
    EXPECT_EQ(gadget.GetBusName(), "app.g1.message");
    EXPECT_EQ(gadget.GetObjectPathName(), "/app/g1/message");
    EXPECT_EQ(TCServer::m_GetDbusServer("g1"), &gadget);
    EXPECT_EQ(TCServerTestPeer::DBusName(app, "g1"), "app.g1.message");
    // The gadget's name is app.g1.message on the bus.
    EXPECT_TRUE(WaitOwned(app, "app.g1", true));
    // A second gadget is fine too.
    RecordingServer gadget2("g2", SERVER_TYPE_GADGET);
    ASSERT_TRUE(gadget2.CreateDBusServer());
    EXPECT_EQ(gadget2.GetBusName(), "app.g2.message");
    gadget2.CloseDBusServer();
}

TEST(BusLifecycle, GadgetWithoutApplicationUsesTheProcessName) {
    std::string process;
    Quelt::TCServerHelper::GetProcessName(process);
    ASSERT_EQ(process, "bus_lifecycle_test");
    LogCapture capture;
    RecordingServer gadget("g2", SERVER_TYPE_GADGET);
    ASSERT_TRUE(gadget.CreateDBusServer());
    CloseAtExit closer(gadget);
    EXPECT_TRUE(capture.HasFramework(
        DLOG_WARN,
        "no eflapplication/daemon found when creating ug activity, use process name : "
        "bus_lifecycle_test"));
    EXPECT_EQ(gadget.GetBusName(), "bus_lifecycle_test.g2.message");
    EXPECT_EQ(gadget.GetObjectPathName(), "/bus_lifecycle_test/g2/message");
    EXPECT_TRUE(WaitOwned(gadget, "bus_lifecycle_test.g2", true));
}

TEST(BusLifecycle, IllegalCharactersAreFormatted) {
    LogCapture capture;
    RecordingServer app("my app-1", SERVER_TYPE_APP);
    ASSERT_TRUE(app.CreateDBusServer());
    CloseAtExit closer(app);
    EXPECT_TRUE(capture.HasFramework(DLOG_DEBUG, "request a dbus name : my app-1.message"));
    EXPECT_TRUE(capture.HasFramework(
        DLOG_WARN, "original name has illegal character, format to my_app_1.message"));
    EXPECT_EQ(app.GetBusName(), "my_app_1.message");
    EXPECT_EQ(app.GetObjectPathName(), "/my_app_1/message");
    // The registry keeps the endpoint name as given.
    EXPECT_EQ(TCServer::m_GetDbusServer("my app-1"), &app);
    EXPECT_TRUE(WaitOwned(app, "my app-1", true));
    EXPECT_TRUE(WaitOwned(app, "my_app_1", true));
}

TEST(BusLifecycle, ProxyIsAConnectionOnly) {
    LogCapture capture;
    RecordingServer proxy("viewer", SERVER_TYPE_PROXY);
    ASSERT_TRUE(proxy.CreateDBusProxy());
    EXPECT_TRUE(capture.HasFramework(DLOG_INFO, "m_CreateDBus type: 2"));
    EXPECT_NE(TCServerTestPeer::Connection(proxy), nullptr);
    EXPECT_TRUE(TCServerTestPeer::Created(proxy));
    EXPECT_EQ(TCServerTestPeer::OwnerId(proxy), 0u);
    EXPECT_EQ(TCServerTestPeer::RegistrationId(proxy), 0u);
    EXPECT_EQ(CountPrefix(capture, DLOG_DEBUG, "request a dbus name"), 0u);
    EXPECT_EQ(TCServerTestPeer::Registry().count("viewer"), 0u);
    EXPECT_FALSE(Owned(proxy, "viewer"));
    // A proxy never announces itself.
    TCServerTestPeer::OnNameAcquired(&proxy);
    EXPECT_EQ(CountPrefix(capture, DLOG_DEBUG, "Send signal"), 0u);

    capture.Clear();
    proxy.CloseDBusProxy();
    EXPECT_TRUE(capture.HasFramework(DLOG_DEBUG, "close connection and all close motion finished"));
    EXPECT_EQ(TCServerTestPeer::Connection(proxy), nullptr);
    EXPECT_FALSE(TCServerTestPeer::Created(proxy));
}

TEST(BusLifecycle, OtherTypesEnterTheRegistryWithoutName) {
    LogCapture capture;
    RecordingServer other("plain", static_cast<Quelt::TCServerType>(7));
    ASSERT_TRUE(other.CreateDBusServer());
    EXPECT_TRUE(capture.HasFramework(DLOG_INFO, "m_CreateDBus type: 7"));
    EXPECT_EQ(TCServer::m_GetDbusServer("plain"), &other);
    EXPECT_EQ(TCServerTestPeer::OwnerId(other), 0u);
    EXPECT_EQ(TCServerTestPeer::RegistrationId(other), 0u);
    EXPECT_EQ(CountPrefix(capture, DLOG_DEBUG, "request a dbus name"), 0u);
    EXPECT_EQ(other.GetBusName(), "plain.message");
    EXPECT_EQ(other.GetObjectPathName(), "");
    other.CloseDBusServer();
    EXPECT_EQ(TCServerTestPeer::Registry().count("plain"), 0u);
}

TEST(BusLifecycle, RegistryLookupFailures) {
    LogCapture capture;
    EXPECT_EQ(TCServer::m_GetDbusServer(nullptr), nullptr);
    EXPECT_TRUE(capture.HasFramework(DLOG_WARN, "source is null"));
    EXPECT_EQ(TCServer::m_GetDbusServer("nobody"), nullptr);
    EXPECT_TRUE(
        capture.HasFramework(DLOG_ERROR, "Couldn't find nobody dbus server, subscribe fail"));
}

TEST(BusLifecycle, ServiceAvailabilityFollowsAPeer) {
    RecordingServer proxy("asker", SERVER_TYPE_PROXY);
    ASSERT_TRUE(proxy.CreateDBusProxy());
    CloseAtExit closer(proxy);
    EXPECT_FALSE(proxy.IsServiceAvailable("svc"));
    {
        PeerProcess peer({"serve", "svc"});
        ASSERT_TRUE(StartServingPeer(peer));
        EXPECT_TRUE(proxy.IsServiceAvailable("svc"));
        EXPECT_TRUE(peer.WriteLine("quit"));
        EXPECT_EQ(peer.WaitExit(), 0);
    }
    EXPECT_TRUE(WaitOwned(proxy, "svc", false));
}

TEST(BusLifecycle, ServiceAvailabilityRefusals) {
    LogCapture capture;
    RecordingServer proxy("asker", SERVER_TYPE_PROXY);
    // Not created: no connection.
    EXPECT_FALSE(proxy.IsServiceAvailable("svc"));
    EXPECT_TRUE(capture.HasFramework(DLOG_ERROR, "dbus connection is not open"));
    ASSERT_TRUE(proxy.CreateDBusProxy());
    CloseAtExit closer(proxy);
    EXPECT_FALSE(proxy.IsServiceAvailable(nullptr));
    EXPECT_TRUE(capture.HasFramework(DLOG_WARN, "serviceName is null"));
    // The bus answers the query with an error.
    capture.Clear();
    {
        harvo_bus_test::ReplyRefuser refuser(TCServerTestPeer::Connection(proxy), "NameHasOwner");
        EXPECT_FALSE(proxy.IsServiceAvailable("svc"));
    }
    EXPECT_TRUE(capture.HasFramework(
        DLOG_ERROR, std::string("sync call fail (") + harvo_bus_test::ReplyRefuser::kErrorText +
                        ", " + std::to_string(G_IO_ERROR_DBUS_ERROR) + ")"))
        << capture.Dump();
    // And works again without the refusal.
    EXPECT_FALSE(proxy.IsServiceAvailable("svc"));
    EXPECT_EQ(CountPrefix(capture, DLOG_ERROR, "sync call fail"), 1u);
}

TEST(BusLifecycle, NameLostToAReplacingOwner) {
    RecordingServer app("dup", SERVER_TYPE_APP);
    ASSERT_TRUE(app.CreateDBusServer());
    CloseAtExit closer(app);
    ASSERT_TRUE(PumpUntil([&] { return app.IsServiceAvailable("dup"); }));
    LogCapture capture;
    // The peer asks for the same name with "replace": ours is lost.
    PeerProcess peer({"serve", "dup"});
    const bool lost = PumpUntil([&] {
        for (const auto& line : capture.Framework("")) {
            if (line.func == "m_OnNameLost")
                return true;
        }
        return false;
    });
    EXPECT_TRUE(lost) << capture.Dump();
    // The endpoint is deaf while the peer has the name, and one error line
    // says so; no retry (the bus gives the name back when the peer leaves).
    EXPECT_TRUE(harvo_bus_test::PumpForLog(
        capture, DLOG_ERROR,
        "dup lost the bus name dup.message: refused by the bus policy or taken by another owner"))
        << capture.Dump();
    EXPECT_EQ(CountPrefix(capture, DLOG_ERROR, "dup lost the bus name"), 1u);
    EXPECT_EQ(CountPrefix(capture, DLOG_WARN, "pThis"), 0u);
    // The entry line comes first, as before.
    EXPECT_LT(harvo_bus_test::IndexOf(capture, ""),
              harvo_bus_test::IndexOf(capture,
                                      "dup lost the bus name dup.message: refused by the "
                                      "bus policy or taken by another owner"));
}

// The bus keeps an endpoint whose name another owner took in the name's
// queue: when that owner leaves, the name comes back and the endpoint
// announces itself again.
TEST(BusLifecycle, ANameTakenByAnotherOwnerComesBackWhenItLeaves) {
    RecordingServer app("dup2", SERVER_TYPE_APP);
    ASSERT_TRUE(app.CreateDBusServer());
    CloseAtExit closer(app);
    ASSERT_TRUE(PumpUntil([&] { return app.IsServiceAvailable("dup2"); }));
    const std::string lost =
        "dup2 lost the bus name dup2.message: refused by the bus policy or taken by another owner";
    LogCapture capture;
    {
        PeerProcess peer({"serve", "dup2"});
        ASSERT_TRUE(harvo_bus_test::PumpForLog(capture, DLOG_ERROR, lost)) << capture.Dump();
    }
    // Announced again after the loss.
    ASSERT_TRUE(PumpUntil([&] {
        bool afterLoss = false;
        for (const auto& entry : capture.Lines()) {
            harvo_test::FrameworkLine parsed;
            if (!harvo_test::ParseFrameworkText(entry.text, &parsed))
                continue;
            if (parsed.text == lost)
                afterLoss = true;
            else if (afterLoss && parsed.text == "Send signal service_start_default : success.")
                return true;
        }
        return false;
    })) << capture.Dump();
    GDBusConnection* connection = TCServerTestPeer::Connection(app);
    GVariant* owner = g_dbus_connection_call_sync(
        connection, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
        "GetNameOwner", g_variant_new("(s)", "dup2.message"), G_VARIANT_TYPE("(s)"),
        G_DBUS_CALL_FLAGS_NONE, -1, nullptr, nullptr);
    ASSERT_NE(owner, nullptr);
    const gchar* unique = nullptr;
    g_variant_get(owner, "(&s)", &unique);
    EXPECT_STREQ(unique, g_dbus_connection_get_unique_name(connection));
    g_variant_unref(owner);
    EXPECT_EQ(CountPrefix(capture, DLOG_ERROR, "dup2 lost the bus name"), 1u);
}

TEST(BusLifecycle, NameCallbacksWithoutServer) {
    LogCapture capture;
    TCServerTestPeer::OnNameAcquired(nullptr);
    TCServerTestPeer::OnNameLost(nullptr);
    EXPECT_EQ(capture.CountFramework(DLOG_WARN, "pThis is null"), 2u);
    ASSERT_EQ(capture.Framework("").size(), 2u);
    EXPECT_EQ(capture.Framework("")[0].func, "m_OnNameAcquired");
    EXPECT_EQ(capture.Framework("")[1].func, "m_OnNameLost");
}

TEST(BusLifecycle, NameAcquiredAnnouncesTheService) {
    LogCapture capture;
    RecordingServer app("herald", SERVER_TYPE_APP);
    ASSERT_TRUE(app.CreateDBusServer());
    CloseAtExit closer(app);
    EXPECT_TRUE(harvo_bus_test::PumpForLog(capture, DLOG_DEBUG,
                                           "Send signal service_start_default : success."));
    bool acquired = false;
    for (const auto& line : capture.Framework(""))
        acquired |= line.func == "m_OnNameAcquired";
    EXPECT_TRUE(acquired);
}

// Without a bus, creation fails and says why. Run in a fresh process: GLib
// keeps the bus connection of a process.
TEST(BusLifecycleDeathTest, NoBusNoServer) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent/harvo-no-bus", 1);
            LogCapture capture;
            RecordingServer app("nobus", SERVER_TYPE_APP);
            const bool created = app.CreateDBusServer();
            const bool logged = capture.HasFramework(DLOG_ERROR, "get dbus connection fail!") &&
                                CountPrefix(capture, DLOG_ERROR, "(") == 1;
            std::exit(!created && logged && TCServerTestPeer::Connection(app) == nullptr ? 0 : 1);
        },
        ::testing::ExitedWithCode(0), "");
}

}  // namespace
