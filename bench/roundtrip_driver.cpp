// SPDX-License-Identifier: Apache-2.0
/*
 * harvo-roundtrip-driver: one round-trip case of the bench alone, for
 * instruction counting.
 *
 *   harvo-roundtrip-driver signal fwk N   N signal ping-pongs with the framework
 *   harvo-roundtrip-driver signal raw N   the same written against GDBus
 *   harvo-roundtrip-driver sync N         N SendSyncEvent round trips to a task
 *
 * The signal cases are those of harvo-bench's row 5 (same names, payload
 * and peer, harvo-bench-peer) and need DBUS_SYSTEM_BUS_ADDRESS (run it
 * under scripts/private-bus.sh); the sync case is row 2's. Nothing is
 * timed: run it under `valgrind --tool=callgrind --trace-children=yes`
 * twice with different N, and the difference of the two counts divided by
 * the difference of the Ns is the cost of one round trip in each process,
 * start-up and shut-down cancelled out.
 */
#include <gio/gio.h>
#include <glib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <mutex>
#include <string>
#include <thread>

#include "TCEventIO.h"
#include "TCMessage.h"
#include "TCServer.h"
#include "TCTask.h"
#include "dlog-host.h"

namespace {

const char kSigServer[] = "bench_sig";
const char kSigInterface[] = "bench_sig.message";
const char kSigPath[] = "/bench_sig/message";
const char kPeerServer[] = "bench_fwk";
const char kPeerInterface[] = "bench_fwk.message";
const char kSigBody[] = "{\"city\":\"Seoul\",\"days\":[1,2,3],\"v\":7}";
const char kSigType[] = "ping";
const guint32 kSigCode = 3;

volatile size_t g_sink;

// A GLib loop on a thread and context of its own.
class LoopThread {
public:
    LoopThread() : context_(g_main_context_new()), loop_(g_main_loop_new(context_, FALSE)) {
        thread_ = std::thread([this] {
            g_main_context_push_thread_default(context_);
            g_main_loop_run(loop_);
            g_main_context_pop_thread_default(context_);
        });
        while (!g_main_loop_is_running(loop_))
            std::this_thread::yield();
    }
    ~LoopThread() {
        g_main_loop_quit(loop_);
        g_main_context_wakeup(context_);
        thread_.join();
        g_main_loop_unref(loop_);
        g_main_context_unref(context_);
    }
    GMainContext* context() const { return context_; }

    // Runs |fn| on the loop thread and waits for it.
    void Run(const std::function<void()>& fn) {
        struct Call {
            const std::function<void()>* fn;
            std::mutex mutex;
            std::condition_variable cv;
            bool done = false;
        } call;
        call.fn = &fn;
        g_main_context_invoke(
            context_,
            [](gpointer data) -> gboolean {
                auto* c = static_cast<Call*>(data);
                (*c->fn)();
                std::lock_guard<std::mutex> guard(c->mutex);
                c->done = true;
                c->cv.notify_one();
                return G_SOURCE_REMOVE;
            },
            &call);
        std::unique_lock<std::mutex> lock(call.mutex);
        call.cv.wait(lock, [&] { return call.done; });
    }

private:
    GMainContext* context_;
    GMainLoop* loop_;
    std::thread thread_;
};

struct PongWait {
    std::mutex mutex;
    std::condition_variable cv;
    unsigned long arrived = 0;

    void Arrived() {
        std::lock_guard<std::mutex> guard(mutex);
        ++arrived;
        cv.notify_one();
    }
    void WaitFor(unsigned long count) {
        std::unique_lock<std::mutex> lock(mutex);
        // Generous: under valgrind a round trip takes milliseconds.
        if (!cv.wait_for(lock, std::chrono::seconds(120), [&] { return arrived >= count; })) {
            std::fprintf(stderr, "no pong within 120 s\n");
            std::abort();
        }
    }
};

struct Peer {
    GPid pid = 0;
    int input = -1;
    FILE* output = nullptr;
};

bool StartPeer(Peer& peer) {
    char* argv[] = {const_cast<char*>(HARVO_BENCH_PEER), nullptr};
    int output = -1;
    GError* error = nullptr;
    if (!g_spawn_async_with_pipes(nullptr, argv, nullptr, G_SPAWN_DO_NOT_REAP_CHILD, nullptr,
                                  nullptr, &peer.pid, &peer.input, &output, nullptr, &error)) {
        std::fprintf(stderr, "peer: %s\n", error->message);
        g_error_free(error);
        return false;
    }
    char line[16] = {0};
    peer.output = fdopen(output, "r");
    return peer.output != nullptr && std::fgets(line, sizeof(line), peer.output) != nullptr &&
           std::strncmp(line, "ready", 5) == 0;
}

bool PeerCommand(Peer& peer, const char* command) {
    std::string line = std::string(command) + "\n";
    if (write(peer.input, line.data(), line.size()) != static_cast<ssize_t>(line.size()))
        return false;
    char answer[16] = {0};
    return std::fgets(answer, sizeof(answer), peer.output) != nullptr &&
           std::strncmp(answer, "ok", 2) == 0;
}

void StopPeer(Peer& peer) {
    if (peer.input >= 0)
        close(peer.input);
    if (peer.output != nullptr)
        std::fclose(peer.output);
    if (peer.pid != 0) {
        int status = 0;
        waitpid(peer.pid, &status, 0);
        g_spawn_close_pid(peer.pid);
    }
}

void OnFrameworkPong(const char*, const char*, Quelt::TCMessage* message, void* data) {
    g_sink = message->m_message.size();
    static_cast<PongWait*>(data)->Arrived();
}

void OnRawPong(GDBusConnection*, const gchar*, const gchar*, const gchar*, const gchar*,
               GVariant* parameters, gpointer data) {
    if (!g_variant_is_of_type(parameters, G_VARIANT_TYPE("(suss)")))
        return;
    const char *from, *type, *text;
    guint32 code;
    g_variant_get(parameters, "(&su&s&s)", &from, &code, &type, &text);
    std::string f(from), t(type), m(text);
    g_sink = f.size() + t.size() + m.size() + code;
    static_cast<PongWait*>(data)->Arrived();
}

int SignalFramework(Peer& peer, LoopThread& loop, int n) {
    Quelt::TCServer server(kSigServer, Quelt::SERVER_TYPE_APP);
    bool ok = false;
    loop.Run([&] { ok = server.CreateDBusServer(); });
    PongWait wait;
    if (ok && PeerCommand(peer, "signals fwk")) {
        loop.Run([&] { ok = server.SubscribeSignal(kPeerServer, "pong", OnFrameworkPong, &wait); });
        Quelt::TCMessage message;
        message.m_type = kSigType;
        message.m_code = kSigCode;
        message.SetMessage(kSigBody);
        for (int i = 0; ok && i < n; ++i) {
            ok = server.SendSignal("ping", &message);
            wait.WaitFor(i + 1);
        }
        loop.Run([&] { server.UnSubscribeSignal(kPeerServer, "pong"); });
    }
    loop.Run([&] { server.CloseDBusServer(); });
    return ok ? 0 : 1;
}

int SignalReference(Peer& peer, LoopThread& loop, int n) {
    GError* error = nullptr;
    GDBusConnection* connection = g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, &error);
    if (connection == nullptr) {
        std::fprintf(stderr, "no bus: %s\n", error->message);
        g_error_free(error);
        return 1;
    }
    PongWait wait;
    guint id = 0;
    bool ok = PeerCommand(peer, "signals raw");
    if (ok) {
        loop.Run([&] {
            id = g_dbus_connection_signal_subscribe(connection, nullptr, kPeerInterface, "pong",
                                                    nullptr, nullptr, G_DBUS_SIGNAL_FLAGS_NONE,
                                                    OnRawPong, &wait, nullptr);
        });
        ok = id != 0;
    }
    for (int i = 0; ok && i < n; ++i) {
        ok = g_dbus_connection_emit_signal(
            connection, nullptr, kSigPath, kSigInterface, "ping",
            g_variant_new("(suss)", kSigServer, kSigCode, kSigType, kSigBody), nullptr);
        wait.WaitFor(i + 1);
    }
    if (id != 0)
        loop.Run([&] { g_dbus_connection_signal_unsubscribe(connection, id); });
    g_object_unref(connection);
    return ok ? 0 : 1;
}

int Signal(bool framework, int n) {
    if (g_getenv("DBUS_SYSTEM_BUS_ADDRESS") == nullptr) {
        std::fprintf(stderr, "run under scripts/private-bus.sh\n");
        return 2;
    }
    Peer peer;
    if (!StartPeer(peer)) {
        StopPeer(peer);
        return 1;
    }
    int result = 1;
    {
        LoopThread loop;
        result = framework ? SignalFramework(peer, loop, n) : SignalReference(peer, loop, n);
    }
    if (!PeerCommand(peer, "signals off"))
        result = 1;
    StopPeer(peer);
    return result;
}

constexpr int kSyncType = 901;

class EchoTask : public Quelt::TCTask {
public:
    EchoTask() : TCTask("bench") {}

protected:
    bool t_OnMEvent(const Quelt::TCEvent* /*event*/) override { return true; }
};

int Sync(int n) {
    EchoTask task;
    if (!task.Create("bench", true, 0)) {
        std::fprintf(stderr, "task create failed\n");
        return 1;
    }
    Quelt::TCEvent event;
    event.receiver = &task;
    event.type = kSyncType;
    for (int i = 0; i < n; ++i)
        Quelt::TCEventIO::SendSyncEvent(&event);
    task.Destroy();
    return 0;
}

}  // namespace

// |n| synchronous messages with a JSON body of |body| bytes from a proxy
// endpoint to the bench peer's framework endpoint.
int Bus(int n, size_t body) {
    if (g_getenv("DBUS_SYSTEM_BUS_ADDRESS") == nullptr) {
        std::fprintf(stderr, "run under scripts/private-bus.sh\n");
        return 2;
    }
    Peer peer;
    if (!StartPeer(peer)) {
        StopPeer(peer);
        return 1;
    }
    int result = 0;
    {
        Quelt::TCServer client("bench_client", Quelt::SERVER_TYPE_PROXY);
        if (!client.CreateDBusProxy()) {
            StopPeer(peer);
            return 1;
        }
        Quelt::TCMessage message;
        message.m_type = "echo";
        message.m_code = 3;
        message.SetMessage("{\"d\":\"" + std::string(std::max<size_t>(body, 8) - 8, 'x') + "\"}");
        for (int i = 0; i < n && result == 0; ++i) {
            Quelt::TCMessage reply;
            if (!client.SendMessage("bench_fwk", &message, true, &reply, -1))
                result = 1;
        }
        client.CloseDBusProxy();
    }
    StopPeer(peer);
    return result;
}

int main(int argc, char** argv) {
    dlog_host_set_stderr(0);
    if (argc == 4 && std::strcmp(argv[1], "signal") == 0)
        return Signal(std::strcmp(argv[2], "fwk") == 0, std::atoi(argv[3]));
    if (argc == 3 && std::strcmp(argv[1], "sync") == 0)
        return Sync(std::atoi(argv[2]));
    if (argc == 4 && std::strcmp(argv[1], "bus") == 0)
        return Bus(std::atoi(argv[3]), static_cast<size_t>(std::atol(argv[2])));
    std::fprintf(stderr, "usage: %s signal fwk|raw N | sync N | bus BODY_BYTES N\n", argv[0]);
    return 2;
}
