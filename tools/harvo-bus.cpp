// SPDX-License-Identifier: Apache-2.0
// harvo-bus: talk to harvo-fw endpoints on the D-Bus system bus from the
// command line. Built on the framework itself: a proxy endpoint (a
// connection without a bus name) checks, sends and listens; emitting a
// signal needs an object to emit from, so "emit" creates an application
// endpoint under the tool's own name for the length of the call.
//
// "policy" needs no bus: it prints the system-bus policy an endpoint needs.
//
// Exit status: 0 success, 1 the operation failed, 2 bad usage or input (also
// a name in use for emit, an unknown account for policy).

#include <glib-unix.h>
#include <glib.h>
#include <grp.h>
#include <pwd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

#include <harvo-fw/TCMessage.h>
#include <harvo-fw/TCServer.h>
#include <harvo-fw/TCServerHelper.h>

#if __has_include(<dlog-host.h>)
#include <dlog-host.h>
#define HARVO_BUS_HOST_LOG 1
#endif

namespace {

using Quelt::TCMessage;
using Quelt::TCServer;

constexpr int kExitOk = 0;
constexpr int kExitFailed = 1;
constexpr int kExitUsage = 2;

// The async reply and listen waits, when no --timeout is given.
constexpr int kDefaultWaitMs = 25000;

const char kUsage[] =
    "Usage: harvo-bus [OPTIONS] COMMAND [ARGUMENTS]\n"
    "\n"
    "Talks to harvo-fw endpoints on the D-Bus system bus (set\n"
    "DBUS_SYSTEM_BUS_ADDRESS to use another bus, such as a private one).\n"
    "\n"
    "Commands:\n"
    "  available ENDPOINT        Is some process serving ENDPOINT? Prints \"yes\"\n"
    "                            (exit 0) or \"no\" (exit 1).\n"
    "  send ENDPOINT             Sends a message and prints the reply. Synchronous\n"
    "                            unless --async or --no-wait is given.\n"
    "  emit SIGNAL               Broadcasts SIGNAL from the endpoint --name, whose\n"
    "                            bus name must be free: a running endpoint's name\n"
    "                            is never taken (exit 2).\n"
    "  listen ENDPOINT SIGNAL    Prints every SIGNAL that ENDPOINT broadcasts, until\n"
    "                            --count signals arrived, --timeout passed, or\n"
    "                            Ctrl-C.\n"
    "  policy ENDPOINT           Prints the system-bus policy (for the daemon's\n"
    "                            system.d directory) that lets --user/--group own\n"
    "                            ENDPOINT's bus name and everyone call it.\n"
    "\n"
    "Message options (send, emit):\n"
    "  --json TEXT               JSON body (default {})\n"
    "  --json-file FILE          JSON body read from FILE (\"-\": standard input)\n"
    "  --buffer-file FILE        binary buffer sent with the message\n"
    "  --type TYPE               message type (default empty)\n"
    "  --code N                  message code (default 0)\n"
    "\n"
    "Send options:\n"
    "  --async                   send asynchronously and print the reply when it\n"
    "                            arrives\n"
    "  --no-wait                 send asynchronously and do not wait for a reply\n"
    "  --buffer-out FILE         write the reply's buffer to FILE\n"
    "  --timeout MS              how long to wait for the reply (synchronous:\n"
    "                            default the bus's; --async: default 25000)\n"
    "\n"
    "Listen options:\n"
    "  --count N                 stop after N signals (exit 0)\n"
    "  --timeout MS              stop after MS milliseconds (exit 1 if --count\n"
    "                            signals did not all arrive, else 0)\n"
    "\n"
    "Policy options:\n"
    "  --user USER               the user that runs the endpoint (default root\n"
    "                            when no --group is given)\n"
    "  --group GROUP             a group whose members may run the endpoint\n"
    "\n"
    "Other options:\n"
    "  --name NAME               this tool's endpoint name (default harvo-bus)\n"
    "  --verbose                 show the framework's log on standard error\n"
    "  -h, --help                show this help\n"
    "  --version                 show the version of the tool and the framework\n"
    "\n"
    "Exit status: 0 success, 1 the operation failed (endpoint missing, send\n"
    "failed, nothing arrived in time), 2 bad usage, unreadable input, a --name\n"
    "that a running endpoint owns (emit) or a user or group that does not exist\n"
    "(policy).\n";

struct Options {
    std::string command;
    std::vector<std::string> arguments;
    std::string name = "harvo-bus";
    std::string json = "{}";
    std::string jsonFile;
    bool jsonGiven = false;
    std::string bufferFile;
    std::string bufferOut;
    std::string type;
    unsigned int code = 0;
    bool async = false;
    bool noWait = false;
    int timeoutMs = -1;
    int count = -1;
    bool verbose = false;
    bool help = false;
    std::string policyUser;
    std::string policyGroup;
    bool version = false;
};

// A usage or input error: message for standard error, exit status 2. A
// refusal that is not about how the tool was called (a name in use, an
// account that does not exist) is one line, without the pointer to --help.
struct UsageError {
    std::string message;
    bool showHelp = true;
};

// ---------------------------------------------------------------------------
// The framework's log: hidden unless --verbose, but its errors and warnings
// are kept so that a failure can say why.

std::vector<std::string>& FrameworkProblems() {
    static std::vector<std::string> problems;
    return problems;
}

#ifdef HARVO_BUS_HOST_LOG
// Runs with the log's lock held: must not log.
void KeepProblems(int, int prio, const char* tag, const char* text, void*) {
    if (prio < 5 /* DLOG_WARN */ || tag == nullptr || std::strcmp(tag, "HarvoFW") != 0)
        return;
    // The text proper follows the "[project]" part; drop the colour codes.
    std::string line(text);
    const size_t start = line.find(']');
    line = (start == std::string::npos) ? line : line.substr(start + 1);
    const size_t reset = line.find("\033[0m");
    if (reset != std::string::npos)
        line.erase(reset);
    FrameworkProblems().push_back(line);
}
#endif

void SetUpLog(bool verbose) {
#ifdef HARVO_BUS_HOST_LOG
    dlog_host_set_stderr(verbose ? 1 : 0);
    dlog_host_set_sink(KeepProblems, nullptr);
#else
    (void)verbose;
#endif
}

// Prints |what| and the framework's reasons, if it gave any.
void Fail(const std::string& what) {
    std::cerr << "harvo-bus: " << what << "\n";
    for (const std::string& problem : FrameworkProblems())
        std::cerr << "  framework: " << problem << "\n";
}

// ---------------------------------------------------------------------------
// Arguments

unsigned long ParseNumber(const std::string& option, const std::string& text, unsigned long max) {
    char* end = nullptr;
    errno = 0;
    const unsigned long value = std::strtoul(text.c_str(), &end, 10);
    if (text.empty() || text[0] == '-' || *end != '\0' || errno != 0 || value > max)
        throw UsageError{option + " wants a number from 0 to " + std::to_string(max) + ", not \"" +
                         text + "\""};
    return value;
}

Options ParseArguments(int argc, char** argv) {
    Options options;
    auto value = [&](int& i) -> std::string {
        if (i + 1 >= argc)
            throw UsageError{std::string(argv[i]) + " needs a value"};
        return argv[++i];
    };
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "-h" || arg == "--help") {
            options.help = true;
        } else if (arg == "--version") {
            options.version = true;
        } else if (arg == "--verbose") {
            options.verbose = true;
        } else if (arg == "--async") {
            options.async = true;
        } else if (arg == "--no-wait") {
            options.noWait = true;
        } else if (arg == "--name") {
            options.name = value(i);
        } else if (arg == "--json") {
            options.json = value(i);
            options.jsonGiven = true;
        } else if (arg == "--json-file") {
            options.jsonFile = value(i);
        } else if (arg == "--buffer-file") {
            options.bufferFile = value(i);
        } else if (arg == "--buffer-out") {
            options.bufferOut = value(i);
        } else if (arg == "--type") {
            options.type = value(i);
        } else if (arg == "--code") {
            options.code = static_cast<unsigned int>(ParseNumber(arg, value(i), 0xFFFFFFFFUL));
        } else if (arg == "--timeout") {
            options.timeoutMs = static_cast<int>(ParseNumber(arg, value(i), 0x7FFFFFFFUL));
        } else if (arg == "--user" || arg == "--group") {
            std::string& account = arg == "--user" ? options.policyUser : options.policyGroup;
            account = value(i);
            if (account.empty())
                throw UsageError{arg + " must not be empty"};
        } else if (arg == "--count") {
            options.count = static_cast<int>(ParseNumber(arg, value(i), 0x7FFFFFFFUL));
        } else if (arg.size() > 1 && arg[0] == '-') {
            throw UsageError{"unknown option " + arg};
        } else if (options.command.empty()) {
            options.command = arg;
        } else {
            options.arguments.push_back(arg);
        }
    }
    if (options.jsonGiven && !options.jsonFile.empty())
        throw UsageError{"give the body with --json or with --json-file, not both"};
    if (options.async && options.noWait)
        throw UsageError{"--async and --no-wait exclude each other"};
    if (options.name.empty())
        throw UsageError{"--name must not be empty"};
    return options;
}

void ExpectArguments(const Options& options, size_t count, const char* form) {
    if (options.arguments.size() != count)
        throw UsageError{std::string("usage: harvo-bus ") + form};
}

// The whole of |path| ("-": standard input); a UsageError when unreadable.
std::string ReadFile(const std::string& path) {
    if (path == "-")
        return std::string(std::istreambuf_iterator<char>(std::cin),
                           std::istreambuf_iterator<char>());
    std::ifstream in(path, std::ios::binary);
    if (!in)
        throw UsageError{"cannot read " + path + ": " + std::strerror(errno)};
    std::ostringstream content;
    content << in.rdbuf();
    if (in.bad())
        throw UsageError{"cannot read " + path};
    return content.str();
}

void WriteFile(const std::string& path, const unsigned char* bytes, size_t size) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(bytes), static_cast<std::streamsize>(size));
    if (!out)
        throw UsageError{"cannot write " + path + ": " + std::strerror(errno)};
}

// The message the options describe; the body must be JSON.
TCMessage BuildMessage(const Options& options) {
    const std::string body = options.jsonFile.empty() ? options.json : ReadFile(options.jsonFile);
    TCMessage message;
    if (!message.SetMessage(body)) {
        std::string reason = message.GetError();
        while (!reason.empty() && (reason.back() == '\n' || reason.back() == ' '))
            reason.pop_back();
        throw UsageError{"the message body is not valid JSON: " + reason};
    }
    message.m_type = options.type;
    message.m_code = options.code;
    if (!options.bufferFile.empty()) {
        const std::string bytes = ReadFile(options.bufferFile);
        message.SetBuffer(reinterpret_cast<const unsigned char*>(bytes.data()),
                          static_cast<unsigned int>(bytes.size()));
    }
    return message;
}

// ---------------------------------------------------------------------------
// Output

std::string DescribeBuffer(const TCMessage& message) {
    if (message.m_buffer == nullptr || message.m_size == 0)
        return "no buffer";
    std::ostringstream out;
    out << message.m_size << (message.m_size == 1 ? " byte [" : " bytes [");
    const unsigned int shown = message.m_size < 16 ? message.m_size : 16;
    char hex[4];
    for (unsigned int i = 0; i < shown; ++i) {
        std::snprintf(hex, sizeof(hex), "%02x", message.m_buffer[i]);
        out << (i > 0 ? " " : "") << hex;
    }
    out << (shown < message.m_size ? " ...]" : "]");
    return out.str();
}

// One line: what arrived, from whom.
void PrintMessage(const std::string& what, const std::string& from, const TCMessage& message) {
    std::cout << what << " from " << from << ": code=" << message.m_code << " type=\""
              << message.m_type << "\" body=" << message.GetString() << " "
              << DescribeBuffer(message) << std::endl;
}

// ---------------------------------------------------------------------------
// The tool's endpoint

// A proxy endpoint (or, for emitting, an application endpoint) that keeps
// what arrives and ends the loop when the command has what it waits for.
class ToolEndpoint : public TCServer {
public:
    ToolEndpoint(const std::string& name, Quelt::TCServerType type) : TCServer(name, type) {}

    bool IfMessageReplied(const char* from, const TCMessage* reply) override {
        PrintMessage("reply", from != nullptr ? from : "?", *reply);
        replied_ = true;
        Stop();
        return true;
    }

    static void OnSignal(const char* from, const char* signalName, TCMessage* message, void* data) {
        auto* self = static_cast<ToolEndpoint*>(data);
        PrintMessage(std::string("signal ") + signalName, from != nullptr ? from : "?", *message);
        ++self->signals_;
        if (self->wanted_ > 0 && self->signals_ >= self->wanted_)
            self->Stop();
    }

    // Runs the default main context until Stop, the limit (ms, -1: none) or
    // SIGINT/SIGTERM; true when stopped by Stop.
    bool Wait(int limitMs) {
        loop_ = g_main_loop_new(nullptr, FALSE);
        guint timer = 0;
        if (limitMs >= 0)
            timer = g_timeout_add(static_cast<guint>(limitMs), OnLimit, this);
        const guint interrupt = g_unix_signal_add(SIGINT, OnInterrupt, this);
        const guint terminate = g_unix_signal_add(SIGTERM, OnInterrupt, this);
        if (!stopped_)
            g_main_loop_run(loop_);
        if (timer != 0 && !timedOut_)
            g_source_remove(timer);
        g_source_remove(interrupt);
        g_source_remove(terminate);
        g_main_loop_unref(loop_);
        loop_ = nullptr;
        return stopped_;
    }

    // Makes sure that queued outgoing messages (a signal) have left.
    void Flush() {
        if (m_connection != nullptr)
            g_dbus_connection_flush_sync(m_connection, nullptr, nullptr);
    }

    void ExpectSignals(int count) { wanted_ = count; }
    int Signals() const { return signals_; }
    bool Replied() const { return replied_; }
    bool Interrupted() const { return interrupted_; }

private:
    void Stop() {
        stopped_ = true;
        if (loop_ != nullptr)
            g_main_loop_quit(loop_);
    }
    static gboolean OnLimit(gpointer data) {
        auto* self = static_cast<ToolEndpoint*>(data);
        self->timedOut_ = true;
        g_main_loop_quit(self->loop_);
        return G_SOURCE_REMOVE;
    }
    static gboolean OnInterrupt(gpointer data) {
        auto* self = static_cast<ToolEndpoint*>(data);
        self->interrupted_ = true;
        g_main_loop_quit(self->loop_);
        return G_SOURCE_CONTINUE;
    }

    GMainLoop* loop_ = nullptr;
    bool stopped_ = false;
    bool timedOut_ = false;
    bool interrupted_ = false;
    bool replied_ = false;
    int wanted_ = -1;
    int signals_ = 0;
};

// Opens the proxy endpoint; false (reported) when the bus is out of reach.
bool Connect(ToolEndpoint& endpoint) {
    if (endpoint.CreateDBusProxy())
        return true;
    Fail("cannot connect to the system bus (is DBUS_SYSTEM_BUS_ADDRESS right?)");
    return false;
}

// ---------------------------------------------------------------------------
// Commands

int Available(const Options& options) {
    ExpectArguments(options, 1, "available ENDPOINT");
    ToolEndpoint proxy(options.name, Quelt::SERVER_TYPE_PROXY);
    if (!Connect(proxy))
        return kExitFailed;
    const bool available = proxy.IsServiceAvailable(options.arguments[0].c_str());
    proxy.CloseDBusProxy();
    std::cout << (available ? "yes" : "no") << std::endl;
    return available ? kExitOk : kExitFailed;
}

int Send(const Options& options) {
    ExpectArguments(options, 1, "send ENDPOINT [--json TEXT | --json-file FILE] ...");
    const std::string& dest = options.arguments[0];
    TCMessage message = BuildMessage(options);
    ToolEndpoint proxy(options.name, Quelt::SERVER_TYPE_PROXY);
    if (!Connect(proxy))
        return kExitFailed;
    int status = kExitOk;
    if (!proxy.IsServiceAvailable(dest.c_str())) {
        Fail("no endpoint " + dest + " on the bus");
        status = kExitFailed;
    } else if (options.noWait) {
        if (!proxy.SendMessage(dest.c_str(), &message, false, nullptr, -1)) {
            Fail("sending to " + dest + " failed");
            status = kExitFailed;
        } else {
            std::cout << "sent to " << dest << std::endl;
            proxy.Flush();
        }
    } else if (options.async) {
        TCMessage unused;  // an async send answers through the reply hook
        if (!proxy.SendMessage(dest.c_str(), &message, false, &unused, -1)) {
            Fail("sending to " + dest + " failed");
            status = kExitFailed;
        } else {
            std::cout << "sent to " << dest << ", waiting for the reply" << std::endl;
            const int limit = options.timeoutMs >= 0 ? options.timeoutMs : kDefaultWaitMs;
            if (!proxy.Wait(limit)) {
                Fail(proxy.Interrupted()
                         ? "interrupted"
                         : "no reply from " + dest + " within " + std::to_string(limit) + " ms");
                status = kExitFailed;
            }
        }
    } else {
        TCMessage reply;
        const bool sent =
            proxy.SendMessage(dest.c_str(), &message, true, &reply, options.timeoutMs);
        if (sent || !reply.m_message.empty())
            PrintMessage("reply", dest, reply);
        if (!options.bufferOut.empty() && reply.m_buffer != nullptr)
            WriteFile(options.bufferOut, reply.m_buffer, reply.m_size);
        if (!sent) {
            Fail("sending to " + dest + " failed");
            status = kExitFailed;
        }
    }
    proxy.CloseDBusProxy();
    return status;
}

// The bus name the tool's endpoint would own, held for the length of an
// emission. Endpoints own their names with replacement allowed (a restarted
// service takes its name back from a stale owner), so an endpoint created
// under the name of a running one would take that name from it. The name
// is therefore asked for first without replacing anybody and without
// waiting in the bus's queue; the endpoint created afterwards finds it
// already its own. Given back when the emission is over.
class NameClaim {
public:
    ~NameClaim() {
        if (connection_ == nullptr)
            return;
        if (held_) {
            GVariant* released = g_dbus_connection_call_sync(
                connection_, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                "org.freedesktop.DBus", "ReleaseName", g_variant_new("(s)", busName_.c_str()),
                nullptr, G_DBUS_CALL_FLAGS_NONE, -1, nullptr, nullptr);
            if (released != nullptr)
                g_variant_unref(released);
        }
        g_object_unref(connection_);
    }

    // Takes the bus name of the endpoint |name| if nobody owns it. Throws a
    // UsageError when a running endpoint owns it; false (reported) when the
    // bus cannot be reached or refuses the name.
    bool Take(const std::string& name) {
        busName_ = name + ".message";
        Quelt::TCServerHelper::FormatDBusName(busName_);
        if (!g_dbus_is_name(busName_.c_str()) || g_dbus_is_unique_name(busName_.c_str()))
            return true;  // the endpoint refuses it, and says why
        GError* error = nullptr;
        connection_ = g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, &error);
        if (connection_ == nullptr) {
            g_clear_error(&error);
            Fail("cannot connect to the system bus (is DBUS_SYSTEM_BUS_ADDRESS right?)");
            return false;
        }
        // Allow replacement: a service starting meanwhile takes its name.
        // Do not queue: a name owned by somebody else is refused at once.
        const guint32 kAllowReplacementDoNotQueue = 0x1 | 0x4;
        GVariant* answer = g_dbus_connection_call_sync(
            connection_, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
            "RequestName", g_variant_new("(su)", busName_.c_str(), kAllowReplacementDoNotQueue),
            G_VARIANT_TYPE("(u)"), G_DBUS_CALL_FLAGS_NONE, -1, nullptr, &error);
        if (answer == nullptr) {
            Fail("cannot own the bus name " + busName_ + ": " + error->message);
            g_error_free(error);
            return false;
        }
        guint32 result = 0;
        g_variant_get(answer, "(u)", &result);
        g_variant_unref(answer);
        const guint32 kPrimaryOwner = 1, kAlreadyOwner = 4;
        held_ = result == kPrimaryOwner || result == kAlreadyOwner;
        if (!held_) {
            throw UsageError{"the bus name " + busName_ + " is owned by " + Owner() +
                                 ": emitting as " + name + " would take it; use another --name",
                             false};
        }
        return true;
    }

private:
    // Who owns the name, for the message.
    std::string Owner() {
        GVariant* answer = g_dbus_connection_call_sync(
            connection_, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
            "GetNameOwner", g_variant_new("(s)", busName_.c_str()), G_VARIANT_TYPE("(s)"),
            G_DBUS_CALL_FLAGS_NONE, -1, nullptr, nullptr);
        if (answer == nullptr)
            return "a running endpoint";
        const gchar* owner = nullptr;
        g_variant_get(answer, "(&s)", &owner);
        const std::string text = std::string("a running endpoint (connection ") + owner + ")";
        g_variant_unref(answer);
        return text;
    }

    GDBusConnection* connection_ = nullptr;
    std::string busName_;
    bool held_ = false;
};

int Emit(const Options& options) {
    ExpectArguments(options, 1, "emit SIGNAL [--json TEXT | --json-file FILE] ...");
    const std::string& signal = options.arguments[0];
    TCMessage message = BuildMessage(options);
    NameClaim claim;
    if (!claim.Take(options.name))
        return kExitFailed;
    // Signals leave from an endpoint's own object: a proxy has none.
    ToolEndpoint endpoint(options.name, Quelt::SERVER_TYPE_APP);
    if (!endpoint.CreateDBusServer()) {
        Fail("cannot create the endpoint " + options.name + " on the system bus");
        endpoint.CloseDBusServer();
        return kExitFailed;
    }
    const bool sent = endpoint.SendSignal(signal.c_str(), &message);
    endpoint.Flush();
    endpoint.CloseDBusServer();
    if (!sent) {
        Fail("emitting " + signal + " failed");
        return kExitFailed;
    }
    std::cout << "emitted " << signal << " from " << options.name << std::endl;
    return kExitOk;
}

int Listen(const Options& options) {
    ExpectArguments(options, 2, "listen ENDPOINT SIGNAL [--count N] [--timeout MS]");
    const std::string& from = options.arguments[0];
    const std::string& signal = options.arguments[1];
    ToolEndpoint proxy(options.name, Quelt::SERVER_TYPE_PROXY);
    if (!Connect(proxy))
        return kExitFailed;
    if (!proxy.SubscribeSignal(from.c_str(), signal.c_str(), ToolEndpoint::OnSignal, &proxy)) {
        Fail("cannot subscribe to " + signal + " of " + from);
        proxy.CloseDBusProxy();
        return kExitFailed;
    }
    // One round trip: the bus has the match rule before we say so.
    proxy.IsServiceAvailable(from.c_str());
    std::cout << "listening for " << signal << " from " << from << std::endl;
    proxy.ExpectSignals(options.count);
    proxy.Wait(options.timeoutMs);
    proxy.CloseDBusProxy();
    if (options.count > 0 && proxy.Signals() < options.count) {
        Fail("only " + std::to_string(proxy.Signals()) + " of " + std::to_string(options.count) +
             " signals arrived");
        return kExitFailed;
    }
    return kExitOk;
}

// ---------------------------------------------------------------------------
// The bus policy

// User and group names go into XML attributes: only the characters of
// portable account names (and a trailing "$", as machine accounts have).
bool IsAccountName(const std::string& name) {
    if (name.empty() || name[0] == '-')
        return false;
    for (size_t i = 0; i < name.size(); ++i) {
        const char c = name[i];
        const bool portable = (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') ||
                              (c >= 'a' && c <= 'z') || c == '_' || c == '.' || c == '-';
        if (!portable && !(c == '$' && i + 1 == name.size()))
            return false;
    }
    return true;
}

// The rules that let the endpoint's own process run it. Owning the name is
// what the stock system bus denies; the signals it emits (the announcement
// "service_start_default" and its own) are allowed explicitly for buses
// whose default denies them.
void PrintOwnerPolicy(std::ostream& out, const char* attribute, const std::string& account,
                      const std::string& busName) {
    out << "  <policy " << attribute << "=\"" << account << "\">\n"
        << "    <allow own=\"" << busName << "\"/>\n"
        << "    <allow send_type=\"signal\" send_interface=\"" << busName << "\"/>\n"
        << "  </policy>\n";
}

int Policy(const Options& options) {
    ExpectArguments(options, 1, "policy ENDPOINT [--user USER] [--group GROUP]");
    // The bus name exactly as the endpoint makes it.
    std::string busName = options.arguments[0] + ".message";
    Quelt::TCServerHelper::FormatDBusName(busName);
    Quelt::TCServerHelper::FormatDBusNameElements(busName);
    if (!g_dbus_is_name(busName.c_str()) || g_dbus_is_unique_name(busName.c_str()))
        throw UsageError{"\"" + options.arguments[0] + "\" gives the bus name \"" + busName +
                         "\", which the bus does not accept"};
    for (const std::string* account : {&options.policyUser, &options.policyGroup}) {
        if (!account->empty() && !IsAccountName(*account))
            throw UsageError{"\"" + *account + "\" is not a user or group name"};
    }
    const std::string user =
        options.policyUser.empty() && options.policyGroup.empty() ? "root" : options.policyUser;
    const std::string& group = options.policyGroup;
    // The daemon ignores a rule for an account it cannot find (the policy
    // would then let nobody own the name): refuse it here, in one line.
    if (!user.empty() && getpwnam(user.c_str()) == nullptr)
        throw UsageError{"there is no user \"" + user + "\" on this system", false};
    if (!group.empty() && getgrnam(group.c_str()) == nullptr)
        throw UsageError{"there is no group \"" + group + "\" on this system", false};
    std::string owners = "user " + user;
    if (user.empty())
        owners = "the members of group " + group;
    else if (!group.empty())
        owners += " and the members of group " + group;

    std::ostringstream out;
    out << "<!DOCTYPE busconfig PUBLIC \"-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN\"\n"
        << " \"http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd\">\n"
        << "<!-- System bus policy of the harvo-fw endpoint with the bus name " << busName
        << ",\n     made by harvo-bus policy.\n"
        << "     Owner: only " << owners << " may own " << busName << "\n"
        << "     (and emit signals on its interface).\n"
        << "     Callers: everyone may call its methods SendMessage and\n"
        << "     SendMessageWithBuffer, introspect it, ping it and receive its signals.\n"
        << "     Left to the stock policy: everything else (other names and interfaces,\n"
        << "     the bus's own methods). -->\n"
        << "<busconfig>\n";
    if (!user.empty())
        PrintOwnerPolicy(out, "user", user, busName);
    if (!group.empty())
        PrintOwnerPolicy(out, "group", group, busName);
    // Everyone may call the message interface, introspect the object and
    // ping it; replies need no rule (requested replies pass), and every
    // process may receive the endpoint's signals.
    out << "  <policy context=\"default\">\n"
        << "    <allow send_destination=\"" << busName << "\" send_interface=\"" << busName
        << "\"/>\n"
        << "    <allow send_destination=\"" << busName
        << "\" send_interface=\"org.freedesktop.DBus.Introspectable\"/>\n"
        << "    <allow send_destination=\"" << busName
        << "\" send_interface=\"org.freedesktop.DBus.Peer\"/>\n"
        << "    <allow receive_type=\"signal\" receive_interface=\"" << busName << "\"/>\n"
        << "  </policy>\n"
        << "</busconfig>\n";
    std::cout << out.str();
    return kExitOk;
}

int Run(int argc, char** argv) {
    const Options options = ParseArguments(argc, argv);
    if (options.help) {
        std::cout << kUsage;
        return kExitOk;
    }
    if (options.version) {
        std::cout << "harvo-bus (harvo-fw) " << HARVO_FW_VERSION << "\n";
        return kExitOk;
    }
    SetUpLog(options.verbose);
    if (options.command.empty())
        throw UsageError{"no command given"};
    if (options.command == "policy")
        return Policy(options);
    if (!options.policyUser.empty() || !options.policyGroup.empty())
        throw UsageError{"--user and --group belong to the policy command"};
    if (options.command == "available")
        return Available(options);
    if (options.command == "send")
        return Send(options);
    if (options.command == "emit")
        return Emit(options);
    if (options.command == "listen")
        return Listen(options);
    throw UsageError{"unknown command " + options.command};
}

}  // namespace

int main(int argc, char** argv) {
    try {
        return Run(argc, argv);
    } catch (const UsageError& error) {
        std::cerr << "harvo-bus: " << error.message << "\n";
        if (error.showHelp)
            std::cerr << "Try 'harvo-bus --help' for more information.\n";
        return kExitUsage;
    }
}
