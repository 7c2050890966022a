/* SPDX-License-Identifier: Apache-2.0 */
// Shared pieces of the bus tests: the private bus, a peer process, stock
// tools run as children, main-context pumping, a recording server and the
// friend that reaches TCServer's private members.
#ifndef HARVO_TEST_BUS_BUSTESTSUPPORT_H
#define HARVO_TEST_BUS_BUSTESTSUPPORT_H

#include <dlog.h>
#include <fcntl.h>
#include <gio/gio.h>
#include <glib-unix.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "LogCapture.h"
#include "PrivateBus.h"
#include "TCEventIO.h"
#include "TCServer.h"

#if defined(__SANITIZE_ADDRESS__)
#define HARVO_BUS_TEST_ASAN 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define HARVO_BUS_TEST_ASAN 1
#endif
#endif
#ifdef HARVO_BUS_TEST_ASAN
#include <sanitizer/lsan_interface.h>
#endif

// Every bus test program runs against its own private bus.
static ::testing::Environment* const g_harvoPrivateBus =
    ::testing::AddGlobalTestEnvironment(new harvo_test::PrivateBusEnvironment(HARVO_BUS_CONFIG));

namespace Quelt {

// Reaches the private state of a server (declared a friend by TCServer).
class TCServerTestPeer {
public:
    static TCMutex& CloseLock(TCServer& server) { return server.m_closeLock; }
    static int SendCount(TCServer& server) {
        return g_atomic_int_get(const_cast<gint*>(&server.m_sendCount));
    }
    static GDBusConnection* Connection(TCServer& server) { return server.m_connection; }
    static bool Created(TCServer& server) { return server.m_created; }
    static guint OwnerId(TCServer& server) { return server.m_ownerId; }
    static guint RegistrationId(TCServer& server) { return server.m_registrationId; }
    static GDBusNodeInfo* NodeInfo(TCServer& server) { return server.m_nodeInfo; }
    static const GDBusInterfaceVTable* VTable() { return &TCServer::m_gVTable; }
    static std::map<std::string, TCServer*>& Registry() { return TCServer::m_CreatedDbusServers; }
    static std::string DBusName(TCServer& server, const std::string& name) {
        return server.m_GetDBusName(name);
    }
    static void OnNameAcquired(TCServer* server) {
        TCServer::m_OnNameAcquired(nullptr, "x.message", server);
    }
    static void OnNameLost(TCServer* server) {
        TCServer::m_OnNameLost(nullptr, "x.message", server);
    }
    static void SignalHandler(const char* sender, const char* path, const char* interfaceName,
                              const char* signalName, GVariant* parameters, TCServer* server) {
        TCServer::m_DSignalHandler(nullptr, sender, path, interfaceName, signalName, parameters,
                                   server);
    }
    static void PendingCallNotify(GObject* source, GAsyncResult* result, TCServer* server) {
        TCServer::m_PendingCallNotify(source, result, server);
    }
    static TCServerSignalManager& Signals(TCServer& server) { return server.m_signalManager; }
};

}  // namespace Quelt

namespace harvo_bus_test {

using Quelt::TCMessage;
using Quelt::TCServer;
using Quelt::TCServerTestPeer;
using std::chrono::milliseconds;

// Generous: a loaded machine (sanitizers, two cores) is slow.
const milliseconds kLimit(20000);

// Holds |server|'s close lock on another thread from construction until
// Release (or destruction), the way another sender or a subscription holds
// it for a moment: senders wait for it however long it takes.
class HeldCloseLock {
public:
    explicit HeldCloseLock(TCServer& server) {
        held_.Create(0);
        release_.Create(0);
        thread_ = std::thread([this, &server] {
            TCServerTestPeer::CloseLock(server).Lock();
            held_.Give();
            release_.Take();
            TCServerTestPeer::CloseLock(server).Unlock();
        });
        held_.Take();
    }
    ~HeldCloseLock() { Release(); }
    void Release() {
        if (!thread_.joinable())
            return;
        release_.Give();
        thread_.join();
        held_.Destroy();
        release_.Destroy();
    }

private:
    Quelt::TCSemaphore held_, release_;
    std::thread thread_;
};

// Iterates the thread-default main context (the default one when none is
// pushed) until |done| holds or |limit| passes. A short timer keeps the
// iteration waking up, so that conditions set by other threads are seen.
inline bool PumpUntil(const std::function<bool()>& done, milliseconds limit = kLimit,
                      GMainContext* context = nullptr) {
    if (context == nullptr)
        context = g_main_context_default();
    GSource* tick = g_timeout_source_new(5);
    g_source_set_callback(
        tick, [](gpointer) -> gboolean { return G_SOURCE_CONTINUE; }, nullptr, nullptr);
    g_source_attach(tick, context);
    const auto deadline = std::chrono::steady_clock::now() + limit;
    bool reached = done();
    while (!reached && std::chrono::steady_clock::now() < deadline) {
        g_main_context_iteration(context, TRUE);
        reached = done();
    }
    g_source_destroy(tick);
    g_source_unref(tick);
    return reached;
}

// Runs whatever is pending on the default context without waiting.
inline void DrainContext() {
    while (g_main_context_iteration(nullptr, FALSE)) {
    }
}

// Waits for a framework line while serving the default main context.
inline bool PumpForLog(const harvo_test::LogCapture& capture, int prio, const std::string& text,
                       milliseconds limit = kLimit) {
    return PumpUntil([&] { return capture.HasFramework(prio, text); }, limit);
}

// Framework lines whose text starts with |prefix|.
inline size_t CountPrefix(const harvo_test::LogCapture& capture, int prio,
                          const std::string& prefix) {
    size_t count = 0;
    for (const auto& line : capture.Lines()) {
        harvo_test::FrameworkLine parsed;
        if (line.prio != prio || !harvo_test::ParseFrameworkText(line.text, &parsed))
            continue;
        if (parsed.text.compare(0, prefix.size(), prefix) == 0)
            ++count;
    }
    return count;
}

// Position of the first framework line with |text| (any priority), or -1.
inline int IndexOf(const harvo_test::LogCapture& capture, const std::string& text) {
    const auto lines = capture.Lines();
    for (size_t i = 0; i < lines.size(); ++i) {
        harvo_test::FrameworkLine parsed;
        if (harvo_test::ParseFrameworkText(lines[i].text, &parsed) && parsed.text == text) {
            return static_cast<int>(i);
        }
    }
    return -1;
}

// How many refusals of |sender| a coalesced warning stands for (its text
// ends "(N refused from SENDER since its last line)"), or 0.
inline size_t RefusalsIn(const std::string& text, const std::string& sender) {
    const std::string tail = " refused from " + sender + " since its last line)";
    if (text.size() < tail.size() ||
        text.compare(text.size() - tail.size(), tail.size(), tail) != 0) {
        return 0;
    }
    const size_t open = text.rfind('(', text.size() - tail.size());
    if (open == std::string::npos)
        return 0;
    const std::string number = text.substr(open + 1, text.size() - tail.size() - open - 1);
    if (number.empty() || number.find_first_not_of("0123456789") != std::string::npos)
        return 0;
    return std::stoul(number);
}

// The coalesced refusal lines of |sender| that start with |text| ("": any
// line): their number, and the sum of the refusals they stand for.
inline size_t RefusalsReported(const harvo_test::LogCapture& capture, const std::string& text,
                               const std::string& sender, size_t* lines) {
    size_t total = 0;
    *lines = 0;
    for (const auto& line : capture.Lines()) {
        harvo_test::FrameworkLine parsed;
        if (line.prio != DLOG_WARN || !harvo_test::ParseFrameworkText(line.text, &parsed) ||
            parsed.text.compare(0, text.size(), text) != 0) {
            continue;
        }
        const size_t count = RefusalsIn(parsed.text, sender);
        if (count > 0) {
            total += count;
            ++*lines;
        }
    }
    return total;
}

// The framework line that follows the first one with |text| (exactly), or
// the first one that starts with |text| when |prefix| is set, among the
// lines of the same source file: another thread of the library (the buffer
// format's question, say) may log in between.
struct NextLine {
    std::string text;
    int prio = -1;
};
inline NextLine LineAfter(const harvo_test::LogCapture& capture, const std::string& text,
                          bool prefix = false) {
    const auto lines = capture.Lines();
    for (size_t i = 0; i + 1 < lines.size(); ++i) {
        harvo_test::FrameworkLine parsed;
        if (!harvo_test::ParseFrameworkText(lines[i].text, &parsed))
            continue;
        const bool match =
            prefix ? parsed.text.compare(0, text.size(), text) == 0 : parsed.text == text;
        if (!match)
            continue;
        for (size_t j = i + 1; j < lines.size(); ++j) {
            harvo_test::FrameworkLine next;
            if (harvo_test::ParseFrameworkText(lines[j].text, &next) && next.file == parsed.file)
                return {next.text, lines[j].prio};
        }
        return {};
    }
    return {};
}

inline TCMessage MakeMessage(const std::string& type, unsigned int code, const std::string& text,
                             const std::vector<unsigned char>& buffer = {}) {
    TCMessage message;
    message.m_type = type;
    message.m_code = code;
    message.SetMessage(text);
    if (!buffer.empty())
        message.SetBuffer(buffer.data(), static_cast<unsigned>(buffer.size()));
    return message;
}

inline std::vector<unsigned char> BufferOf(const TCMessage& message) {
    if (message.m_buffer == nullptr)
        return {};
    return std::vector<unsigned char>(message.m_buffer, message.m_buffer + message.m_size);
}

// What a RecordingServer saw.
struct Seen {
    std::string from;
    std::string type;
    unsigned int code = 0;
    std::string text;
    std::vector<unsigned char> buffer;
    std::string signal;  // the fourth argument of IfMessageReceived
    bool hadSignal = false;
    GThread* thread = nullptr;
};

inline Seen SeeMessage(const char* from, const TCMessage* message, const char* signal) {
    Seen seen;
    seen.from = from != nullptr ? from : "(null)";
    seen.type = message->m_type;
    seen.code = message->m_code;
    seen.text = message->GetString();
    seen.buffer = BufferOf(*message);
    seen.hadSignal = signal != nullptr;
    seen.signal = signal != nullptr ? signal : "";
    seen.thread = g_thread_self();
    return seen;
}

// A server that records its hooks and answers with |answer| (if set).
class RecordingServer : public TCServer {
public:
    RecordingServer(const std::string& name, Quelt::TCServerType type) : TCServer(name, type) {}

    std::function<void(const TCMessage* message, TCMessage* reply)> answer;

    bool IfMessageReceived(const char* from, const TCMessage* message, TCMessage* reply,
                           const char* signalName) override {
        {
            std::lock_guard<std::mutex> guard(mutex_);
            received_.push_back(SeeMessage(from, message, signalName));
        }
        if (answer)
            answer(message, reply);
        receivedCount_.fetch_add(1);
        return true;
    }

    bool IfMessageReplied(const char* from, const TCMessage* reply) override {
        {
            std::lock_guard<std::mutex> guard(mutex_);
            replied_.push_back(SeeMessage(from, reply, nullptr));
        }
        repliedCount_.fetch_add(1);
        return true;
    }

    size_t ReceivedCount() const { return receivedCount_.load(); }
    size_t RepliedCount() const { return repliedCount_.load(); }
    Seen Received(size_t i) const {
        std::lock_guard<std::mutex> guard(mutex_);
        return received_.at(i);
    }
    Seen Replied(size_t i) const {
        std::lock_guard<std::mutex> guard(mutex_);
        return replied_.at(i);
    }

private:
    mutable std::mutex mutex_;
    std::vector<Seen> received_;
    std::vector<Seen> replied_;
    std::atomic<size_t> receivedCount_{0};
    std::atomic<size_t> repliedCount_{0};
};

// Marks what is allocated during its lifetime as a leak the design
// accepts (e.g. the record that a repeated subscription replaces), so that
// LeakSanitizer does not report it.
class AcceptedLeak {
public:
#ifdef HARVO_BUS_TEST_ASAN
    AcceptedLeak() {
        __lsan_disable();
    }
    ~AcceptedLeak() {
        __lsan_enable();
    }
#endif
};

// GDBus sends the match rules of new subscriptions without waiting; one
// round trip to the bus on the same connection makes sure that the bus has
// them before another process emits.
inline void SettleSubscriptions(TCServer& server) {
    server.IsServiceAvailable("settle");
}

// Closes a server at the end of a scope (tests must not leave stale
// pointers in the process-wide registry).
class CloseAtExit {
public:
    explicit CloseAtExit(TCServer& server) : server_(server) {}
    ~CloseAtExit() { server_.CloseDBusServer(); }

private:
    TCServer& server_;
};

// The peer program (bus_peer), or another program, as a child process with
// its stdin and stdout connected to us. Killed at the end of its scope, and
// by the kernel when this process dies.
class PeerProcess {
public:
    explicit PeerProcess(const std::vector<std::string>& args,
                         const std::string& program = HARVO_PEER_PATH) {
        int in[2], out[2];
        if (pipe2(in, O_CLOEXEC) != 0 || pipe2(out, O_CLOEXEC) != 0)
            return;
        // Everything the child needs is built before the fork: other threads
        // (GDBus's worker) may hold locks that the child would inherit.
        std::string path = program;
        std::vector<std::string> copies(args);
        std::vector<char*> argv;
        argv.push_back(&path[0]);
        for (auto& arg : copies)
            argv.push_back(&arg[0]);
        argv.push_back(nullptr);
        const pid_t parent = getpid();
        pid_ = fork();
        if (pid_ == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            if (getppid() != parent)
                _exit(127);
            dup2(in[0], STDIN_FILENO);
            dup2(out[1], STDOUT_FILENO);
            execvp(path.c_str(), argv.data());
            _exit(127);
        }
        close(in[0]);
        close(out[1]);
        stdin_ = in[1];
        stdout_ = out[0];
    }

    ~PeerProcess() {
        Terminate();
        if (stdin_ >= 0)
            close(stdin_);
        if (stdout_ >= 0)
            close(stdout_);
    }

    pid_t Pid() const { return pid_; }

    // Reads the next line, serving the default main context meanwhile when
    // |pump| is set. False on timeout or end of output.
    bool ReadLine(std::string* line, milliseconds limit = kLimit, bool pump = false) {
        const auto deadline = std::chrono::steady_clock::now() + limit;
        for (;;) {
            const size_t end = buffered_.find('\n');
            if (end != std::string::npos) {
                *line = buffered_.substr(0, end);
                buffered_.erase(0, end + 1);
                return true;
            }
            const auto left = std::chrono::duration_cast<milliseconds>(
                deadline - std::chrono::steady_clock::now());
            if (left.count() <= 0)
                return false;
            if (pump) {
                // Serve our own endpoints while the peer talks to them.
                PumpUntil([this] { return Readable(0); }, left);
                if (!Readable(0))
                    return false;
            } else if (!Readable(static_cast<int>(left.count()))) {
                return false;
            }
            char chunk[4096];
            const ssize_t got = read(stdout_, chunk, sizeof(chunk));
            if (got < 0 && errno == EINTR)
                continue;
            if (got <= 0)
                return false;
            buffered_.append(chunk, static_cast<size_t>(got));
        }
    }

    // Reads lines until one starts with |prefix|; returns it, or "" on
    // timeout.
    std::string WaitLine(const std::string& prefix, milliseconds limit = kLimit,
                         bool pump = false) {
        const auto deadline = std::chrono::steady_clock::now() + limit;
        std::string line;
        for (;;) {
            const auto left = std::chrono::duration_cast<milliseconds>(
                deadline - std::chrono::steady_clock::now());
            if (left.count() <= 0 || !ReadLine(&line, left, pump))
                return std::string();
            if (line.compare(0, prefix.size(), prefix) == 0)
                return line;
        }
    }

    bool WriteLine(const std::string& text) {
        const std::string line = text + "\n";
        return write(stdin_, line.data(), line.size()) == static_cast<ssize_t>(line.size());
    }

    // Waits for the peer to end; its wait status, or -1 on timeout.
    int WaitExit(milliseconds limit = kLimit) {
        if (pid_ <= 0)
            return status_;
        const auto deadline = std::chrono::steady_clock::now() + limit;
        for (;;) {
            int status = 0;
            const pid_t done = waitpid(pid_, &status, WNOHANG);
            if (done == pid_) {
                pid_ = -1;
                status_ = status;
                return status;
            }
            if (std::chrono::steady_clock::now() >= deadline)
                return -1;
            // Nothing to wait on but the child itself: poll its end.
            struct pollfd none = {-1, 0, 0};
            poll(&none, 0, 5);
        }
    }

    void Terminate() {
        if (pid_ <= 0)
            return;
        kill(pid_, SIGTERM);
        if (WaitExit() == -1) {
            kill(pid_, SIGKILL);
            WaitExit();
        }
    }

private:
    bool Readable(int timeoutMs) {
        struct pollfd waiter = {stdout_, POLLIN, 0};
        return poll(&waiter, 1, timeoutMs) > 0;
    }

    pid_t pid_ = -1;
    int stdin_ = -1;
    int stdout_ = -1;
    int status_ = -1;
    std::string buffered_;
};

// Turns the replies to method calls named |member| on |connection| into the
// D-Bus error "org.harvo.Test.Refused" with the text "refused by test", as
// a bus that refuses the call would. Removed at the end of its scope.
class ReplyRefuser {
public:
    ReplyRefuser(GDBusConnection* connection, std::string member)
        : connection_(G_DBUS_CONNECTION(g_object_ref(connection))), member_(std::move(member)) {
        id_ = g_dbus_connection_add_filter(connection_, Filter, this, nullptr);
    }
    ~ReplyRefuser() {
        g_dbus_connection_remove_filter(connection_, id_);
        g_object_unref(connection_);
    }
    ReplyRefuser(const ReplyRefuser&) = delete;
    ReplyRefuser& operator=(const ReplyRefuser&) = delete;

    static constexpr const char* kErrorText = "GDBus.Error:org.harvo.Test.Refused: refused by test";

private:
    // Runs on GDBus's worker thread.
    static GDBusMessage* Filter(GDBusConnection*, GDBusMessage* message, gboolean incoming,
                                gpointer data) {
        ReplyRefuser* self = static_cast<ReplyRefuser*>(data);
        std::lock_guard<std::mutex> guard(self->mutex_);
        if (!incoming) {
            if (g_dbus_message_get_message_type(message) == G_DBUS_MESSAGE_TYPE_METHOD_CALL &&
                self->member_ == (g_dbus_message_get_member(message) != nullptr
                                      ? g_dbus_message_get_member(message)
                                      : "")) {
                self->serials_.push_back(g_dbus_message_get_serial(message));
            }
            return message;
        }
        const guint32 replyTo = g_dbus_message_get_reply_serial(message);
        bool ours = false;
        for (guint32 serial : self->serials_)
            ours |= serial == replyTo && replyTo != 0;
        if (!ours)
            return message;
        GDBusMessage* refusal = g_dbus_message_copy(message, nullptr);
        g_object_unref(message);
        g_dbus_message_set_message_type(refusal, G_DBUS_MESSAGE_TYPE_ERROR);
        g_dbus_message_set_error_name(refusal, "org.harvo.Test.Refused");
        g_dbus_message_set_body(refusal, g_variant_new("(s)", "refused by test"));
        g_dbus_message_set_signature(refusal, "s");
        return refusal;
    }

    GDBusConnection* connection_;
    std::string member_;
    guint id_ = 0;
    std::mutex mutex_;
    std::vector<guint32> serials_;
};

// Starts "bus_peer serve NAME" and waits until it owns its name.
inline bool StartServingPeer(PeerProcess& peer) {
    return !peer.WaitLine("READY").empty();
}

// A stock tool run to its end while the default main context is served
// (so that endpoints of this process can answer it).
struct ToolResult {
    int status = -1;  // wait status; -1 when it did not end in time
    std::string out;
    std::string err;
};

inline ToolResult RunTool(const std::vector<std::string>& args, milliseconds limit = kLimit) {
    ToolResult result;
    std::vector<char*> argv;
    std::vector<std::string> copies(args);
    for (auto& arg : copies)
        argv.push_back(&arg[0]);
    argv.push_back(nullptr);
    GPid pid = 0;
    gint outFd = -1, errFd = -1;
    GError* error = nullptr;
    if (!g_spawn_async_with_pipes(
            nullptr, argv.data(), nullptr,
            static_cast<GSpawnFlags>(G_SPAWN_SEARCH_PATH | G_SPAWN_DO_NOT_REAP_CHILD), nullptr,
            nullptr, &pid, nullptr, &outFd, &errFd, &error)) {
        result.err = error != nullptr ? error->message : "spawn failed";
        if (error != nullptr)
            g_error_free(error);
        return result;
    }
    fcntl(outFd, F_SETFL, O_NONBLOCK);
    fcntl(errFd, F_SETFL, O_NONBLOCK);
    bool outOpen = true, errOpen = true, exited = false;
    int status = -1;
    auto drain = [](int fd, std::string* into, bool* open) {
        char chunk[4096];
        for (;;) {
            const ssize_t got = read(fd, chunk, sizeof(chunk));
            if (got > 0) {
                into->append(chunk, static_cast<size_t>(got));
                continue;
            }
            if (got == 0)
                *open = false;
            return;
        }
    };
    PumpUntil(
        [&] {
            if (outOpen)
                drain(outFd, &result.out, &outOpen);
            if (errOpen)
                drain(errFd, &result.err, &errOpen);
            if (!exited && waitpid(pid, &status, WNOHANG) == pid)
                exited = true;
            return exited && !outOpen && !errOpen;
        },
        limit);
    if (!exited) {
        kill(pid, SIGKILL);
        waitpid(pid, &status, 0);
        status = -1;
    }
    close(outFd);
    close(errFd);
    result.status = status;
    return result;
}

// A bus connection of this process besides the framework's own, so that
// this process can call its own endpoints while it serves the main context;
// null on failure. The caller closes and unrefs it.
inline GDBusConnection* NewSecondConnection() {
    return g_dbus_connection_new_for_address_sync(
        getenv("DBUS_SYSTEM_BUS_ADDRESS"),
        static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                          G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
        nullptr, nullptr, nullptr);
}

inline bool ExitedWith(const ToolResult& result, int code) {
    return result.status != -1 && WIFEXITED(result.status) && WEXITSTATUS(result.status) == code;
}

}  // namespace harvo_bus_test

#endif  // HARVO_TEST_BUS_BUSTESTSUPPORT_H
