// SPDX-License-Identifier: Apache-2.0
// Large buffers across processes. Every byte of the buffer travels as an
// array element of its own, which GDBus packs and unpacks one by one: a
// mebibyte each way takes seconds.

#include <string>
#include <vector>

#include "BusTestSupport.h"
#include "TCServer.h"

namespace {

using harvo_bus_test::BufferOf;
using harvo_bus_test::CloseAtExit;
using harvo_bus_test::MakeMessage;
using harvo_bus_test::PeerProcess;
using harvo_bus_test::RecordingServer;
using harvo_bus_test::StartServingPeer;
using Quelt::SERVER_TYPE_APP;
using Quelt::TCMessage;

std::vector<unsigned char> Pattern(size_t size) {
    std::vector<unsigned char> bytes(size);
    for (size_t i = 0; i < size; ++i)
        bytes[i] = static_cast<unsigned char>((i * 7 + 3) & 0xFF);
    return bytes;
}

TEST(LargeBuffers, OneMebibyteBothWays) {
    RecordingServer client("client", SERVER_TYPE_APP);
    ASSERT_TRUE(client.CreateDBusServer());
    CloseAtExit closer(client);
    PeerProcess peer({"serve", "peer"});
    ASSERT_TRUE(StartServingPeer(peer));

    const std::vector<unsigned char> bytes = Pattern(1024 * 1024);
    TCMessage message = MakeMessage("echo", 1, "{\"big\":true}", bytes);
    TCMessage reply;
    ASSERT_TRUE(client.SendMessage("peer", &message, true, &reply, -1));
    ASSERT_EQ(reply.m_size, bytes.size());
    EXPECT_TRUE(BufferOf(reply) == bytes);
    EXPECT_EQ(reply.m_message, "{\"big\":true}");
}

}  // namespace
