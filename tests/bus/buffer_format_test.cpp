// SPDX-License-Identifier: Apache-2.0
// The format byte buffers travel in, across real processes: "ay" between
// endpoints that announce it, "a(y)" (the format every peer reads) with every other
// peer: an old-format peer written against GDBus alone (RawPeer), stock
// tools, and signals.

#include <dlog.h>

#include <string>
#include <vector>

#include "BufferTestSupport.h"
#include "BusTestSupport.h"
#include "LogCapture.h"
#include "TCServer.h"

#if defined(__SANITIZE_THREAD__)
#define HARVO_BUFFER_TSAN 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define HARVO_BUFFER_TSAN 1
#endif
#endif

namespace {

using harvo_bus_test::BufferBytes;
using harvo_bus_test::ByteArrayPayload;
using harvo_bus_test::CloseAtExit;
using harvo_bus_test::CountPrefix;
using harvo_bus_test::ExitedWith;
using harvo_bus_test::kLimit;
using harvo_bus_test::MakeMessage;
using harvo_bus_test::PatternBytes;
using harvo_bus_test::PeerProcess;
using harvo_bus_test::PumpUntil;
using harvo_bus_test::RawPeer;
using harvo_bus_test::RecordingServer;
using harvo_bus_test::RunTool;
using harvo_bus_test::StartServingPeer;
using harvo_bus_test::StructuresPayload;
using harvo_bus_test::SumOf;
using harvo_bus_test::ToolResult;
using harvo_bus_test::WireTap;
using harvo_test::LogCapture;
using Quelt::SERVER_TYPE_APP;
using Quelt::TCMessage;
using Quelt::TCServerTestPeer;

const char kAnnotation[] = "harvo.fw.Buffer.ByteArray";

std::vector<unsigned char> Bytes(const TCMessage& message) {
    return harvo_bus_test::BufferOf(message);
}

// "SENT 1 TYPE CODE SIZE SUM TEXT" as bus_peer's "bsend" prints it.
std::string SentLine(const std::string& type, unsigned code, const std::vector<unsigned char>& buf,
                     const std::string& text) {
    return "SENT 1 " + type + " " + std::to_string(code) + " " + std::to_string(buf.size()) + " " +
           std::to_string(SumOf(buf)) + " " + text;
}

bool IsUniqueName(const std::string& destination) {
    return !destination.empty() && destination[0] == ':';
}

// The destination field of a "send call MEMBER DESTINATION SIGNATURE" line.
std::string DestinationOf(const std::string& line) {
    const size_t afterMember = line.find(' ', std::string("send call ").size());
    const size_t end = line.find(' ', afterMember + 1);
    return line.substr(afterMember + 1, end - afterMember - 1);
}

// ---------------------------------------------------------------------------
// The announcement

// Every method with its arguments: "Name(in s from, ...; out s from, ...)".
std::string Describe(GDBusInterfaceInfo* interface) {
    std::string text;
    for (GDBusMethodInfo** method = interface->methods; *method != nullptr; ++method) {
        text += std::string((*method)->name) + "(";
        for (GDBusArgInfo** arg = (*method)->in_args; arg != nullptr && *arg != nullptr; ++arg)
            text += std::string("in ") + (*arg)->signature + " " + (*arg)->name + ", ";
        for (GDBusArgInfo** arg = (*method)->out_args; arg != nullptr && *arg != nullptr; ++arg)
            text += std::string("out ") + (*arg)->signature + " " + (*arg)->name + ", ";
        text += ")\n";
    }
    return text;
}

TEST(Announcement, IntrospectionShowsTheAnnotationAndNothingElseChanges) {
    PeerProcess peer({"serve", "herald"});
    ASSERT_TRUE(StartServingPeer(peer));

    const ToolResult xml = RunTool({"gdbus", "introspect", "--system", "--xml", "--dest",
                                    "herald.message", "--object-path", "/herald/message"});
    ASSERT_TRUE(ExitedWith(xml, 0)) << xml.err;
    GDBusNodeInfo* node = g_dbus_node_info_new_for_xml(xml.out.c_str(), nullptr);
    ASSERT_NE(node, nullptr) << xml.out;
    GDBusInterfaceInfo* interface = g_dbus_node_info_lookup_interface(node, "herald.message");
    ASSERT_NE(interface, nullptr);
    EXPECT_STREQ(g_dbus_annotation_info_lookup(interface->annotations, kAnnotation), "true");
    // The methods and their arguments are those an old build exports.
    gchar* oldXml = g_strdup_printf(harvo_bus_test::kOldInterfaceXml, "herald.message");
    GDBusNodeInfo* oldNode = g_dbus_node_info_new_for_xml(oldXml, nullptr);
    g_free(oldXml);
    ASSERT_NE(oldNode, nullptr);
    EXPECT_EQ(Describe(interface), Describe(oldNode->interfaces[0]));
    EXPECT_EQ(interface->signals[0], nullptr);
    EXPECT_EQ(interface->properties[0], nullptr);
    g_dbus_node_info_unref(oldNode);
    g_dbus_node_info_unref(node);

    // The text form shows it above the interface.
    const ToolResult text = RunTool({"gdbus", "introspect", "--system", "--dest", "herald.message",
                                     "--object-path", "/herald/message"});
    ASSERT_TRUE(ExitedWith(text, 0)) << text.err;
    EXPECT_NE(text.out.find("  @harvo.fw.Buffer.ByteArray(\"true\")\n  interface herald.message {"),
              std::string::npos)
        << text.out;
}

// ---------------------------------------------------------------------------
// An old-format peer calls a new endpoint

TEST(OldPeer, ItsRequestsGetRepliesInTheFormatItReads) {
    PeerProcess peer({"serve", "fresh"});
    ASSERT_TRUE(StartServingPeer(peer));
    RawPeer old;
    ASSERT_TRUE(old.Connected());

    // Without buffer: the reply holds the single zero byte.
    GVariant* reply = old.CallEndpoint("fresh", "SendMessage",
                                       g_variant_new("(suss)", "old", 4u, "echo", "{\"a\":1}"));
    ASSERT_NE(reply, nullptr);
    EXPECT_STREQ(g_variant_get_type_string(reply), "(sussa(y))");
    EXPECT_EQ(BufferBytes(reply), std::vector<unsigned char>({0}));
    const gchar* from = nullptr;
    guint32 code = 0;
    const gchar* type = nullptr;
    const gchar* text = nullptr;
    g_variant_get_child(reply, 0, "&s", &from);
    g_variant_get_child(reply, 1, "u", &code);
    g_variant_get_child(reply, 2, "&s", &type);
    g_variant_get_child(reply, 3, "&s", &text);
    EXPECT_STREQ(from, "fresh");
    EXPECT_EQ(code, 5u);
    EXPECT_STREQ(type, "re:echo");
    EXPECT_STREQ(text, "{\"a\":1}");
    g_variant_unref(reply);

    // One byte, a few, and 64 KiB come back as "a(y)".
    for (size_t size : {size_t(1), size_t(3), size_t(64 * 1024)}) {
        const std::vector<unsigned char> bytes = PatternBytes(size);
        reply = old.CallEndpoint("fresh", "SendMessageWithBuffer",
                                 StructuresPayload("old", 1, "echo", "{}", bytes));
        ASSERT_NE(reply, nullptr) << size;
        EXPECT_STREQ(g_variant_get_type_string(reply), "(sussa(y))") << size;
        EXPECT_EQ(BufferBytes(reply), bytes) << size;
        g_variant_unref(reply);
    }

    // The single zero byte is "no buffer": answered with the zero byte.
    reply = old.CallEndpoint("fresh", "SendMessageWithBuffer",
                             StructuresPayload("old", 1, "info", "{}", {0}));
    ASSERT_NE(reply, nullptr);
    EXPECT_STREQ(g_variant_get_type_string(reply), "(sussa(y))");
    EXPECT_EQ(BufferBytes(reply), std::vector<unsigned char>({0}));
    g_variant_unref(reply);

    // A plain byte array sent to the bus name, as stock tools send it, is
    // taken; the reply stays "a(y)".
    const std::vector<unsigned char> two = {1, 2};
    reply = old.CallEndpoint("fresh", "SendMessageWithBuffer",
                             ByteArrayPayload("old", 1, "echo", "{}", two));
    ASSERT_NE(reply, nullptr);
    EXPECT_STREQ(g_variant_get_type_string(reply), "(sussa(y))");
    EXPECT_EQ(BufferBytes(reply), two);
    g_variant_unref(reply);
}

// ---------------------------------------------------------------------------
// A new endpoint calls an old-format peer

TEST(OldPeer, ANewEndpointSendsItTheStructuresItReads) {
    RawPeer old;
    ASSERT_TRUE(old.Serve("vintage"));
    PeerProcess peer({"serve", "modern"});
    ASSERT_TRUE(StartServingPeer(peer));

    // No buffer: "SendMessage" with "(suss)"; the zero byte comes back as
    // no buffer.
    ASSERT_TRUE(peer.WriteLine("bsend vintage echo 7 0 {\"n\":1}"));
    EXPECT_EQ(peer.WaitLine("SENT"), SentLine("re:echo", 8, {}, "{\"n\":1}"));
    for (size_t size : {size_t(1), size_t(2), size_t(64 * 1024)}) {
        const std::vector<unsigned char> bytes = PatternBytes(size);
        ASSERT_TRUE(peer.WriteLine("bsend vintage echo 1 " + std::to_string(size) + " {}"));
        EXPECT_EQ(peer.WaitLine("SENT"), SentLine("re:echo", 2, bytes, "{}")) << size;
    }

    const std::vector<RawPeer::Call> calls = old.Calls();
    ASSERT_EQ(calls.size(), 4u);
    EXPECT_EQ(calls[0].method, "SendMessage");
    EXPECT_EQ(calls[0].signature, "(suss)");
    EXPECT_EQ(calls[0].destination, "vintage.message");
    const size_t sizes[] = {1, 2, 64 * 1024};
    for (size_t i = 1; i < calls.size(); ++i) {
        EXPECT_EQ(calls[i].method, "SendMessageWithBuffer") << i;
        EXPECT_EQ(calls[i].signature, "(sussa(y))") << i;
        EXPECT_EQ(calls[i].destination, "vintage.message") << i;
        EXPECT_EQ(calls[i].bytes, PatternBytes(sizes[i - 1])) << i;
    }
}

TEST(OldPeer, ABufferToAPeerThatDoesNotAnswerIntrospectionGoesOutAsStructures) {
    RawPeer mute(false);
    ASSERT_TRUE(mute.Serve("mute"));
    RecordingServer sender("asker", SERVER_TYPE_APP);
    ASSERT_TRUE(sender.CreateDBusServer());
    CloseAtExit closer(sender);
    LogCapture capture;

    const std::vector<unsigned char> bytes = PatternBytes(1000);
    TCMessage message = MakeMessage("echo", 1, "{}", bytes);
    TCMessage reply;
    ASSERT_TRUE(sender.SendMessage("mute", &message, true, &reply, -1));
    EXPECT_EQ(Bytes(reply), bytes);
    const std::vector<RawPeer::Call> calls = mute.Calls();
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_EQ(calls[0].signature, "(sussa(y))");
    EXPECT_EQ(calls[0].bytes, bytes);

    // The question times out on its own thread and is answered "a(y)".
    const std::string warning = "cannot learn the buffer format of mute.message at " +
                                mute.UniqueName() +
                                " (Timeout was reached): its buffers go as a(y)";
    EXPECT_TRUE(PumpUntil([&] { return capture.HasFramework(DLOG_WARN, warning); }))
        << capture.Dump();
    ASSERT_TRUE(sender.SendMessage("mute", &message, true, &reply, -1));
    EXPECT_EQ(Bytes(reply), bytes);
    ASSERT_EQ(mute.Calls().size(), 2u);
    EXPECT_EQ(mute.Calls()[1].signature, "(sussa(y))");
}

TEST(OldPeer, ItsBufferLimitIsThatOfStructuresWhileANewEndpointTakesMore) {
    RawPeer old;
    ASSERT_TRUE(old.Serve("narrow"));
    PeerProcess peer({"serve-quiet", "wide"});
    ASSERT_TRUE(StartServingPeer(peer));
    RecordingServer sender("bulky", SERVER_TYPE_APP);
    ASSERT_TRUE(sender.CreateDBusServer());
    CloseAtExit closer(sender);
    LogCapture capture;

    // 5 MiB as "a(y)" is 40 MiB on the wire: refused before it leaves.
    const std::vector<unsigned char> bytes = PatternBytes(5u * 1024u * 1024u);
    TCMessage big = MakeMessage("info", 1, "{}", bytes);
    TCMessage reply;
    EXPECT_FALSE(sender.SendMessage("narrow", &big, true, &reply, -1));
    EXPECT_EQ(CountPrefix(capture, DLOG_ERROR, "message refused: "), 1u) << capture.Dump();
    EXPECT_TRUE(old.Calls().empty());
    // As "ay" it is 5 MiB, and goes.
    ASSERT_TRUE(sender.SendMessage("wide", &big, true, &reply, -1));
    EXPECT_EQ(reply.m_value["size"].asUInt(), bytes.size());
    EXPECT_EQ(reply.m_value["sum"].asUInt64(), SumOf(bytes));
    EXPECT_EQ(CountPrefix(capture, DLOG_ERROR, "message refused: "), 1u);
}

// ---------------------------------------------------------------------------
// Two new endpoints

TEST(Negotiated, TwoNewEndpointsExchangePlainByteArrays) {
    PeerProcess peer({"serve", "partner"});
    ASSERT_TRUE(StartServingPeer(peer));
    RecordingServer sender("hasty", SERVER_TYPE_APP);
    sender.answer = [](const TCMessage* message, TCMessage* reply) {
        reply->SetMessage(message->GetString());
        reply->m_type = "re:" + message->m_type;
        reply->m_code = message->m_code + 1;
        reply->SetBuffer(message->m_buffer, message->m_size);
    };
    ASSERT_TRUE(sender.CreateDBusServer());
    CloseAtExit closer(sender);
    WireTap tap(TCServerTestPeer::Connection(sender));
    LogCapture capture;

    // 64 KiB there and back.
    const std::vector<unsigned char> big = PatternBytes(64 * 1024);
    TCMessage message = MakeMessage("echo", 1, "{\"k\":2}", big);
    TCMessage reply;
    ASSERT_TRUE(sender.SendMessage("partner", &message, true, &reply, -1));
    EXPECT_EQ(Bytes(reply), big);
    EXPECT_EQ(reply.m_type, "re:echo");
    EXPECT_EQ(reply.m_code, 2u);
    EXPECT_EQ(reply.GetString(), "{\"k\":2}");
    std::vector<std::string> lines = tap.Lines();
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0].substr(0, 32), "send call SendMessageWithBuffer ");
    EXPECT_TRUE(IsUniqueName(DestinationOf(lines[0]))) << lines[0];
    EXPECT_EQ(lines[0].substr(lines[0].size() - 7), " sussay");
    EXPECT_EQ(lines[1], "recv reply sussay");
    const std::string partnerAt = DestinationOf(lines[0]);
    EXPECT_TRUE(capture.HasFramework(DLOG_INFO,
                                     "partner.message at " + partnerAt + " takes buffers as ay"));

    // One byte; and no buffer, which goes as an empty byte array so that
    // the reply may come as one too. The handler sees no buffer.
    tap.Clear();
    TCMessage one = MakeMessage("echo", 1, "{}", {42});
    ASSERT_TRUE(sender.SendMessage("partner", &one, true, &reply, -1));
    EXPECT_EQ(Bytes(reply), std::vector<unsigned char>({42}));
    TCMessage none = MakeMessage("info", 1, "{}");
    TCMessage infoReply;
    ASSERT_TRUE(sender.SendMessage("partner", &none, true, &infoReply, -1));
    EXPECT_EQ(infoReply.m_value["size"].asUInt(), 0u);
    EXPECT_EQ(infoReply.m_buffer, nullptr);
    lines = tap.Lines();
    const std::vector<std::string> expected = {
        "send call SendMessageWithBuffer " + partnerAt + " sussay", "recv reply sussay",
        "send call SendMessageWithBuffer " + partnerAt + " sussay", "recv reply sussay"};
    EXPECT_EQ(lines, expected);

    // The other way: the peer's requests and our replies are byte arrays,
    // but for its very first request, which has no buffer and so does not
    // wait for the answer about us: it goes as before.
    tap.Clear();
    for (size_t size : {size_t(0), size_t(1), size_t(64 * 1024), size_t(0)}) {
        ASSERT_TRUE(peer.WriteLine("bsend hasty echo 3 " + std::to_string(size) + " {}"));
        EXPECT_EQ(peer.WaitLine("SENT", kLimit, true),
                  SentLine("re:echo", 4, PatternBytes(size), "{}"))
            << size;
    }
    lines = tap.Lines();
    const std::string ownName =
        g_dbus_connection_get_unique_name(TCServerTestPeer::Connection(sender));
    const std::vector<std::string> served = {
        "recv call SendMessage hasty.message suss",
        "send reply sussa(y)",
        "recv call SendMessageWithBuffer " + ownName + " sussay",
        "send reply sussay",
        "recv call SendMessageWithBuffer " + ownName + " sussay",
        "send reply sussay",
        "recv call SendMessageWithBuffer " + ownName + " sussay",
        "send reply sussay"};
    EXPECT_EQ(lines, served);
    ASSERT_EQ(sender.ReceivedCount(), 4u);
    EXPECT_EQ(sender.Received(0).buffer, std::vector<unsigned char>());
    EXPECT_EQ(sender.Received(1).buffer, PatternBytes(1));
    EXPECT_EQ(sender.Received(2).buffer, PatternBytes(64 * 1024));
    EXPECT_EQ(sender.Received(3).buffer, std::vector<unsigned char>());
}

TEST(Negotiated, AnAsynchronousRequestGoesAsAByteArrayAndItsReplyArrives) {
    PeerProcess peer({"serve", "later"});
    ASSERT_TRUE(StartServingPeer(peer));
    RecordingServer sender("patient", SERVER_TYPE_APP);
    ASSERT_TRUE(sender.CreateDBusServer());
    CloseAtExit closer(sender);
    WireTap tap(TCServerTestPeer::Connection(sender));

    const std::vector<unsigned char> bytes = PatternBytes(4096);
    TCMessage message = MakeMessage("echo", 5, "{}", bytes);
    TCMessage unused;
    ASSERT_TRUE(sender.SendMessage("later", &message, false, &unused, -1));
    ASSERT_TRUE(PumpUntil([&] { return sender.RepliedCount() == 1; }));
    EXPECT_EQ(sender.Replied(0).buffer, bytes);
    EXPECT_EQ(sender.Replied(0).code, 6u);
    const std::vector<std::string> lines = tap.Lines();
    ASSERT_EQ(lines.size(), 2u) << testing::PrintToString(lines);
    EXPECT_EQ(lines[0].substr(lines[0].size() - 7), " sussay");
    EXPECT_TRUE(IsUniqueName(DestinationOf(lines[0]))) << lines[0];
    EXPECT_EQ(lines[1], "recv reply sussay");
}

// ---------------------------------------------------------------------------
// The destination changes owner

// Has |sender| learn the buffer format of whoever owns |endpoint|'s name
// now: a message without buffer asks without waiting, and the answer's line
// is waited for. A send with a buffer waits for the answer only 500 ms,
// which a loaded machine can exceed; then the buffer goes as "a(y)", as it
// should, but not as the test means to check.
void LearnFormat(RecordingServer& sender, const std::string& endpoint, LogCapture& capture) {
    capture.Clear();
    TCMessage plain = MakeMessage("echo", 0, "{}");
    TCMessage reply;
    ASSERT_TRUE(sender.SendMessage(endpoint.c_str(), &plain, true, &reply, -1));
    const std::string asked = endpoint + ".message at ";
    EXPECT_TRUE(capture.WaitFor(
        [&](const harvo_test::LogLine& line) {
            return line.text.find(asked) != std::string::npos &&
                   line.text.find(" takes buffers as ") != std::string::npos;
        },
        kLimit))
        << capture.Dump();
}

TEST(OwnerChange, WhatWasLearnedDoesNotCarryOverToTheNextOwner) {
    RecordingServer sender("mover", SERVER_TYPE_APP);
    ASSERT_TRUE(sender.CreateDBusServer());
    CloseAtExit closer(sender);
    LogCapture capture;
    WireTap tap(TCServerTestPeer::Connection(sender));
    const std::vector<unsigned char> bytes = PatternBytes(1024);
    TCMessage message = MakeMessage("echo", 1, "{}", bytes);
    TCMessage reply;

    {
        PeerProcess first({"serve", "shifty"});
        ASSERT_TRUE(StartServingPeer(first));
        LearnFormat(sender, "shifty", capture);
        tap.Clear();
        ASSERT_TRUE(sender.SendMessage("shifty", &message, true, &reply, -1));
        EXPECT_EQ(Bytes(reply), bytes);
    }
    ASSERT_TRUE(PumpUntil([&] { return !sender.IsServiceAvailable("shifty"); }));
    std::vector<std::string> lines = tap.Lines();
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0].substr(lines[0].size() - 7), " sussay");
    EXPECT_EQ(lines[1], "recv reply sussay");

    // An old-format peer under the same name gets "a(y)" at the bus name.
    tap.Clear();
    {
        RawPeer old;
        ASSERT_TRUE(old.Serve("shifty"));
        ASSERT_TRUE(sender.SendMessage("shifty", &message, true, &reply, -1));
        EXPECT_EQ(Bytes(reply), bytes);
        const std::vector<RawPeer::Call> calls = old.Calls();
        ASSERT_EQ(calls.size(), 1u);
        EXPECT_EQ(calls[0].signature, "(sussa(y))");
        EXPECT_EQ(calls[0].destination, "shifty.message");
        EXPECT_EQ(calls[0].bytes, bytes);
    }
    lines = tap.Lines();
    const std::vector<std::string> expected = {
        "send call SendMessageWithBuffer shifty.message sussa(y)", "recv reply sussa(y)"};
    EXPECT_EQ(lines, expected);

    // And a new endpoint after it is asked again.
    ASSERT_TRUE(PumpUntil([&] { return !sender.IsServiceAvailable("shifty"); }));
    tap.Clear();
    PeerProcess third({"serve", "shifty"});
    ASSERT_TRUE(StartServingPeer(third));
    LearnFormat(sender, "shifty", capture);
    tap.Clear();
    ASSERT_TRUE(sender.SendMessage("shifty", &message, true, &reply, -1));
    EXPECT_EQ(Bytes(reply), bytes);
    lines = tap.Lines();
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0].substr(lines[0].size() - 7), " sussay");
}

// ---------------------------------------------------------------------------
// Stock tools and signals

class StockTools : public ::testing::Test {
protected:
    void SetUp() override {
        server_.answer = [](const TCMessage* message, TCMessage* reply) {
            reply->SetMessage(message->GetString());
            reply->m_type = "re:" + message->m_type;
            reply->m_code = message->m_code + 1;
            reply->SetBuffer(message->m_buffer, message->m_size);
        };
        ASSERT_TRUE(server_.CreateDBusServer());
        ASSERT_TRUE(PumpUntil([&] { return server_.IsServiceAvailable("typed"); }));
    }
    void TearDown() override { server_.CloseDBusServer(); }

    RecordingServer server_{"typed", SERVER_TYPE_APP};
};

TEST_F(StockTools, GdbusCallAndDbusSendGetStructures) {
    // gdbus call takes typed arguments from the introspection, which cannot
    // type an "a*" buffer: it calls the method without one.
    ToolResult result = RunTool({"gdbus", "call", "--system", "--dest", "typed.message",
                                 "--object-path", "/typed/message", "--method",
                                 "typed.message.SendMessage", "me", "1", "echo", "{\"a\":[1]}"});
    ASSERT_TRUE(ExitedWith(result, 0)) << result.err;
    EXPECT_EQ(result.out, "('typed', uint32 2, 're:echo', '{\"a\":[1]}', [(byte 0x00,)])\n");

    // dbus-send sends its buffer as a plain byte array, to the bus name:
    // the reply stays "a(y)".
    result = RunTool({"dbus-send", "--system", "--print-reply", "--dest=typed.message",
                      "/typed/message", "typed.message.SendMessageWithBuffer", "string:me",
                      "uint32:1", "string:echo", "string:{}", "array:byte:1,2"});
    ASSERT_TRUE(ExitedWith(result, 0)) << result.err;
    const std::string body =
        "   string \"typed\"\n   uint32 2\n   string \"re:echo\"\n"
        "   string \"{}\"\n   array [\n      struct {\n         byte 1\n"
        "      }\n      struct {\n         byte 2\n      }\n   ]\n";
    ASSERT_GE(result.out.size(), body.size()) << result.out;
    EXPECT_EQ(result.out.substr(result.out.size() - body.size()), body) << result.out;
    ASSERT_EQ(server_.ReceivedCount(), 2u);
    EXPECT_EQ(server_.Received(1).buffer, std::vector<unsigned char>({1, 2}));
}

TEST_F(StockTools, BusctlCallWithTypedArgumentsGetsStructures) {
    gchar* busctl = g_find_program_in_path("busctl");
    if (busctl == nullptr)
        GTEST_SKIP() << "busctl (Debian package systemd) is not installed here";
    g_free(busctl);
    const std::vector<std::string> head = {"busctl",        "--system",       "call",
                                           "typed.message", "/typed/message", "typed.message"};
    std::vector<std::string> argv = head;
    argv.insert(argv.end(),
                {"SendMessageWithBuffer", "sussay", "me", "1", "echo", "{}", "3", "1", "2", "3"});
    ToolResult result = RunTool(argv);
    ASSERT_TRUE(ExitedWith(result, 0)) << result.err;
    EXPECT_EQ(result.out, "sussa(y) \"typed\" 2 \"re:echo\" \"{}\" 3 1 2 3\n");

    argv = head;
    argv.insert(argv.end(),
                {"SendMessageWithBuffer", "sussa(y)", "me", "1", "echo", "{}", "2", "7", "8"});
    result = RunTool(argv);
    ASSERT_TRUE(ExitedWith(result, 0)) << result.err;
    EXPECT_EQ(result.out, "sussa(y) \"typed\" 2 \"re:echo\" \"{}\" 2 7 8\n");

    argv = head;
    argv.insert(argv.end(), {"SendMessage", "suss", "me", "1", "echo", "{}"});
    result = RunTool(argv);
    ASSERT_TRUE(ExitedWith(result, 0)) << result.err;
    EXPECT_EQ(result.out, "sussa(y) \"typed\" 2 \"re:echo\" \"{}\" 1 0\n");
    ASSERT_EQ(server_.ReceivedCount(), 3u);
    EXPECT_EQ(server_.Received(0).buffer, std::vector<unsigned char>({1, 2, 3}));
    EXPECT_EQ(server_.Received(1).buffer, std::vector<unsigned char>({7, 8}));
}

TEST(Signals, KeepStructuresForTheirUnknownReceivers) {
    PeerProcess peer({"serve", "audience"});
    ASSERT_TRUE(StartServingPeer(peer));
    RecordingServer emitter("crier", SERVER_TYPE_APP);
    ASSERT_TRUE(emitter.CreateDBusServer());
    CloseAtExit closer(emitter);
    // A send first, so that the peer's format is known.
    TCMessage message = MakeMessage("echo", 1, "{}", {1, 2});
    TCMessage reply;
    ASSERT_TRUE(emitter.SendMessage("audience", &message, true, &reply, -1));
    WireTap tap(TCServerTestPeer::Connection(emitter));
    ASSERT_TRUE(emitter.SendSignal("news", &message));
    g_dbus_connection_flush_sync(TCServerTestPeer::Connection(emitter), nullptr, nullptr);
    const std::vector<std::string> expected = {"send signal news sussa(y)"};
    EXPECT_EQ(tap.SignalLines(), expected);
}

// ---------------------------------------------------------------------------
// Memory

long ResidentKbOf(const TCMessage& reply) {
    return static_cast<long>(reply.m_value["rss_kb"].asInt64());
}

TEST(Memory, TenNegotiated1MiBBuffersKeepTheReceiverWithin64MiB) {
#if defined(HARVO_BUS_TEST_ASAN) || defined(HARVO_BUFFER_TSAN)
    GTEST_SKIP() << "the sanitizers' allocators keep freed memory on purpose";
#endif
    RecordingServer sender("loader", SERVER_TYPE_APP);
    ASSERT_TRUE(sender.CreateDBusServer());
    CloseAtExit closer(sender);
    // No environment variable: the receiver runs as a service would.
    PeerProcess peer({"serve-quiet", "hoard"});
    ASSERT_TRUE(StartServingPeer(peer));

    TCMessage ask = MakeMessage("rss", 0, "{}");
    TCMessage reply;
    ASSERT_TRUE(sender.SendMessage("hoard", &ask, true, &reply, -1));
    const long before = ResidentKbOf(reply);
    ASSERT_GT(before, 0);

    const std::vector<unsigned char> bytes = PatternBytes(1024u * 1024u);
    TCMessage big = MakeMessage("echo", 1, "{}", bytes);
    for (int i = 0; i < 10; ++i) {
        ASSERT_TRUE(sender.SendMessage("hoard", &big, true, &reply, -1));
        ASSERT_EQ(reply.m_size, bytes.size());
    }
    EXPECT_EQ(Bytes(reply), bytes);

    ASSERT_TRUE(sender.SendMessage("hoard", &ask, true, &reply, -1));
    const long after = ResidentKbOf(reply);
    const long peak = static_cast<long>(reply.m_value["hwm_kb"].asInt64());
    RecordProperty("receiver_rss_before_kb", static_cast<int>(before));
    RecordProperty("receiver_rss_after_kb", static_cast<int>(after));
    std::printf(
        "receiver resident memory: %ld kB before, %ld kB at the peak, %ld kB after ten "
        "1 MiB buffers both ways\n",
        before, peak, after);
    EXPECT_LE(after, before + 64 * 1024) << before << " kB before, " << after << " kB after";
}

}  // namespace
