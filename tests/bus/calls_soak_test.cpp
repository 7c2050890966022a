// SPDX-License-Identifier: Apache-2.0
// Two minutes of sustained calls between two processes on the private bus:
// synchronous calls from two threads of this process to a peer, and bursts
// of asynchronous calls from the peer to this process. Every call is
// counted on both sides, and the resident memory of both processes must
// stay flat once warmed up. Label "soak": run on purpose (ctest -L soak).

#include <dlog-host.h>

#include <cstdio>
#include <mutex>
#include <string>
#include <vector>

#include "BusTestSupport.h"

namespace {

using namespace harvo_bus_test;
using Quelt::SERVER_TYPE_APP;

const std::chrono::seconds kSoak(120);
const std::chrono::seconds kWarmUp(20);
const int kBurst = 200;
// Growth allowed after the warm-up, in kB.
const long kFlatMarginKb = 8 * 1024;

long OwnResidentKb() {
    FILE* status = std::fopen("/proc/self/status", "r");
    if (status == nullptr)
        return -1;
    long kb = -1;
    char line[256];
    while (std::fgets(line, sizeof(line), status) != nullptr) {
        if (std::sscanf(line, "VmRSS: %ld kB", &kb) == 1)
            break;
    }
    std::fclose(status);
    return kb;
}

// Counts what arrives; answers nothing in particular.
class CountingServer : public TCServer {
public:
    CountingServer() : TCServer("soaker", SERVER_TYPE_APP) {}
    bool IfMessageReceived(const char*, const TCMessage*, TCMessage* reply, const char*) override {
        received.fetch_add(1);
        reply->m_type = "re:soak";
        return true;
    }
    std::atomic<long> received{0};
};

// The first failed calls, printed at the end: what came back and how long
// the call took.
std::mutex g_failuresLock;
std::vector<std::string> g_failures;

void NoteFailure(bool answered, const TCMessage& reply, std::chrono::nanoseconds took) {
    std::lock_guard<std::mutex> hold(g_failuresLock);
    if (g_failures.size() >= 10)
        return;
    g_failures.push_back(std::string(answered ? "answered" : "not answered") + " after " +
                         std::to_string(took.count() / 1000000) + " ms: type \"" + reply.m_type +
                         "\", body " + reply.m_value.toStyledString());
}

struct Sample {
    long ownKb = -1;
    long peerKb = -1;
};

TEST(Soak, TwoMinutesOfCallsAreAllCountedAndMemoryStaysFlat) {
    // Millions of debug lines would only measure the terminal; warnings and
    // errors still show, so that a failed call says why.
    dlog_host_set_min_priority(DLOG_WARN);
    CountingServer local;
    ASSERT_TRUE(local.CreateDBusServer());
    CloseAtExit closer(local);
    PeerProcess peer({"serve-quiet", "soakpeer"});
    ASSERT_TRUE(StartServingPeer(peer));

    auto peerResidentKb = [&local] {
        TCMessage ask = MakeMessage("rss", 0, "{}");
        TCMessage reply;
        if (!local.SendMessage("soakpeer", &ask, true, &reply, -1))
            return -1L;
        return static_cast<long>(reply.m_value["rss_kb"].asInt64());
    };

    std::atomic<bool> stop{false};
    std::atomic<long> sent{0};
    std::atomic<long> failed{0};
    std::vector<std::thread> senders;
    for (int t = 0; t < 2; ++t) {
        senders.emplace_back([&, t] {
            std::vector<unsigned char> bytes(64 + 32 * t, static_cast<unsigned char>(t + 1));
            TCMessage message =
                MakeMessage("info", static_cast<unsigned>(t), "{\"soak\":true}", bytes);
            while (!stop.load()) {
                TCMessage reply;
                const auto asked = std::chrono::steady_clock::now();
                const bool answered = local.SendMessage("soakpeer", &message, true, &reply, 20000);
                if (answered && reply.m_value["size"].asUInt() == bytes.size()) {
                    sent.fetch_add(1);
                } else {
                    failed.fetch_add(1);
                    NoteFailure(answered, reply, std::chrono::steady_clock::now() - asked);
                }
            }
        });
    }

    // This thread serves the peer's bursts and takes the samples.
    const auto start = std::chrono::steady_clock::now();
    long bursts = 0;
    Sample warm, end;
    auto elapsed = [&start] { return std::chrono::steady_clock::now() - start; };
    while (elapsed() < kSoak) {
        ASSERT_TRUE(peer.WriteLine("flood soaker burst " + std::to_string(kBurst)));
        ++bursts;
        ASSERT_FALSE(peer.WaitLine("FLOODED", kLimit, true).empty());
        const long expected = bursts * kBurst;
        ASSERT_TRUE(PumpUntil([&] { return local.received.load() == expected; }))
            << local.received.load() << " of " << expected;
        if (warm.ownKb < 0 && elapsed() >= kWarmUp) {
            warm.ownKb = OwnResidentKb();
            warm.peerKb = peerResidentKb();
        }
        // A pause between bursts, served like any other time.
        PumpUntil([&] { return elapsed() >= kSoak; }, milliseconds(1000));
    }
    stop = true;
    for (auto& thread : senders)
        thread.join();
    end.ownKb = OwnResidentKb();
    end.peerKb = peerResidentKb();

    // The peer's own count: every call of ours, the rss questions, and this.
    TCMessage ask = MakeMessage("info", 0, "{}");
    TCMessage reply;
    ASSERT_TRUE(local.SendMessage("soakpeer", &ask, true, &reply, -1));
    const long peerCount = static_cast<long>(reply.m_value["count"].asUInt());

    std::printf("soak: %ld calls to the peer (%ld failed), %ld from the peer in %ld bursts\n",
                sent.load(), failed.load(), local.received.load(), bursts);
    std::printf("soak: resident kB after warm-up / at the end: here %ld / %ld, peer %ld / %ld\n",
                warm.ownKb, end.ownKb, warm.peerKb, end.peerKb);
    RecordProperty("calls_to_peer", static_cast<int>(sent.load()));
    RecordProperty("calls_from_peer", static_cast<int>(local.received.load()));

    for (const std::string& failure : g_failures)
        std::printf("soak: failed call: %s\n", failure.c_str());
    EXPECT_EQ(failed.load(), 0);
    EXPECT_GT(sent.load(), 0);
    EXPECT_EQ(peerCount, sent.load() + 2 + 1);
    EXPECT_EQ(local.received.load(), bursts * kBurst);
    ASSERT_GT(warm.ownKb, 0);
    ASSERT_GT(warm.peerKb, 0);
    EXPECT_LT(end.ownKb, warm.ownKb + kFlatMarginKb);
    EXPECT_LT(end.peerKb, warm.peerKb + kFlatMarginKb);
}

}  // namespace
