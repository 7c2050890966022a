// SPDX-License-Identifier: Apache-2.0
// An endpoint under pressure: floods of requests for a busy worker, closes
// and deletes racing with senders and late replies, messages too large for
// the bus, memory after large buffers, a close while a send waits and a
// peer that dies in the middle of a call. Every case runs across real
// processes on the private bus.

#include <sys/resource.h>
#include <time.h>

#include <condition_variable>

#include "BufferTestSupport.h"
#include "BusTestSupport.h"
#include "Gate.h"
#include "EventPayloads.h"
#include "HandOffBudget.h"
#include "TCTask.h"

#if defined(__SANITIZE_THREAD__)
#define HARVO_HOSTILE_TSAN 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define HARVO_HOSTILE_TSAN 1
#endif
#endif

namespace {

using namespace harvo_bus_test;
using harvo_test::LogCapture;
using Quelt::SERVER_TYPE_APP;
using Quelt::SERVER_TYPE_GADGET;

const char kErrorBody[] = "{\"dbus_result\":\"fail\",\"errmsg\":\"error handling\"}";

// A gate a handler waits at until the test opens it.
using harvo_test::Gate;

// A service that handles every bus message on its worker task; "block"
// waits at the gate, everything else is echoed.
class WorkerService : public TCServer {
public:
    WorkerService(const std::string& name, Quelt::TCTask* worker)
        : TCServer(name, SERVER_TYPE_APP), worker_(worker) {}

    bool IfHandleInEventIO(const char*, const TCMessage*, Quelt::TCEventIO** eventIO) override {
        arrived.fetch_add(1);
        *eventIO = worker_;
        return true;
    }
    bool IfMessageReceived(const char*, const TCMessage* message, TCMessage* reply,
                           const char*) override {
        if (message->m_type == "block")
            gate.Wait();
        reply->m_type = "re:" + message->m_type;
        reply->m_code = message->m_code + 1;
        reply->SetMessage("{}");
        handled.fetch_add(1);
        return true;
    }

    Gate gate;
    std::atomic<int> arrived{0};
    std::atomic<int> handled{0};

private:
    Quelt::TCTask* worker_;
};

// A worker task; destroyed (thread joined) at the end of its scope. Its loop
// and queue are made before Create returns, so that a request can never
// reach the queue before it exists.
class Worker {
public:
    Worker() : task_("worker") { created_ = task_.Create("worker", true, 0); }
    ~Worker() {
        if (created_)
            task_.Destroy();
    }
    bool Created() const { return created_; }
    Quelt::TCTask* Task() { return &task_; }

private:
    Quelt::TCTask task_;
    bool created_ = false;
};

long ResidentKbOf(const std::string& reply) {
    Json::Value tree;
    Json::Reader reader;
    if (!reader.parse(reply, tree) || !tree.isObject())
        return -1;
    return static_cast<long>(tree["rss_kb"].asInt64());
}

double ProcessCpuSeconds() {
    timespec now{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

double WallSeconds() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

// ---------------------------------------------------------------------------
// A flood of requests for a worker that is busy

// "UNIQUE :1.42" from a serving peer.
std::string UniqueNameOf(PeerProcess& peer) {
    if (!peer.WriteLine("whoami"))
        return std::string();
    const std::string line = peer.WaitLine("UNIQUE ", kLimit, true);
    return line.empty() ? std::string() : line.substr(7);
}

const int kPerSender = static_cast<int>(Quelt::detail::kHandOffPerSender);
const int kMark = static_cast<int>(Quelt::kWorkerHandOffHighWater);

TEST(BoundedHandOff, AFloodFromOneSenderIsBoundedAndDrainsWhenReleased) {
    Worker worker;
    ASSERT_TRUE(worker.Created());
    WorkerService service("flood", worker.Task());
    ASSERT_TRUE(service.CreateDBusServer());
    CloseAtExit closer(service);
    PeerProcess peer({"serve-quiet", "flooder"});
    ASSERT_TRUE(StartServingPeer(peer));
    const std::string flooder = UniqueNameOf(peer);
    LogCapture capture;

    // The worker is stuck in a handler...
    ASSERT_TRUE(peer.WriteLine("asend flood block 0 {}"));
    ASSERT_TRUE(PumpUntil([&] { return service.gate.Waiting(); })) << capture.Dump();

    // ...while a peer floods it with calls that expect no reply: it gets its
    // share of the queue, and the rest is refused.
    const int kFlood = 1500;
    ASSERT_TRUE(peer.WriteLine("flood flood count " + std::to_string(kFlood)));
    ASSERT_TRUE(PumpUntil([&] { return service.arrived.load() == 1 + kFlood; }))
        << service.arrived.load();
    const std::string refusal = "request for flood refused: " + flooder + " has " +
                                std::to_string(kPerSender) +
                                " requests waiting in the queue of worker (per-sender bound " +
                                std::to_string(kPerSender) + ")";
    size_t lines = 0;
    ASSERT_TRUE(PumpUntil([&] {
        return RefusalsReported(capture, refusal, flooder, &lines) ==
               static_cast<size_t>(kFlood - kPerSender);
    })) << RefusalsReported(capture, refusal, flooder, &lines)
        << capture.Dump();

    // A caller that waits for its reply gets the error reply at once.
    ASSERT_TRUE(peer.WriteLine("send flood echo 7 {}"));
    EXPECT_EQ(peer.WaitLine("SENT", kLimit, true), std::string("SENT 0  0 ") + kErrorBody);

    // Released, the worker drains what was queued and answers again.
    service.gate.Open();
    ASSERT_TRUE(PumpUntil([&] { return service.handled.load() == 1 + kPerSender; }))
        << service.handled.load();
    ASSERT_TRUE(peer.WriteLine("send flood echo 7 {}"));
    EXPECT_EQ(peer.WaitLine("SENT", kLimit, true), "SENT 1 re:echo 8 {}");
    EXPECT_EQ(service.handled.load(), 2 + kPerSender);
}

// The case of a service whose worker is busy for a while: one peer floods
// it with thousands of requests that expect no reply, and an ordinary
// client's requests, sent during the stall, are all queued and answered.
TEST(BoundedHandOff, OneFloodingPeerDoesNotStarveAnOrdinaryClient) {
    Worker worker;
    ASSERT_TRUE(worker.Created());
    WorkerService service("busy", worker.Task());
    ASSERT_TRUE(service.CreateDBusServer());
    CloseAtExit closer(service);
    PeerProcess flood({"serve-quiet", "flooder"});
    PeerProcess client({"serve-quiet", "client"});
    ASSERT_TRUE(StartServingPeer(flood));
    ASSERT_TRUE(StartServingPeer(client));
    const std::string flooder = UniqueNameOf(flood);
    LogCapture capture;
    const auto start = std::chrono::steady_clock::now();

    ASSERT_TRUE(flood.WriteLine("asend busy block 0 {}"));
    ASSERT_TRUE(PumpUntil([&] { return service.gate.Waiting(); }));
    const int kFlood = 5000;
    ASSERT_TRUE(flood.WriteLine("flood busy count " + std::to_string(kFlood)));
    ASSERT_TRUE(PumpUntil([&] { return service.arrived.load() == 1 + kFlood; }))
        << service.arrived.load();
    const int kAsked = 20;
    for (int i = 0; i < kAsked; ++i)
        ASSERT_TRUE(client.WriteLine("asend busy echo " + std::to_string(i) + " {}"));
    ASSERT_TRUE(PumpUntil([&] { return service.arrived.load() == 1 + kFlood + kAsked; }))
        << service.arrived.load();

    // The stall ends: every question of the client is answered.
    service.gate.Open();
    for (int i = 0; i < kAsked; ++i) {
        EXPECT_EQ(client.WaitLine("REPLIED", kLimit, true),
                  "REPLIED busy re:echo " + std::to_string(i + 1) + " {}");
    }
    // The flooder had its share: the request at work and those waiting.
    ASSERT_TRUE(PumpUntil([&] { return service.handled.load() == 1 + kPerSender + kAsked; }))
        << service.handled.load();

    // Its refusals, one line per second at most, account for every one.
    size_t lines = 0;
    const std::string refusal = "request for busy refused: " + flooder + " has ";
    ASSERT_TRUE(PumpUntil([&] {
        return RefusalsReported(capture, refusal, flooder, &lines) ==
               static_cast<size_t>(kFlood - kPerSender);
    })) << RefusalsReported(capture, refusal, flooder, &lines);
    const double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    EXPECT_GE(lines, 1u);
    EXPECT_LE(static_cast<double>(lines), seconds + 1.0) << lines << " lines in " << seconds;
    EXPECT_EQ(service.handled.load(), 1 + kPerSender + kAsked);
}

// Eight senders at their bound fill the queue to its high-water mark; a
// ninth is refused by the mark itself.
TEST(BoundedHandOff, TheQueueAsAWholeKeepsItsHighWaterMark) {
    Worker worker;
    ASSERT_TRUE(worker.Created());
    WorkerService service("crowd", worker.Task());
    ASSERT_TRUE(service.CreateDBusServer());
    CloseAtExit closer(service);
    PeerProcess blocker({"serve-quiet", "blocker"});
    ASSERT_TRUE(StartServingPeer(blocker));
    ASSERT_TRUE(blocker.WriteLine("asend crowd block 0 {}"));
    ASSERT_TRUE(PumpUntil([&] { return service.gate.Waiting(); }));
    LogCapture capture;

    const int kSenders = kMark / kPerSender + 1;
    std::vector<GDBusConnection*> senders;
    for (int i = 0; i < kSenders; ++i) {
        senders.push_back(NewSecondConnection());
        ASSERT_NE(senders.back(), nullptr);
    }
    // One sender after the other, each up to its bound.
    int sent = 0;
    for (int i = 0; i < kSenders; ++i) {
        const std::string from = "crowd" + std::to_string(i);
        for (int n = 0; n < kPerSender; ++n) {
            g_dbus_connection_call(senders[i], "crowd.message", "/crowd/message", "crowd.message",
                                   "SendMessage",
                                   g_variant_new("(suss)", from.c_str(), 0u, "count", "{}"),
                                   nullptr, G_DBUS_CALL_FLAGS_NONE, -1, nullptr, nullptr, nullptr);
        }
        g_dbus_connection_flush_sync(senders[i], nullptr, nullptr);
        sent += kPerSender;
        ASSERT_TRUE(PumpUntil([&] { return service.arrived.load() == 1 + sent; }))
            << service.arrived.load();
    }
    // The last one found the queue full.
    const std::string last = g_dbus_connection_get_unique_name(senders.back());
    const std::string refusal = "request for crowd refused: the queue of worker holds " +
                                std::to_string(kMark) + " events (high-water mark " +
                                std::to_string(kMark) + ")";
    size_t lines = 0;
    ASSERT_TRUE(PumpUntil([&] {
        return RefusalsReported(capture, refusal, last, &lines) == static_cast<size_t>(kPerSender);
    })) << capture.Dump();

    service.gate.Open();
    ASSERT_TRUE(PumpUntil([&] { return service.handled.load() == 1 + kMark; }))
        << service.handled.load();
    for (GDBusConnection* connection : senders) {
        g_dbus_connection_close_sync(connection, nullptr, nullptr);
        g_object_unref(connection);
    }
}

// A request still queued for a worker when its endpoint closes is answered
// with the error reply; the close waits for the handler that runs.
TEST(BoundedHandOff, ARequestQueuedWhenTheEndpointClosesIsAnsweredWithTheErrorReply) {
    Worker worker;
    ASSERT_TRUE(worker.Created());
    WorkerService service("closing", worker.Task());
    ASSERT_TRUE(service.CreateDBusServer());
    PeerProcess peer({"serve", "asker"});
    ASSERT_TRUE(StartServingPeer(peer));
    LogCapture capture;

    ASSERT_TRUE(peer.WriteLine("asend closing block 0 {}"));
    ASSERT_TRUE(PumpUntil([&] { return service.gate.Waiting(); }));
    ASSERT_TRUE(peer.WriteLine("asend closing echo 1 {}"));
    ASSERT_TRUE(PumpUntil([&] { return service.arrived.load() == 2; }));

    std::atomic<bool> closed{false};
    std::thread closer([&] {
        service.CloseDBusServer();
        closed = true;
    });
    // The close waits for the handler in progress...
    ASSERT_TRUE(capture.WaitForFramework(
        DLOG_DEBUG, "close closing: waiting for 1 call(s) in progress on other threads", kLimit))
        << capture.Dump();
    EXPECT_FALSE(closed.load());
    service.gate.Open();
    closer.join();
    EXPECT_EQ(service.handled.load(), 1);
    // ...and the queued request finds the endpoint closed.
    EXPECT_EQ(peer.WaitLine("REPLIED", kLimit, true), "REPLIED closing re:block 1 {}");
    EXPECT_EQ(peer.WaitLine("REPLIED", kLimit, true), std::string("REPLIED   0 ") + kErrorBody);
    EXPECT_TRUE(
        capture.HasFramework(DLOG_WARN, "request for closing dropped: the endpoint was closed"))
        << capture.Dump();
    EXPECT_EQ(service.handled.load(), 1);
}

// ---------------------------------------------------------------------------
// Close and delete against in-process senders and late replies

// Records the deliveries that would have touched it after its close.
class Victim : public TCServer {
public:
    explicit Victim(std::atomic<int>* late, std::atomic<bool>* closed)
        : TCServer("victim", SERVER_TYPE_GADGET), late_(late), closed_(closed) {}
    bool IfMessageReceived(const char*, const TCMessage*, TCMessage* reply, const char*) override {
        if (closed_->load())
            late_->fetch_add(1);
        received.fetch_add(1);
        reply->m_type = "re:victim";
        return true;
    }
    std::atomic<int> received{0};

private:
    std::atomic<int>* late_;
    std::atomic<bool>* closed_;
};

TEST(CloseAndDelete, InProcessSendersNeverReachAReceiverAfterItsClose) {
    RecordingServer sender("racer", SERVER_TYPE_APP);
    ASSERT_TRUE(sender.CreateDBusServer());
    CloseAtExit closer(sender);
    std::atomic<int> late{0};
    LogCapture capture;  // keeps the many lines off the terminal

    for (int round = 0; round < 8; ++round) {
        std::atomic<bool> closed{false};
        Victim* victim = new Victim(&late, &closed);
        ASSERT_TRUE(victim->CreateDBusServer());
        std::atomic<bool> stop{false};
        std::vector<std::thread> threads;
        for (int t = 0; t < 3; ++t) {
            threads.emplace_back([&] {
                TCMessage message = MakeMessage("race", 1, "{}");
                while (!stop.load()) {
                    TCMessage reply;
                    sender.SendMessage("victim", &message, true, &reply, 2000);
                }
            });
        }
        ASSERT_TRUE(PumpUntil([&] { return victim->received.load() >= 20; }));
        victim->CloseDBusServer();
        closed = true;
        delete victim;
        // Senders go on meanwhile: now they find no such endpoint.
        ASSERT_TRUE(PumpUntil([&] {
            return CountPrefix(capture, DLOG_ERROR,
                               "Fail to invoking sync message call(GDBus.Error:org.freedesktop."
                               "DBus.Error.ServiceUnknown: ") >= 3;
        }));
        stop = true;
        for (auto& thread : threads)
            thread.join();
        capture.Clear();
    }
    EXPECT_EQ(late.load(), 0);
}

TEST(CloseAndDelete, AReplyAfterTheSenderWasClosedAndDeletedIsDropped) {
    PeerProcess peer({"serve", "tardy"});
    ASSERT_TRUE(StartServingPeer(peer));
    RecordingServer* sender = new RecordingServer("impatient", SERVER_TYPE_APP);
    ASSERT_TRUE(sender->CreateDBusServer());
    LogCapture capture;

    TCMessage message = MakeMessage("hold", 1, "{}");
    TCMessage reply;
    ASSERT_TRUE(sender->SendMessage("tardy", &message, false, &reply, -1));
    ASSERT_FALSE(peer.WaitLine("HOLDING").empty());
    sender->CloseDBusServer();
    delete sender;

    ASSERT_TRUE(peer.WriteLine("go"));
    EXPECT_TRUE(
        PumpForLog(capture, DLOG_WARN, "late reply for impatient dropped: the endpoint was closed"))
        << capture.Dump();
}

// ---------------------------------------------------------------------------
// A close while a synchronous send waits

TEST(CloseAndDelete, ACloseWaitingForASendSleeps) {
    PeerProcess peer({"serve", "slowpoke"});
    ASSERT_TRUE(StartServingPeer(peer));
    RecordingServer sender("waiter", SERVER_TYPE_APP);
    ASSERT_TRUE(sender.CreateDBusServer());
    LogCapture capture;

    std::atomic<bool> sent{true};
    std::thread sending([&] {
        TCMessage message = MakeMessage("hold", 1, "{}");
        TCMessage reply;
        sent = sender.SendMessage("slowpoke", &message, true, &reply, 3000);
    });
    ASSERT_FALSE(peer.WaitLine("HOLDING").empty());

    // The send ends only when its 3 s timeout expires; the close waits for
    // it all that time.
    const double cpuBefore = ProcessCpuSeconds();
    const double wallBefore = WallSeconds();
    sender.CloseDBusServer();
    const double cpu = ProcessCpuSeconds() - cpuBefore;
    const double wall = WallSeconds() - wallBefore;
    sending.join();
    peer.WriteLine("go");

    EXPECT_FALSE(sent.load());
    EXPECT_TRUE(capture.HasFramework(DLOG_ERROR,
                                     "Fail to invoking sync message call(Timeout was reached 24)"))
        << capture.Dump();
    EXPECT_TRUE(capture.HasFramework(DLOG_DEBUG, "all send message/signal finished"));
    RecordProperty("close_wait_wall_ms", static_cast<int>(wall * 1000));
    RecordProperty("close_wait_cpu_ms", static_cast<int>(cpu * 1000));
    // A spinning wait would burn a whole core for the whole wait.
    EXPECT_LT(cpu, 0.1 * wall) << "cpu " << cpu << " s over " << wall << " s";
}

// ---------------------------------------------------------------------------
// A peer that dies in the middle of a call

TEST(PeerFaults, APeerKilledWhileHandlingFailsTheSendAndTheEndpointGoesOn) {
    RecordingServer sender("survivor", SERVER_TYPE_APP);
    ASSERT_TRUE(sender.CreateDBusServer());
    CloseAtExit closer(sender);
    LogCapture capture;
    {
        PeerProcess doomed({"serve", "doomed"});
        ASSERT_TRUE(StartServingPeer(doomed));
        std::atomic<bool> sent{true};
        std::thread sending([&] {
            TCMessage message = MakeMessage("hold", 1, "{}");
            TCMessage reply;
            sent = sender.SendMessage("doomed", &message, true, &reply, 60000);
        });
        ASSERT_FALSE(doomed.WaitLine("HOLDING").empty());
        kill(doomed.Pid(), SIGKILL);
        sending.join();
        EXPECT_FALSE(sent.load());
        EXPECT_EQ(CountPrefix(capture, DLOG_ERROR,
                              "Fail to invoking sync message call(GDBus.Error:org.freedesktop."
                              "DBus.Error.NoReply: "),
                  1u)
            << capture.Dump();
    }
    // The endpoint still sends and receives.
    PeerProcess next({"serve", "next"});
    ASSERT_TRUE(StartServingPeer(next));
    TCMessage message = MakeMessage("echo", 4, "{\"a\":1}");
    TCMessage reply;
    EXPECT_TRUE(sender.SendMessage("next", &message, true, &reply, -1));
    EXPECT_EQ(reply.m_type, "re:echo");
    ASSERT_TRUE(next.WriteLine("send survivor echo 1 {}"));
    EXPECT_FALSE(next.WaitLine("SENT 1", kLimit, true).empty());
    EXPECT_EQ(sender.ReceivedCount(), 1u);
}

// ---------------------------------------------------------------------------
// Size limits

// The wire sizes named by the error lines of refused messages, in order.
std::vector<size_t> RefusedWireSizes(const LogCapture& capture) {
    static const std::string kHead = "message refused: ";
    static const std::string kTail = " bytes on the wire, the bus takes at most 33554432";
    std::vector<size_t> sizes;
    for (const harvo_test::LogLine& line : capture.Lines()) {
        harvo_test::FrameworkLine parts;
        if (line.tag != "HarvoFW" || line.prio != DLOG_ERROR ||
            !harvo_test::ParseFrameworkText(line.text, &parts))
            continue;
        const std::string& text = parts.text;
        if (text.size() <= kHead.size() + kTail.size() ||
            text.compare(0, kHead.size(), kHead) != 0 ||
            text.compare(text.size() - kTail.size(), kTail.size(), kTail) != 0)
            continue;
        const std::string number =
            text.substr(kHead.size(), text.size() - kHead.size() - kTail.size());
        if (number.find_first_not_of("0123456789") != std::string::npos)
            continue;
        sizes.push_back(std::stoull(number));
    }
    return sizes;
}

TEST(SizeLimits, ABufferAboveTheBusLimitIsRefusedAndTheConnectionSurvives) {
    RecordingServer listener("listener", SERVER_TYPE_APP);
    ASSERT_TRUE(listener.CreateDBusServer());
    CloseAtExit closeListener(listener);
    RecordingServer sender("bulky", SERVER_TYPE_GADGET);
    ASSERT_TRUE(sender.CreateDBusServer());
    CloseAtExit closeSender(sender);
    PeerProcess peer({"serve", "sink"});
    ASSERT_TRUE(StartServingPeer(peer));
    LogCapture capture;

    // Above the limit even as the plain byte array the peer takes (an
    // old-format peer's limit, 8 bytes per buffer byte, is in
    // buffer_format_test).
    const unsigned kBigSize = 33u * 1024u * 1024u;
    TCMessage big = MakeMessage("info", 1, "{}", std::vector<unsigned char>(kBigSize, 1));
    TCMessage reply;
    EXPECT_FALSE(sender.SendMessage("sink", &big, true, &reply, -1));
    // The refusal names the computed wire size (tests/internal checks that
    // it bounds what GDBus marshals).
    const std::vector<size_t> refused = RefusedWireSizes(capture);
    ASSERT_EQ(refused.size(), 1u) << capture.Dump();
    EXPECT_GE(refused[0], kBigSize);
    EXPECT_FALSE(capture.HasFramework(DLOG_INFO, "prepare GVariant"));
    // Asynchronous sends are refused the same way.
    EXPECT_FALSE(sender.SendMessage("sink", &big, false, nullptr, -1));
    const std::vector<size_t> refusedTwice = RefusedWireSizes(capture);
    ASSERT_EQ(refusedTwice.size(), 2u);
    EXPECT_EQ(refusedTwice[1], refused[0]);

    // The connection is still there: a small send works...
    TCMessage small = MakeMessage("info", 2, "{}", {1, 2, 3});
    ASSERT_TRUE(sender.SendMessage("sink", &small, true, &reply, -1));
    EXPECT_EQ(reply.m_value["sum"].asInt(), 6);
    // ...and another endpoint of this process still receives.
    ASSERT_TRUE(peer.WriteLine("send listener echo 1 {}"));
    EXPECT_FALSE(peer.WaitLine("SENT 1", kLimit, true).empty());
    EXPECT_EQ(listener.ReceivedCount(), 1u);
}

TEST(SizeLimits, AReplyAboveTheBusLimitBecomesTheErrorReply) {
    RecordingServer generous("generous", SERVER_TYPE_APP);
    generous.answer = [](const TCMessage*, TCMessage* reply) {
        // Above the limit even as a plain byte array.
        std::vector<unsigned char> bytes(33u * 1024u * 1024u, 9);
        reply->SetBuffer(bytes.data(), static_cast<unsigned>(bytes.size()));
        reply->m_type = "re:big";
    };
    ASSERT_TRUE(generous.CreateDBusServer());
    CloseAtExit closer(generous);
    PeerProcess peer({"serve", "greedy"});
    ASSERT_TRUE(StartServingPeer(peer));
    LogCapture capture;

    ASSERT_TRUE(peer.WriteLine("send generous echo 1 {}"));
    EXPECT_EQ(peer.WaitLine("SENT", kLimit, true), std::string("SENT 0  0 ") + kErrorBody);
    EXPECT_EQ(CountPrefix(capture, DLOG_ERROR, "reply refused: "), 1u) << capture.Dump();
    // The connection survived.
    ASSERT_TRUE(peer.WriteLine("send generous echo 1 {}"));
    EXPECT_EQ(peer.WaitLine("SENT", kLimit, true), std::string("SENT 0  0 ") + kErrorBody);
    EXPECT_EQ(generous.ReceivedCount(), 2u);
}

// ---------------------------------------------------------------------------
// Memory after a large buffer

TEST(Memory, TheReceiverGivesTheMemoryOfA1MiBBufferBack) {
#if defined(HARVO_BUS_TEST_ASAN) || defined(HARVO_HOSTILE_TSAN)
    GTEST_SKIP() << "the sanitizers' allocators keep freed memory on purpose";
#endif
    RecordingServer sender("weigher", SERVER_TYPE_APP);
    ASSERT_TRUE(sender.CreateDBusServer());
    CloseAtExit closer(sender);
    // The buffers come from an old-format peer, as "a(y)": GLib before 2.76
    // keeps the small blocks GDBus makes of them in its slice allocator's
    // caches for good, whatever the framework does; the receiver runs with
    // those caches off, as a deployment on such a GLib is advised to.
    // (Between two endpoints of the framework buffers go as "ay" and need
    // no advice: buffer_format_test.)
    harvo_bus_test::RawPeer old;
    ASSERT_TRUE(old.Connected());
    PeerProcess peer({"G_SLICE=always-malloc", HARVO_PEER_PATH, "serve-quiet", "scale"}, "env");
    ASSERT_TRUE(StartServingPeer(peer));

    TCMessage ask = MakeMessage("rss", 0, "{}");
    TCMessage reply;
    ASSERT_TRUE(sender.SendMessage("scale", &ask, true, &reply, -1));
    const long before = ResidentKbOf(reply.m_message);
    ASSERT_GT(before, 0);

    const unsigned kOneMiB = 1024u * 1024u;
    std::vector<unsigned char> bytes(kOneMiB);
    unsigned long sum = 0;
    for (unsigned i = 0; i < kOneMiB; ++i) {
        bytes[i] = static_cast<unsigned char>(i % 251);
        sum += bytes[i];
    }
    double seconds = 0;
    for (int i = 0; i < 2; ++i) {
        const double start = WallSeconds();
        GVariant* answer =
            old.CallEndpoint("scale", "SendMessageWithBuffer",
                             harvo_bus_test::StructuresPayload("old", 1, "info", "{}", bytes));
        seconds += WallSeconds() - start;
        ASSERT_NE(answer, nullptr);
        const gchar* text = nullptr;
        g_variant_get_child(answer, 3, "&s", &text);
        TCMessage info;
        info.SetMessage(text);
        EXPECT_EQ(info.m_value["sum"].asUInt64(), sum);
        g_variant_unref(answer);
    }

    ASSERT_TRUE(sender.SendMessage("scale", &ask, true, &reply, -1));
    const long after = ResidentKbOf(reply.m_message);
    const long peak = static_cast<long>(reply.m_value["hwm_kb"].asInt64());
    RecordProperty("receiver_rss_before_kb", static_cast<int>(before));
    RecordProperty("receiver_rss_after_kb", static_cast<int>(after));
    std::printf(
        "receiver resident memory: %ld kB before, %ld kB at the peak, %ld kB after two 1 "
        "MiB buffers; %.0f ms per 1 MiB call\n",
        before, peak, after, seconds * 1000 / 2);
    // Generous: the bus library's own caches may grow a little.
    EXPECT_LT(after, before + 32 * 1024) << before << " kB before, " << after << " kB after";
}

}  // namespace
