// SPDX-License-Identifier: Apache-2.0
// The harvo-bus command-line tool, run as a child process against the
// private bus: availability, synchronous and asynchronous sends with JSON
// and buffers, emitting and listening, and its answers to bad input.
#include <atomic>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "../bus/BusTestSupport.h"

namespace {

using harvo_bus_test::kLimit;
using harvo_bus_test::PeerProcess;
using harvo_bus_test::PumpUntil;
using harvo_bus_test::RecordingServer;
using Quelt::TCMessage;

const char kPeer[] = "tool.peer";

// What the tool printed (standard output and error together) and how it
// ended.
struct Outcome {
    std::vector<std::string> lines;
    int status = -1;  // exit status, or -1 when it did not exit normally

    bool Has(const std::string& text) const {
        for (const auto& line : lines)
            if (line.find(text) != std::string::npos)
                return true;
        return false;
    }
    std::string All() const {
        std::string all;
        for (const auto& line : lines)
            all += line + "\n";
        return all;
    }
};

// Quotes |text| for the shell.
std::string Quote(const std::string& text) {
    std::string quoted = "'";
    for (char c : text)
        quoted += (c == '\'') ? std::string("'\\''") : std::string(1, c);
    return quoted + "'";
}

std::string Command(const std::vector<std::string>& args) {
    std::string command = Quote(HARVO_BUS_TOOL_PATH);
    for (const auto& arg : args)
        command += " " + Quote(arg);
    return command + " 2>&1";
}

// The tool as a child whose output we read line by line.
class Tool {
public:
    explicit Tool(const std::vector<std::string>& args)
        : process_({"-c", Command(args)}, "/bin/sh") {}

    // Reads until |prefix| starts a line ("" on timeout), serving our own
    // endpoints meanwhile.
    std::string WaitLine(const std::string& prefix) {
        std::string line = process_.WaitLine(prefix, kLimit, true);
        if (!line.empty())
            seen_.push_back(line);
        return line;
    }

    // Reads the rest and the exit status.
    Outcome Finish() {
        Outcome outcome;
        outcome.lines = seen_;
        std::string line;
        while (process_.ReadLine(&line, kLimit, true))
            outcome.lines.push_back(line);
        const int status = process_.WaitExit();
        outcome.status = (status != -1 && WIFEXITED(status)) ? WEXITSTATUS(status) : -1;
        return outcome;
    }

private:
    PeerProcess process_;
    std::vector<std::string> seen_;
};

Outcome RunTool(const std::vector<std::string>& args) {
    return Tool(args).Finish();
}

// A file in the test's temporary directory, removed at the end.
class TempFile {
public:
    TempFile(const std::string& name, const std::string& content)
        : path_(std::string(::testing::TempDir()) + name) {
        std::ofstream(path_, std::ios::binary) << content;
    }
    ~TempFile() { std::remove(path_.c_str()); }
    const std::string& Path() const { return path_; }

private:
    std::string path_;
};

class HarvoBusTool : public ::testing::Test {
protected:
    void SetUp() override {
        peer_.reset(new PeerProcess({"serve", kPeer}));
        ASSERT_EQ("READY", peer_->WaitLine("READY"));
    }

    std::unique_ptr<PeerProcess> peer_;
};

TEST(HarvoBusToolUsage, HelpDescribesEveryCommandAndExitsZero) {
    const Outcome outcome = RunTool({"--help"});
    EXPECT_EQ(0, outcome.status);
    for (const char* text : {"Usage: harvo-bus", "available ENDPOINT", "send ENDPOINT",
                             "emit SIGNAL", "listen ENDPOINT SIGNAL", "policy ENDPOINT", "--group",
                             "--json-file", "--buffer-file", "Exit status"})
        EXPECT_TRUE(outcome.Has(text)) << text << "\n" << outcome.All();
}

TEST(HarvoBusToolUsage, VersionNamesToolAndFrameworkAndExitsZero) {
    const Outcome outcome = RunTool({"--version"});
    EXPECT_EQ(0, outcome.status);
    ASSERT_EQ(1u, outcome.lines.size()) << outcome.All();
    EXPECT_EQ("harvo-bus (harvo-fw) " HARVO_FW_VERSION, outcome.lines[0]);
}

TEST(HarvoBusToolUsage, HelpListsTheVersionOption) {
    const Outcome outcome = RunTool({"--help"});
    EXPECT_EQ(0, outcome.status);
    EXPECT_TRUE(outcome.Has("--version")) << outcome.All();
}

TEST(HarvoBusToolUsage, BadUsageIsExplainedWithStatusTwo) {
    struct Case {
        std::vector<std::string> args;
        std::string error;
    };
    const std::vector<Case> cases = {
        {{}, "harvo-bus: no command given"},
        {{"frobnicate"}, "harvo-bus: unknown command frobnicate"},
        {{"send", "x", "--bogus"}, "harvo-bus: unknown option --bogus"},
        {{"send"}, "usage: harvo-bus send ENDPOINT"},
        {{"listen", "x"}, "usage: harvo-bus listen ENDPOINT SIGNAL"},
        {{"send", "x", "--code", "twelve"}, "--code wants a number"},
        {{"send", "x", "--code", "-1"}, "--code wants a number"},
        {{"send", "x", "--timeout"}, "--timeout needs a value"},
        {{"send", "x", "--async", "--no-wait"}, "exclude each other"},
        {{"send", "x", "--json", "{}", "--json-file", "f"}, "not both"},
    };
    for (const Case& c : cases) {
        const Outcome outcome = RunTool(c.args);
        EXPECT_EQ(2, outcome.status) << outcome.All();
        EXPECT_TRUE(outcome.Has(c.error)) << c.error << "\n" << outcome.All();
        EXPECT_TRUE(outcome.Has("Try 'harvo-bus --help'")) << outcome.All();
    }
}

// The policy of an endpoint, line by line, as the daemon reads it; |who|
// names the owners in its comment.
std::string ExpectedPolicy(const std::string& busName, const std::vector<std::string>& owners,
                           const std::string& who) {
    std::string policy =
        "<!DOCTYPE busconfig PUBLIC \"-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN\"\n"
        " \"http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd\">\n"
        "<!-- System bus policy of the harvo-fw endpoint with the bus name " +
        busName +
        ",\n"
        "     made by harvo-bus policy.\n"
        "     Owner: only " +
        who + " may own " + busName +
        "\n"
        "     (and emit signals on its interface).\n"
        "     Callers: everyone may call its methods SendMessage and\n"
        "     SendMessageWithBuffer, introspect it, ping it and receive its signals.\n"
        "     Left to the stock policy: everything else (other names and interfaces,\n"
        "     the bus's own methods). -->\n"
        "<busconfig>\n";
    for (const std::string& owner : owners) {
        policy += "  <policy " + owner + ">\n" + "    <allow own=\"" + busName + "\"/>\n" +
                  "    <allow send_type=\"signal\" send_interface=\"" + busName + "\"/>\n" +
                  "  </policy>\n";
    }
    policy +=
        "  <policy context=\"default\">\n"
        "    <allow send_destination=\"" +
        busName + "\" send_interface=\"" + busName +
        "\"/>\n"
        "    <allow send_destination=\"" +
        busName +
        "\" send_interface=\"org.freedesktop.DBus.Introspectable\"/>\n"
        "    <allow send_destination=\"" +
        busName +
        "\" send_interface=\"org.freedesktop.DBus.Peer\"/>\n"
        "    <allow receive_type=\"signal\" receive_interface=\"" +
        busName +
        "\"/>\n"
        "  </policy>\n"
        "</busconfig>\n";
    return policy;
}

TEST(HarvoBusToolPolicy, LetsTheUserAndTheGroupOwnTheLegalBusNameAndEveryoneCall) {
    // The bus name is made legal the way the endpoint makes it.
    const Outcome outcome = RunTool({"policy", "my app-1", "--user", "daemon", "--group", "staff"});
    EXPECT_EQ(0, outcome.status);
    EXPECT_EQ(ExpectedPolicy("my_app_1.message", {"user=\"daemon\"", "group=\"staff\""},
                             "user daemon and the members of group staff"),
              outcome.All());
}

TEST(HarvoBusToolPolicy, WithoutUserOrGroupTheOwnerIsRoot) {
    const Outcome outcome = RunTool({"policy", "weather"});
    EXPECT_EQ(0, outcome.status);
    EXPECT_EQ(ExpectedPolicy("weather.message", {"user=\"root\""}, "user root"), outcome.All());
    const Outcome group = RunTool({"policy", "weather", "--group", "staff"});
    EXPECT_EQ(ExpectedPolicy("weather.message", {"group=\"staff\""}, "the members of group staff"),
              group.All());
}

// The daemon would skip a rule for an account it does not know, and the
// name would be nobody's to own.
TEST(HarvoBusToolPolicy, RefusesAUserOrGroupThatDoesNotExistInOneLine) {
    const Outcome user = RunTool({"policy", "weather", "--user", "no-such-user-here"});
    EXPECT_EQ(2, user.status);
    EXPECT_EQ(std::vector<std::string>{"harvo-bus: there is no user \"no-such-user-here\" on "
                                       "this system"},
              user.lines);
    const Outcome group =
        RunTool({"policy", "weather", "--user", "root", "--group", "no-such-group-here"});
    EXPECT_EQ(2, group.status);
    EXPECT_EQ(std::vector<std::string>{"harvo-bus: there is no group \"no-such-group-here\" on "
                                       "this system"},
              group.lines);
}

TEST(HarvoBusToolPolicy, ThePackagedPolicyIsWhatTheToolPrints) {
    std::ifstream in(HARVO_WEATHER_POLICY, std::ios::binary);
    ASSERT_TRUE(in.good()) << HARVO_WEATHER_POLICY;
    const std::string packaged((std::istreambuf_iterator<char>(in)),
                               std::istreambuf_iterator<char>());
    const Outcome outcome = RunTool({"policy", "weather", "--user", "root"});
    EXPECT_EQ(0, outcome.status);
    EXPECT_EQ(outcome.All(), packaged) << "regenerate: harvo-bus policy weather --user root > "
                                          "examples/dbus-1/harvo-fw-weather.conf";
}

TEST(HarvoBusToolPolicy, RefusesWhatCannotGoIntoAPolicy) {
    struct Case {
        std::vector<std::string> args;
        std::string error;
    };
    const std::vector<Case> cases = {
        {{"policy"}, "usage: harvo-bus policy ENDPOINT [--user USER] [--group GROUP]"},
        {{"policy", "a..b"},
         "harvo-bus: \"a..b\" gives the bus name \"a..b.message\", which the bus does not accept"},
        {{"policy", ""}, "which the bus does not accept"},
        {{"policy", "x", "--user", "a\"b"}, "harvo-bus: \"a\"b\" is not a user or group name"},
        {{"policy", "x", "--group", "<g>"}, "harvo-bus: \"<g>\" is not a user or group name"},
        {{"policy", "x", "--user", ""}, "harvo-bus: --user must not be empty"},
        {{"send", "x", "--user", "u"},
         "harvo-bus: --user and --group belong to the policy command"},
    };
    for (const Case& c : cases) {
        const Outcome outcome = RunTool(c.args);
        EXPECT_EQ(2, outcome.status) << outcome.All();
        EXPECT_TRUE(outcome.Has(c.error)) << c.error << "\n" << outcome.All();
    }
}

TEST_F(HarvoBusTool, AvailableAnswersYesForAServedEndpointAndNoOtherwise) {
    Outcome yes = RunTool({"available", kPeer});
    EXPECT_EQ(0, yes.status) << yes.All();
    EXPECT_EQ(std::vector<std::string>{"yes"}, yes.lines);
    Outcome no = RunTool({"available", "tool.nobody"});
    EXPECT_EQ(1, no.status) << no.All();
    EXPECT_EQ(std::vector<std::string>{"no"}, no.lines);
}

TEST_F(HarvoBusTool, SendPrintsTheSynchronousReplyWithItsBuffer) {
    TempFile buffer("tool_buffer.bin", std::string("\x01\x02\xff", 3));
    const std::string out = std::string(::testing::TempDir()) + "tool_reply.bin";
    const Outcome outcome =
        RunTool({"send", kPeer, "--json", "{\"greeting\": \"hi\"}", "--type", "echo", "--code", "4",
                 "--buffer-file", buffer.Path(), "--buffer-out", out});
    EXPECT_EQ(0, outcome.status) << outcome.All();
    EXPECT_TRUE(outcome.Has(std::string("reply from ") + kPeer +
                            ": code=5 type=\"re:echo\" body={\"greeting\":\"hi\"} 3 bytes "
                            "[01 02 ff]"))
        << outcome.All();
    std::ifstream written(out, std::ios::binary);
    EXPECT_EQ(std::string("\x01\x02\xff", 3), std::string(std::istreambuf_iterator<char>(written),
                                                          std::istreambuf_iterator<char>()));
    std::remove(out.c_str());
}

TEST_F(HarvoBusTool, SendReadsTheBodyFromAFile) {
    TempFile body("tool_body.json", "{\n  \"from\": \"file\",\n  \"n\": [1, 2]\n}\n");
    const Outcome outcome = RunTool({"send", kPeer, "--json-file", body.Path(), "--type", "echo"});
    EXPECT_EQ(0, outcome.status) << outcome.All();
    EXPECT_TRUE(outcome.Has("body={\"from\":\"file\",\"n\":[1,2]} no buffer")) << outcome.All();
}

TEST_F(HarvoBusTool, SendAsyncPrintsTheReplyWhenItArrives) {
    const Outcome outcome =
        RunTool({"send", kPeer, "--async", "--type", "echo", "--json", "{\"later\":true}"});
    EXPECT_EQ(0, outcome.status) << outcome.All();
    ASSERT_EQ(2u, outcome.lines.size()) << outcome.All();
    EXPECT_EQ(std::string("sent to ") + kPeer + ", waiting for the reply", outcome.lines[0]);
    EXPECT_EQ(std::string("reply from ") + kPeer +
                  ": code=1 type=\"re:echo\" body={\"later\":true} no buffer",
              outcome.lines[1]);
}

TEST_F(HarvoBusTool, SendWithoutWaitingIsDelivered) {
    const Outcome outcome = RunTool({"send", kPeer, "--no-wait", "--type", "echo"});
    EXPECT_EQ(0, outcome.status) << outcome.All();
    EXPECT_EQ(std::vector<std::string>{std::string("sent to ") + kPeer}, outcome.lines);
    // The peer counts what it received; its "info" answer includes itself.
    const Outcome info = RunTool({"send", kPeer, "--type", "info"});
    EXPECT_TRUE(info.Has("\"count\":2")) << info.All();
}

TEST_F(HarvoBusTool, AFailedReplyIsPrintedAndFails) {
    const Outcome outcome = RunTool({"send", kPeer, "--type", "fail"});
    EXPECT_EQ(1, outcome.status) << outcome.All();
    EXPECT_TRUE(outcome.Has("\"dbus_result\":\"fail\"")) << outcome.All();
    EXPECT_TRUE(outcome.Has(std::string("harvo-bus: sending to ") + kPeer + " failed"))
        << outcome.All();
    EXPECT_TRUE(outcome.Has("framework: send sync message fail")) << outcome.All();
}

TEST_F(HarvoBusTool, BadInputIsRefusedBeforeAnythingIsSent) {
    Outcome invalid = RunTool({"send", kPeer, "--json", "{not json"});
    EXPECT_EQ(2, invalid.status) << invalid.All();
    EXPECT_TRUE(invalid.Has("harvo-bus: the message body is not valid JSON")) << invalid.All();

    Outcome missing = RunTool({"send", kPeer, "--json-file", "/nonexistent/body.json"});
    EXPECT_EQ(2, missing.status) << missing.All();
    EXPECT_TRUE(missing.Has("harvo-bus: cannot read /nonexistent/body.json")) << missing.All();

    Outcome buffer = RunTool({"emit", "x", "--buffer-file", "/nonexistent/buffer"});
    EXPECT_EQ(2, buffer.status) << buffer.All();
    EXPECT_TRUE(buffer.Has("harvo-bus: cannot read /nonexistent/buffer")) << buffer.All();

    const Outcome info = RunTool({"send", kPeer, "--type", "info"});
    EXPECT_TRUE(info.Has("\"count\":1")) << info.All();
}

TEST_F(HarvoBusTool, SendingToAMissingEndpointFails) {
    const Outcome outcome = RunTool({"send", "tool.nobody", "--json", "{}"});
    EXPECT_EQ(1, outcome.status) << outcome.All();
    EXPECT_TRUE(outcome.Has("harvo-bus: no endpoint tool.nobody on the bus")) << outcome.All();
}

TEST_F(HarvoBusTool, EmitReachesSubscribersOfTheToolsName) {
    ASSERT_TRUE(peer_ != nullptr);
    RecordingServer listener("tool.listener", static_cast<Quelt::TCServerType>(3));
    ASSERT_TRUE(listener.CreateDBusServer());
    harvo_bus_test::CloseAtExit close(listener);
    ASSERT_TRUE(listener.SubscribeSignal("tool.cli", "news", nullptr, nullptr));
    harvo_bus_test::SettleSubscriptions(listener);

    TempFile buffer("tool_emit.bin", "AB");
    Tool tool({"emit", "news", "--name", "tool.cli", "--json", "{\"headline\":\"x\"}", "--code",
               "9", "--type", "bulletin", "--buffer-file", buffer.Path()});
    const Outcome outcome = tool.Finish();
    EXPECT_EQ(0, outcome.status) << outcome.All();
    EXPECT_TRUE(outcome.Has("emitted news from tool.cli")) << outcome.All();

    // A subscription without callback hands the signal to the server's hook.
    ASSERT_TRUE(PumpUntil([&] { return listener.ReceivedCount() == 1; }));
    EXPECT_EQ("tool.cli", listener.Received(0).from);
    EXPECT_EQ("news", listener.Received(0).signal);
    EXPECT_EQ("bulletin", listener.Received(0).type);
    EXPECT_EQ(9u, listener.Received(0).code);
    EXPECT_EQ("{\"headline\":\"x\"}", listener.Received(0).text);
    EXPECT_EQ((std::vector<unsigned char>{'A', 'B'}), listener.Received(0).buffer);
}

// Endpoints own their names with replacement allowed; the tool must not use
// that to take a running endpoint's name.
TEST_F(HarvoBusTool, EmitNeverTakesTheNameOfARunningEndpoint) {
    GDBusConnection* observer = harvo_bus_test::NewSecondConnection();
    ASSERT_NE(observer, nullptr);
    const std::string busName = std::string(kPeer) + ".message";
    auto ownerOf = [&] {
        GVariant* answer = g_dbus_connection_call_sync(
            observer, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
            "GetNameOwner", g_variant_new("(s)", busName.c_str()), G_VARIANT_TYPE("(s)"),
            G_DBUS_CALL_FLAGS_NONE, -1, nullptr, nullptr);
        std::string owner;
        if (answer != nullptr) {
            const gchar* unique = nullptr;
            g_variant_get(answer, "(&s)", &unique);
            owner = unique;
            g_variant_unref(answer);
        }
        return owner;
    };
    const std::string before = ownerOf();
    ASSERT_FALSE(before.empty());
    // Any change of owner would show here.
    std::atomic<int> changes{0};
    const guint watch = g_dbus_connection_signal_subscribe(
        observer, "org.freedesktop.DBus", "org.freedesktop.DBus", "NameOwnerChanged",
        "/org/freedesktop/DBus", busName.c_str(), G_DBUS_SIGNAL_FLAGS_NONE,
        [](GDBusConnection*, const gchar*, const gchar*, const gchar*, const gchar*, GVariant*,
           gpointer data) { static_cast<std::atomic<int>*>(data)->fetch_add(1); },
        &changes, nullptr);
    ownerOf();  // the bus has the match

    const Outcome outcome = RunTool({"emit", "news", "--name", kPeer});
    EXPECT_EQ(2, outcome.status) << outcome.All();
    EXPECT_EQ(
        std::vector<std::string>{"harvo-bus: the bus name " + busName +
                                 " is owned by a running endpoint (connection " + before +
                                 "): emitting as " + kPeer + " would take it; use another --name"},
        outcome.lines);

    EXPECT_EQ(ownerOf(), before);
    harvo_bus_test::DrainContext();
    EXPECT_EQ(changes.load(), 0);
    // And the endpoint goes on answering.
    EXPECT_EQ(0, RunTool({"send", kPeer, "--type", "echo"}).status);
    g_dbus_connection_signal_unsubscribe(observer, watch);
    g_dbus_connection_close_sync(observer, nullptr, nullptr);
    g_object_unref(observer);
}

TEST_F(HarvoBusTool, ListenPrintsTheSignalsItWaitedFor) {
    Tool tool({"listen", kPeer, "tick", "--count", "2", "--timeout", "60000"});
    ASSERT_EQ(std::string("listening for tick from ") + kPeer, tool.WaitLine("listening for tick"));
    peer_->WriteLine("emit tick {\"n\":1}");
    EXPECT_EQ("EMITTED 1", peer_->WaitLine("EMITTED"));
    peer_->WriteLine("emit tock {\"n\":0}");  // another signal: not printed
    EXPECT_EQ("EMITTED 1", peer_->WaitLine("EMITTED"));
    peer_->WriteLine("emit tick {\"n\":2}");
    EXPECT_EQ("EMITTED 1", peer_->WaitLine("EMITTED"));

    const Outcome outcome = tool.Finish();
    EXPECT_EQ(0, outcome.status) << outcome.All();
    ASSERT_EQ(3u, outcome.lines.size()) << outcome.All();
    EXPECT_EQ(
        std::string("signal tick from ") + kPeer + ": code=0 type=\"\" body={\"n\":1} no buffer",
        outcome.lines[1]);
    EXPECT_EQ(
        std::string("signal tick from ") + kPeer + ": code=0 type=\"\" body={\"n\":2} no buffer",
        outcome.lines[2]);
}

TEST_F(HarvoBusTool, ListenFailsWhenTooFewSignalsArriveInTime) {
    const Outcome outcome = RunTool({"listen", kPeer, "never", "--count", "1", "--timeout", "300"});
    EXPECT_EQ(1, outcome.status) << outcome.All();
    EXPECT_TRUE(outcome.Has("harvo-bus: only 0 of 1 signals arrived")) << outcome.All();
}

}  // namespace
