// SPDX-License-Identifier: Apache-2.0
// Gadgets with a bus server: created by the library's create callback and
// reached from another process.

#include <gtest/gtest.h>

#include "../bus/BusTestSupport.h"
#include "GadgetTestSupport.h"
#include "LogCapture.h"
#include "PrivateBus.h"
#include "TCServerHelper.h"

using gadget_test::RecordingProxy;
using gadget_test::Trace;
using gadget_test::Traces;
using harvo_bus_test::PeerProcess;
using harvo_test::LogCapture;

namespace {

auto* const kBus =
    ::testing::AddGlobalTestEnvironment(new harvo_test::PrivateBusEnvironment(HARVO_BUS_CONFIG));

class GadgetBusTest : public gadget_test::GadgetFixture {
protected:
    // A gadget's endpoint name on the bus carries the process's name.
    static std::string Endpoint(const char* gadget) {
        std::string process;
        Quelt::TCServerHelper::GetProcessName(process);
        return process + "." + gadget;
    }
    LogCapture capture_;
};

TEST_F(GadgetBusTest, CppGadgetCreatesAndClosesItsServer) {
    RecordingProxy proxy;
    ASSERT_TRUE(proxy.CreateGadget(nullptr, "cppgadgetbus", UG_MODE_FULLVIEW, nullptr));
    EXPECT_TRUE(capture_.HasFramework(DLOG_INFO, "Create DBus server begin"));
    EXPECT_EQ((Trace{"t_OnCreate", "t_OnStart", "proxy:layout:0"}), Traces());
    EXPECT_TRUE(proxy.Destroy());
    EXPECT_EQ((Trace{"t_OnCreate", "t_OnStart", "proxy:layout:0", "t_OnDestroy", "proxy:end"}),
              Traces());
    EXPECT_TRUE(capture_.HasFramework(DLOG_DEBUG, "close cppgadgetbus begin"));
}

TEST_F(GadgetBusTest, CGadgetFillsTheReplyOfABusMessage) {
    RecordingProxy proxy;
    ASSERT_TRUE(proxy.CreateGadget(nullptr, "cgadgetbus", UG_MODE_FULLVIEW, nullptr));
    PeerProcess peer({"serve", "gadgetpeer"});
    ASSERT_TRUE(harvo_bus_test::StartServingPeer(peer));
    ASSERT_TRUE(peer.WriteLine("send " + Endpoint("cgadgetbus") + " ask 3 {\"a\":1}"));
    std::string line;
    ASSERT_TRUE(peer.ReadLine(&line, harvo_bus_test::kLimit, true));
    EXPECT_EQ("SENT 1  7 {\"echo\":{\"a\":1}}", line);
    EXPECT_EQ("c:received", Traces().back());
}

}  // namespace
