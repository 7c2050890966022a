// SPDX-License-Identifier: Apache-2.0
// Every kind of callback that GLib or GDBus holds for a framework object,
// each with calls in flight while the object is
//   - closed (the object stays),
//   - closed and deleted at once on the same thread (late calls find it
//     gone),
//   - closed and deleted on another thread while the loop's thread delivers.
// Each case runs several rounds; what must hold is that nothing crashes,
// hangs or reaches a closed object (ASan, UBSan and TSan watch the rest).
#include <dlog.h>
#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <string>
#include <vector>

#include "LifetimeSupport.h"
#include "LogCapture.h"
#include "TCAlarm.h"
#include "TCEventIO.h"
#include "TCServer.h"
#include "TCTask.h"
#include "event/EventTestSupport.h"

using harvo_test::LogCapture;
using lifetime_test::Gate;
using lifetime_test::HookedServer;
using lifetime_test::LoopThread;
using lifetime_test::Watched;
using Quelt::TCAlarm;
using Quelt::TCEvent;
using Quelt::TCEventIO;
using Quelt::TCMessage;
using Quelt::TCServer;
using Quelt::TCTask;

namespace {

using harvo_bus_test::kLimit;
using std::chrono::milliseconds;

enum class Ending {
    kClose,                    // closed while calls are in flight; deleted at the very end
    kCloseThenDelete,          // closed and deleted at once, on the test's thread
    kCloseAndDeleteElsewhere,  // both on another thread, while the loop delivers
};

const char* NameOf(Ending ending) {
    switch (ending) {
        case Ending::kClose:
            return "Close";
        case Ending::kCloseThenDelete:
            return "CloseThenDelete";
        default:
            return "CloseAndDeleteElsewhere";
    }
}

const int kRounds = 20;

// Ends |object| the way |ending| says: |close| closes it (CloseDBusServer,
// Final, Destroy); the object itself is given up through |owned|.
template <typename T>
void End(Ending ending, std::unique_ptr<T>& owned, const std::function<void(T&)>& close,
         std::vector<std::unique_ptr<T>>& kept) {
    switch (ending) {
        case Ending::kClose:
            close(*owned);
            kept.push_back(std::move(owned));
            return;
        case Ending::kCloseThenDelete:
            close(*owned);
            owned.reset();
            return;
        case Ending::kCloseAndDeleteElsewhere: {
            T* raw = owned.release();
            Watched elsewhere("the close on another thread", [raw, &close] {
                close(*raw);
                delete raw;
            });
            elsewhere.Join();
            return;
        }
    }
}

class Matrix : public ::testing::TestWithParam<Ending> {
protected:
    std::string Name(const char* kind, int round) const {
        return std::string(kind) + NameOf(GetParam()) + std::to_string(round);
    }
};

// A second connection to the bus: a peer of the endpoints under test.
class Peer {
public:
    Peer() : connection_(harvo_bus_test::NewSecondConnection()) {}
    ~Peer() {
        if (connection_ != nullptr) {
            g_dbus_connection_flush_sync(connection_, nullptr, nullptr);
            g_object_unref(connection_);
        }
    }
    GDBusConnection* get() const { return connection_; }

    // |count| calls of SendMessage to |busName|, answered into |answered|
    // (a real reply or the error reply, on the default context).
    void Call(const std::string& busName, int count, std::atomic<int>* answered) {
        std::string path = "/" + busName;
        for (char& c : path) {
            if (c == '.')
                c = '/';
        }
        for (int i = 0; i < count; ++i) {
            g_dbus_connection_call(
                connection_, busName.c_str(), path.c_str(), busName.c_str(), "SendMessage",
                g_variant_new("(suss)", "peer", 1u, "t", "{}"), nullptr, G_DBUS_CALL_FLAGS_NONE, -1,
                nullptr,
                [](GObject* source, GAsyncResult* result, gpointer data) {
                    GVariant* answer =
                        g_dbus_connection_call_finish(G_DBUS_CONNECTION(source), result, nullptr);
                    if (answer != nullptr)
                        g_variant_unref(answer);
                    static_cast<std::atomic<int>*>(data)->fetch_add(1);
                },
                answered);
        }
    }

    // |count| emissions of |signal| on an interface of its own.
    void Emit(const char* signal, int count) {
        for (int i = 0; i < count; ++i) {
            g_dbus_connection_emit_signal(connection_, nullptr, "/peer/message", "peer.message",
                                          signal, g_variant_new("(suss)", "peer", 1u, "t", "{}"),
                                          nullptr);
        }
        g_dbus_connection_flush_sync(connection_, nullptr, nullptr);
    }

private:
    GDBusConnection* connection_;
};

// ---------------------------------------------------------------------------
// The exported object's method handler

TEST_P(Matrix, MethodHandler) {
    LogCapture capture;
    Peer peer;
    std::vector<std::unique_ptr<HookedServer>> kept;
    for (int round = 0; round < kRounds; ++round) {
        LoopThread loop;
        std::unique_ptr<HookedServer> server;
        loop.Run([&] {
            server = std::make_unique<HookedServer>(Name("mh", round), Quelt::SERVER_TYPE_APP);
            ASSERT_TRUE(server->CreateDBusServer());
        });
        ASSERT_TRUE(server);
        const std::string busName = server->GetBusName();
        Gate firstArrived;
        server->SetHook([&](const TCMessage*, TCMessage* reply) {
            firstArrived.Open();
            reply->SetMessage("{\"ok\":true}");
        });
        std::atomic<int> answered{0};
        peer.Call(busName, 30, &answered);
        ASSERT_TRUE(harvo_bus_test::PumpUntil([&] { return firstArrived.IsOpen(); }));
        End<HookedServer>(
            GetParam(), server, [](HookedServer& s) { s.CloseDBusServer(); }, kept);
        // Every call gets an answer: a reply, or the error reply once the
        // endpoint is closed (or no reply from a name nobody owns).
        ASSERT_TRUE(harvo_bus_test::PumpUntil([&] { return answered.load() == 30; }));
        loop.Stop();
    }
    EXPECT_EQ(0u, capture.CountFramework(DLOG_ERROR, "dbus connection is not open"));
    kept.clear();
}

// ---------------------------------------------------------------------------
// The name-owner callbacks

TEST_P(Matrix, NameOwnerCallbacks) {
    LogCapture capture;
    std::vector<std::unique_ptr<TCServer>> kept;
    LoopThread loop;
    for (int round = 0; round < kRounds * 4; ++round) {
        std::unique_ptr<TCServer> server;
        // Owned on the loop's context: the callbacks are delivered there,
        // while this thread ends the endpoint.
        loop.Run([&] {
            server = std::make_unique<TCServer>(Name("no", round), Quelt::SERVER_TYPE_APP);
            ASSERT_TRUE(server->CreateDBusServer());
        });
        ASSERT_TRUE(server);
        End<TCServer>(
            GetParam(), server, [](TCServer& s) { s.CloseDBusServer(); }, kept);
    }
    lifetime_test::SettleBus();
    lifetime_test::RunAfterPendingCallbacks(loop.Context());
    loop.Stop();
    EXPECT_EQ(0u, capture.CountFramework(DLOG_ERROR, "dbus connection is not open"))
        << capture.Dump();
    kept.clear();
}

// ---------------------------------------------------------------------------
// Signal subscriptions

std::atomic<int> g_signalsSeen{0};

void CountSignal(const char*, const char*, TCMessage*, void*) {
    g_signalsSeen.fetch_add(1);
}

TEST_P(Matrix, SignalSubscription) {
    LogCapture capture;
    Peer peer;
    std::vector<std::unique_ptr<TCServer>> kept;
    for (int round = 0; round < kRounds; ++round) {
        LoopThread loop;
        std::unique_ptr<TCServer> server;
        loop.Run([&] {
            server = std::make_unique<TCServer>(Name("sg", round), Quelt::SERVER_TYPE_PROXY);
            ASSERT_TRUE(server->CreateDBusServer());
            ASSERT_TRUE(server->SubscribeSignal(nullptr, "tick", CountSignal, nullptr));
        });
        ASSERT_TRUE(server);
        harvo_bus_test::SettleSubscriptions(*server);
        const int before = g_signalsSeen.load();
        peer.Emit("tick", 40);
        ASSERT_TRUE(lifetime_test::WaitUntil([&] { return g_signalsSeen.load() > before; }));
        End<TCServer>(
            GetParam(), server, [](TCServer& s) { s.CloseDBusServer(); }, kept);
        lifetime_test::RunAfterPendingCallbacks(loop.Context());
        loop.Stop();
    }
    kept.clear();
}

// ---------------------------------------------------------------------------
// Pending asynchronous calls

TEST_P(Matrix, PendingReply) {
    LogCapture capture;
    harvo_bus_test::PeerProcess echo({"serve-quiet", "echoer"});
    ASSERT_EQ("READY", echo.WaitLine("READY"));
    std::vector<std::unique_ptr<HookedServer>> kept;
    for (int round = 0; round < kRounds; ++round) {
        LoopThread loop;
        std::unique_ptr<HookedServer> sender;
        loop.Run([&] {
            sender = std::make_unique<HookedServer>(Name("pr", round), Quelt::SERVER_TYPE_PROXY);
            ASSERT_TRUE(sender->CreateDBusServer());
            // Sent from the loop's thread: the replies arrive there.
            TCMessage message = harvo_bus_test::MakeMessage("echo", 1, "{}");
            for (int i = 0; i < 30; ++i) {
                TCMessage pending;
                sender->SendMessage("echoer", &message, false, &pending, -1);
            }
        });
        ASSERT_TRUE(sender);
        HookedServer* raw = sender.get();
        ASSERT_TRUE(lifetime_test::WaitUntil([raw] { return raw->Replied() > 0; }));
        End<HookedServer>(
            GetParam(), sender, [](HookedServer& s) { s.CloseDBusServer(); }, kept);
        lifetime_test::SettleBus();
        lifetime_test::RunAfterPendingCallbacks(loop.Context());
        loop.Stop();
    }
    kept.clear();
}

// ---------------------------------------------------------------------------
// The event queue's source

TEST_P(Matrix, EventQueueSource) {
    LogCapture capture;
    std::vector<std::unique_ptr<event_test::RecordingIO>> kept;
    for (int round = 0; round < kRounds; ++round) {
        LoopThread loop;
        auto io = std::make_unique<event_test::RecordingIO>(Name("eq", round));
        loop.Run([&] { ASSERT_TRUE(io->Init(loop.Loop())); });
        std::atomic<bool> stop{false};
        event_test::RecordingIO* target = io.get();
        // The producer stops before the queue may go away.
        Watched producer("the producer", [&stop, target] {
            for (int i = 0; i < 2000 && !stop.load(); ++i) {
                TCEvent event = event_test::UserEvent(target, 100, i);
                if (!TCEventIO::SendEvent(&event))
                    break;  // finalised
            }
        });
        ASSERT_TRUE(io->log.WaitFor("event", 1, kLimit));
        if (GetParam() != Ending::kClose) {
            stop = true;
            producer.Join();
        }
        // Final from a thread other than the loop's, while it dispatches.
        End<event_test::RecordingIO>(
            GetParam(), io, [](event_test::RecordingIO& q) { q.Final(); }, kept);
        stop = true;
        producer.Join();
        loop.Stop();
    }
    kept.clear();
}

// ---------------------------------------------------------------------------
// Alarms' timeout sources

std::atomic<int> g_alarmFired{0};

bool CountAlarm(void*) {
    g_alarmFired.fetch_add(1);
    return true;
}

TEST_P(Matrix, AlarmTimeout) {
    std::vector<std::unique_ptr<TCAlarm>> kept;
    for (int round = 0; round < kRounds; ++round) {
        LoopThread loop;
        event_test::RecordingIO io(Name("al", round));
        loop.Run([&] { ASSERT_TRUE(io.Init(loop.Loop())); });
        auto alarm = std::make_unique<TCAlarm>();
        ASSERT_TRUE(alarm->Create(&io, 1, Quelt::QUELT_INFINITY));
        const int before = g_alarmFired.load();
        ASSERT_TRUE(alarm->SetAlarmCallback(CountAlarm, nullptr));
        ASSERT_TRUE(lifetime_test::WaitUntil([&] { return g_alarmFired.load() > before + 2; }));
        End<TCAlarm>(
            GetParam(), alarm, [](TCAlarm& a) { a.Destroy(); }, kept);
        lifetime_test::RunAfterPendingCallbacks(loop.Context());
        loop.Run([&] { io.Final(); });
        loop.Stop();
    }
    kept.clear();
}

// ---------------------------------------------------------------------------
// Tasks: the thread's own exit

class QuietTask : public TCTask {
public:
    explicit QuietTask(const char* name) : TCTask(name) {}
    Gate destroyed;  // opened by t_Destroy, on the task's thread

protected:
    void t_Destroy() override { destroyed.Open(); }
};

TEST_P(Matrix, TaskExit) {
    std::vector<std::unique_ptr<QuietTask>> kept;
    for (int round = 0; round < kRounds * 4; ++round) {
        auto task = std::make_unique<QuietTask>("worker");
        ASSERT_TRUE(task->Create("worker", false, 0));
        // At once: the thread may still be building its loop.
        End<QuietTask>(
            GetParam(), task, [](QuietTask& t) { t.Destroy(); }, kept);
    }
    kept.clear();
}

// ---------------------------------------------------------------------------
// Requests handed to a worker (the event queue carries the request's token)

class HandingServer : public HookedServer {
public:
    HandingServer(const std::string& name, TCEventIO* worker)
        : HookedServer(name, Quelt::SERVER_TYPE_APP), worker_(worker) {}
    bool IfHandleInEventIO(const char*, const TCMessage*, TCEventIO** eventIO) override {
        *eventIO = worker_;
        return true;
    }

private:
    TCEventIO* worker_;
};

TEST_P(Matrix, RequestHandedToAWorker) {
    LogCapture capture;
    Peer peer;
    std::vector<std::unique_ptr<HandingServer>> kept;
    for (int round = 0; round < kRounds; ++round) {
        LoopThread dispatch;
        LoopThread work;
        event_test::RecordingIO worker(Name("wk", round));
        work.Run([&] { ASSERT_TRUE(worker.Init(work.Loop())); });
        std::unique_ptr<HandingServer> server;
        dispatch.Run([&] {
            server = std::make_unique<HandingServer>(Name("hw", round), &worker);
            ASSERT_TRUE(server->CreateDBusServer());
        });
        ASSERT_TRUE(server);
        Gate firstArrived;
        server->SetHook([&](const TCMessage*, TCMessage*) { firstArrived.Open(); });
        std::atomic<int> answered{0};
        peer.Call(server->GetBusName(), 30, &answered);
        ASSERT_TRUE(harvo_bus_test::PumpUntil([&] { return firstArrived.IsOpen(); }));
        End<HandingServer>(
            GetParam(), server, [](HandingServer& s) { s.CloseDBusServer(); }, kept);
        // Requests still queued for the worker are answered with the error
        // reply when their turn comes.
        ASSERT_TRUE(harvo_bus_test::PumpUntil([&] { return answered.load() == 30; }));
        dispatch.Stop();
        work.Run([&] { worker.Final(); });
        work.Stop();
    }
    kept.clear();
}

INSTANTIATE_TEST_SUITE_P(Endings, Matrix,
                         ::testing::Values(Ending::kClose, Ending::kCloseThenDelete,
                                           Ending::kCloseAndDeleteElsewhere),
                         [](const ::testing::TestParamInfo<Ending>& info) {
                             return std::string(NameOf(info.param));
                         });

// ---------------------------------------------------------------------------
// Objects deleted without their close: what GLib still holds finds them gone

TEST(DeletedWithoutClose, AnArmedAlarmStopsFiring) {
    LoopThread loop;
    event_test::RecordingIO io("unclosed");
    loop.Run([&] { ASSERT_TRUE(io.Init(loop.Loop())); });
    for (int round = 0; round < kRounds; ++round) {
        auto alarm = std::make_unique<TCAlarm>();
        ASSERT_TRUE(alarm->Create(&io, 1, Quelt::QUELT_INFINITY));
        const int before = g_alarmFired.load();
        ASSERT_TRUE(alarm->SetAlarmCallback(CountAlarm, nullptr));
        ASSERT_TRUE(lifetime_test::WaitUntil([&] { return g_alarmFired.load() > before; }));
        alarm.reset();  // no Destroy
    }
    lifetime_test::RunAfterPendingCallbacks(loop.Context());
    const int after = g_alarmFired.load();
    // Another full round of the loop: nothing fires any more.
    lifetime_test::RunAfterPendingCallbacks(loop.Context());
    EXPECT_EQ(after, g_alarmFired.load());
    loop.Run([&] { io.Final(); });
}

TEST(DeletedWithoutClose, AnEventQueueDeletedWithoutFinalIsDetachedFromItsLoop) {
    LogCapture capture;
    LoopThread loop;
    auto io = std::make_unique<event_test::RecordingIO>("unfinalised");
    loop.Run([&] { ASSERT_TRUE(io->Init(loop.Loop())); });
    loop.Run([&] { io.reset(); });
    EXPECT_EQ(1u,
              capture.CountFramework(DLOG_WARN,
                                     "event io unfinalised destroyed without Final: its watch is "
                                     "removed"));
    lifetime_test::RunAfterPendingCallbacks(loop.Context());
}

TEST(DeletedWithoutClose, ATaskThatEndedItselfIsJoinedByItsDestructor) {
    auto task = std::make_unique<QuietTask>("self-ending");
    // Its queue exists before Create returns, so the exit event finds it.
    ASSERT_TRUE(task->Create("self-ending", true, 0));
    TCEvent exit;
    exit.receiver = task.get();
    exit.type = Quelt::EVENT_EXIT_TASK;
    ASSERT_TRUE(Quelt::SendEvent(&exit));
    ASSERT_TRUE(task->destroyed.WaitUntilOpen());
    task.reset();  // no Destroy: joins the thread, which ends by itself
}

// Deleting a running task is the misuse the assertion reports, and the
// destructors' writes race with the thread's calls of the task's virtual
// functions by nature. Under ThreadSanitizer (which stops the process at
// its first report) the race detector is told not to record the deleting
// thread's writes, so that the assertion is what ends the process, as it
// is in every other build.
#if defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define HARVO_MATRIX_TSAN 1
#endif
#endif
#if defined(__SANITIZE_THREAD__)
#define HARVO_MATRIX_TSAN 1
#endif
#if defined(HARVO_MATRIX_TSAN)
extern "C" void AnnotateIgnoreWritesBegin(const char* file, int line);
extern "C" void AnnotateIgnoreWritesEnd(const char* file, int line);
void DeleteRunningTask(TCTask* task) {
    AnnotateIgnoreWritesBegin(__FILE__, __LINE__);
    delete task;
    AnnotateIgnoreWritesEnd(__FILE__, __LINE__);
}
#else
void DeleteRunningTask(TCTask* task) {
    delete task;
}
#endif

TEST(DeletedWithoutCloseDeathTest, ATaskDeletedWhileItsThreadRunsEndsTheProcess) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(
        {
            auto* task = new QuietTask("running");
            task->Create("running", false, 0);
            DeleteRunningTask(task);
        },
        "task running destroyed while its thread runs: call Destroy first");
}

}  // namespace
