// SPDX-License-Identifier: Apache-2.0
// The other endpoint of the cross-process bus tests.
//
//   bus_peer serve NAME
//       Creates an application endpoint NAME (a TCServer of type
//       SERVER_TYPE_APP), runs a GLib main loop on the default context and
//       prints "READY" once the bus name is owned. Ends on SIGTERM, on a
//       message of type "quit" or on the stdin command "quit".
//   bus_peer serve-quiet NAME
//       The same, without the framework's log lines on stderr (long runs).
//   bus_peer bare NAME
//       Owns the bus name of the endpoint NAME and exports its object path,
//       but is no framework endpoint: it prints "CALL <method> <reply|noreply>"
//       for every call (noreply: the caller sent it with the flag "no reply
//       expected") and answers with the D-Bus error
//       org.harvo.Test.Error.Refused "refused by the bare peer". Prints
//       "READY" once the name is owned; ends on SIGTERM or stdin "quit".
//   bus_peer emit NAME SIGNAL TEXT
//       Creates the endpoint NAME, emits SIGNAL with TEXT as body, prints
//       "EMITTED 1" (or 0) and ends.
//
// Messages received by "serve" are answered according to their type:
//   echo     text, code + 1, type "re:echo", the same buffer
//   info     {"from","code","type","text","size","sum","count"}: what arrived,
//            and how many messages arrived so far
//   fail     {"dbus_result":"fail","why":"asked"}
//   empty    nothing: the reply stays empty
//   nonjson  the text "this is not json" (not JSON)
//   hold     prints "HOLDING", waits for a line on stdin, then answers
//            {"held":true}: the test decides when the reply leaves
//   exit     ends the process in the middle of the call
//   emit     emits the signal named by the body's "signal" with the body's
//            "text" as message, answers {"emitted":true|false}
//   quit     answers {"quit":true} and ends the loop
//   rss      {"rss_kb":N,"hwm_kb":M}: this process's resident memory now
//            (VmRSS) and at its peak (VmHWM)
// Other types are answered like "echo".
//
// stdin commands of "serve" (one per line, answered on stdout):
//   send DEST TYPE CODE TEXT   synchronous send: "SENT <0|1> <type> <code> <text>"
//   asend DEST TYPE CODE TEXT  asynchronous send with reply object; the reply
//                              arrives as "REPLIED <from> <type> <code> <text>"
//   emit SIGNAL TEXT           "EMITTED <0|1>", once the signal has left
//   whoami                     "UNIQUE <the connection's unique bus name>"
//   bsend DEST TYPE CODE SIZE TEXT
//                              synchronous send with a buffer of SIZE bytes
//                              (byte i is (7 i + 1) mod 256; 0: no buffer):
//                              "SENT <0|1> <type> <code> <size> <sum> <text>"
//                              with the reply's buffer size and byte sum
//   flood DEST TYPE N          N asynchronous sends without reply object
//                              (no reply expected), then "FLOODED N"
//   quit                       ends the loop

#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <sstream>
#include <string>

#include <dlog-host.h>
#include <glib-unix.h>
#include <harvo-fw/TCServer.h>
#include <harvo-fw/TCServerHelper.h>

namespace {

using Quelt::TCMessage;
using Quelt::TCServer;

GMainLoop* g_loop = nullptr;

void Say(const std::string& line) {
    std::string text = line + "\n";
    // One write per line: the test reads lines.
    ssize_t ignored = write(STDOUT_FILENO, text.data(), text.size());
    (void)ignored;
}

// Reads one line from stdin, byte by byte, so that nothing is buffered
// away from the main loop's watch. False at end of input.
bool ReadStdinLine(std::string* line) {
    line->clear();
    for (;;) {
        char c = 0;
        const ssize_t got = read(STDIN_FILENO, &c, 1);
        if (got <= 0)
            return false;
        if (c == '\n')
            return true;
        line->push_back(c);
    }
}

// A memory figure of this process from /proc/self/status ("VmRSS: %ld kB",
// "VmHWM: %ld kB") in kB, or -1.
long StatusKb(const char* format) {
    FILE* status = std::fopen("/proc/self/status", "r");
    if (status == nullptr)
        return -1;
    long kb = -1;
    char line[256];
    while (std::fgets(line, sizeof(line), status) != nullptr) {
        if (std::sscanf(line, format, &kb) == 1)
            break;
    }
    std::fclose(status);
    return kb;
}

unsigned long Sum(const unsigned char* bytes, unsigned int size) {
    unsigned long sum = 0;
    for (unsigned int i = 0; i < size; ++i)
        sum += bytes[i];
    return sum;
}

class PeerServer : public TCServer {
public:
    explicit PeerServer(const std::string& name) : TCServer(name, Quelt::SERVER_TYPE_APP) {}

    bool IfMessageReceived(const char* from, const TCMessage* message, TCMessage* reply,
                           const char* /*signalName*/) override {
        const std::string type = message->m_type;
        ++received_;
        if (type == "empty")
            return true;
        if (type == "exit")
            _exit(3);
        if (type == "fail") {
            reply->SetMessage("{\"dbus_result\":\"fail\",\"why\":\"asked\"}");
            return false;
        }
        if (type == "nonjson") {
            reply->SetMessage("this is not json");
            return true;
        }
        if (type == "info") {
            reply->m_value["from"] = from != nullptr ? from : "";
            reply->m_value["code"] = message->m_code;
            reply->m_value["type"] = message->m_type;
            reply->m_value["text"] = message->GetString();
            reply->m_value["size"] = message->m_size;
            reply->m_value["sum"] =
                static_cast<Json::UInt64>(Sum(message->m_buffer, message->m_size));
            reply->m_value["count"] = received_;
            return true;
        }
        if (type == "hold") {
            Say("HOLDING");
            std::string ignored;
            ReadStdinLine(&ignored);
            reply->m_value["held"] = true;
            return true;
        }
        if (type == "emit") {
            const Json::Value& body = message->m_value;
            TCMessage signal;
            signal.SetMessage(body["text"].asString());
            reply->m_value["emitted"] = SendSignal(body["signal"].asCString(), &signal);
            return true;
        }
        if (type == "rss") {
            reply->m_value["rss_kb"] = static_cast<Json::Int64>(StatusKb("VmRSS: %ld kB"));
            reply->m_value["hwm_kb"] = static_cast<Json::Int64>(StatusKb("VmHWM: %ld kB"));
            return true;
        }
        if (type == "quit") {
            reply->m_value["quit"] = true;
            g_main_loop_quit(g_loop);
            return true;
        }
        reply->SetMessage(message->GetString());
        reply->m_code = message->m_code + 1;
        reply->m_type = "re:" + type;
        reply->SetBuffer(message->m_buffer, message->m_size);
        return true;
    }

    bool IfMessageReplied(const char* from, const TCMessage* reply) override {
        std::ostringstream line;
        line << "REPLIED " << (from != nullptr ? from : "null") << " " << reply->m_type << " "
             << reply->m_code << " " << reply->GetString();
        Say(line.str());
        return true;
    }

private:
    unsigned int received_ = 0;  // messages received so far, this one included
};

PeerServer* g_server = nullptr;

// "send DEST TYPE CODE TEXT": TEXT is the rest of the line.
void RunCommand(const std::string& line) {
    std::istringstream in(line);
    std::string verb;
    in >> verb;
    if (verb == "quit") {
        g_main_loop_quit(g_loop);
        return;
    }
    if (verb == "emit") {
        std::string signalName;
        in >> signalName;
        std::string text;
        std::getline(in >> std::ws, text);
        TCMessage message;
        message.SetMessage(text);
        const bool emitted = g_server->SendSignal(signalName.c_str(), &message);
        GDBusConnection* connection = g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, nullptr);
        g_dbus_connection_flush_sync(connection, nullptr, nullptr);
        g_object_unref(connection);
        Say(std::string("EMITTED ") + (emitted ? "1" : "0"));
        return;
    }
    if (verb == "whoami") {
        GDBusConnection* connection = g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, nullptr);
        Say(std::string("UNIQUE ") + g_dbus_connection_get_unique_name(connection));
        g_object_unref(connection);
        return;
    }
    if (verb == "flood") {
        std::string dest, type;
        unsigned int count = 0;
        in >> dest >> type >> count;
        TCMessage message;
        message.SetMessage("{}");
        message.m_type = type;
        for (unsigned int i = 0; i < count; ++i) {
            message.m_code = i;
            g_server->SendMessage(dest.c_str(), &message, false, nullptr, -1);
        }
        Say("FLOODED " + std::to_string(count));
        return;
    }
    if (verb == "bsend") {
        std::string dest, type;
        unsigned int code = 0, size = 0;
        in >> dest >> type >> code >> size;
        std::string text;
        std::getline(in >> std::ws, text);
        TCMessage message;
        message.SetMessage(text);
        message.m_type = type;
        message.m_code = code;
        if (size != 0) {
            std::string bytes(size, '\0');
            for (unsigned int i = 0; i < size; ++i)
                bytes[i] = static_cast<char>((7u * i + 1u) % 256u);
            message.SetBuffer(reinterpret_cast<const unsigned char*>(bytes.data()), size);
        }
        TCMessage reply;
        const bool sent = g_server->SendMessage(dest.c_str(), &message, true, &reply, -1);
        std::ostringstream out;
        out << "SENT " << (sent ? 1 : 0) << " " << reply.m_type << " " << reply.m_code << " "
            << reply.m_size << " " << Sum(reply.m_buffer, reply.m_size) << " " << reply.GetString();
        Say(out.str());
        return;
    }
    if (verb == "send" || verb == "asend") {
        std::string dest, type;
        unsigned int code = 0;
        in >> dest >> type >> code;
        std::string text;
        std::getline(in >> std::ws, text);
        TCMessage message;
        message.SetMessage(text);
        message.m_type = type;
        message.m_code = code;
        TCMessage reply;
        if (verb == "asend") {
            g_server->SendMessage(dest.c_str(), &message, false, &reply, -1);
            return;
        }
        const bool sent = g_server->SendMessage(dest.c_str(), &message, true, &reply, -1);
        std::ostringstream out;
        out << "SENT " << (sent ? 1 : 0) << " " << reply.m_type << " " << reply.m_code << " "
            << reply.GetString();
        Say(out.str());
        return;
    }
    Say("UNKNOWN " + line);
}

gboolean OnStdin(gint /*fd*/, GIOCondition /*condition*/, gpointer /*data*/) {
    std::string line;
    if (!ReadStdinLine(&line)) {
        // No more commands (e.g. started with </dev/null): serve on until
        // SIGTERM or a "quit" message.
        return G_SOURCE_REMOVE;
    }
    RunCommand(line);
    return G_SOURCE_CONTINUE;
}

gboolean OnTerminate(gpointer /*data*/) {
    g_main_loop_quit(g_loop);
    return G_SOURCE_CONTINUE;
}

void OnNameAppeared(GDBusConnection* /*connection*/, const gchar* /*name*/, const gchar* /*owner*/,
                    gpointer /*data*/) {
    Say("READY");
}

int Serve(const std::string& name) {
    g_loop = g_main_loop_new(nullptr, FALSE);
    PeerServer server(name);
    g_server = &server;
    if (!server.CreateDBusServer()) {
        Say("CREATE FAILED");
        return 1;
    }
    // Our name has an owner once the bus has given it to us.
    GDBusConnection* connection = g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, nullptr);
    const guint watch = g_bus_watch_name_on_connection(connection, server.GetBusName().c_str(),
                                                       G_BUS_NAME_WATCHER_FLAGS_NONE,
                                                       OnNameAppeared, nullptr, nullptr, nullptr);
    g_unix_signal_add(SIGTERM, OnTerminate, nullptr);
    g_unix_fd_add(STDIN_FILENO, G_IO_IN, OnStdin, nullptr);
    g_main_loop_run(g_loop);

    g_bus_unwatch_name(watch);
    g_object_unref(connection);
    server.CloseDBusServer();
    g_server = nullptr;
    g_main_loop_unref(g_loop);
    g_loop = nullptr;
    return 0;
}

const char kBareInterfaceXml[] =
    "<node><interface name='%s'>"
    "<method name='SendMessage'>"
    "<arg type='s' direction='in'/><arg type='u' direction='in'/>"
    "<arg type='s' direction='in'/><arg type='s' direction='in'/>"
    "</method>"
    "<method name='SendMessageWithBuffer'>"
    "<arg type='s' direction='in'/><arg type='u' direction='in'/>"
    "<arg type='s' direction='in'/><arg type='s' direction='in'/>"
    "<arg type='a(y)' direction='in'/>"
    "</method>"
    "</interface></node>";

void OnBareCall(GDBusConnection* /*connection*/, const gchar* /*sender*/, const gchar* /*path*/,
                const gchar* /*interfaceName*/, const gchar* method, GVariant* /*parameters*/,
                GDBusMethodInvocation* invocation, gpointer /*data*/) {
    const GDBusMessageFlags flags =
        g_dbus_message_get_flags(g_dbus_method_invocation_get_message(invocation));
    Say(std::string("CALL ") + method + " " +
        ((flags & G_DBUS_MESSAGE_FLAGS_NO_REPLY_EXPECTED) != 0 ? "noreply" : "reply"));
    g_dbus_method_invocation_return_dbus_error(invocation, "org.harvo.Test.Error.Refused",
                                               "refused by the bare peer");
}

void OnBareNameAcquired(GDBusConnection* /*connection*/, const gchar* /*name*/, gpointer /*data*/) {
    Say("READY");
}

gboolean OnBareStdin(gint /*fd*/, GIOCondition /*condition*/, gpointer /*data*/) {
    std::string line;
    if (!ReadStdinLine(&line) || line == "quit") {
        g_main_loop_quit(g_loop);
        return G_SOURCE_REMOVE;
    }
    return G_SOURCE_CONTINUE;
}

int Bare(const std::string& name) {
    g_loop = g_main_loop_new(nullptr, FALSE);
    GDBusConnection* connection = g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, nullptr);
    if (connection == nullptr) {
        Say("CREATE FAILED");
        return 1;
    }
    // The names exactly as the framework composes them.
    std::string busName = name + ".message";
    Quelt::TCServerHelper::FormatDBusName(busName);
    Quelt::TCServerHelper::FormatDBusNameElements(busName);
    const std::string path = Quelt::TCServerHelper::GetObjectPath(busName);
    gchar* xml = g_strdup_printf(kBareInterfaceXml, busName.c_str());
    GDBusNodeInfo* node = g_dbus_node_info_new_for_xml(xml, nullptr);
    g_free(xml);
    const GDBusInterfaceVTable vtable = {OnBareCall, nullptr, nullptr, {nullptr}};
    const guint registration = g_dbus_connection_register_object(
        connection, path.c_str(), node->interfaces[0], &vtable, nullptr, nullptr, nullptr);
    const guint owner =
        g_bus_own_name_on_connection(connection, busName.c_str(), G_BUS_NAME_OWNER_FLAGS_NONE,
                                     OnBareNameAcquired, nullptr, nullptr, nullptr);
    g_unix_signal_add(SIGTERM, OnTerminate, nullptr);
    g_unix_fd_add(STDIN_FILENO, G_IO_IN, OnBareStdin, nullptr);
    g_main_loop_run(g_loop);
    g_bus_unown_name(owner);
    g_dbus_connection_unregister_object(connection, registration);
    g_dbus_node_info_unref(node);
    g_object_unref(connection);
    g_main_loop_unref(g_loop);
    g_loop = nullptr;
    return 0;
}

int Emit(const std::string& name, const std::string& signalName, const std::string& text) {
    PeerServer server(name);
    if (!server.CreateDBusServer()) {
        Say("CREATE FAILED");
        return 1;
    }
    TCMessage message;
    message.SetMessage(text);
    const bool emitted = server.SendSignal(signalName.c_str(), &message);
    // Make sure the signal has left before the connection goes.
    GDBusConnection* connection = g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, nullptr);
    g_dbus_connection_flush_sync(connection, nullptr, nullptr);
    g_object_unref(connection);
    Say(std::string("EMITTED ") + (emitted ? "1" : "0"));
    server.CloseDBusServer();
    return emitted ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    // The test reads our stdout line by line.
    setvbuf(stdout, nullptr, _IONBF, 0);
    if (argc == 3 && std::strcmp(argv[1], "serve") == 0)
        return Serve(argv[2]);
    if (argc == 3 && std::strcmp(argv[1], "serve-quiet") == 0) {
        dlog_host_set_stderr(0);
        return Serve(argv[2]);
    }
    if (argc == 3 && std::strcmp(argv[1], "bare") == 0)
        return Bare(argv[2]);
    if (argc == 5 && std::strcmp(argv[1], "emit") == 0)
        return Emit(argv[2], argv[3], argv[4]);
    std::fprintf(stderr, "usage: %s serve NAME | bare NAME | emit NAME SIGNAL TEXT\n", argv[0]);
    return 2;
}
