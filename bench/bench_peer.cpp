// SPDX-License-Identifier: Apache-2.0
/*
 * harvo-bench-peer: the other process of the bus rows.
 *
 * Serves two echo endpoints on the (private) system bus from one main loop:
 *  - "bench_fwk": a TCServer whose IfMessageReceived echoes code, type,
 *    body and buffer;
 *  - "bench_raw.message": a bare GDBus object with the same interface and
 *    the same five-field reply, written directly against GDBus.
 * Prints "ready" once both answer; quits when its standard input closes.
 *
 * The signal row's other end: on the command line "signals fwk" the
 * endpoint "bench_fwk" subscribes to "ping" of "bench_sig" with the
 * framework and answers each with the framework's "pong"; on "signals raw"
 * the same is done directly with GDBus (same interface, path, member and
 * payload bytes); "signals off" cancels both. Only one side listens at a
 * time, since both match the same signal. Each command is answered with
 * "ok" once the bus has taken the new match rules in.
 */
#include <gio/gio.h>
#include <glib.h>

#include <cstdio>
#include <cstring>
#include <string>

#include "TCMessage.h"
#include "TCServer.h"
#include "dlog-host.h"

namespace {

const char kRawName[] = "bench_raw.message";
const char kRawPath[] = "/bench_raw/message";

const char kRawXml[] =
    "<node><interface name='bench_raw.message'>"
    "<method name='SendMessage'>"
    "<arg type='s' direction='in'/><arg type='u' direction='in'/>"
    "<arg type='s' direction='in'/><arg type='s' direction='in'/>"
    "<arg type='s' direction='out'/><arg type='u' direction='out'/>"
    "<arg type='s' direction='out'/><arg type='s' direction='out'/>"
    "<arg type='a*' direction='out'/>"
    "</method>"
    "<method name='SendMessageWithBuffer'>"
    "<arg type='s' direction='in'/><arg type='u' direction='in'/>"
    "<arg type='s' direction='in'/><arg type='s' direction='in'/>"
    "<arg type='a*' direction='in'/>"
    "<arg type='s' direction='out'/><arg type='u' direction='out'/>"
    "<arg type='s' direction='out'/><arg type='s' direction='out'/>"
    "<arg type='a*' direction='out'/>"
    "</method>"
    "</interface></node>";

class EchoServer : public Quelt::TCServer {
public:
    EchoServer() : TCServer("bench_fwk", Quelt::SERVER_TYPE_APP) {}
    bool IfMessageReceived(const char*, const Quelt::TCMessage* message, Quelt::TCMessage* reply,
                           const char*) override {
        reply->m_value = message->m_value;
        reply->m_message = message->m_message;
        reply->m_code = message->m_code;
        reply->m_type = message->m_type;
        reply->SetBuffer(message->m_buffer, message->m_size);
        return true;
    }
};

const unsigned char kNoBuffer[1] = {0};

// The raw echo: the same reply the framework's endpoint gives, its buffer in
// the format it came in ("a(y)", or "ay" for the rows of the negotiated
// format).
void RawMethod(GDBusConnection*, const gchar*, const gchar*, const gchar*, const gchar* method,
               GVariant* parameters, GDBusMethodInvocation* invocation, gpointer) {
    const char* from = nullptr;
    guint32 code = 0;
    const char* type = nullptr;
    const char* text = nullptr;
    GVariant* buffer = nullptr;
    if (std::strcmp(method, "SendMessageWithBuffer") == 0)
        g_variant_get(parameters, "(&su&s&s@a*)", &from, &code, &type, &text, &buffer);
    else
        g_variant_get(parameters, "(&su&s&s)", &from, &code, &type, &text);
    if (buffer == nullptr)
        buffer = g_variant_ref_sink(
            g_variant_new_from_data(G_VARIANT_TYPE("a(y)"), kNoBuffer, 1, TRUE, nullptr, nullptr));
    g_dbus_method_invocation_return_value(
        invocation, g_variant_new("(suss@a*)", "bench_raw", code, type, text, buffer));
    g_variant_unref(buffer);
}

const GDBusInterfaceVTable kRawVTable = {RawMethod, nullptr, nullptr, {nullptr}};

// The signal row: "ping" from the bench's endpoint, "pong" from ours.
const char kPingFrom[] = "bench_sig";
const char kPingInterface[] = "bench_sig.message";
const char kPongPath[] = "/bench_fwk/message";
const char kPongInterface[] = "bench_fwk.message";

// The framework's answer: the received message goes back as it came.
void OnFrameworkPing(const char*, const char*, Quelt::TCMessage* message, void* server) {
    static_cast<Quelt::TCServer*>(server)->SendSignal("pong", message);
}

// The same answer written against GDBus: the fields read and emitted again
// with our endpoint's name as from, the bytes the framework sends.
void OnRawPing(GDBusConnection* connection, const gchar*, const gchar*, const gchar*, const gchar*,
               GVariant* parameters, gpointer) {
    if (!g_variant_is_of_type(parameters, G_VARIANT_TYPE("(suss)")))
        return;
    const char *from, *type, *text;
    guint32 code;
    g_variant_get(parameters, "(&su&s&s)", &from, &code, &type, &text);
    g_dbus_connection_emit_signal(connection, nullptr, kPongPath, kPongInterface, "pong",
                                  g_variant_new("(suss)", "bench_fwk", code, type, text), nullptr);
}

struct PeerState {
    GMainLoop* loop;
    GDBusConnection* connection;
    EchoServer* server;
    guint raw_ping = 0;  // raw subscription id, 0 when none
};

void SignalsOff(PeerState* state) {
    state->server->UnSubscribeSignal(kPingFrom, "ping");
    if (state->raw_ping != 0) {
        g_dbus_connection_signal_unsubscribe(state->connection, state->raw_ping);
        state->raw_ping = 0;
    }
}

// A round trip to the bus daemon: it handles one connection's messages in
// order, so our earlier AddMatch/RemoveMatch are in force once it answers.
void FlushToDaemon(GDBusConnection* connection) {
    GVariant* answer = g_dbus_connection_call_sync(
        connection, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
        "GetId", nullptr, G_VARIANT_TYPE("(s)"), G_DBUS_CALL_FLAGS_NONE, -1, nullptr, nullptr);
    if (answer != nullptr)
        g_variant_unref(answer);
}

bool RunCommand(PeerState* state, const std::string& command) {
    SignalsOff(state);
    if (command == "signals fwk") {
        if (!state->server->SubscribeSignal(kPingFrom, "ping", OnFrameworkPing, state->server))
            return false;
    } else if (command == "signals raw") {
        state->raw_ping = g_dbus_connection_signal_subscribe(
            state->connection, nullptr, kPingInterface, "ping", nullptr, nullptr,
            G_DBUS_SIGNAL_FLAGS_NONE, OnRawPing, nullptr, nullptr);
        if (state->raw_ping == 0)
            return false;
    } else if (command != "signals off") {
        return false;
    }
    FlushToDaemon(state->connection);
    return true;
}

// One command per line; end of input (or an error) ends the peer.
gboolean OnStdin(GIOChannel* input, GIOCondition, gpointer data) {
    auto* state = static_cast<PeerState*>(data);
    gchar* line = nullptr;
    gsize terminator = 0;
    if (g_io_channel_read_line(input, &line, nullptr, &terminator, nullptr) != G_IO_STATUS_NORMAL ||
        line == nullptr) {
        g_free(line);
        g_main_loop_quit(state->loop);
        return G_SOURCE_REMOVE;
    }
    line[terminator] = '\0';
    const bool done = RunCommand(state, line);
    g_free(line);
    std::printf("%s\n", done ? "ok" : "failed");
    std::fflush(stdout);
    return G_SOURCE_CONTINUE;
}

}  // namespace

int main() {
    dlog_host_set_stderr(0);
    GMainLoop* loop = g_main_loop_new(nullptr, FALSE);

    GError* error = nullptr;
    GDBusConnection* connection = g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, &error);
    if (connection == nullptr) {
        std::fprintf(stderr, "peer: no bus: %s\n", error->message);
        return 1;
    }
    GDBusNodeInfo* node = g_dbus_node_info_new_for_xml(kRawXml, nullptr);
    g_dbus_connection_register_object(connection, kRawPath, node->interfaces[0], &kRawVTable,
                                      nullptr, nullptr, nullptr);
    GVariant* owned = g_dbus_connection_call_sync(
        connection, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
        "RequestName", g_variant_new("(su)", kRawName, 4u), G_VARIANT_TYPE("(u)"),
        G_DBUS_CALL_FLAGS_NONE, -1, nullptr, &error);
    if (owned == nullptr) {
        std::fprintf(stderr, "peer: RequestName: %s\n", error->message);
        return 1;
    }
    g_variant_unref(owned);

    EchoServer server;
    if (!server.CreateDBusServer()) {
        std::fprintf(stderr, "peer: CreateDBusServer failed\n");
        return 1;
    }

    PeerState state{loop, connection, &server};
    GIOChannel* input = g_io_channel_unix_new(0);
    g_io_add_watch(input, GIOCondition(G_IO_IN | G_IO_HUP | G_IO_ERR), OnStdin, &state);
    std::printf("ready\n");
    std::fflush(stdout);
    g_main_loop_run(loop);

    SignalsOff(&state);
    server.CloseDBusServer();
    g_io_channel_unref(input);
    g_dbus_node_info_unref(node);
    g_object_unref(connection);
    g_main_loop_unref(loop);
    return 0;
}
