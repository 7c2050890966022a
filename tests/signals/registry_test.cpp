// SPDX-License-Identifier: Apache-2.0
// The signal subscription registry: two independent tables, the two key
// forms and their precedence, removal of one subscription and of all.
#include <gtest/gtest.h>

#include <dlog.h>

#include <string>
#include <vector>

#include "LogCapture.h"
#include "TCServerSignalManager.h"
#include "pelx.h"

using harvo_test::LogCapture;
using Quelt::MANAGED_SIGNAL;
using Quelt::NATIVE_SIGNAL;
using Quelt::TCManagedSignalHandler;
using Quelt::TCMessage;
using Quelt::TCNativeSignalHandler;
using Quelt::TCServerSignalManager;
using Quelt::TCSignalInfo;
using Quelt::TCSignalType;

namespace Quelt {

// Reads the stored records, which the interface never hands out.
class TCServerSignalManagerTestPeer {
public:
    static TCSignalInfo* Native(TCServerSignalManager& manager, const std::string& key) {
        auto found = manager.m_NativeSignals.find(key);
        return found == manager.m_NativeSignals.end() ? nullptr : found->second;
    }
    static TCSignalInfo* Managed(TCServerSignalManager& manager, const std::string& key) {
        auto found = manager.m_ManagedSignals.find(key);
        return found == manager.m_ManagedSignals.end() ? nullptr : found->second;
    }
    static void SetNative(TCServerSignalManager& manager, const std::string& key,
                          TCSignalInfo* info) {
        manager.m_NativeSignals[key] = info;
    }
    static size_t NativeCount(TCServerSignalManager& manager) {
        return manager.m_NativeSignals.size();
    }
    static size_t ManagedCount(TCServerSignalManager& manager) {
        return manager.m_ManagedSignals.size();
    }
};

}  // namespace Quelt

using Quelt::TCServerSignalManagerTestPeer;

namespace {

void NativeA(const char*, const char*, TCMessage*, void*) {}
void NativeB(const char*, const char*, TCMessage*, void*) {}
void ManagedA(const char*, const char*, pelx_message_s*, void*) {}
void ManagedB(const char*, const char*, pelx_message_s*, void*) {}

// A manager emptied at the end of each test, so that no record outlives it.
class SignalRegistry : public ::testing::Test {
protected:
    void SetUp() override { manager.Init(); }
    void TearDown() override {
        std::vector<unsigned int> ids;
        manager.Destroy(ids);
    }
    TCServerSignalManager manager;
    int userA = 1;
    int userB = 2;
};

}  // namespace

TEST_F(SignalRegistry, StoredSubscriptionIsFoundByItsKey) {
    manager.SubscribeNativeSignal("bus.message.changed", "changed", NativeA, &userA, 11);
    EXPECT_TRUE(manager.IfSignalSubscribed(NATIVE_SIGNAL, "bus.message.changed"));
    EXPECT_FALSE(manager.IfSignalSubscribed(MANAGED_SIGNAL, "bus.message.changed"));

    TCNativeSignalHandler handler = nullptr;
    void* userData = nullptr;
    EXPECT_TRUE(
        manager.GetHandlerForNativeSignal("changed", "bus.message.changed", handler, userData));
    EXPECT_EQ(&NativeA, handler);
    EXPECT_EQ(&userA, userData);

    TCSignalInfo* info = TCServerSignalManagerTestPeer::Native(manager, "bus.message.changed");
    ASSERT_NE(nullptr, info);
    EXPECT_EQ("changed", info->m_signalName);
    EXPECT_EQ(11u, info->m_id);
}

TEST_F(SignalRegistry, NullSignalNameIsStoredEmpty) {
    manager.SubscribeManagedSignal("k", nullptr, ManagedA, nullptr, 1);
    TCSignalInfo* info = TCServerSignalManagerTestPeer::Managed(manager, "k");
    ASSERT_NE(nullptr, info);
    EXPECT_EQ("", info->m_signalName);
}

TEST_F(SignalRegistry, SameKeyTwiceKeepsTheSecondAndLeavesTheFirstAllocated) {
    manager.SubscribeNativeSignal("sig", "sig", NativeA, &userA, 1);
    TCSignalInfo* first = TCServerSignalManagerTestPeer::Native(manager, "sig");
    ASSERT_NE(nullptr, first);

    manager.SubscribeNativeSignal("sig", "sig", NativeB, &userB, 2);
    TCSignalInfo* second = TCServerSignalManagerTestPeer::Native(manager, "sig");
    ASSERT_NE(nullptr, second);
    EXPECT_NE(first, second);
    EXPECT_EQ(1u, TCServerSignalManagerTestPeer::NativeCount(manager));

    TCNativeSignalHandler handler = nullptr;
    void* userData = nullptr;
    EXPECT_TRUE(manager.GetHandlerForNativeSignal("sig", "x.sig", handler, userData));
    EXPECT_EQ(&NativeB, handler);
    EXPECT_EQ(&userB, userData);

    // The replaced record was not freed (reading it would be a
    // use-after-free under ASan); the registry dropped it, so the test
    // releases it.
    EXPECT_EQ(1u, first->m_id);
    EXPECT_EQ(&userA, first->m_userData);
    delete first;

    std::vector<unsigned int> ids;
    manager.Destroy(ids);
    EXPECT_EQ(std::vector<unsigned int>({2u}), ids);
}

TEST_F(SignalRegistry, SameKeyNativeAndManagedAreIndependent) {
    manager.SubscribeNativeSignal("both", "both", NativeA, &userA, 1);
    manager.SubscribeManagedSignal("both", "both", ManagedA, &userB, 2);
    EXPECT_TRUE(manager.IfSignalSubscribed(NATIVE_SIGNAL, "both"));
    EXPECT_TRUE(manager.IfSignalSubscribed(MANAGED_SIGNAL, "both"));

    unsigned int id = 0;
    EXPECT_TRUE(manager.UnsubscribeSignal(NATIVE_SIGNAL, "both", id));
    EXPECT_EQ(1u, id);
    EXPECT_FALSE(manager.IfSignalSubscribed(NATIVE_SIGNAL, "both"));
    EXPECT_TRUE(manager.IfSignalSubscribed(MANAGED_SIGNAL, "both"));

    TCManagedSignalHandler handler = nullptr;
    void* userData = nullptr;
    EXPECT_TRUE(manager.GetHandlerForManagedSignal("both", "both", handler, userData));
    EXPECT_EQ(&ManagedA, handler);
    EXPECT_EQ(&userB, userData);
}

TEST_F(SignalRegistry, QualifiedKeyBeatsPlainName) {
    manager.SubscribeNativeSignal("ping", "ping", NativeA, &userA, 1);
    manager.SubscribeNativeSignal("peer.message.ping", "ping", NativeB, &userB, 2);
    TCNativeSignalHandler handler = nullptr;
    void* userData = nullptr;
    EXPECT_TRUE(manager.GetHandlerForNativeSignal("ping", "peer.message.ping", handler, userData));
    EXPECT_EQ(&NativeB, handler);
    EXPECT_EQ(&userB, userData);

    manager.SubscribeManagedSignal("ping", "ping", ManagedA, &userA, 3);
    manager.SubscribeManagedSignal("peer.message.ping", "ping", ManagedB, &userB, 4);
    TCManagedSignalHandler managed = nullptr;
    EXPECT_TRUE(manager.GetHandlerForManagedSignal("ping", "peer.message.ping", managed, userData));
    EXPECT_EQ(&ManagedB, managed);
}

TEST_F(SignalRegistry, PlainNameIsFoundWhenQualifiedKeyIsAbsent) {
    manager.SubscribeNativeSignal("ping", "ping", NativeA, &userA, 1);
    TCNativeSignalHandler handler = nullptr;
    void* userData = nullptr;
    LogCapture capture;
    EXPECT_TRUE(manager.GetHandlerForNativeSignal("ping", "other.message.ping", handler, userData));
    EXPECT_EQ(&NativeA, handler);
    EXPECT_EQ(&userA, userData);
    EXPECT_TRUE(capture.Lines().empty()) << capture.Dump();

    manager.SubscribeManagedSignal("ping", "ping", ManagedA, &userB, 2);
    TCManagedSignalHandler managed = nullptr;
    EXPECT_TRUE(
        manager.GetHandlerForManagedSignal("ping", "other.message.ping", managed, userData));
    EXPECT_EQ(&ManagedA, managed);
    EXPECT_EQ(&userB, userData);
}

TEST_F(SignalRegistry, NothingFoundLogsDebugAndLeavesOutputs) {
    manager.SubscribeNativeSignal("a.message.x", "x", NativeA, &userA, 1);
    manager.SubscribeManagedSignal("y", "y", ManagedA, &userA, 2);
    TCNativeSignalHandler handler = &NativeB;
    void* userData = &userB;
    LogCapture capture;
    EXPECT_FALSE(manager.GetHandlerForNativeSignal("y", "b.message.y", handler, userData));
    EXPECT_EQ(&NativeB, handler);
    EXPECT_EQ(&userB, userData);
    ASSERT_EQ(1u, capture.CountFramework(DLOG_DEBUG, "cannot find b.message.y")) << capture.Dump();
    EXPECT_EQ("TCServerSignalManager.cpp", capture.Framework("cannot find b.message.y")[0].file);
    EXPECT_EQ("GetHandlerForNativeSignal", capture.Framework("cannot find b.message.y")[0].func);

    TCManagedSignalHandler managed = &ManagedB;
    EXPECT_FALSE(manager.GetHandlerForManagedSignal("x", "a.message.x", managed, userData));
    EXPECT_EQ(&ManagedB, managed);
    ASSERT_EQ(1u, capture.CountFramework(DLOG_DEBUG, "cannot find a.message.x")) << capture.Dump();
    EXPECT_EQ("GetHandlerForManagedSignal", capture.Framework("cannot find a.message.x")[0].func);
}

TEST_F(SignalRegistry, StoredNullHandlerIsReturnedAsNull) {
    manager.SubscribeNativeSignal("n", "n", nullptr, &userA, 1);
    manager.SubscribeManagedSignal("n", "n", nullptr, nullptr, 2);
    TCNativeSignalHandler handler = &NativeA;
    void* userData = nullptr;
    EXPECT_TRUE(manager.GetHandlerForNativeSignal("n", "n", handler, userData));
    EXPECT_EQ(nullptr, handler);
    EXPECT_EQ(&userA, userData);

    TCManagedSignalHandler managed = &ManagedA;
    userData = &userB;
    EXPECT_TRUE(manager.GetHandlerForManagedSignal("n", "n", managed, userData));
    EXPECT_EQ(nullptr, managed);
    EXPECT_EQ(nullptr, userData);
}

TEST_F(SignalRegistry, NullRecordCountsAsFoundAndLeavesOutputs) {
    TCServerSignalManagerTestPeer::SetNative(manager, "hollow", nullptr);
    TCNativeSignalHandler handler = &NativeA;
    void* userData = &userA;
    LogCapture capture;
    EXPECT_TRUE(manager.GetHandlerForNativeSignal("hollow", "hollow", handler, userData));
    EXPECT_EQ(&NativeA, handler);
    EXPECT_EQ(&userA, userData);
    EXPECT_TRUE(capture.Lines().empty()) << capture.Dump();
}

TEST_F(SignalRegistry, UnsubscribeHandsBackTheIdAndLogs) {
    manager.SubscribeManagedSignal("svc.message.tick", "tick", ManagedA, nullptr, 4242);
    unsigned int id = 0;
    LogCapture capture;
    EXPECT_TRUE(manager.UnsubscribeSignal(MANAGED_SIGNAL, "svc.message.tick", id));
    EXPECT_EQ(4242u, id);
    ASSERT_EQ(1u, capture.CountFramework(DLOG_INFO, "UnSubscribeSignal svc.message.tick(4242)"))
        << capture.Dump();
    EXPECT_EQ("UnsubscribeSignal",
              capture.Framework("UnSubscribeSignal svc.message.tick(4242)")[0].func);
    EXPECT_FALSE(manager.IfSignalSubscribed(MANAGED_SIGNAL, "svc.message.tick"));
    EXPECT_EQ(0u, TCServerSignalManagerTestPeer::ManagedCount(manager));

    // Gone: a second removal finds nothing.
    id = 7;
    EXPECT_FALSE(manager.UnsubscribeSignal(MANAGED_SIGNAL, "svc.message.tick", id));
    EXPECT_EQ(7u, id);
}

TEST_F(SignalRegistry, UnknownKeyUnsubscribeFailsSilently) {
    manager.SubscribeNativeSignal("known", "known", NativeA, nullptr, 3);
    unsigned int id = 99;
    LogCapture capture;
    EXPECT_FALSE(manager.UnsubscribeSignal(NATIVE_SIGNAL, "unknown", id));
    EXPECT_FALSE(manager.UnsubscribeSignal(MANAGED_SIGNAL, "known", id));
    EXPECT_EQ(99u, id);
    EXPECT_TRUE(capture.Lines().empty()) << capture.Dump();
    EXPECT_TRUE(manager.IfSignalSubscribed(NATIVE_SIGNAL, "known"));
}

TEST_F(SignalRegistry, TypeOtherThanOneActsOnNativeTable) {
    const TCSignalType odd = static_cast<TCSignalType>(7);
    manager.SubscribeNativeSignal("k", "k", NativeA, nullptr, 1);
    manager.SubscribeManagedSignal("k", "k", ManagedA, nullptr, 2);
    manager.SubscribeManagedSignal("m", "m", ManagedA, nullptr, 3);
    EXPECT_TRUE(manager.IfSignalSubscribed(odd, "k"));
    EXPECT_FALSE(manager.IfSignalSubscribed(odd, "m"));

    unsigned int id = 0;
    EXPECT_TRUE(manager.UnsubscribeSignal(odd, "k", id));
    EXPECT_EQ(1u, id);
    EXPECT_FALSE(manager.IfSignalSubscribed(NATIVE_SIGNAL, "k"));
    EXPECT_TRUE(manager.IfSignalSubscribed(MANAGED_SIGNAL, "k"));
}

TEST_F(SignalRegistry, DestroyOnEmptyTablesGivesNoIds) {
    std::vector<unsigned int> ids = {5, 6, 7};
    manager.Destroy(ids);
    EXPECT_TRUE(ids.empty());
}

TEST_F(SignalRegistry, DestroyGivesNativeIdsInKeyOrderThenManaged) {
    manager.SubscribeManagedSignal("b", "b", ManagedA, nullptr, 20);
    manager.SubscribeNativeSignal("zeta", "zeta", NativeA, nullptr, 1);
    manager.SubscribeManagedSignal("a", "a", ManagedA, nullptr, 21);
    manager.SubscribeNativeSignal("Zeta", "Zeta", NativeA, nullptr, 2);
    manager.SubscribeNativeSignal("alpha", "alpha", NativeA, nullptr, 3);
    manager.SubscribeNativeSignal("alphabet", "alphabet", NativeA, nullptr, 4);
    manager.SubscribeNativeSignal("app.message.alpha", "alpha", NativeA, nullptr, 5);

    std::vector<unsigned int> ids = {99};
    manager.Destroy(ids);
    // Byte-wise order: "Zeta" < "alpha" < "alphabet" < "app.message.alpha" < "zeta".
    EXPECT_EQ(std::vector<unsigned int>({2, 3, 4, 5, 1, 21, 20}), ids);
    EXPECT_EQ(0u, TCServerSignalManagerTestPeer::NativeCount(manager));
    EXPECT_EQ(0u, TCServerSignalManagerTestPeer::ManagedCount(manager));

    // Usable again afterwards.
    manager.SubscribeNativeSignal("again", "again", NativeB, nullptr, 8);
    EXPECT_TRUE(manager.IfSignalSubscribed(NATIVE_SIGNAL, "again"));
    manager.Destroy(ids);
    EXPECT_EQ(std::vector<unsigned int>({8}), ids);
}

TEST_F(SignalRegistry, DestroyLogsNothing) {
    manager.SubscribeNativeSignal("q", "q", NativeA, nullptr, 1);
    std::vector<unsigned int> ids;
    LogCapture capture;
    manager.Destroy(ids);
    EXPECT_TRUE(capture.Lines().empty()) << capture.Dump();
}
