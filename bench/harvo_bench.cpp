// SPDX-License-Identifier: Apache-2.0
/*
 * harvo-bench: the framework against its substrate, side by side.
 *
 * Every row runs the framework case and its reference in the same process,
 * alternating (framework, reference, framework, reference, ...), and prints
 * the median of each and their cost ratio (framework / reference: above 1
 * means the framework is slower). One table at the end.
 *
 * The framework's log lines are kept off standard error while measuring
 * (dlog_host_set_stderr(0)): the lines are still formatted, so their cost
 * is part of every framework figure, as on a device.
 */
#include <gio/gio.h>
#include <glib.h>
#include <json/json.h>
#include <fcntl.h>
#include <malloc.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "BusInterface.h"
#include "TCEventIO.h"
#include "TCMessage.h"
#include "TCServer.h"
#include "TCServerHelper.h"
#include "TCTask.h"
#include "dlog-host.h"

namespace {

using Clock = std::chrono::steady_clock;

double NowNs() {
    return std::chrono::duration<double, std::nano>(Clock::now().time_since_epoch()).count();
}

double Median(std::vector<double> v) {
    std::sort(v.begin(), v.end());
    return v[v.size() / 2];
}

// One line of the final table.
struct Row {
    std::string name;
    double framework;
    double reference;
    std::string unit;
    std::string reference_name;
    double target;  // highest acceptable cost ratio; 0: no target
};
std::vector<Row> g_rows;

int g_reps = 5;

// Runs |framework| and |reference| (each returns the cost of one operation)
// alternately, after one warm-up each, and records the medians.
void Compare(const std::string& name, const std::string& reference_name,
             const std::function<double()>& framework, const std::function<double()>& reference,
             double target, const std::string& unit = "ns/op") {
    framework();
    reference();
    std::vector<double> f, r;
    for (int i = 0; i < g_reps; ++i) {
        f.push_back(framework());
        r.push_back(reference());
    }
    g_rows.push_back({name, Median(f), Median(r), unit, reference_name, target});
    std::fprintf(stdout, "  measured: %-34s %12.1f vs %12.1f %s\n", name.c_str(), Median(f),
                 Median(r), unit.c_str());
    std::fflush(stdout);
}

// One reference of a framework case that has several, and its row.
struct Reference {
    std::string row;
    std::string name;
    std::function<double()> run;
    double target;
};

// Runs |framework| and every reference in turn (framework, first, second,
// framework, first, ...), after one warm-up each, so that all of them see
// the same machine; records one row per reference, each with the
// framework's median.
void CompareEach(const std::function<double()>& framework, const std::vector<Reference>& references,
                 const std::string& unit) {
    framework();
    for (const Reference& reference : references)
        reference.run();
    std::vector<double> f;
    std::vector<std::vector<double>> r(references.size());
    for (int i = 0; i < g_reps; ++i) {
        f.push_back(framework());
        for (size_t k = 0; k < references.size(); ++k)
            r[k].push_back(references[k].run());
    }
    for (size_t k = 0; k < references.size(); ++k) {
        const Reference& reference = references[k];
        g_rows.push_back(
            {reference.row, Median(f), Median(r[k]), unit, reference.name, reference.target});
        std::fprintf(stdout, "  measured: %-34s %12.1f vs %12.1f %s\n", reference.row.c_str(),
                     Median(f), Median(r[k]), unit.c_str());
    }
    std::fflush(stdout);
}

// ---------------------------------------------------------------------------
// Producers throttled by a window: a producer never runs more than kWindow
// events ahead of the consumer. The event queue's wake pipe holds 64 KiB;
// a sender that fills it blocks inside the queue lock, which the loop then
// never gets again. 4 x 2048 stays far below that. The reference is
// throttled the same way so both measure the same pattern.
constexpr int kMaxProducers = 4;
constexpr uint32_t kWindow = 2048;
constexpr uint32_t kNotifyEvery = 256;
constexpr int kTypeBase = 1000;

struct Progress {
    std::atomic<uint32_t> handled[kMaxProducers];
    uint32_t per_producer = 0;
    std::mutex mutex;
    std::condition_variable cv;

    void Reset(uint32_t per) {
        for (auto& h : handled)
            h.store(0);
        per_producer = per;
    }
    // Called on the consumer's thread for one event of |producer|.
    void Handled(int producer) {
        uint32_t n = handled[producer].load(std::memory_order_relaxed) + 1;
        handled[producer].store(n, std::memory_order_release);
        if (n % kNotifyEvery == 0 || n == per_producer) {
            std::lock_guard<std::mutex> guard(mutex);
            cv.notify_all();
        }
    }
    void WaitBelowWindow(int producer, uint32_t sent) {
        if (sent - handled[producer].load(std::memory_order_acquire) < kWindow)
            return;
        std::unique_lock<std::mutex> lock(mutex);
        cv.wait(lock, [&] { return sent - handled[producer].load() < kWindow / 2; });
    }
    void WaitAll(int producers) {
        std::unique_lock<std::mutex> lock(mutex);
        cv.wait(lock, [&] {
            for (int p = 0; p < producers; ++p)
                if (handled[p].load() != per_producer)
                    return false;
            return true;
        });
    }
};

// A task that counts the user events it runs; an event of type kBlockType
// holds the loop until Release (the memory row queues behind it).
constexpr int kBlockType = 900;
constexpr int kSyncType = 901;

class BenchTask : public Quelt::TCTask {
public:
    BenchTask() : TCTask("bench") {}
    Progress progress;
    std::mutex block_mutex;
    std::condition_variable block_cv;
    bool blocked = false;
    bool released = false;

    void Release() {
        std::lock_guard<std::mutex> guard(block_mutex);
        released = true;
        block_cv.notify_all();
    }
    void WaitBlocked() {
        std::unique_lock<std::mutex> lock(block_mutex);
        block_cv.wait(lock, [&] { return blocked; });
    }

protected:
    bool t_OnMEvent(const Quelt::TCEvent* event) override {
        if (event->type == kSyncType)
            return true;
        if (event->type == kBlockType) {
            std::unique_lock<std::mutex> lock(block_mutex);
            blocked = true;
            block_cv.notify_all();
            block_cv.wait(lock, [&] { return released; });
            blocked = false;
            released = false;
            return true;
        }
        progress.Handled(event->type - kTypeBase);
        return true;
    }
};

// A plain GLib loop on its own thread and context: the reference consumer.
class GlibLoopThread {
public:
    GlibLoopThread() {
        context_ = g_main_context_new();
        loop_ = g_main_loop_new(context_, FALSE);
        thread_ = std::thread([this] {
            g_main_context_push_thread_default(context_);
            g_main_loop_run(loop_);
            g_main_context_pop_thread_default(context_);
        });
        // Only once the loop owns the context does g_main_context_invoke
        // queue instead of running the callback in the caller.
        while (!g_main_loop_is_running(loop_))
            std::this_thread::yield();
    }
    ~GlibLoopThread() {
        g_main_loop_quit(loop_);
        g_main_context_wakeup(context_);
        thread_.join();
        g_main_loop_unref(loop_);
        g_main_context_unref(context_);
    }
    GMainContext* context() const { return context_; }
    Progress progress;

private:
    GMainContext* context_;
    GMainLoop* loop_;
    std::thread thread_;
};

struct InvokeArg {
    Progress* progress;
    int producer;
};

gboolean CountInvoke(gpointer data) {
    auto* arg = static_cast<InvokeArg*>(data);
    arg->progress->Handled(arg->producer);
    return G_SOURCE_REMOVE;
}

// Row 1: async post-to-dispatch throughput (cost per event).
double AsyncFramework(BenchTask& task, int producers, uint32_t total) {
    uint32_t per = total / producers;
    task.progress.Reset(per);
    double start = NowNs();
    std::vector<std::thread> threads;
    for (int p = 0; p < producers; ++p) {
        threads.emplace_back([&task, p, per] {
            Quelt::TCEvent event;
            event.receiver = &task;
            event.type = kTypeBase + p;
            for (uint32_t i = 0; i < per; ++i) {
                task.progress.WaitBelowWindow(p, i);
                Quelt::TCEventIO::SendEvent(&event);
            }
        });
    }
    for (auto& t : threads)
        t.join();
    task.progress.WaitAll(producers);
    return (NowNs() - start) / (per * producers);
}

double AsyncReference(GlibLoopThread& loop, int producers, uint32_t total) {
    uint32_t per = total / producers;
    loop.progress.Reset(per);
    InvokeArg args[kMaxProducers];
    double start = NowNs();
    std::vector<std::thread> threads;
    for (int p = 0; p < producers; ++p) {
        args[p] = {&loop.progress, p};
        threads.emplace_back([&loop, &args, p, per] {
            for (uint32_t i = 0; i < per; ++i) {
                loop.progress.WaitBelowWindow(p, i);
                g_main_context_invoke(loop.context(), CountInvoke, &args[p]);
            }
        });
    }
    for (auto& t : threads)
        t.join();
    loop.progress.WaitAll(producers);
    return (NowNs() - start) / (per * producers);
}

// The event queue's design and nothing of the framework: the "design
// floor" of row 1b. One GLib loop thread on its own context; a producer
// queues a small item under a GMutex and writes one wake byte per item
// into a pipe whose read end does not block; the loop watches the read end
// with an ordinary GIOChannel watch (not allowed to recurse, no encoding)
// and per dispatch takes one item and reads one byte, so other sources
// would interleave with a long queue. What the framework costs beyond this
// is its own work, not the design's.
const char kFloorName[] = "design floor: queue + wake byte, non-recursive GIOChannel watch";

class DesignFloorLoop {
public:
    DesignFloorLoop() {
        g_mutex_init(&mutex_);
        if (pipe(pipe_) != 0)
            std::abort();
        fcntl(pipe_[0], F_SETFL, O_NONBLOCK);
        context_ = g_main_context_new();
        loop_ = g_main_loop_new(context_, FALSE);
        GIOChannel* channel = g_io_channel_unix_new(pipe_[0]);
        if (g_io_channel_set_encoding(channel, nullptr, nullptr) != G_IO_STATUS_NORMAL)
            std::abort();
        watch_ = g_io_create_watch(channel, G_IO_IN);
        g_io_channel_unref(channel);  // the watch holds the channel from now on
        g_source_set_callback(watch_, G_SOURCE_FUNC(OnWake), this, nullptr);
        g_source_attach(watch_, context_);
        thread_ = std::thread([this] {
            g_main_context_push_thread_default(context_);
            g_main_loop_run(loop_);
            g_main_context_pop_thread_default(context_);
        });
    }
    // The loop thread stops first: no dispatch can run once the watch and
    // the pipe go.
    ~DesignFloorLoop() {
        g_main_loop_quit(loop_);
        g_main_context_wakeup(context_);
        thread_.join();
        g_source_destroy(watch_);
        g_source_unref(watch_);
        g_main_loop_unref(loop_);
        g_main_context_unref(context_);
        close(pipe_[0]);
        close(pipe_[1]);
        g_mutex_clear(&mutex_);
    }
    DesignFloorLoop(const DesignFloorLoop&) = delete;
    DesignFloorLoop& operator=(const DesignFloorLoop&) = delete;

    // Any thread. As the framework's queue does, the byte goes in under the
    // lock, before the item.
    void Post(int producer) {
        g_mutex_lock(&mutex_);
        if (write(pipe_[1], "O", 1) != 1)
            std::abort();
        queue_.push_back({producer});
        g_mutex_unlock(&mutex_);
    }

    Progress progress;

private:
    struct Item {
        int producer;
    };

    // The loop thread: one item and one byte per dispatch.
    static gboolean OnWake(GIOChannel* channel, GIOCondition, gpointer data) {
        auto* self = static_cast<DesignFloorLoop*>(data);
        Item item{-1};
        g_mutex_lock(&self->mutex_);
        if (!self->queue_.empty()) {
            item = self->queue_.front();
            self->queue_.pop_front();
        }
        g_mutex_unlock(&self->mutex_);
        gchar byte = 0;
        gsize length = 0;
        if (g_io_channel_read_chars(channel, &byte, 1, &length, nullptr) != G_IO_STATUS_NORMAL) {
            std::fprintf(stderr, "design floor: the wake pipe failed\n");
            std::abort();
        }
        if (item.producer >= 0)
            self->progress.Handled(item.producer);
        return G_SOURCE_CONTINUE;
    }

    int pipe_[2] = {-1, -1};
    GMutex mutex_;
    std::deque<Item> queue_;  // guarded by mutex_
    GMainContext* context_ = nullptr;
    GMainLoop* loop_ = nullptr;
    GSource* watch_ = nullptr;
    std::thread thread_;
};

double AsyncFloor(DesignFloorLoop& floor, int producers, uint32_t total) {
    uint32_t per = total / producers;
    floor.progress.Reset(per);
    double start = NowNs();
    std::vector<std::thread> threads;
    for (int p = 0; p < producers; ++p) {
        threads.emplace_back([&floor, p, per] {
            for (uint32_t i = 0; i < per; ++i) {
                floor.progress.WaitBelowWindow(p, i);
                floor.Post(p);
            }
        });
    }
    for (auto& t : threads)
        t.join();
    floor.progress.WaitAll(producers);
    return (NowNs() - start) / (per * producers);
}

// Row 2: sync round trips.
double SyncFramework(BenchTask& task, int n) {
    Quelt::TCEvent event;
    event.receiver = &task;
    event.type = kSyncType;
    double start = NowNs();
    for (int i = 0; i < n; ++i)
        Quelt::TCEventIO::SendSyncEvent(&event);
    return (NowNs() - start) / n;
}

double PipePingPong(int n) {
    int there[2], back[2];
    if (pipe(there) != 0 || pipe(back) != 0)
        std::abort();
    std::thread echo([&] {
        char c;
        for (int i = 0; i < n; ++i) {
            if (read(there[0], &c, 1) != 1 || write(back[1], &c, 1) != 1)
                std::abort();
        }
    });
    char c = 'x';
    double start = NowNs();
    for (int i = 0; i < n; ++i) {
        if (write(there[1], &c, 1) != 1 || read(back[0], &c, 1) != 1)
            std::abort();
    }
    double cost = (NowNs() - start) / n;
    echo.join();
    for (int fd : {there[0], there[1], back[0], back[1]})
        close(fd);
    return cost;
}

struct InvokeWait {
    std::mutex mutex;
    std::condition_variable cv;
    bool done = false;
};

gboolean SignalInvoke(gpointer data) {
    auto* w = static_cast<InvokeWait*>(data);
    std::lock_guard<std::mutex> guard(w->mutex);
    w->done = true;
    w->cv.notify_one();
    return G_SOURCE_REMOVE;
}

double InvokeRoundTrip(GlibLoopThread& loop, int n) {
    InvokeWait w;
    double start = NowNs();
    for (int i = 0; i < n; ++i) {
        {
            std::lock_guard<std::mutex> guard(w.mutex);
            w.done = false;
        }
        g_main_context_invoke(loop.context(), SignalInvoke, &w);
        std::unique_lock<std::mutex> lock(w.mutex);
        w.cv.wait(lock, [&] { return w.done; });
    }
    return (NowNs() - start) / n;
}

// Row 3: in-process messages.
class EchoServer : public Quelt::TCServer {
public:
    EchoServer(const std::string& name, Quelt::TCServerType type) : TCServer(name, type) {}
    bool IfMessageReceived(const char*, const Quelt::TCMessage* message, Quelt::TCMessage* reply,
                           const char*) override {
        reply->m_value["echo"] = message->m_value["v"];
        reply->m_code = message->m_code + 1;
        return true;
    }
};

// A type outside 0..2: a bus connection and a registry entry, without bus
// name or object; an in-process sync send to it is a direct call.
const Quelt::TCServerType kLocalType = static_cast<Quelt::TCServerType>(7);

Quelt::TCMessage MakeMessage() {
    Quelt::TCMessage message;
    message.m_type = "ask";
    message.m_code = 3;
    message.SetMessage("{\"v\":7,\"city\":\"Seoul\",\"days\":[1,2,3]}");
    const unsigned char buffer[64] = {1, 2, 3};
    message.SetBuffer(buffer, sizeof(buffer));
    return message;
}

double InProcFramework(EchoServer& sender, int n) {
    Quelt::TCMessage message = MakeMessage();
    double start = NowNs();
    for (int i = 0; i < n; ++i) {
        Quelt::TCMessage reply;
        if (!sender.SendMessage("bench_receiver", &message, true, &reply, -1))
            std::abort();
    }
    return (NowNs() - start) / n;
}

double InProcReference(EchoServer& receiver, int n) {
    Quelt::TCMessage message = MakeMessage();
    double start = NowNs();
    for (int i = 0; i < n; ++i) {
        Quelt::TCMessage reply;
        Quelt::TCMessage copy(message);
        receiver.IfMessageReceived("bench_sender", &copy, &reply, nullptr);
        reply.Generate();
    }
    return (NowNs() - start) / n;
}

// Row 6: message bodies.
std::string MakeBody() {
    Json::Value root;
    root["city"] = "Seoul";
    root["station"] = 47108;
    for (int d = 0; d < 16; ++d) {
        Json::Value day;
        day["day"] = d;
        day["sky"] = d % 2 ? "sunny" : "cloudy";
        day["celsius"] = 10.5 + d;
        day["wind"]["speed"] = 3 + d;
        day["wind"]["dir"] = "NW";
        root["days"].append(day);
    }
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    return Json::writeString(builder, root);
}

template <typename F>
double PerOp(int n, F&& f) {
    double start = NowNs();
    for (int i = 0; i < n; ++i)
        f();
    return (NowNs() - start) / n;
}

volatile size_t g_sink;

// Row 7: memory.
size_t HeapInUse() {
    return mallinfo2().uordblks;
}

long RssKiB() {
    long pages = 0, resident = 0;
    FILE* f = std::fopen("/proc/self/statm", "r");
    if (f != nullptr) {
        if (std::fscanf(f, "%ld %ld", &pages, &resident) != 2)
            resident = 0;
        std::fclose(f);
    }
    return resident * (sysconf(_SC_PAGESIZE) / 1024);
}

// Row 4: bus messages to a peer process (harvo-bench-peer) on a private bus.
struct Peer {
    GPid pid = 0;
    int input = -1;
    FILE* output = nullptr;  // the peer's standard output: "ready", then one "ok" per command
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

// Sends one command line to the peer and waits for its "ok".
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
        close(peer.input);  // the peer quits when its standard input closes
    if (peer.output != nullptr)
        std::fclose(peer.output);
    if (peer.pid != 0) {
        int status = 0;
        waitpid(peer.pid, &status, 0);
        g_spawn_close_pid(peer.pid);
    }
}

// A compact JSON body of exactly |size| bytes: {"d":"xxx..."}.
std::string BodyOfSize(size_t size) {
    return "{\"d\":\"" + std::string(size - 8, 'x') + "\"}";
}

double BusFramework(Quelt::TCServer& client, const Quelt::TCMessage& message, int n,
                    const char* dest = "bench_fwk") {
    double start = NowNs();
    for (int i = 0; i < n; ++i) {
        Quelt::TCMessage reply;
        if (!client.SendMessage(dest, &message, true, &reply, -1))
            std::abort();
    }
    return (NowNs() - start) / n;
}

// The same call written against GDBus: same argument values and bytes, the
// buffer as |bufferType| ("a(y)" or "ay"), reply unpacked into strings and
// a copied buffer.
double BusReference(GDBusConnection* connection, const Quelt::TCMessage& message, int n,
                    const char* bufferType = "a(y)") {
    const char* method = message.m_size != 0 ? "SendMessageWithBuffer" : "SendMessage";
    double start = NowNs();
    for (int i = 0; i < n; ++i) {
        GVariant* payload;
        if (message.m_size != 0)
            payload =
                g_variant_new("(suss@a*)", "bench_client", message.m_code, message.m_type.c_str(),
                              message.m_message.c_str(),
                              g_variant_new_from_data(G_VARIANT_TYPE(bufferType), message.m_buffer,
                                                      message.m_size, TRUE, nullptr, nullptr));
        else
            payload = g_variant_new("(suss)", "bench_client", message.m_code,
                                    message.m_type.c_str(), message.m_message.c_str());
        GError* error = nullptr;
        GVariant* answer = g_dbus_connection_call_sync(
            connection, "bench_raw.message", "/bench_raw/message", "bench_raw.message", method,
            payload, nullptr, G_DBUS_CALL_FLAGS_NONE, -1, nullptr, &error);
        if (answer == nullptr) {
            std::fprintf(stderr, "raw call: %s\n", error->message);
            std::abort();
        }
        const char *from, *type, *text;
        guint32 code;
        GVariant* buffer;
        g_variant_get(answer, "(&su&s&s@a*)", &from, &code, &type, &text, &buffer);
        std::string f(from), t(type), m(text);
        gsize size = g_variant_get_size(buffer);
        std::vector<unsigned char> bytes(
            static_cast<const unsigned char*>(g_variant_get_data(buffer)),
            static_cast<const unsigned char*>(g_variant_get_data(buffer)) + size);
        g_sink = f.size() + t.size() + m.size() + bytes.size() + code;
        g_variant_unref(buffer);
        g_variant_unref(answer);
    }
    return (NowNs() - start) / n;
}

// Row 5: signals across processes, as a ping-pong. This process emits
// "ping" on its endpoint "bench_sig"; the peer's callback answers with
// "pong" on its endpoint "bench_fwk"; our callback, on the signal loop
// thread, wakes the emitter. One figure is one whole round trip: two
// emissions, two deliveries, no cross-process clock.
//
// Framework and reference use the same names, interfaces, object paths,
// members and payload bytes, so only one side may be subscribed at a time
// (in both processes): each run subscribes its own side first and cancels
// it afterwards, outside the timed loop.
const char kSigServer[] = "bench_sig";
const char kSigInterface[] = "bench_sig.message";
const char kSigPath[] = "/bench_sig/message";
const char kPeerServer[] = "bench_fwk";
const char kPeerInterface[] = "bench_fwk.message";

// The body as the framework puts it on the wire: a message copy
// regenerates its JSON text (members in key order, compact), so the
// reference sends the text in that form too.
const char kSigBody[] = "{\"city\":\"Seoul\",\"days\":[1,2,3],\"v\":7}";
const char kSigType[] = "ping";
const guint32 kSigCode = 3;

// Counts the pongs that arrived; the emitter waits for the next one.
struct PongWait {
    std::mutex mutex;
    std::condition_variable cv;
    uint64_t arrived = 0;

    void Arrived() {
        std::lock_guard<std::mutex> guard(mutex);
        ++arrived;
        cv.notify_one();
    }
    void WaitFor(uint64_t count) {
        std::unique_lock<std::mutex> lock(mutex);
        // The limit only turns a lost signal into an error instead of a hang.
        if (!cv.wait_for(lock, std::chrono::seconds(10), [&] { return arrived >= count; })) {
            std::fprintf(stderr, "signal row: no pong within 10 s\n");
            std::abort();
        }
    }
};

// Runs |fn| on |context|'s loop thread and waits for it: subscriptions
// deliver on the thread-default context of the thread that subscribes.
void RunOn(GMainContext* context, const std::function<void()>& fn) {
    struct Call {
        const std::function<void()>* fn;
        InvokeWait done;
    } call{&fn, {}};
    g_main_context_invoke(
        context,
        [](gpointer data) -> gboolean {
            auto* c = static_cast<Call*>(data);
            (*c->fn)();
            SignalInvoke(&c->done);
            return G_SOURCE_REMOVE;
        },
        &call);
    std::unique_lock<std::mutex> lock(call.done.mutex);
    call.done.cv.wait(lock, [&] { return call.done.done; });
}

void OnFrameworkPong(const char*, const char*, Quelt::TCMessage* message, void* data) {
    g_sink = message->m_message.size();
    static_cast<PongWait*>(data)->Arrived();
}

// The reference callback takes the fields into strings, as the framework
// hands its callback a decoded message.
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

double SignalFramework(Peer& peer, GMainContext* loop, Quelt::TCServer& server, int n) {
    PongWait wait;
    if (!PeerCommand(peer, "signals fwk"))
        std::abort();
    bool subscribed = false;
    RunOn(loop, [&] {
        subscribed = server.SubscribeSignal(kPeerServer, "pong", OnFrameworkPong, &wait);
    });
    if (!subscribed)
        std::abort();
    Quelt::TCMessage message;
    message.m_type = kSigType;
    message.m_code = kSigCode;
    message.SetMessage(kSigBody);
    double start = NowNs();
    for (int i = 0; i < n; ++i) {
        if (!server.SendSignal("ping", &message))
            std::abort();
        wait.WaitFor(i + 1);
    }
    double cost = (NowNs() - start) / n;
    RunOn(loop, [&] { server.UnSubscribeSignal(kPeerServer, "pong"); });
    return cost;
}

double SignalReference(Peer& peer, GMainContext* loop, GDBusConnection* connection, int n) {
    PongWait wait;
    if (!PeerCommand(peer, "signals raw"))
        std::abort();
    guint id = 0;
    RunOn(loop, [&] {
        id = g_dbus_connection_signal_subscribe(connection, nullptr, kPeerInterface, "pong",
                                                nullptr, nullptr, G_DBUS_SIGNAL_FLAGS_NONE,
                                                OnRawPong, &wait, nullptr);
    });
    if (id == 0)
        std::abort();
    double start = NowNs();
    for (int i = 0; i < n; ++i) {
        GError* error = nullptr;
        if (!g_dbus_connection_emit_signal(
                connection, nullptr, kSigPath, kSigInterface, "ping",
                g_variant_new("(suss)", kSigServer, kSigCode, kSigType, kSigBody), &error)) {
            std::fprintf(stderr, "raw emit: %s\n", error->message);
            std::abort();
        }
        wait.WaitFor(i + 1);
    }
    double cost = (NowNs() - start) / n;
    RunOn(loop, [&] { g_dbus_connection_signal_unsubscribe(connection, id); });
    return cost;
}

void SignalRow(Peer& peer, GDBusConnection* connection, bool quick) {
    GlibLoopThread loop;
    // An application endpoint: emission needs an object path and an
    // interface of our own. Created on the loop thread so that its name
    // callbacks run there too.
    Quelt::TCServer server(kSigServer, Quelt::SERVER_TYPE_APP);
    bool created = false;
    RunOn(loop.context(), [&] { created = server.CreateDBusServer(); });
    if (!created) {
        std::printf("  (row 5 skipped: the signal endpoint was not created)\n");
        RunOn(loop.context(), [&] { server.CloseDBusServer(); });  // what a failed create left
        return;
    }
    // The round trip time drifts with the machine's load by more than the
    // difference we look for, so one repetition alternates short batches
    // of the two sides (in the order F R R F F R ...) and yields both
    // figures; the reference's is handed over to the second function.
    const int batches = quick ? 4 : 20, per_batch = 25;
    double reference = 0;
    auto paired = [&] {
        double framework = 0;
        reference = 0;
        for (int b = 0; b < batches; ++b) {
            if (b % 2 == 0)
                framework += SignalFramework(peer, loop.context(), server, per_batch);
            reference += SignalReference(peer, loop.context(), connection, per_batch);
            if (b % 2 == 1)
                framework += SignalFramework(peer, loop.context(), server, per_batch);
        }
        reference /= batches;
        return framework / batches;
    };
    Compare(
        "5. signal ping-pong round trip", "g_dbus_connection_emit_signal + signal_subscribe",
        paired, [&] { return reference; }, 1.05, "ns/rtt");
    if (!PeerCommand(peer, "signals off"))
        std::abort();
    RunOn(loop.context(), [&] { server.CloseDBusServer(); });
}

void BusRows(bool quick) {
    if (g_getenv("DBUS_SYSTEM_BUS_ADDRESS") == nullptr) {
        std::printf(
            "  (bus rows skipped: DBUS_SYSTEM_BUS_ADDRESS not set; run under "
            "scripts/private-bus.sh)\n");
        return;
    }
    Peer peer;
    if (!StartPeer(peer)) {
        std::printf("  (bus rows skipped: the peer did not start)\n");
        StopPeer(peer);
        return;
    }
    Quelt::TCServer client("bench_client", Quelt::SERVER_TYPE_PROXY);
    GDBusConnection* connection = g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, nullptr);
    if (!client.CreateDBusProxy() || connection == nullptr) {
        std::printf("  (bus rows skipped: no bus connection)\n");
        StopPeer(peer);
        return;
    }
    const int n = quick ? 100 : 400;
    struct Case {
        const char* name;
        size_t body;
        size_t buffer;
        // The framework's destination: "bench_fwk" announces "ay" buffers
        // (the framework's own endpoint), "bench_raw" does not (an
        // old-format peer: its buffers go as "a(y)").
        const char* dest;
        // The reference's buffer format.
        const char* bufferType;
    } cases[] = {{"4a. bus sync message, 64 B body", 64, 0, "bench_fwk", "a(y)"},
                 {"4b. bus sync message, 4 KiB body", 4096, 0, "bench_fwk", "a(y)"},
                 {"4c. bus sync message, 64 KiB body", 65536, 0, "bench_fwk", "a(y)"},
                 {"4d. bus sync message, 64 KiB buffer", 64, 65536, "bench_raw", "a(y)"},
                 {"4e. bus sync message, 64 KiB ay buffer", 64, 65536, "bench_fwk", "ay"},
                 {"4f. bus sync message, 1 MiB ay buffer", 64, 1048576, "bench_fwk", "ay"}};
    for (const Case& c : cases) {
        Quelt::TCMessage message;
        message.m_type = "echo";
        message.m_code = 3;
        message.SetMessage(BodyOfSize(c.body));
        if (c.buffer != 0) {
            std::vector<unsigned char> bytes(c.buffer, 0x5a);
            message.SetBuffer(bytes.data(), bytes.size());
        }
        // As an array of one-byte structures a buffer is far slower per
        // byte than a string, so that case runs fewer calls; so does the
        // 1 MiB byte array.
        const bool structures = c.buffer != 0 && std::strcmp(c.bufferType, "a(y)") == 0;
        const int calls = structures            ? std::max(2, n / 40)
                          : c.buffer >= 1048576 ? std::max(2, n / 20)
                          : c.buffer != 0       ? std::max(2, n / 4)
                                                : n;
        const std::string reference = structures ? "g_dbus_connection_call_sync, raw a(y) echo"
                                      : c.buffer != 0
                                          ? "g_dbus_connection_call_sync, raw ay echo"
                                          : "g_dbus_connection_call_sync, raw echo object";
        Compare(
            c.name, reference, [&] { return BusFramework(client, message, calls, c.dest); },
            [&] { return BusReference(connection, message, calls, c.bufferType); },
            c.buffer != 0 && !structures ? 1.2 : 1.05);
    }

    // 5. Signals.
    SignalRow(peer, connection, quick);

    client.CloseDBusProxy();
    g_object_unref(connection);
    StopPeer(peer);
}

// Row 7b: heap bytes per endpoint on the bus. The framework's endpoint is
// a gadget-type TCServer (several may live in one process) after
// CreateDBusServer: object, registry entry, owned bus name, parsed
// interface description and exported object. The reference is the same
// endpoint written against GDBus: the same bus name owned with the same
// flags, the same interface description parsed and the object exported
// at the same path.

void RawEndpointMethod(GDBusConnection*, const gchar*, const gchar*, const gchar*, const gchar*,
                       GVariant*, GDBusMethodInvocation* invocation, gpointer) {
    g_dbus_method_invocation_return_error_literal(invocation, G_DBUS_ERROR,
                                                  G_DBUS_ERROR_NOT_SUPPORTED, "bench");
}

const GDBusInterfaceVTable kRawEndpointVTable = {RawEndpointMethod, nullptr, nullptr, {nullptr}};

// The allocator's in-use bytes once the bus traffic of what came before
// has settled: a round trip to the daemon (it answers one connection in
// order, so earlier replies and signals have reached us), then every
// callback they queued on this thread's context. Twice: the name callbacks
// of the first pass may emit signals of their own.
size_t SettledHeap(GDBusConnection* connection) {
    for (int pass = 0; pass < 2; ++pass) {
        GVariant* answer = g_dbus_connection_call_sync(
            connection, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
            "GetId", nullptr, G_VARIANT_TYPE("(s)"), G_DBUS_CALL_FLAGS_NONE, -1, nullptr, nullptr);
        if (answer != nullptr)
            g_variant_unref(answer);
        while (g_main_context_iteration(nullptr, FALSE)) {
        }
    }
    return HeapInUse();
}

double Grown(size_t before, size_t after, int n) {
    return (static_cast<double>(after) - static_cast<double>(before)) / n;
}

double EndpointsFramework(GDBusConnection* connection, int n) {
    std::vector<Quelt::TCServer*> servers;
    servers.reserve(n);
    size_t before = SettledHeap(connection);
    for (int i = 0; i < n; ++i) {
        auto* server =
            new Quelt::TCServer("bench_ep_" + std::to_string(i), Quelt::SERVER_TYPE_GADGET);
        if (!server->CreateDBusServer())
            std::abort();
        servers.push_back(server);
    }
    size_t after = SettledHeap(connection);
    for (Quelt::TCServer* server : servers) {
        server->CloseDBusServer();
        delete server;
    }
    SettledHeap(connection);
    return Grown(before, after, n);
}

struct RawEndpoint {
    guint owner;
    guint registration;
    GDBusNodeInfo* node;
};

// |names| are the bus names the framework's endpoints take (made before
// measuring); the object path follows from each as the framework derives it.
double EndpointsReference(GDBusConnection* connection, const std::vector<std::string>& names) {
    const int n = static_cast<int>(names.size());
    std::vector<RawEndpoint> endpoints;
    endpoints.reserve(n);
    size_t before = SettledHeap(connection);
    for (const std::string& name : names) {
        char xml[Quelt::detail::kInterfaceXmlSize];
        std::snprintf(xml, sizeof(xml), Quelt::detail::kInterfaceXml, name.c_str());
        RawEndpoint e{0, 0, g_dbus_node_info_new_for_xml(xml, nullptr)};
        if (e.node == nullptr)
            std::abort();
        e.owner = g_bus_own_name_on_connection(
            connection, name.c_str(),
            GBusNameOwnerFlags(G_BUS_NAME_OWNER_FLAGS_ALLOW_REPLACEMENT |
                               G_BUS_NAME_OWNER_FLAGS_REPLACE),
            nullptr, nullptr, nullptr, nullptr);
        std::string path = "/" + name;
        std::replace(path.begin(), path.end(), '.', '/');
        e.registration =
            g_dbus_connection_register_object(connection, path.c_str(), e.node->interfaces[0],
                                              &kRawEndpointVTable, nullptr, nullptr, nullptr);
        if (e.owner == 0 || e.registration == 0)
            std::abort();
        endpoints.push_back(e);
    }
    size_t after = SettledHeap(connection);
    for (const RawEndpoint& e : endpoints) {
        g_bus_unown_name(e.owner);
        g_dbus_connection_unregister_object(connection, e.registration);
        g_dbus_node_info_unref(e.node);
    }
    SettledHeap(connection);
    return Grown(before, after, n);
}

void EndpointRow(bool quick) {
    GDBusConnection* connection = nullptr;
    if (g_getenv("DBUS_SYSTEM_BUS_ADDRESS") != nullptr)
        connection = g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, nullptr);
    if (connection == nullptr) {
        std::printf("  (row 7b skipped: no private bus)\n");
        return;
    }
    const int n = quick ? 50 : 200;
    // A gadget endpoint's bus name: the application's name (here, without
    // an application, the executable's), its own name, ".message"; made legal.
    std::string prefix;
    Quelt::TCServerHelper::GetProcessName(prefix);
    std::vector<std::string> names;
    for (int i = 0; i < n; ++i) {
        std::string name = prefix + ".bench_ep_" + std::to_string(i) + ".message";
        Quelt::TCServerHelper::FormatDBusName(name);
        names.push_back(name);
    }
    Compare(
        "7b. heap bytes per bus endpoint", "own name + node info + register_object",
        [&] { return EndpointsFramework(connection, n); },
        [&] { return EndpointsReference(connection, names); }, 0, "B");
    g_object_unref(connection);
}

// ---------------------------------------------------------------------------
// One case alone: `harvo-bench --only CASE N` runs exactly one framework
// case or reference N times, without warm-up or table, and exits. Made for
// scripts/bench-counts.sh, which runs it under strace and callgrind with
// two values of N: the difference between the two runs is the cost of
// N2 - N1 operations, without the process's start-up and shutdown.

const char* const kOnlyCases[] = {"async-framework", "async-floor", "async-invoke",
                                  "sync-framework",  "sync-pipe",   "signal-framework",
                                  "signal-raw"};

int OnlyUsage() {
    std::fprintf(stderr, "usage: harvo-bench --only CASE N   (N >= 1); CASE is one of:");
    for (const char* name : kOnlyCases)
        std::fprintf(stderr, " %s", name);
    std::fprintf(stderr, "\n");
    return 2;
}

// The signal cases need the peer process and the private bus.
int OnlySignal(bool framework, int n) {
    if (g_getenv("DBUS_SYSTEM_BUS_ADDRESS") == nullptr) {
        std::fprintf(stderr,
                     "harvo-bench: the signal cases need DBUS_SYSTEM_BUS_ADDRESS (run under "
                     "scripts/private-bus.sh)\n");
        return 1;
    }
    Peer peer;
    if (!StartPeer(peer)) {
        std::fprintf(stderr, "harvo-bench: the peer process did not start\n");
        StopPeer(peer);
        return 1;
    }
    GDBusConnection* connection = g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, nullptr);
    int status = 1;
    if (connection != nullptr) {
        GlibLoopThread loop;
        Quelt::TCServer server(kSigServer, Quelt::SERVER_TYPE_APP);
        bool created = false;
        RunOn(loop.context(), [&] { created = server.CreateDBusServer(); });
        if (created) {
            if (framework)
                SignalFramework(peer, loop.context(), server, n);
            else
                SignalReference(peer, loop.context(), connection, n);
            status = PeerCommand(peer, "signals off") ? 0 : 1;
        }
        RunOn(loop.context(), [&] { server.CloseDBusServer(); });
        g_object_unref(connection);
    }
    if (status != 0)
        std::fprintf(stderr, "harvo-bench: no bus connection or no signal endpoint\n");
    StopPeer(peer);
    return status;
}

int RunOnly(const std::string& name, const char* count) {
    char* end = nullptr;
    long n = std::strtol(count, &end, 10);
    if (end == count || *end != '\0' || n < 1 || n > 100000000)
        return OnlyUsage();
    dlog_host_set_stderr(0);
    if (name == "signal-framework" || name == "signal-raw")
        return OnlySignal(name == "signal-framework", static_cast<int>(n));
    if (name == "async-floor") {
        DesignFloorLoop floor;
        AsyncFloor(floor, 1, static_cast<uint32_t>(n));
        return 0;
    }
    if (name == "async-invoke") {
        GlibLoopThread loop;
        AsyncReference(loop, 1, static_cast<uint32_t>(n));
        return 0;
    }
    if (name == "sync-pipe") {
        PipePingPong(static_cast<int>(n));
        return 0;
    }
    if (name != "async-framework" && name != "sync-framework")
        return OnlyUsage();
    BenchTask task;
    if (!task.Create("bench", true, 0)) {
        std::fprintf(stderr, "harvo-bench: task create failed\n");
        return 1;
    }
    if (name == "async-framework")
        AsyncFramework(task, 1, static_cast<uint32_t>(n));
    else
        SyncFramework(task, static_cast<int>(n));
    task.Destroy();
    return 0;
}

void PrintTable() {
    std::printf("\n%-36s %14s %14s %-8s %7s %8s  %s\n", "row", "framework", "reference", "unit",
                "ratio", "target", "reference is");
    std::printf("%s\n", std::string(130, '-').c_str());
    for (const Row& r : g_rows) {
        double ratio = r.reference > 0 ? r.framework / r.reference : 0;
        char target[32] = "-";
        if (r.target > 0)
            std::snprintf(target, sizeof(target), "<=%.2f%s", r.target,
                          ratio <= r.target ? "" : " MISS");
        std::printf("%-36s %14.1f %14.1f %-8s %7.2f %8s  %s\n", r.name.c_str(), r.framework,
                    r.reference, r.unit.c_str(), ratio, target, r.reference_name.c_str());
    }
    std::printf(
        "\nratio = framework / reference (cost; above 1 = framework slower). "
        "Medians of %d alternating repetitions.\n",
        g_reps);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc > 1 && std::strcmp(argv[1], "--only") == 0)
        return argc == 4 ? RunOnly(argv[2], argv[3]) : OnlyUsage();
    bool quick = argc > 1 && std::strcmp(argv[1], "--quick") == 0;
    if (quick)
        g_reps = 3;
    const uint32_t kAsyncEvents = quick ? 20000 : 100000;
    const int kSync = quick ? 5000 : 20000;
    const int kInProc = quick ? 20000 : 100000;
    const int kBody = quick ? 2000 : 10000;

    dlog_host_set_stderr(0);

    BenchTask task;
    if (!task.Create("bench", true, 0)) {
        std::fprintf(stderr, "task create failed\n");
        return 1;
    }
    {
        GlibLoopThread loop;

        // 1. Async events: the framework, GLib's own cross-thread call and
        // the queue's design floor, alternating in the same repetitions.
        {
            DesignFloorLoop floor;
            for (int producers : {1, 4}) {
                std::string what = " async events, " + std::to_string(producers) + " producer" +
                                   (producers > 1 ? "s" : "");
                CompareEach([&] { return AsyncFramework(task, producers, kAsyncEvents); },
                            {{"1a." + what, "g_main_context_invoke, GLib loop thread",
                              [&] { return AsyncReference(loop, producers, kAsyncEvents); }, 1.30},
                             {"1b." + what, kFloorName,
                              [&] { return AsyncFloor(floor, producers, kAsyncEvents); }, 1.00}},
                            "ns/event");
            }
        }

        // 2. Sync events.
        Compare(
            "2a. SendSyncEvent round trip", "pipe ping-pong, two threads (floor)",
            [&] { return SyncFramework(task, kSync); }, [&] { return PipePingPong(kSync); }, 1.10);
        Compare(
            "2b. SendSyncEvent round trip", "g_main_context_invoke + cond. variable",
            [&] { return SyncFramework(task, kSync); },
            [&] { return InvokeRoundTrip(loop, kSync); }, 0);
    }

    // 3. In-process messages.
    EchoServer receiver("bench_receiver", kLocalType);
    EchoServer sender("bench_sender", kLocalType);
    if (!receiver.CreateDBusServer() || !sender.CreateDBusServer()) {
        std::fprintf(stderr,
                     "in-process endpoints need a bus connection: run under scripts/bench.sh\n");
        return 1;
    }
    Compare(
        "3. in-process sync SendMessage", "handler called with a copied TCMessage",
        [&] { return InProcFramework(sender, kInProc); },
        [&] { return InProcReference(receiver, kInProc); }, 0);

    // 4. Bus messages.
    BusRows(quick);

    // 6. Message bodies.
    const std::string body = MakeBody();
    Json::CharReaderBuilder reader_builder;
    std::unique_ptr<Json::CharReader> reader(reader_builder.newCharReader());
    Json::StreamWriterBuilder writer_builder;
    writer_builder["indentation"] = "";
    Quelt::TCData parsed(body);
    Json::Value tree = parsed.m_value;
    Compare(
        "6a. body parse (" + std::to_string(body.size()) + " B)", "Json::CharReader::parse",
        [&] {
            return PerOp(kBody, [&] {
                Quelt::TCData d(body);
                g_sink = d.m_value.size();
            });
        },
        [&] {
            return PerOp(kBody, [&] {
                Json::Value v;
                std::string errors;
                reader->parse(body.data(), body.data() + body.size(), &v, &errors);
                g_sink = v.size();
            });
        },
        1.5);
    Compare(
        "6b. body generate", "Json::writeString, compact",
        [&] {
            return PerOp(kBody, [&] {
                Quelt::TCData d;
                d.m_value = tree;
                d.Generate();
                g_sink = d.m_message.size();
            });
        },
        [&] {
            return PerOp(kBody, [&] {
                Json::Value v = tree;
                std::string s = Json::writeString(writer_builder, v);
                g_sink = s.size();
            });
        },
        1.5);
    Compare(
        "6c. body copy (TCData copy ctor)", "copy Json::Value + text",
        [&] {
            return PerOp(kBody, [&] {
                Quelt::TCData d(parsed);
                g_sink = d.m_message.size();
            });
        },
        [&] {
            return PerOp(kBody, [&] {
                Json::Value v = parsed.m_value;
                std::string s = parsed.m_message;
                g_sink = s.size() + v.size();
            });
        },
        1.5);

    // 7. Memory.
    {
        // Bytes per queued event: hold the task's loop, queue events behind
        // it, read the allocator's in-use bytes before and after.
        const uint32_t kQueued = 10000;  // wake bytes stay far below the pipe's 64 KiB
        Quelt::TCEvent block;
        block.receiver = &task;
        block.type = kBlockType;
        Quelt::TCEventIO::SendEvent(&block);
        task.WaitBlocked();
        task.progress.Reset(kQueued);
        size_t before = HeapInUse();
        Quelt::TCEvent event;
        event.receiver = &task;
        event.type = kTypeBase;
        for (uint32_t i = 0; i < kQueued; ++i)
            Quelt::TCEventIO::SendEvent(&event);
        double per_event = double(HeapInUse() - before) / kQueued;
        task.Release();
        task.progress.WaitAll(1);

        // The same for g_main_context_invoke: a loop held inside a callback.
        GlibLoopThread loop;
        InvokeWait held;
        bool release = false;
        std::mutex m;
        std::condition_variable cv;
        struct Hold {
            InvokeWait* held;
            bool* release;
            std::mutex* m;
            std::condition_variable* cv;
        } hold{&held, &release, &m, &cv};
        g_main_context_invoke(
            loop.context(),
            [](gpointer data) -> gboolean {
                auto* h = static_cast<Hold*>(data);
                SignalInvoke(h->held);
                std::unique_lock<std::mutex> lock(*h->m);
                h->cv->wait(lock, [&] { return *h->release; });
                return G_SOURCE_REMOVE;
            },
            &hold);
        {
            std::unique_lock<std::mutex> lock(held.mutex);
            held.cv.wait(lock, [&] { return held.done; });
        }
        loop.progress.Reset(kQueued);
        InvokeArg arg{&loop.progress, 0};
        before = HeapInUse();
        for (uint32_t i = 0; i < kQueued; ++i)
            g_main_context_invoke(loop.context(), CountInvoke, &arg);
        double per_invoke = double(HeapInUse() - before) / kQueued;
        {
            std::lock_guard<std::mutex> guard(m);
            release = true;
            cv.notify_all();
        }
        loop.progress.WaitAll(1);
        g_rows.push_back({"7a. heap bytes per queued event", per_event, per_invoke, "B",
                          "per queued g_main_context_invoke", 0});

        // Bytes per endpoint on the bus.
        EndpointRow(quick);

        // Resident memory across a million in-process messages.
        const int kFirst = 1000, kTotal = quick ? 200000 : 1000000;
        InProcFramework(sender, kFirst);
        long rss_first = RssKiB();
        InProcFramework(sender, kTotal - kFirst);
        long rss_total = RssKiB();
        g_rows.push_back({"7c. RSS after " + std::to_string(kTotal) + " msgs", double(rss_total),
                          double(rss_first), "KiB", "RSS after 1000 messages (flat: 1.00)", 1.02});
    }

    receiver.CloseDBusServer();
    sender.CloseDBusServer();
    task.Destroy();
    PrintTable();
    return 0;
}
