// SPDX-License-Identifier: Apache-2.0
// Who owns a bus name, followed across processes: the owner appears,
// disappears and is replaced while the cache asks the daemon once per name;
// followed names are bounded per connection, and a finalised connection
// leaves nothing behind.

#include "BusTestSupport.h"
#include "NameOwners.h"

namespace {

using namespace harvo_bus_test;
using Quelt::detail::FollowNameOwner;
using Quelt::detail::kFollowedNamesPerConnection;
using Quelt::detail::NameOwner;
using Quelt::detail::NameOwnerCountsFor;

// The framework's connection (the process's system bus connection).
class NameOwners : public ::testing::Test {
protected:
    void SetUp() override {
        connection_ = g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, nullptr);
        ASSERT_NE(connection_, nullptr);
        observer_ = NewSecondConnection();
        ASSERT_NE(observer_, nullptr);
    }
    void TearDown() override {
        g_dbus_connection_close_sync(observer_, nullptr, nullptr);
        g_object_unref(observer_);
        g_object_unref(connection_);
    }

    size_t Questions() { return NameOwnerCountsFor(connection_).daemonQuestions; }

    // The daemon's own answer, asked on another connection.
    std::string DaemonSays(const std::string& name) {
        GVariant* answer = g_dbus_connection_call_sync(
            observer_, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
            "GetNameOwner", g_variant_new("(s)", name.c_str()), G_VARIANT_TYPE("(s)"),
            G_DBUS_CALL_FLAGS_NONE, -1, nullptr, nullptr);
        if (answer == nullptr)
            return std::string();
        const gchar* owner = nullptr;
        g_variant_get(answer, "(&s)", &owner);
        std::string result = owner;
        g_variant_unref(answer);
        return result;
    }

    // Waits until the cache says |owner|, asking it over and over.
    bool CacheSays(const std::string& name, const std::string& owner) {
        return PumpUntil([&] { return NameOwner(connection_, name) == owner; });
    }

    GDBusConnection* connection_ = nullptr;
    GDBusConnection* observer_ = nullptr;
};

TEST_F(NameOwners, TheOwnerAppearsDisappearsAndIsReplacedForOneQuestion) {
    const size_t before = Questions();
    EXPECT_EQ(NameOwner(connection_, "oracle.message"), "");
    EXPECT_EQ(Questions(), before + 1);

    std::string first;
    {
        PeerProcess owner({"serve", "oracle"});
        ASSERT_TRUE(StartServingPeer(owner));
        ASSERT_TRUE(PumpUntil([&] { return !DaemonSays("oracle.message").empty(); }));
        first = DaemonSays("oracle.message");
        ASSERT_TRUE(CacheSays("oracle.message", first));

        // Replaced while it lives: a second owner asks with "replace".
        PeerProcess replacing({"serve", "oracle"});
        ASSERT_TRUE(PumpUntil([&] {
            const std::string now = DaemonSays("oracle.message");
            return !now.empty() && now != first;
        }));
        const std::string second = DaemonSays("oracle.message");
        ASSERT_TRUE(CacheSays("oracle.message", second));

        replacing.Terminate();
        // The first one was queued and gets it back.
        ASSERT_TRUE(CacheSays("oracle.message", first));
    }
    ASSERT_TRUE(CacheSays("oracle.message", ""));
    // All of it for the one question asked at first.
    EXPECT_EQ(Questions(), before + 1);
    for (int i = 0; i < 1000; ++i)
        ASSERT_EQ(NameOwner(connection_, "oracle.message"), "");
    EXPECT_EQ(Questions(), before + 1);
}

TEST_F(NameOwners, FollowingStartsWithoutWaitingAndIsAnsweredLater) {
    PeerProcess owner({"serve", "herald"});
    ASSERT_TRUE(StartServingPeer(owner));
    const std::string unique = DaemonSays("herald.message");
    ASSERT_FALSE(unique.empty());
    const size_t before = Questions();
    FollowNameOwner(connection_, "herald.message");
    FollowNameOwner(connection_, "herald.message");
    EXPECT_EQ(Questions(), before + 1);
    EXPECT_EQ(NameOwner(connection_, "herald.message"), unique);
    EXPECT_EQ(Questions(), before + 1);
}

TEST_F(NameOwners, NamesThatCannotBeFollowed) {
    const size_t before = Questions();
    EXPECT_EQ(NameOwner(connection_, ""), "");
    EXPECT_EQ(NameOwner(connection_, "1st.message"), "");
    EXPECT_EQ(NameOwner(connection_, "nodots"), "");
    EXPECT_EQ(NameOwner(nullptr, "a.message"), "");
    EXPECT_EQ(Questions(), before);
    // Unique names own themselves; asked each time, never followed.
    const std::string observer = g_dbus_connection_get_unique_name(observer_);
    EXPECT_EQ(NameOwner(connection_, observer), observer);
    EXPECT_EQ(NameOwner(connection_, observer), observer);
    EXPECT_EQ(Questions(), before + 2);
    EXPECT_EQ(NameOwnerCountsFor(connection_).followedNames, 0u);
}

// The daemon's count of match rules of a connection (its Stats interface).
long MatchRulesOf(GDBusConnection* asking, const std::string& unique) {
    GVariant* answer = g_dbus_connection_call_sync(
        asking, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus.Debug.Stats",
        "GetConnectionStats", g_variant_new("(s)", unique.c_str()), G_VARIANT_TYPE("(a{sv})"),
        G_DBUS_CALL_FLAGS_NONE, -1, nullptr, nullptr);
    if (answer == nullptr)
        return -1;
    GVariant* stats = g_variant_get_child_value(answer, 0);
    guint32 rules = 0;
    const bool found = g_variant_lookup(stats, "MatchRules", "u", &rules);
    g_variant_unref(stats);
    g_variant_unref(answer);
    return found ? static_cast<long>(rules) : -1;
}

TEST_F(NameOwners, FollowedNamesAreBoundedAndTheirMatchesRemoved) {
    const std::string unique = g_dbus_connection_get_unique_name(connection_);
    const long rulesBefore = MatchRulesOf(observer_, unique);
    const long followedBefore = static_cast<long>(NameOwnerCountsFor(connection_).followedNames);
    const size_t kNames = 3 * kFollowedNamesPerConnection;
    for (size_t i = 0; i < kNames; ++i)
        EXPECT_EQ(NameOwner(connection_, "name" + std::to_string(i) + ".message"), "");
    EXPECT_EQ(NameOwnerCountsFor(connection_).followedNames, kFollowedNamesPerConnection);
    if (rulesBefore < 0)
        GTEST_SKIP() << "the daemon has no Stats interface: match rules not counted";
    // Removals are sent without waiting: a round trip lets them arrive.
    g_dbus_connection_call_sync(connection_, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                                "org.freedesktop.DBus", "GetId", nullptr, nullptr,
                                G_DBUS_CALL_FLAGS_NONE, -1, nullptr, nullptr);
    EXPECT_EQ(MatchRulesOf(observer_, unique),
              rulesBefore - followedBefore + static_cast<long>(kFollowedNamesPerConnection));
    // The least recently asked went; the most recent are still answered
    // without the daemon.
    const size_t questions = Questions();
    EXPECT_EQ(NameOwner(connection_, "name" + std::to_string(kNames - 1) + ".message"), "");
    EXPECT_EQ(Questions(), questions);
    EXPECT_EQ(NameOwner(connection_, "name0.message"), "");
    EXPECT_EQ(Questions(), questions + 1);
}

TEST_F(NameOwners, AFinalisedConnectionLeavesNothingBehind) {
    const size_t connections = NameOwnerCountsFor(connection_).connections;
    for (int round = 0; round < 3; ++round) {
        GDBusConnection* other = NewSecondConnection();
        ASSERT_NE(other, nullptr);
        EXPECT_EQ(NameOwner(other, "gone.message"), "");
        EXPECT_EQ(NameOwnerCountsFor(other).followedNames, 1u);
        EXPECT_EQ(NameOwnerCountsFor(connection_).connections, connections + 1);
        g_dbus_connection_close_sync(other, nullptr, nullptr);
        // GDBus marks it closed from its worker thread.
        ASSERT_TRUE(PumpUntil([&] { return g_dbus_connection_is_closed(other) != FALSE; }));
        // A closed connection is not asked.
        const size_t questions = Questions();
        EXPECT_EQ(NameOwner(other, "gone2.message"), "");
        EXPECT_EQ(Questions(), questions);
        g_object_unref(other);
        // GDBus may hold the connection until its pending callbacks ran.
        EXPECT_TRUE(
            PumpUntil([&] { return NameOwnerCountsFor(connection_).connections == connections; }));
    }
}

}  // namespace
