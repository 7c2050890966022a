// SPDX-License-Identifier: Apache-2.0
// What an old-format sender's "a(y)" buffers leave in a receiver of this
// library, with and without GLib's slice allocator: the figures behind the
// G_SLICE advice in docs/robustness.md.

#include <cstdio>
#include <string>
#include <vector>

#include "BufferTestSupport.h"
#include "BusTestSupport.h"
#include "TCServer.h"

#if defined(__SANITIZE_THREAD__)
#define HARVO_BUFFER_TSAN 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define HARVO_BUFFER_TSAN 1
#endif
#endif

namespace {

using harvo_bus_test::MakeMessage;
using harvo_bus_test::PatternBytes;
using harvo_bus_test::PeerProcess;
using harvo_bus_test::RawPeer;
using harvo_bus_test::RecordingServer;
using harvo_bus_test::StartServingPeer;
using harvo_bus_test::StructuresPayload;
using Quelt::TCMessage;

struct Resident {
    long before = -1;
    long peak = -1;
    long after = -1;
};

// Two 1 MiB "a(y)" buffers from an old-format sender into "bus_peer
// serve-quiet NAME" started with |environment| ("" for none).
Resident AfterTwoStructuresBuffers(const std::string& name, const std::string& environment) {
    Resident resident;
    RecordingServer asker(name + "_asker", Quelt::SERVER_TYPE_APP);
    if (!asker.CreateDBusServer())
        return resident;
    std::vector<std::string> args = {"serve-quiet", name};
    std::string program = HARVO_PEER_PATH;
    if (!environment.empty()) {
        args = {environment, HARVO_PEER_PATH, "serve-quiet", name};
        program = "env";
    }
    PeerProcess peer(args, program);
    RawPeer old;
    TCMessage ask = MakeMessage("rss", 0, "{}");
    TCMessage reply;
    if (StartServingPeer(peer) && old.Connected() &&
        asker.SendMessage(name.c_str(), &ask, true, &reply, -1)) {
        resident.before = static_cast<long>(reply.m_value["rss_kb"].asInt64());
        const std::vector<unsigned char> bytes = PatternBytes(1024u * 1024u);
        bool sent = true;
        for (int i = 0; i < 2 && sent; ++i) {
            GVariant* answer = old.CallEndpoint(name, "SendMessageWithBuffer",
                                                StructuresPayload("old", 1, "info", "{}", bytes));
            sent = answer != nullptr;
            if (answer != nullptr)
                g_variant_unref(answer);
        }
        if (sent && asker.SendMessage(name.c_str(), &ask, true, &reply, -1)) {
            resident.after = static_cast<long>(reply.m_value["rss_kb"].asInt64());
            resident.peak = static_cast<long>(reply.m_value["hwm_kb"].asInt64());
        }
    }
    asker.CloseDBusServer();
    return resident;
}

TEST(OldSenderMemory, StructuresBuffersNeedTheSliceAllocatorOffOnGlibBefore2_76) {
#if defined(HARVO_BUS_TEST_ASAN) || defined(HARVO_BUFFER_TSAN)
    GTEST_SKIP() << "the sanitizers' allocators keep freed memory on purpose";
#endif
    const Resident plain = AfterTwoStructuresBuffers("keeper", "");
    const Resident malloced = AfterTwoStructuresBuffers("giver", "G_SLICE=always-malloc");
    ASSERT_GT(plain.after, 0);
    ASSERT_GT(malloced.after, 0);
    std::printf(
        "receiver of two 1 MiB a(y) buffers, resident kB (before / peak / after): "
        "%ld / %ld / %ld without G_SLICE, %ld / %ld / %ld with G_SLICE=always-malloc\n",
        plain.before, plain.peak, plain.after, malloced.before, malloced.peak, malloced.after);
    RecordProperty("plain_after_kb", static_cast<int>(plain.after));
    RecordProperty("always_malloc_after_kb", static_cast<int>(malloced.after));
    // With the advice followed, the memory goes back.
    EXPECT_LT(malloced.after, malloced.before + 32 * 1024);
    if (glib_check_version(2, 76, 0) != nullptr) {
        // GLib before 2.76 keeps the slices for good: the reason for the
        // advice (hundreds of MB).
        EXPECT_GT(plain.after, plain.before + 64 * 1024);
    } else {
        EXPECT_LT(plain.after, plain.before + 32 * 1024);
    }
}

}  // namespace
