// SPDX-License-Identifier: Apache-2.0
// Stock D-Bus tools as clients of an endpoint of this process: gdbus
// introspect and call, dbus-send with wrong arguments, dbus-monitor.

#include <dlog.h>

#include <string>
#include <vector>

#include "BusTestSupport.h"
#include "LogCapture.h"
#include "TCServer.h"

namespace {

using harvo_bus_test::CloseAtExit;
using harvo_bus_test::CountPrefix;
using harvo_bus_test::ExitedWith;
using harvo_bus_test::kLimit;
using harvo_bus_test::PeerProcess;
using harvo_bus_test::PumpUntil;
using harvo_bus_test::RecordingServer;
using harvo_bus_test::RunTool;
using harvo_bus_test::Seen;
using harvo_bus_test::ToolResult;
using harvo_test::LogCapture;
using Quelt::SERVER_TYPE_APP;
using Quelt::TCMessage;
using Quelt::TCServerTestPeer;

const char kErrorReplyLine[] =
    "('', uint32 0, '', '{\"dbus_result\":\"fail\",\"errmsg\":\"error handling\"}', "
    "[(byte 0x00,)])\n";

// An application endpoint "tooled" answering like an echo.
class Tools : public ::testing::Test {
protected:
    void SetUp() override {
        server_.answer = [](const TCMessage* message, TCMessage* reply) {
            if (message->m_type == "empty")
                return;
            reply->SetMessage(message->GetString());
            reply->m_type = "re:" + message->m_type;
            reply->m_code = message->m_code + 1;
            if (message->m_type == "bytes") {
                const unsigned char bytes[] = {1, 2, 255};
                reply->SetBuffer(bytes, sizeof(bytes));
            }
        };
        ASSERT_TRUE(server_.CreateDBusServer());
        ASSERT_TRUE(PumpUntil([&] { return server_.IsServiceAvailable("tooled"); }));
    }
    void TearDown() override { server_.CloseDBusServer(); }

    ToolResult Call(const std::string& method, const std::vector<std::string>& args) {
        std::vector<std::string> argv = {
            "gdbus",           "call",           "--system",
            "--dest",          "tooled.message", "--object-path",
            "/tooled/message", "--method",       "tooled.message." + method};
        argv.insert(argv.end(), args.begin(), args.end());
        return RunTool(argv);
    }

    RecordingServer server_{"tooled", SERVER_TYPE_APP};
};

TEST_F(Tools, IntrospectionShowsTheMessageInterface) {
    const ToolResult text = RunTool({"gdbus", "introspect", "--system", "--dest", "tooled.message",
                                     "--object-path", "/tooled/message"});
    ASSERT_TRUE(ExitedWith(text, 0)) << text.err;
    const std::string expected =
        "  interface tooled.message {\n"
        "    methods:\n"
        "      SendMessage(in  s from,\n"
        "                  in  u code,\n"
        "                  in  s type,\n"
        "                  in  s message,\n"
        "                  out s from,\n"
        "                  out u code,\n"
        "                  out s type,\n"
        "                  out s message,\n"
        "                  out a* buffer);\n"
        "      SendMessageWithBuffer(in  s from,\n"
        "                            in  u code,\n"
        "                            in  s type,\n"
        "                            in  s message,\n"
        "                            in  a* buffer,\n"
        "                            out s from,\n"
        "                            out u code,\n"
        "                            out s type,\n"
        "                            out s message,\n"
        "                            out a* buffer);\n"
        "    signals:\n"
        "    properties:\n"
        "  };\n";
    EXPECT_NE(text.out.find(expected), std::string::npos) << text.out;

    // The same, structurally, from the XML.
    const ToolResult xml = RunTool({"gdbus", "introspect", "--system", "--xml", "--dest",
                                    "tooled.message", "--object-path", "/tooled/message"});
    ASSERT_TRUE(ExitedWith(xml, 0)) << xml.err;
    GDBusNodeInfo* node = g_dbus_node_info_new_for_xml(xml.out.c_str(), nullptr);
    ASSERT_NE(node, nullptr);
    GDBusInterfaceInfo* interface = g_dbus_node_info_lookup_interface(node, "tooled.message");
    ASSERT_NE(interface, nullptr);
    const char* names[] = {"from", "code", "type", "message", "buffer"};
    const char* types[] = {"s", "u", "s", "s", "a*"};
    for (const char* methodName : {"SendMessage", "SendMessageWithBuffer"}) {
        GDBusMethodInfo* method = g_dbus_interface_info_lookup_method(interface, methodName);
        ASSERT_NE(method, nullptr) << methodName;
        const int inCount = std::string(methodName) == "SendMessage" ? 4 : 5;
        for (int i = 0; i < 5; ++i) {
            if (i < inCount) {
                ASSERT_NE(method->in_args[i], nullptr);
                EXPECT_STREQ(method->in_args[i]->name, names[i]);
                EXPECT_STREQ(method->in_args[i]->signature, types[i]);
            }
            ASSERT_NE(method->out_args[i], nullptr);
            EXPECT_STREQ(method->out_args[i]->name, names[i]);
            EXPECT_STREQ(method->out_args[i]->signature, types[i]);
        }
        EXPECT_EQ(method->in_args[inCount], nullptr);
        EXPECT_EQ(method->out_args[5], nullptr);
    }
    EXPECT_EQ(interface->methods[2], nullptr);
    g_dbus_node_info_unref(node);
}

TEST_F(Tools, GdbusCallGetsTheHandlersReply) {
    LogCapture capture;
    const ToolResult result = Call("SendMessage", {"caller", "7", "echo", "{\"a\":1}"});
    ASSERT_TRUE(ExitedWith(result, 0)) << result.err;
    EXPECT_EQ(result.out, "('tooled', uint32 8, 're:echo', '{\"a\":1}', [(byte 0x00,)])\n");
    ASSERT_EQ(server_.ReceivedCount(), 1u);
    const Seen seen = server_.Received(0);
    EXPECT_EQ(seen.from, "caller");
    EXPECT_EQ(seen.code, 7u);
    EXPECT_EQ(seen.type, "echo");
    EXPECT_EQ(seen.text, "{\"a\":1}");
    EXPECT_TRUE(seen.buffer.empty());
    EXPECT_TRUE(capture.HasFramework(DLOG_INFO, "SendMessage"));
    EXPECT_TRUE(capture.HasFramework(DLOG_INFO, "from[caller] [{\"a\":1}]"));

    const ToolResult bytes = Call("SendMessage", {"caller", "1", "bytes", "{}"});
    ASSERT_TRUE(ExitedWith(bytes, 0)) << bytes.err;
    EXPECT_EQ(bytes.out,
              "('tooled', uint32 2, 're:bytes', '{}', [(byte 0x01,), (0x02,), (0xff,)])\n");
}

TEST_F(Tools, GdbusCallWithEmptyReplyAndTextThatIsNotJson) {
    const ToolResult empty = Call("SendMessage", {"caller", "1", "empty", "{}"});
    ASSERT_TRUE(ExitedWith(empty, 0)) << empty.err;
    EXPECT_EQ(empty.out, "('tooled', uint32 0, '', '', [(byte 0x00,)])\n");

    const ToolResult text = Call("SendMessage", {"caller", "2", "echo", "not json"});
    ASSERT_TRUE(ExitedWith(text, 0)) << text.err;
    EXPECT_EQ(text.out, "('tooled', uint32 3, 're:echo', 'not json', [(byte 0x00,)])\n");
}

TEST_F(Tools, WrongArgumentsAreRefusedBeforeTheHandler) {
    LogCapture capture;
    const ToolResult missing = Call("SendMessage", {"caller", "1", "echo"});
    EXPECT_TRUE(ExitedWith(missing, 1));
    EXPECT_NE(missing.err.find("org.freedesktop.DBus.Error.InvalidArgs"), std::string::npos)
        << missing.err;

    const ToolResult wrongType =
        RunTool({"dbus-send", "--system", "--print-reply", "--dest=tooled.message",
                 "/tooled/message", "tooled.message.SendMessage", "int32:1", "string:x"});
    EXPECT_TRUE(ExitedWith(wrongType, 1));
    EXPECT_NE(wrongType.err.find("org.freedesktop.DBus.Error.InvalidArgs"), std::string::npos)
        << wrongType.err;

    const ToolResult unknown =
        RunTool({"dbus-send", "--system", "--print-reply", "--dest=tooled.message",
                 "/tooled/message", "tooled.message.Bogus"});
    EXPECT_TRUE(ExitedWith(unknown, 1));
    EXPECT_NE(unknown.err.find("org.freedesktop.DBus.Error.UnknownMethod"), std::string::npos)
        << unknown.err;

    // None reached the handler; the endpoint still answers.
    EXPECT_EQ(server_.ReceivedCount(), 0u);
    EXPECT_FALSE(capture.HasFramework(DLOG_INFO, "SendMessage"));
    const ToolResult good = Call("SendMessage", {"caller", "1", "echo", "{}"});
    EXPECT_TRUE(ExitedWith(good, 0)) << good.err;
}

// The handler itself answers methods it does not know with the error
// reply. GDBus checks method names against the interface first, so the
// handler is exported here under an interface with one more method.
TEST_F(Tools, AnUnknownMethodReachingTheHandlerGetsTheErrorReply) {
    const char xml[] =
        "<node><interface name='tooled.extra'>"
        "<method name='Bogus'>"
        "<arg type='s' name='from' direction='out'/><arg type='u' name='code' direction='out'/>"
        "<arg type='s' name='type' direction='out'/><arg type='s' name='message' "
        "direction='out'/>"
        "<arg type='a*' name='buffer' direction='out'/>"
        "</method></interface></node>";
    GDBusNodeInfo* node = g_dbus_node_info_new_for_xml(xml, nullptr);
    ASSERT_NE(node, nullptr);
    GDBusConnection* connection = TCServerTestPeer::Connection(server_);
    const guint withServer =
        g_dbus_connection_register_object(connection, "/tooled/extra", node->interfaces[0],
                                          TCServerTestPeer::VTable(), &server_, nullptr, nullptr);
    const guint withoutServer =
        g_dbus_connection_register_object(connection, "/tooled/orphan", node->interfaces[0],
                                          TCServerTestPeer::VTable(), nullptr, nullptr, nullptr);
    ASSERT_NE(withServer, 0u);
    ASSERT_NE(withoutServer, 0u);

    LogCapture capture;
    const ToolResult bogus =
        RunTool({"gdbus", "call", "--system", "--dest", "tooled.message", "--object-path",
                 "/tooled/extra", "--method", "tooled.extra.Bogus"});
    ASSERT_TRUE(ExitedWith(bogus, 0)) << bogus.err;
    EXPECT_EQ(bogus.out, kErrorReplyLine);
    EXPECT_TRUE(capture.HasFramework(DLOG_ERROR, "error method name : Bogus"));
    EXPECT_EQ(server_.ReceivedCount(), 0u);

    // A handler without its server answers the same.
    const ToolResult orphan =
        RunTool({"gdbus", "call", "--system", "--dest", "tooled.message", "--object-path",
                 "/tooled/orphan", "--method", "tooled.extra.Bogus"});
    ASSERT_TRUE(ExitedWith(orphan, 0)) << orphan.err;
    EXPECT_EQ(orphan.out, kErrorReplyLine);
    EXPECT_TRUE(capture.HasFramework(DLOG_ERROR, "pThis NULL"));

    g_dbus_connection_unregister_object(connection, withServer);
    g_dbus_connection_unregister_object(connection, withoutServer);
    g_dbus_node_info_unref(node);
}

// Reads monitor lines (serving our endpoints meanwhile) until one holds
// |needle|; returns it, or "" on timeout.
std::string WaitContaining(PeerProcess& monitor, const std::string& needle) {
    const auto deadline = std::chrono::steady_clock::now() + kLimit;
    std::string line;
    while (std::chrono::steady_clock::now() < deadline) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        if (!monitor.ReadLine(&line, left, true))
            return std::string();
        if (line.find(needle) != std::string::npos)
            return line;
    }
    return std::string();
}

TEST(Monitor, DbusMonitorSeesTheAnnouncement) {
    PeerProcess monitor({"--system", "type='signal',member='service_start_default'"},
                        "dbus-monitor");
    // The monitor is in place once the bus has taken its unique name back.
    ASSERT_FALSE(WaitContaining(monitor, "member=NameLost").empty());

    RecordingServer server("announcer", SERVER_TYPE_APP);
    ASSERT_TRUE(server.CreateDBusServer());
    CloseAtExit closer(server);
    const std::string header = WaitContaining(monitor, "member=service_start_default");
    ASSERT_FALSE(header.empty());
    EXPECT_NE(header.find("path=/announcer/message; interface=announcer.message; "
                          "member=service_start_default"),
              std::string::npos)
        << header;
    std::vector<std::string> body(4);
    for (auto& line : body)
        ASSERT_TRUE(monitor.ReadLine(&line));
    EXPECT_EQ(body[0], "   string \"announcer\"");
    EXPECT_EQ(body[1], "   uint32 0");
    EXPECT_EQ(body[2], "   string \"\"");
    EXPECT_EQ(body[3], "   string \"{\"service_name\":\"announcer\"}\"");
}

}  // namespace
