/*
 * harvo-bench-peer: the other process of the bus rows.
 *
 * Serves two echo endpoints on the (private) system bus from one main loop:
 *  - "bench_fwk": a TCServer whose IfMessageReceived echoes code, type,
 *    body and buffer;
 *  - "bench_raw.message": a bare GDBus object with the same interface and
 *    the same five-field reply, written directly against GDBus.
 * Prints "ready" once both answer; quits when its standard input closes.
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

// The raw echo: the same reply the framework's endpoint gives.
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

gboolean OnStdin(GIOChannel*, GIOCondition, gpointer loop) {
    g_main_loop_quit(static_cast<GMainLoop*>(loop));
    return G_SOURCE_REMOVE;
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

    GIOChannel* input = g_io_channel_unix_new(0);
    g_io_add_watch(input, GIOCondition(G_IO_IN | G_IO_HUP | G_IO_ERR), OnStdin, loop);
    std::printf("ready\n");
    std::fflush(stdout);
    g_main_loop_run(loop);

    server.CloseDBusServer();
    g_io_channel_unref(input);
    g_dbus_node_info_unref(node);
    g_object_unref(connection);
    g_main_loop_unref(loop);
    return 0;
}
