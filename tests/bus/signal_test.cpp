// SPDX-License-Identifier: Apache-2.0
// Signals: emission, native and managed subscriptions with qualified and
// plain keys, unsubscription and dispatch, inside one process and from the
// peer program.

#include <dlog.h>

#include <atomic>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "BusTestSupport.h"
#include "LogCapture.h"
#include "TCServer.h"
#include "pelx.h"

namespace {

using harvo_bus_test::CloseAtExit;
using harvo_bus_test::CountPrefix;
using harvo_bus_test::HeldCloseLock;
using harvo_bus_test::MakeMessage;
using harvo_bus_test::PeerProcess;
using harvo_bus_test::PumpForLog;
using harvo_bus_test::PumpUntil;
using harvo_bus_test::RecordingServer;
using harvo_bus_test::Seen;
using harvo_bus_test::StartServingPeer;
using harvo_test::LogCapture;
using Quelt::MANAGED_SIGNAL;
using Quelt::NATIVE_SIGNAL;
using Quelt::SERVER_TYPE_APP;
using Quelt::SERVER_TYPE_GADGET;
using Quelt::SERVER_TYPE_PROXY;
using Quelt::TCMessage;
using Quelt::TCServer;
using Quelt::TCServerTestPeer;

// What a signal callback saw.
struct Delivery {
    std::string from;
    std::string signal;
    std::string type;
    unsigned int code = 0;
    std::string text;
    std::vector<unsigned char> buffer;
    void* userData = nullptr;
    GThread* thread = nullptr;
};

// Collects deliveries of one callback.
struct Inbox {
    std::mutex mutex;
    std::vector<Delivery> deliveries;

    size_t Count() {
        std::lock_guard<std::mutex> guard(mutex);
        return deliveries.size();
    }
    Delivery At(size_t i) {
        std::lock_guard<std::mutex> guard(mutex);
        return deliveries.at(i);
    }
    void Add(Delivery delivery) {
        std::lock_guard<std::mutex> guard(mutex);
        deliveries.push_back(std::move(delivery));
    }
};

void NativeHandler(const char* from, const char* signalName, TCMessage* message, void* data) {
    Delivery delivery;
    delivery.from = from != nullptr ? from : "(null)";
    delivery.signal = signalName;
    delivery.type = message->m_type;
    delivery.code = message->m_code;
    delivery.text = message->GetString();
    delivery.buffer = harvo_bus_test::BufferOf(*message);
    delivery.userData = data;
    delivery.thread = g_thread_self();
    static_cast<Inbox*>(data)->Add(delivery);
}

void ManagedHandler(const char* from, const char* signalName, pelx_message_s* message, void* data) {
    Delivery delivery;
    delivery.from = from != nullptr ? from : "(null)";
    delivery.signal = signalName;
    delivery.type = message->type != nullptr ? message->type : "(null)";
    delivery.code = message->code;
    delivery.text = message->info != nullptr ? message->info : "(null)";
    if (message->buffer != nullptr) {
        delivery.buffer.assign(message->buffer, message->buffer + message->buffer_size);
    }
    delivery.userData = data;
    delivery.thread = g_thread_self();
    static_cast<Inbox*>(data)->Add(delivery);
}

// A subscriber application and an emitting gadget in this process; the
// gadget's bus name is "sub.em.message".
class InProcessSignals : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(sub_.CreateDBusServer());
        ASSERT_TRUE(em_.CreateDBusServer());
    }
    void TearDown() override {
        em_.CloseDBusServer();
        sub_.CloseDBusServer();
    }

    // Emits |name| from the gadget, then a sentinel signal that |sub_|
    // receives through its own subscription; once the sentinel is in, every
    // delivery of |name| is in too (one sender, one order).
    void EmitAndSettle(const std::string& name, const TCMessage* message) {
        if (!sentinelSubscribed_) {
            ASSERT_TRUE(sub_.SubscribeSignal("em", "sentinel", NativeHandler, &sentinel_));
            sentinelSubscribed_ = true;
        }
        const size_t before = sentinel_.Count();
        ASSERT_TRUE(em_.SendSignal(name.c_str(), message));
        ASSERT_TRUE(em_.SendSignal("sentinel", nullptr));
        ASSERT_TRUE(PumpUntil([&] { return sentinel_.Count() == before + 1; }));
    }

    RecordingServer sub_{"sub", SERVER_TYPE_APP};
    RecordingServer em_{"em", SERVER_TYPE_GADGET};
    Inbox sentinel_;
    bool sentinelSubscribed_ = false;
};

TEST_F(InProcessSignals, NativeSubscriptionToANamedSender) {
    LogCapture capture;
    Inbox inbox;
    ASSERT_TRUE(sub_.SubscribeSignal("em", "ping", NativeHandler, &inbox));
    EXPECT_TRUE(capture.HasFramework(DLOG_INFO, "Begin subscribe signal"));
    EXPECT_TRUE(capture.HasFramework(DLOG_INFO, "SubscribeSignal sub.em.message.ping success"));
    EXPECT_TRUE(
        TCServerTestPeer::Signals(sub_).IfSignalSubscribed(NATIVE_SIGNAL, "sub.em.message.ping"));

    TCMessage message = MakeMessage("kind", 12, "{\"p\":1}", {4, 5});
    EmitAndSettle("ping", &message);
    EXPECT_TRUE(capture.HasFramework(DLOG_DEBUG, "Send signal ping : success."));
    ASSERT_EQ(inbox.Count(), 1u);
    const Delivery got = inbox.At(0);
    EXPECT_EQ(got.from, "em");
    EXPECT_EQ(got.signal, "ping");
    EXPECT_EQ(got.type, "kind");
    EXPECT_EQ(got.code, 12u);
    EXPECT_EQ(got.text, "{\"p\":1}");
    EXPECT_EQ(got.buffer, (std::vector<unsigned char>{4, 5}));
    EXPECT_EQ(got.userData, &inbox);
    EXPECT_EQ(got.thread, g_thread_self());
    EXPECT_TRUE(capture.HasFramework(DLOG_INFO, "begin to analyze signal of sub.em.message.ping"));
    bool dispatched = false;
    for (const auto& line : capture.Lines()) {
        harvo_test::FrameworkLine parsed;
        if (!harvo_test::ParseFrameworkText(line.text, &parsed))
            continue;
        const std::string tail = ") object(/sub/em/message) interface(sub.em.message) signal(ping)";
        dispatched |= line.prio == DLOG_INFO && parsed.text.rfind("sender(:", 0) == 0 &&
                      parsed.text.size() > tail.size() &&
                      parsed.text.compare(parsed.text.size() - tail.size(), tail.size(), tail) == 0;
    }
    EXPECT_TRUE(dispatched) << capture.Dump();
}

TEST_F(InProcessSignals, EmissionPayloadForms) {
    Inbox inbox;
    ASSERT_TRUE(sub_.SubscribeSignal("em", "form", NativeHandler, &inbox));
    LogCapture capture;
    // A null message travels as an empty message in the four-field form.
    EmitAndSettle("form", nullptr);
    ASSERT_EQ(inbox.Count(), 1u);
    EXPECT_EQ(inbox.At(0).type, "");
    EXPECT_EQ(inbox.At(0).code, 0u);
    EXPECT_EQ(inbox.At(0).text, "");
    EXPECT_TRUE(inbox.At(0).buffer.empty());
    EXPECT_TRUE(capture.HasFramework(DLOG_INFO, "(suss)"));
    EXPECT_FALSE(capture.HasFramework(DLOG_INFO, "(sussa(y))"));

    // A buffer pointer with a size of 0 is no buffer.
    capture.Clear();
    TCMessage sizeless = MakeMessage("t", 1, "{}");
    sizeless.m_buffer = new unsigned char[1]{7};
    sizeless.m_size = 0;
    EmitAndSettle("form", &sizeless);
    EXPECT_FALSE(capture.HasFramework(DLOG_INFO, "(sussa(y))"));
    delete[] sizeless.m_buffer;
    sizeless.m_buffer = nullptr;

    // With bytes: the five-field form.
    capture.Clear();
    TCMessage withBytes = MakeMessage("t", 1, "{}", {1, 0, 2});
    EmitAndSettle("form", &withBytes);
    EXPECT_TRUE(capture.HasFramework(DLOG_INFO, "(sussa(y))"));
    ASSERT_EQ(inbox.Count(), 3u);
    EXPECT_EQ(inbox.At(2).buffer, (std::vector<unsigned char>{1, 0, 2}));
}

// The lines of one delivery (those whose text starts with one of
// |prefixes|), in the order they were written.
std::vector<std::string> LinesStartingWith(const LogCapture& capture,
                                           const std::vector<std::string>& prefixes) {
    std::vector<std::string> found;
    for (const auto& line : capture.Lines()) {
        harvo_test::FrameworkLine parsed;
        if (!harvo_test::ParseFrameworkText(line.text, &parsed))
            continue;
        for (const auto& prefix : prefixes) {
            if (parsed.text.rfind(prefix, 0) == 0) {
                found.push_back(std::to_string(line.prio) + " " + parsed.func + " " + parsed.text);
                break;
            }
        }
    }
    return found;
}

TEST_F(InProcessSignals, ReceivingWritesItsLinesInOrderAndHandsOverEveryField) {
    Inbox inbox;
    ASSERT_TRUE(sub_.SubscribeSignal("em", "order", NativeHandler, &inbox));
    // A body that is not JSON is kept as text, and said so, on receipt.
    TCMessage message = MakeMessage("plain", 4000000000u, "not json at all", {9, 0, 8, 0});
    LogCapture capture;
    EmitAndSettle("order", &message);
    ASSERT_EQ(inbox.Count(), 1u);
    const Delivery got = inbox.At(0);
    EXPECT_EQ(got.from, "em");
    EXPECT_EQ(got.type, "plain");
    EXPECT_EQ(got.code, 4000000000u);
    EXPECT_EQ(got.text, "not json at all");
    EXPECT_EQ(got.buffer, (std::vector<unsigned char>{9, 0, 8, 0}));

    // The sentinel's lines follow; only those of "order" are compared.
    std::vector<std::string> lines =
        LinesStartingWith(capture, {"Send signal order", "sender(", "begin to analyze signal of",
                                    "(sussa(y))", "get data of", "NOT JSON TYPE MESSAGE![not"});
    ASSERT_GE(lines.size(), 6u) << capture.Dump();
    lines.resize(6);
    const std::string sender = "4 m_DSignalHandler sender(:";
    const std::string tail = ") object(/sub/em/message) interface(sub.em.message) signal(order)";
    EXPECT_EQ(lines[1].rfind(sender, 0), 0u) << lines[1];
    ASSERT_GT(lines[1].size(), tail.size());
    EXPECT_EQ(lines[1].substr(lines[1].size() - tail.size()), tail);
    lines[1] = "(sender line)";
    const std::vector<std::string> expected = {
        "3 SendSignal Send signal order : success.",
        "(sender line)",
        "4 m_DSignalHandler begin to analyze signal of sub.em.message.order",
        "4 AnalyseServerMsg (sussa(y))",
        "4 AnalyseServerMsg get data of (sussa(y))",
        "4 Parse NOT JSON TYPE MESSAGE![not json at all]",
    };
    EXPECT_EQ(lines, expected) << capture.Dump();
}

// What a copy of the message carries is what goes on the bus: the tree's
// compact text when there is a tree, the text as it is otherwise.
TEST_F(InProcessSignals, EmissionCarriesWhatACopyOfTheMessageCarries) {
    Inbox inbox;
    ASSERT_TRUE(sub_.SubscribeSignal("em", "copy", NativeHandler, &inbox));

    // Spaced text: sent compact.
    TCMessage spaced = MakeMessage("t", 1, "{ \"b\" : 2 , \"a\" : [1, 2] }");
    EmitAndSettle("copy", &spaced);
    // A tree changed after the text was set: the tree wins.
    TCMessage stale = MakeMessage("t", 2, "{\"old\":true}");
    stale.m_value["old"] = false;
    stale.m_value["new"] = "yes";
    EmitAndSettle("copy", &stale);
    // A tree and no text.
    TCMessage treeOnly;
    treeOnly.m_value["only"] = 1;
    EmitAndSettle("copy", &treeOnly);
    // Text that is not JSON, and text whose tree is empty, go as they are.
    TCMessage notJson = MakeMessage("t", 3, "plain words");
    EmitAndSettle("copy", &notJson);
    TCMessage emptyObject = MakeMessage("t", 4, "{ }");
    EmitAndSettle("copy", &emptyObject);

    ASSERT_EQ(inbox.Count(), 5u);
    EXPECT_EQ(inbox.At(0).text, "{\"a\":[1,2],\"b\":2}");
    EXPECT_EQ(inbox.At(1).text, "{\"new\":\"yes\",\"old\":false}");
    EXPECT_EQ(inbox.At(2).text, "{\"only\":1}");
    EXPECT_EQ(inbox.At(3).text, "plain words");
    EXPECT_EQ(inbox.At(4).text, "{ }");
    // The messages themselves are left as they were.
    EXPECT_EQ(spaced.m_message, "{ \"b\" : 2 , \"a\" : [1, 2] }");
    EXPECT_EQ(stale.m_message, "{\"old\":true}");
    EXPECT_EQ(treeOnly.m_message, "");
}

TEST_F(InProcessSignals, ASizeWithoutBytesIsSentAsZeroBytes) {
    // A message whose size was set without a buffer (members written
    // directly): its copy holds that many zero bytes, and so does the bus.
    Inbox inbox;
    ASSERT_TRUE(sub_.SubscribeSignal("em", "zeros", NativeHandler, &inbox));
    TCMessage sized = MakeMessage("t", 1, "{}");
    sized.m_size = 3;
    LogCapture capture;
    EmitAndSettle("zeros", &sized);
    sized.m_size = 0;
    ASSERT_EQ(inbox.Count(), 1u);
    EXPECT_EQ(inbox.At(0).buffer, (std::vector<unsigned char>{0, 0, 0}));
    EXPECT_TRUE(capture.HasFramework(DLOG_INFO, "get data of (sussa(y))"));
}

TEST_F(InProcessSignals, ALargeBufferArrivesWhole) {
    Inbox inbox;
    ASSERT_TRUE(sub_.SubscribeSignal("em", "large", NativeHandler, &inbox));
    std::vector<unsigned char> bytes(70000);
    for (size_t i = 0; i < bytes.size(); ++i)
        bytes[i] = static_cast<unsigned char>(i * 7 + 1);
    TCMessage message = MakeMessage("blob", 5, "{\"n\":70000}", bytes);
    EmitAndSettle("large", &message);
    ASSERT_EQ(inbox.Count(), 1u);
    EXPECT_EQ(inbox.At(0).buffer, bytes);
    EXPECT_EQ(inbox.At(0).text, "{\"n\":70000}");
    // The sender's message keeps its own bytes.
    EXPECT_EQ(harvo_bus_test::BufferOf(message), bytes);
}

TEST_F(InProcessSignals, SubscribingTwiceToANamedSenderMakesOneSubscription) {
    Inbox inbox;
    ASSERT_TRUE(sub_.SubscribeSignal("em", "ping", NativeHandler, &inbox));
    LogCapture capture;
    EXPECT_TRUE(sub_.SubscribeSignal("em", "ping", NativeHandler, &inbox));
    EXPECT_TRUE(capture.HasFramework(DLOG_INFO, "already registered [sub.em.message.ping]"));
    EXPECT_FALSE(capture.HasFramework(DLOG_INFO, "Begin subscribe signal"));
    EmitAndSettle("ping", nullptr);
    EXPECT_EQ(inbox.Count(), 1u);
}

TEST_F(InProcessSignals, ANullSenderTwiceDeliversTwice) {
    Inbox inbox;
    LogCapture capture;
    {
        // The second store replaces the first record, which stays allocated.
        [[maybe_unused]] harvo_bus_test::AcceptedLeak replaced;
        ASSERT_TRUE(sub_.SubscribeSignal(nullptr, "ping", NativeHandler, &inbox));
    }
    ASSERT_TRUE(sub_.SubscribeSignal(nullptr, "ping", NativeHandler, &inbox));
    EXPECT_EQ(capture.CountFramework(DLOG_INFO, "SubscribeSignal ping success"), 2u);
    EXPECT_EQ(capture.CountFramework(DLOG_INFO, "Begin subscribe signal"), 2u);
    EXPECT_FALSE(capture.HasFramework(DLOG_INFO, "already registered [ping]"));
    EmitAndSettle("ping", nullptr);
    EXPECT_EQ(inbox.Count(), 2u);
    // Both deliveries name the sender.
    EXPECT_EQ(inbox.At(0).from, "em");
    EXPECT_EQ(inbox.At(1).from, "em");
}

TEST_F(InProcessSignals, SubscribingAgainToANamedSenderKeepsTheFirstCallback) {
    Inbox first;
    Inbox second;
    ASSERT_TRUE(sub_.SubscribeSignal("em", "ping", NativeHandler, &first));
    EXPECT_TRUE(sub_.SubscribeSignal("em", "ping", NativeHandler, &second));
    ASSERT_TRUE(sub_.SubscribeManagedSignal("em", "pong", ManagedHandler, &first));
    EXPECT_TRUE(sub_.SubscribeManagedSignal("em", "pong", ManagedHandler, &second));
    EmitAndSettle("ping", nullptr);
    EmitAndSettle("pong", nullptr);
    ASSERT_EQ(first.Count(), 2u);
    EXPECT_EQ(first.At(0).signal, "ping");
    EXPECT_EQ(first.At(1).signal, "pong");
    EXPECT_EQ(second.Count(), 0u);
    // Unsubscribing first is how the callback changes.
    ASSERT_TRUE(sub_.UnSubscribeSignal("em", "ping"));
    ASSERT_TRUE(sub_.SubscribeSignal("em", "ping", NativeHandler, &second));
    EmitAndSettle("ping", nullptr);
    EXPECT_EQ(first.Count(), 2u);
    EXPECT_EQ(second.Count(), 1u);
}

TEST_F(InProcessSignals, ANullSenderAgainRunsTheLastCallbackOncePerSubscription) {
    Inbox first;
    Inbox second;
    {
        // The second store replaces the first record, which stays allocated.
        [[maybe_unused]] harvo_bus_test::AcceptedLeak replaced;
        ASSERT_TRUE(sub_.SubscribeSignal(nullptr, "ping", NativeHandler, &first));
    }
    ASSERT_TRUE(sub_.SubscribeSignal(nullptr, "ping", NativeHandler, &second));
    EmitAndSettle("ping", nullptr);
    EXPECT_EQ(first.Count(), 0u);
    EXPECT_EQ(second.Count(), 2u);
}

TEST_F(InProcessSignals, APlainSubscriptionHearsEverySender) {
    Inbox inbox;
    ASSERT_TRUE(sub_.SubscribeSignal(nullptr, "hello", NativeHandler, &inbox));
    EmitAndSettle("hello", nullptr);
    ASSERT_TRUE(sub_.SendSignal("hello", nullptr));
    ASSERT_TRUE(PumpUntil([&] { return inbox.Count() == 2; }));
    EXPECT_EQ(inbox.At(0).from, "em");
    EXPECT_EQ(inbox.At(1).from, "sub");
}

TEST_F(InProcessSignals, TheQualifiedEntryWinsOverThePlainOne) {
    Inbox qualified, plain;
    ASSERT_TRUE(sub_.SubscribeSignal("em", "ping", NativeHandler, &qualified));
    ASSERT_TRUE(sub_.SubscribeSignal(nullptr, "ping", NativeHandler, &plain));
    EmitAndSettle("ping", nullptr);
    // Both bus subscriptions match and both look the qualified entry up.
    EXPECT_EQ(qualified.Count(), 2u);
    EXPECT_EQ(plain.Count(), 0u);
}

TEST_F(InProcessSignals, NativeWinsOverManaged) {
    Inbox native, managed;
    ASSERT_TRUE(sub_.SubscribeManagedSignal("em", "ping", ManagedHandler, &managed));
    ASSERT_TRUE(sub_.SubscribeSignal("em", "ping", NativeHandler, &native));
    EmitAndSettle("ping", nullptr);
    // Each subscription has its own bus match, and each dispatch finds the
    // native entry first.
    EXPECT_EQ(native.Count(), 2u);
    EXPECT_EQ(managed.Count(), 0u);
    // Without the native one the managed one runs.
    ASSERT_TRUE(sub_.UnSubscribeSignal("em", "ping"));
    EmitAndSettle("ping", nullptr);
    EXPECT_EQ(native.Count(), 2u);
    EXPECT_EQ(managed.Count(), 1u);
}

TEST_F(InProcessSignals, ManagedSubscriptionDeliversTheCRecord) {
    Inbox inbox;
    LogCapture capture;
    ASSERT_TRUE(sub_.SubscribeManagedSignal("em", "ping", ManagedHandler, &inbox));
    EXPECT_TRUE(
        capture.HasFramework(DLOG_INFO, "Subscribe Managed Signal sub.em.message.ping success"));
    // Again: true and silent.
    capture.Clear();
    EXPECT_TRUE(sub_.SubscribeManagedSignal("em", "ping", ManagedHandler, &inbox));
    EXPECT_EQ(capture.Lines().size(), 0u) << capture.Dump();

    TCMessage message = MakeMessage("m", 3, "{\"c\":true}", {9});
    EmitAndSettle("ping", &message);
    ASSERT_EQ(inbox.Count(), 1u);
    const Delivery got = inbox.At(0);
    EXPECT_EQ(got.from, "em");
    EXPECT_EQ(got.signal, "ping");
    EXPECT_EQ(got.type, "m");
    EXPECT_EQ(got.code, 3u);
    EXPECT_EQ(got.text, "{\"c\":true}");
    EXPECT_EQ(got.buffer, (std::vector<unsigned char>{9}));

    // A plain managed subscription.
    Inbox plain;
    ASSERT_TRUE(sub_.SubscribeManagedSignal(nullptr, "other", ManagedHandler, &plain));
    EXPECT_TRUE(capture.HasFramework(DLOG_INFO, "Subscribe Managed Signal other success"));
    EmitAndSettle("other", nullptr);
    ASSERT_EQ(plain.Count(), 1u);
    // Empty texts arrive as null members.
    EXPECT_EQ(plain.At(0).type, "(null)");
    EXPECT_EQ(plain.At(0).text, "(null)");
}

TEST_F(InProcessSignals, UnsubscribeStopsDelivery) {
    Inbox inbox;
    ASSERT_TRUE(sub_.SubscribeSignal("em", "ping", NativeHandler, &inbox));
    EmitAndSettle("ping", nullptr);
    ASSERT_EQ(inbox.Count(), 1u);
    LogCapture capture;
    EXPECT_TRUE(sub_.UnSubscribeSignal("em", "ping"));
    EXPECT_EQ(CountPrefix(capture, DLOG_INFO, "UnSubscribeSignal sub.em.message.ping("), 1u)
        << capture.Dump();
    EXPECT_FALSE(
        TCServerTestPeer::Signals(sub_).IfSignalSubscribed(NATIVE_SIGNAL, "sub.em.message.ping"));
    EmitAndSettle("ping", nullptr);
    EXPECT_EQ(inbox.Count(), 1u);

    // Managed likewise.
    Inbox managed;
    ASSERT_TRUE(sub_.SubscribeManagedSignal("em", "ping", ManagedHandler, &managed));
    EXPECT_TRUE(sub_.UnSubscribeManagedSignal("em", "ping"));
    EXPECT_FALSE(
        TCServerTestPeer::Signals(sub_).IfSignalSubscribed(MANAGED_SIGNAL, "sub.em.message.ping"));
    EmitAndSettle("ping", nullptr);
    EXPECT_EQ(managed.Count(), 0u);
}

TEST_F(InProcessSignals, UnsubscribeEdgeCases) {
    LogCapture capture;
    // Never subscribed: still true.
    EXPECT_TRUE(sub_.UnSubscribeSignal("em", "never"));
    EXPECT_TRUE(sub_.UnSubscribeManagedSignal("em", "never"));
    EXPECT_FALSE(capture.HasFramework(DLOG_ERROR, "dbus connection is not open"));
    // A null sender cannot be unsubscribed singly.
    Inbox inbox;
    ASSERT_TRUE(sub_.SubscribeSignal(nullptr, "ping", NativeHandler, &inbox));
    EXPECT_FALSE(sub_.UnSubscribeSignal(nullptr, "ping"));
    EXPECT_FALSE(sub_.UnSubscribeManagedSignal(nullptr, "ping"));
    EXPECT_EQ(capture.CountFramework(DLOG_ERROR, "dbus connection is not open"), 2u);
    EmitAndSettle("ping", nullptr);
    EXPECT_EQ(inbox.Count(), 1u);
}

TEST_F(InProcessSignals, ASubscriptionWithoutCallbackReachesIfMessageReceived) {
    ASSERT_TRUE(sub_.SubscribeSignal("em", "hook", nullptr, nullptr));
    TCMessage message = MakeMessage("h", 2, "{\"h\":1}");
    EmitAndSettle("hook", &message);
    ASSERT_EQ(sub_.ReceivedCount(), 1u);
    const Seen seen = sub_.Received(0);
    EXPECT_TRUE(seen.hadSignal);
    EXPECT_EQ(seen.signal, "hook");
    EXPECT_EQ(seen.from, "em");
    EXPECT_EQ(seen.type, "h");
    EXPECT_EQ(seen.text, "{\"h\":1}");
    // A managed one without callback too.
    ASSERT_TRUE(sub_.SubscribeManagedSignal("em", "mhook", nullptr, nullptr));
    EmitAndSettle("mhook", nullptr);
    ASSERT_EQ(sub_.ReceivedCount(), 2u);
    EXPECT_EQ(sub_.Received(1).signal, "mhook");
}

TEST_F(InProcessSignals, CloseCancelsEverySubscription) {
    Inbox inbox;
    ASSERT_TRUE(sub_.SubscribeSignal("em", "ping", NativeHandler, &inbox));
    ASSERT_TRUE(sub_.SubscribeManagedSignal(nullptr, "ping", ManagedHandler, &inbox));
    sub_.CloseDBusServer();
    EXPECT_FALSE(
        TCServerTestPeer::Signals(sub_).IfSignalSubscribed(NATIVE_SIGNAL, "sub.em.message.ping"));
    EXPECT_FALSE(TCServerTestPeer::Signals(sub_).IfSignalSubscribed(MANAGED_SIGNAL, "ping"));
    // The gadget hears its own sentinel; nothing reaches the closed server.
    Inbox sentinel;
    ASSERT_TRUE(em_.SubscribeSignal("em", "sentinel", NativeHandler, &sentinel));
    ASSERT_TRUE(em_.SendSignal("ping", nullptr));
    ASSERT_TRUE(em_.SendSignal("sentinel", nullptr));
    ASSERT_TRUE(PumpUntil([&] { return sentinel.Count() == 1; }));
    EXPECT_EQ(inbox.Count(), 0u);
}

TEST_F(InProcessSignals, StaticForms) {
    Inbox inbox;
    LogCapture capture;
    ASSERT_TRUE(TCServer::SubscribeSignal("sub", "em", "ping", NativeHandler, &inbox));
    EXPECT_TRUE(TCServer::SendSignal("em", "ping", nullptr));
    ASSERT_TRUE(PumpUntil([&] { return inbox.Count() == 1; }));
    EXPECT_TRUE(TCServer::UnSubscribeSignal("sub", "em", "ping"));
    Inbox managed;
    ASSERT_TRUE(TCServer::SubscribeManagedSignal("sub", "em", "ping", ManagedHandler, &managed));
    EXPECT_TRUE(TCServer::UnSubscribeManagedSignal("sub", "em", "ping"));

    // A null sender is refused by every static form but the key ones.
    capture.Clear();
    EXPECT_FALSE(TCServer::SubscribeSignal("sub", nullptr, "ping", NativeHandler, &inbox));
    EXPECT_FALSE(TCServer::SubscribeManagedSignal("sub", nullptr, "ping", ManagedHandler, &inbox));
    EXPECT_FALSE(TCServer::UnSubscribeSignal("sub", nullptr, "ping"));
    EXPECT_FALSE(TCServer::UnSubscribeManagedSignal("sub", nullptr, "ping"));
    EXPECT_EQ(capture.CountFramework(DLOG_WARN, "from is null"), 4u);
    EXPECT_EQ(capture.Lines().size(), 4u) << capture.Dump();

    // An unknown source.
    capture.Clear();
    EXPECT_FALSE(TCServer::SubscribeSignal("ghost", "em", "ping", NativeHandler, &inbox));
    EXPECT_FALSE(TCServer::SubscribeManagedSignal("ghost", "em", "ping", ManagedHandler, &inbox));
    EXPECT_FALSE(TCServer::UnSubscribeSignal("ghost", "em", "ping"));
    EXPECT_FALSE(TCServer::UnSubscribeManagedSignal("ghost", "em", "ping"));
    EXPECT_FALSE(TCServer::SubscribeKeySignal("ghost", "em", "ping", NativeHandler, &inbox));
    EXPECT_FALSE(TCServer::UnSubscribeKeySignal("ghost", "em", "ping"));
    EXPECT_FALSE(TCServer::SendSignal("ghost", "ping", nullptr));
    EXPECT_EQ(capture.CountFramework(DLOG_ERROR, "Couldn't find ghost dbus server, subscribe fail"),
              7u);
    EXPECT_EQ(capture.CountFramework(DLOG_WARN, "server is null"), 7u);
    EXPECT_FALSE(TCServer::SendSignal(nullptr, "ping", nullptr));
    EXPECT_TRUE(capture.HasFramework(DLOG_WARN, "source is null"));
}

TEST_F(InProcessSignals, KeySignalsArePlaceholders) {
    LogCapture capture;
    Inbox inbox;
    EXPECT_FALSE(sub_.SubscribeKeySignal("em", "key", NativeHandler, &inbox));
    EXPECT_FALSE(sub_.UnSubscribeKeySignal("em", "key"));
    EXPECT_FALSE(TCServer::SubscribeKeySignal("sub", "em", "key", NativeHandler, &inbox));
    EXPECT_FALSE(TCServer::UnSubscribeKeySignal("sub", nullptr, "key"));
    EXPECT_EQ(capture.Lines().size(), 0u) << capture.Dump();
}

TEST_F(InProcessSignals, ASenderThatCannotBeANameFailsToSubscribe) {
    LogCapture capture;
    Inbox inbox;
    // "a..b.message" is not an interface name (an element is empty).
    EXPECT_FALSE(sub_.SubscribeSignal("a..b", "ping", NativeHandler, &inbox));
    EXPECT_TRUE(capture.HasFramework(DLOG_ERROR, "fail to subscribe signal"));
    EXPECT_TRUE(capture.HasFramework(DLOG_INFO, "fail to register [a..b.message.ping]"));
    EXPECT_FALSE(
        TCServerTestPeer::Signals(sub_).IfSignalSubscribed(NATIVE_SIGNAL, "a..b.message.ping"));
    capture.Clear();
    EXPECT_FALSE(sub_.SubscribeManagedSignal("a..b", "ping", ManagedHandler, &inbox));
    EXPECT_TRUE(capture.HasFramework(DLOG_ERROR, "fail to subscribe signal"));
    EXPECT_EQ(CountPrefix(capture, DLOG_INFO, "fail to register"), 0u);
}

TEST_F(InProcessSignals, DispatchWithoutRegistration) {
    LogCapture capture;
    GVariant* payload = g_variant_ref_sink(g_variant_new("(suss)", "x", 0u, "", ""));
    TCServerTestPeer::SignalHandler(":1.9", "/x/message", "x.message", "nobody", payload, &sub_);
    EXPECT_TRUE(capture.HasFramework(DLOG_INFO, "no register info of x.message.nobody"));
    EXPECT_TRUE(capture.HasFramework(DLOG_DEBUG, "cannot find x.message.nobody"));
    EXPECT_FALSE(capture.HasFramework(DLOG_INFO, "begin to analyze signal of x.message.nobody"));

    capture.Clear();
    TCServerTestPeer::SignalHandler(":1.9", "/x", nullptr, "s", payload, &sub_);
    TCServerTestPeer::SignalHandler(":1.9", "/x", "x.message", nullptr, payload, &sub_);
    TCServerTestPeer::SignalHandler(":1.9", "/x", "x.message", "s", payload, nullptr);
    EXPECT_TRUE(capture.HasFramework(DLOG_WARN, "interfaceName is null"));
    EXPECT_TRUE(capture.HasFramework(DLOG_WARN, "signalName is null"));
    EXPECT_TRUE(capture.HasFramework(DLOG_WARN, "pThis is null"));
    EXPECT_EQ(capture.Lines().size(), 3u) << capture.Dump();
    g_variant_unref(payload);
}

TEST(SignalRefusals, WithoutConnection) {
    LogCapture capture;
    RecordingServer idle("idle", SERVER_TYPE_APP);
    Inbox inbox;
    EXPECT_FALSE(idle.SendSignal("ping", nullptr));
    EXPECT_FALSE(idle.SubscribeSignal("em", "ping", NativeHandler, &inbox));
    EXPECT_TRUE(capture.HasFramework(DLOG_INFO, "fail to register []"));
    EXPECT_FALSE(idle.SubscribeManagedSignal("em", "ping", ManagedHandler, &inbox));
    EXPECT_FALSE(idle.UnSubscribeSignal("em", "ping"));
    EXPECT_FALSE(idle.UnSubscribeManagedSignal("em", "ping"));
    EXPECT_EQ(capture.CountFramework(DLOG_ERROR, "dbus connection is not open"), 5u);
    EXPECT_EQ(TCServerTestPeer::SendCount(idle), 0);
}

TEST(SignalRefusals, AProxyHasNoObjectToEmitOn) {
    RecordingServer proxy("viewer", SERVER_TYPE_PROXY);
    ASSERT_TRUE(proxy.CreateDBusProxy());
    CloseAtExit closer(proxy);
    LogCapture capture;
    EXPECT_FALSE(proxy.SendSignal("ping", nullptr));
    EXPECT_TRUE(capture.HasFramework(DLOG_DEBUG, "Send signal ping : fail."));
    EXPECT_EQ(CountPrefix(capture, DLOG_ERROR, "faile to"), 0u);
    EXPECT_EQ(TCServerTestPeer::SendCount(proxy), 0);
    // But it may listen.
    Inbox inbox;
    EXPECT_TRUE(proxy.SubscribeSignal(nullptr, "ping", NativeHandler, &inbox));
}

TEST(SignalEmission, AnEmissionWaitsForAMomentaryHolderOfTheCloseLock) {
    // Held for a moment by another sender or a subscription, longer than
    // the emitter's first try (1 ms): the emission is not refused.
    RecordingServer app("app", SERVER_TYPE_APP);
    ASSERT_TRUE(app.CreateDBusServer());
    CloseAtExit closer(app);
    HeldCloseLock held(app);
    LogCapture capture;
    std::atomic<int> emitted{-1};
    std::thread emitting([&] { emitted = app.SendSignal("ping", nullptr) ? 1 : 0; });
    // Held well beyond the first try; the emission has not given up.
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    EXPECT_EQ(emitted.load(), -1);
    held.Release();
    emitting.join();
    EXPECT_EQ(emitted.load(), 1);
    EXPECT_FALSE(capture.HasFramework(DLOG_ERROR, "Server is going to be closed!"));
    EXPECT_TRUE(capture.HasFramework(DLOG_DEBUG, "Send signal ping : success."));
}

// ---------------------------------------------------------------------------
// Across processes

TEST(CrossProcessSignals, ServiceStartDefaultReachesASubscriber) {
    RecordingServer app("watcher", SERVER_TYPE_APP);
    ASSERT_TRUE(app.CreateDBusServer());
    CloseAtExit closer(app);
    Inbox inbox;
    ASSERT_TRUE(app.SubscribeSignal("peer", "service_start_default", NativeHandler, &inbox));
    harvo_bus_test::SettleSubscriptions(app);
    PeerProcess peer({"serve", "peer"});
    ASSERT_TRUE(PumpUntil([&] { return inbox.Count() == 1; }));
    const Delivery got = inbox.At(0);
    EXPECT_EQ(got.from, "peer");
    EXPECT_EQ(got.signal, "service_start_default");
    EXPECT_EQ(got.text, "{\"service_name\":\"peer\"}");
    EXPECT_EQ(got.code, 0u);
    EXPECT_EQ(got.type, "");
}

TEST(CrossProcessSignals, QualifiedAndPlainSubscriptionsHearThePeer) {
    RecordingServer app("listener", SERVER_TYPE_APP);
    ASSERT_TRUE(app.CreateDBusServer());
    CloseAtExit closer(app);
    PeerProcess peer({"serve", "peer"});
    ASSERT_TRUE(StartServingPeer(peer));
    Inbox qualified, plain, managed;
    ASSERT_TRUE(app.SubscribeSignal("peer", "news", NativeHandler, &qualified));
    ASSERT_TRUE(app.SubscribeSignal(nullptr, "flash", NativeHandler, &plain));
    ASSERT_TRUE(app.SubscribeManagedSignal("peer", "memo", ManagedHandler, &managed));
    harvo_bus_test::SettleSubscriptions(app);

    ASSERT_TRUE(peer.WriteLine("emit news {\"n\":1}"));
    ASSERT_EQ(peer.WaitLine("EMITTED"), "EMITTED 1");
    ASSERT_TRUE(peer.WriteLine("emit flash {\"f\":2}"));
    ASSERT_EQ(peer.WaitLine("EMITTED"), "EMITTED 1");
    ASSERT_TRUE(peer.WriteLine("emit memo {\"m\":3}"));
    ASSERT_EQ(peer.WaitLine("EMITTED"), "EMITTED 1");
    ASSERT_TRUE(PumpUntil(
        [&] { return qualified.Count() == 1 && plain.Count() == 1 && managed.Count() == 1; }));
    EXPECT_EQ(qualified.At(0).text, "{\"n\":1}");
    EXPECT_EQ(qualified.At(0).from, "peer");
    EXPECT_EQ(plain.At(0).text, "{\"f\":2}");
    EXPECT_EQ(managed.At(0).text, "{\"m\":3}");
    EXPECT_EQ(managed.At(0).signal, "memo");
}

TEST(CrossProcessSignals, ThePeerHearsUs) {
    RecordingServer app("talker", SERVER_TYPE_APP);
    ASSERT_TRUE(app.CreateDBusServer());
    CloseAtExit closer(app);
    PeerProcess peer({"serve", "peer"});
    ASSERT_TRUE(StartServingPeer(peer));
    // The peer emits on request from within a message handler, and we hear
    // it after the reply.
    Inbox inbox;
    ASSERT_TRUE(app.SubscribeSignal("peer", "asked", NativeHandler, &inbox));
    TCMessage request = MakeMessage("emit", 1, "{\"signal\":\"asked\",\"text\":\"{\\\"a\\\":1}\"}");
    TCMessage reply;
    ASSERT_TRUE(app.SendMessage("peer", &request, true, &reply, -1));
    EXPECT_TRUE(reply.m_value["emitted"].asBool());
    ASSERT_TRUE(PumpUntil([&] { return inbox.Count() == 1; }));
    EXPECT_EQ(inbox.At(0).text, "{\"a\":1}");
}

TEST(CrossProcessSignals, AnEmittingProcessThatLeavesAtOnce) {
    RecordingServer app("late", SERVER_TYPE_APP);
    ASSERT_TRUE(app.CreateDBusServer());
    CloseAtExit closer(app);
    Inbox inbox;
    ASSERT_TRUE(app.SubscribeSignal("shout", "bye", NativeHandler, &inbox));
    harvo_bus_test::SettleSubscriptions(app);
    PeerProcess emitter({"emit", "shout", "bye", "{\"last\":true}"});
    ASSERT_TRUE(PumpUntil([&] { return inbox.Count() == 1; }));
    EXPECT_EQ(inbox.At(0).text, "{\"last\":true}");
    EXPECT_EQ(emitter.WaitExit(), 0);
}

}  // namespace
