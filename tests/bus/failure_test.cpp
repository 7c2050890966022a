// SPDX-License-Identifier: Apache-2.0
// Failures of the bus library that a healthy bus does not produce on its
// own. This program defines two GIO functions itself; the dynamic linker
// resolves the library's calls to them here first, and they forward to GIO
// unless a test asks them to fail.

#include <dlfcn.h>
#include <dlog.h>

#include <atomic>
#include <string>

#include "BusTestSupport.h"
#include "LogCapture.h"
#include "TCServer.h"

namespace {

std::atomic<bool> g_refuseEmission{false};
std::atomic<bool> g_refuseXml{false};

}  // namespace

extern "C" gboolean g_dbus_connection_emit_signal(GDBusConnection* connection,
                                                  const gchar* destination, const gchar* objectPath,
                                                  const gchar* interfaceName,
                                                  const gchar* signalName, GVariant* parameters,
                                                  GError** error) {
    if (g_refuseEmission.load()) {
        g_set_error_literal(error, G_IO_ERROR, G_IO_ERROR_FAILED, "emission refused by test");
        return FALSE;
    }
    using Real = gboolean (*)(GDBusConnection*, const gchar*, const gchar*, const gchar*,
                              const gchar*, GVariant*, GError**);
    static Real real = reinterpret_cast<Real>(dlsym(RTLD_NEXT, "g_dbus_connection_emit_signal"));
    return real(connection, destination, objectPath, interfaceName, signalName, parameters, error);
}

extern "C" GDBusNodeInfo* g_dbus_node_info_new_for_xml(const gchar* xml, GError** error) {
    if (g_refuseXml.load()) {
        g_set_error_literal(error, G_MARKUP_ERROR, G_MARKUP_ERROR_PARSE, "refused by test");
        return nullptr;
    }
    using Real = GDBusNodeInfo* (*)(const gchar*, GError**);
    static Real real = reinterpret_cast<Real>(dlsym(RTLD_NEXT, "g_dbus_node_info_new_for_xml"));
    return real(xml, error);
}

namespace {

using harvo_bus_test::CloseAtExit;
using harvo_bus_test::CountPrefix;
using harvo_bus_test::PumpUntil;
using harvo_bus_test::RecordingServer;
using harvo_test::LogCapture;
using Quelt::SERVER_TYPE_APP;
using Quelt::SERVER_TYPE_GADGET;
using Quelt::SERVER_TYPE_PROXY;
using Quelt::TCServer;
using Quelt::TCServerTestPeer;

TEST(BusFailures, TheBusRefusesAnEmission) {
    RecordingServer app("app", SERVER_TYPE_APP);
    ASSERT_TRUE(app.CreateDBusServer());
    CloseAtExit closer(app);
    LogCapture capture;
    g_refuseEmission = true;
    EXPECT_FALSE(app.SendSignal("ping", nullptr));
    g_refuseEmission = false;
    char expected[96];
    snprintf(expected, sizeof(expected), "faile to  invoking emit signal(%s %d)",
             "emission refused by test", G_IO_ERROR_FAILED);
    EXPECT_TRUE(capture.HasFramework(DLOG_ERROR, expected)) << capture.Dump();
    EXPECT_TRUE(capture.HasFramework(DLOG_DEBUG, "Send signal ping : fail."));
    EXPECT_LT(harvo_bus_test::IndexOf(capture, expected),
              harvo_bus_test::IndexOf(capture, "Send signal ping : fail."));
    EXPECT_EQ(TCServerTestPeer::SendCount(app), 0);
    EXPECT_TRUE(app.SendSignal("ping", nullptr));
}

TEST(BusFailures, AnInterfaceDescriptionThatDoesNotParse) {
    RecordingServer proxy("viewer", SERVER_TYPE_PROXY);
    ASSERT_TRUE(proxy.CreateDBusProxy());
    CloseAtExit proxyCloser(proxy);
    LogCapture capture;
    RecordingServer app("unparsed", SERVER_TYPE_APP);
    g_refuseXml = true;
    EXPECT_FALSE(app.CreateDBusServer());
    g_refuseXml = false;
    EXPECT_TRUE(capture.HasFramework(DLOG_ERROR, "parse interface xml fail!"));
    EXPECT_EQ(CountPrefix(capture, DLOG_INFO, "Register Obj Path"), 0u);
    EXPECT_EQ(TCServerTestPeer::Registry().count("unparsed"), 0u);
    EXPECT_FALSE(TCServerTestPeer::Created(app));
    // The object comes before the name: an endpoint that cannot export it
    // never asks for the name, so no peer is told that it is there.
    EXPECT_EQ(TCServerTestPeer::OwnerId(app), 0u);
    EXPECT_EQ(CountPrefix(capture, DLOG_INFO, "RequestName("), 0u);
    EXPECT_FALSE(proxy.IsServiceAvailable("unparsed"));
    app.CloseDBusServer();
    // A later create parses and succeeds.
    EXPECT_TRUE(app.CreateDBusServer());
    app.CloseDBusServer();
}

TEST(BusFailures, ANameThatIsNoBusName) {
    LogCapture capture;
    // "1st..message": an element may not be empty. Refused with its own
    // line before GDBus sees it (tests/bus/hostile_test.cpp has more such
    // names).
    RecordingServer app("1st.", SERVER_TYPE_APP);
    EXPECT_FALSE(app.CreateDBusServer());
    EXPECT_TRUE(capture.HasFramework(DLOG_DEBUG, "request a dbus name : 1st..message"));
    EXPECT_TRUE(capture.HasFramework(DLOG_ERROR,
                                     "endpoint name '1st.' cannot be used on the bus: "
                                     "'_1st..message' is not a valid bus name"));
    EXPECT_FALSE(capture.HasFramework(DLOG_ERROR, "Request bus name fail!"));
    EXPECT_EQ(TCServerTestPeer::OwnerId(app), 0u);
    EXPECT_EQ(TCServerTestPeer::Registry().count("1st."), 0u);
    app.CloseDBusServer();
    EXPECT_EQ(TCServerTestPeer::Connection(app), nullptr);
}

TEST(BusFailures, TwoGadgetNamesThatFormatAlike) {
    RecordingServer app("a", SERVER_TYPE_APP);
    ASSERT_TRUE(app.CreateDBusServer());
    CloseAtExit appCloser(app);
    RecordingServer first("b c", SERVER_TYPE_GADGET);
    ASSERT_TRUE(first.CreateDBusServer());
    CloseAtExit firstCloser(first);
    EXPECT_EQ(first.GetObjectPathName(), "/a/b_c/message");
    LogCapture capture;
    // "b_c" is another endpoint name but the same bus name and path.
    RecordingServer second("b_c", SERVER_TYPE_GADGET);
    EXPECT_FALSE(second.CreateDBusServer());
    EXPECT_TRUE(capture.HasFramework(DLOG_INFO, "Register Obj Path(/a/b_c/message)"));
    EXPECT_TRUE(capture.HasFramework(DLOG_INFO, "Get register id : 0"));
    EXPECT_TRUE(capture.HasFramework(DLOG_ERROR, "Register Obj Path Fail!"));
    EXPECT_EQ(TCServerTestPeer::Registry().count("b_c"), 0u);
    second.CloseDBusServer();
    // The first gadget's object is still the one exported.
    EXPECT_EQ(TCServer::m_GetDbusServer("b c"), &first);
    EXPECT_NE(TCServerTestPeer::RegistrationId(first), 0u);
}

}  // namespace
