// SPDX-License-Identifier: Apache-2.0
// TCEventIO: the event queue bound to one GLib main context.

#include "TCEventIO.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <list>
#include <memory>
#include <mutex>
#include <string>

#include "EndpointGuard.h"
#include "EventPayloads.h"
#include "Guarded.h"
#include "QueltLog.h"
#include "TCMessage.h"
#include "TCServer.h"
#include "ThreadAnnotations.h"

namespace Quelt {

namespace {

// A synchronous sender waits at most this long for the receiver (20 s).
const unsigned long kSyncWaitUs = 20000000UL;
std::atomic<unsigned long> g_syncWaitOverrideUs{0};
// A ping waits at least this long, whatever its caller asked for.
const unsigned long kPingMinimumUs = 2100UL;
// The loop only tries the lock for 1 ms, so that a sender holding it never
// blocks the loop for long; the wake byte stays and the loop comes back.
const unsigned long kLoopLockWaitUs = 1000UL;
// The lock wait of the EVENT_CLEAR_ALL drain.
const unsigned long kClearAllLockWaitUs = 1000UL;

// A synchronous send and a ping wait on a pair of semaphores, both with
// count 0: the serving loop gives the first once the event ran, the waiter
// gives the second once it has taken note. Null when creation fails.
TCSemaphore* NewSemaphorePair() {
    TCSemaphore* pair = new TCSemaphore[2];
    if (!pair[0].Create(0)) {
        delete[] pair;
        return nullptr;
    }
    if (!pair[1].Create(0)) {
        pair[0].Destroy();
        delete[] pair;
        return nullptr;
    }
    return pair;
}

void DeleteSemaphorePair(TCSemaphore* pair) {
    pair[0].Destroy();
    pair[1].Destroy();
    delete[] pair;
}

// The serving loop's half of the handshake: wake the waiter, then wait
// until it has taken note.
void AnswerSemaphorePair(TCSemaphore* pair) {
    pair[0].Give();
    pair[1].Take();
}

// ---------------------------------------------------------------------------
// A synchronous send in flight, shared by its sender and the queue.
//
// The queue never holds the sender's own object, which lives on the
// sender's stack only while it waits: it holds a QueuedSyncEvent that
// names the call. The loop runs the handler on the sender's object while
// the sender still waits; a sender whose wait ended first leaves a copy of
// its event in the call and never hears of it again, and the loop runs the
// copy instead. Whoever lets go of the call last frees it, and with it the
// semaphore pair.
struct SyncCall {
    enum State {
        kQueued,     // waiting in the queue; the sender waits
        kRunning,    // the loop runs the handler on the sender's object
        kDone,       // the handler returned
        kAbandoned,  // the sender stopped waiting first: the loop runs |copy|
        kDropped,    // the queue was emptied (Final, EVENT_CLEAR_ALL): not run
    };

    explicit SyncCall(TCSemaphore* semaphores, TCEvent* event) : pair(semaphores), sender(event) {}
    ~SyncCall() {
        if (pair != nullptr)
            DeleteSemaphorePair(pair);
    }
    SyncCall(const SyncCall&) = delete;
    SyncCall& operator=(const SyncCall&) = delete;

    TCSemaphore* pair;  // also the event's param.p; null once the event keeps it
    std::mutex mutex;   // guards state, sender and copy
    State state = kQueued;
    TCEvent* sender;                // the sender's event while it waits
    std::unique_ptr<TCEvent> copy;  // what the loop runs once abandoned
    bool awaitsHandler = false;     // the sender waits past its limit for a running handler
    std::atomic<int> refs{2};       // the sender's and the queue's
};

void Unref(SyncCall* call) {
    if (call->refs.fetch_sub(1) == 1)
        delete call;
}

// What the queue holds for a synchronous send: enough of the event for the
// queue's own work (the receiver for clearing, the type and the deleted mark
// for DeleteEvent), and the call.
struct QueuedSyncEvent : public TCEvent {
    explicit QueuedSyncEvent(SyncCall* syncCall) : call(syncCall) {
        receiver = syncCall->sender->receiver;
        type = syncCall->sender->type;
        sync = true;
        param.p = syncCall->pair;
    }
    ~QueuedSyncEvent() override { Unref(call); }

    SyncCall* call;
};

// Set by SendSyncEvent around its m_Put: the call that m_Put queues in place
// of the sender's object.
thread_local SyncCall* t_queuingSyncCall = nullptr;

// A synchronous event taken off a queue that is being emptied: its sender,
// if it still waits, is released at once and the event is not run.
void DropQueuedSyncEvent(QueuedSyncEvent* queued) {
    SyncCall* call = queued->call;
    bool release = false;
    {
        std::lock_guard<std::mutex> guard(call->mutex);
        if (call->state == SyncCall::kQueued) {
            call->state = SyncCall::kDropped;
            release = true;
        }
    }
    if (release)
        AnswerSemaphorePair(call->pair);
    delete queued;
}

// The sender's side once its wait ended without an answer: still queued,
// the event is left to the queue as a copy and the sender goes; already
// running on the sender's own object, the handler is waited for, since the
// sender's object must outlive it.
void AbandonOrAwait(SyncCall* call, TCEvent* event) {
    std::unique_lock<std::mutex> guard(call->mutex);
    if (call->state == SyncCall::kQueued) {
        call->copy.reset(new TCEvent(*event));
        call->state = SyncCall::kAbandoned;
        return;
    }
    if (call->state != SyncCall::kRunning)
        return;  // answered or dropped at the last moment
    call->awaitsHandler = true;
    guard.unlock();
    QLOGW(
        "synchronous event %d for %s: its handler still runs when the wait ends; the sender "
        "waits for it to return",
        event->type, event->receiver->GetEventIO()->GetName().c_str());
    call->pair[0].Take();
}

// Runs a synchronous send taken off the queue, on the loop's thread: on the
// sender's own object while the sender waits (then wakes it, as the
// semaphore pair's protocol says), or on the copy it left when it stopped
// waiting. Like a synchronous event, it has no deleted test and no clear
// step.
gboolean RunQueuedSyncEvent(QueuedSyncEvent* queued) {
    SyncCall* call = queued->call;
    TCEvent* target = nullptr;
    bool senderWaits = false;
    {
        std::lock_guard<std::mutex> guard(call->mutex);
        senderWaits = call->state == SyncCall::kQueued;
        if (senderWaits) {
            call->state = SyncCall::kRunning;
            target = call->sender;
        } else {
            target = call->copy.get();
        }
    }
    if (!senderWaits) {
        QLOGW("synchronous event %d for %s runs on a copy: its sender stopped waiting for it",
              target->type, target->receiver->GetEventIO()->GetName().c_str());
    }
    // A handler that throws still releases its waiting sender below.
    QUELT_CALL_GUARDED("OnEvent", [&] { target->receiver->OnEvent(target); });
    if (!senderWaits) {
        delete queued;
        return TRUE;
    }
    // The sender may return (and drop its event) as soon as it is woken:
    // read what is needed first and never touch the event afterwards.
    const bool hasPair = target->param.p != nullptr;
    bool senderAwaitsHandler = false;
    {
        std::lock_guard<std::mutex> guard(call->mutex);
        call->state = SyncCall::kDone;
        senderAwaitsHandler = call->awaitsHandler;
    }
    if (!hasPair) {
        // The handler took the semaphores away: its sender is not woken and
        // ends its wait at the limit (or now, if it is past it already).
        QLOGE("param.p should not be NULL!");
        if (senderAwaitsHandler)
            call->pair[0].Give();
    } else {
        // The pair's protocol: once the sender has taken note (the second
        // semaphore), neither side touches the pair again, and the loop
        // destroys it, off the sender's way back.
        AnswerSemaphorePair(call->pair);
        DeleteSemaphorePair(call->pair);
        call->pair = nullptr;
    }
    delete queued;
    return TRUE;
}

// The event IO that serves |event|'s receiver.
TCEventIO* ServingIO(const TCEvent* event);

// Whether the calling thread runs |io|'s loop and is inside one of its
// dispatches (a handler, a callback): an event sent there can only run once
// the caller returns. Asked only of a thread that dispatches a source: the
// context's ownership is behind the context's lock, which the loop's own
// thread holds between its dispatches, and a sender that is no callback
// would wait for it on every send.
bool RunsOnThisThread(TCEventIO* io) {
    if (g_main_current_source() == nullptr)
        return false;
    GMainLoop* loop = io->GetMainLoop();
    GMainContext* context =
        loop != nullptr ? g_main_loop_get_context(loop) : g_main_context_default();
    return g_main_context_is_owner(context) != FALSE;
}

// An endpoint name of an in-process message body ({"from":..,"dest":..});
// empty when the body has no such text member.
std::string ReadEndpointName(const Json::Value& body, const char* key) {
    if (!body.isObject())
        return std::string();
    const Json::Value& name = body[key];
    return name.isString() ? name.asString() : std::string();
}

// What |out| = |queued| gives, for a queued copy that is destroyed right
// after: the bodies' text and tree are moved instead of copied (the
// assignment leaves the error text of |out| alone, and so does this).
void TakeQueuedEvent(TCEvent* out, TCEvent* queued) {
    out->receiver = queued->receiver;
    out->type = queued->type;
    out->deleted = queued->deleted;
    out->data.m_message.swap(queued->data.m_message);
    out->data.m_value.swap(queued->data.m_value);
    out->message.m_message.swap(queued->message.m_message);
    out->message.m_value.swap(queued->message.m_value);
    out->sync = queued->sync;
    out->param.p = queued->param.p;
}

// ---------------------------------------------------------------------------
// The wake watch: a source on the read end of the wake pipe.
//
// An ordinary channel watch may not recurse, so GLib takes its descriptor
// out of the poll set around every dispatch and puts it back afterwards,
// waking the context each time: two writes and a read per event. This
// source may recurse instead, and stops polling only while a dispatch of
// its own runs, which is exactly when GLib would have blocked it: a handler
// that runs a nested loop on the same context neither receives the next
// event of its queue (check says no) nor makes that loop spin on the
// pending wake bytes (the descriptor is out of the poll set). Everything it
// touches belongs to the thread that iterates the context; GLib hands the
// source from the thread that made it to that one, and on to any thread
// that iterates the context later, under locks the race detector does not
// see, so each callback takes the watch over and hands it on again.
//
// The IO the callback runs for is reached only through a dispatch, and
// Final (or the destructor) detaches the watch before it lets the IO go: a
// dispatch that starts afterwards does nothing, and a Final on another
// thread waits until the dispatch running on the loop's thread has
// returned (at most the close's limit, see EndpointGuard.h).
struct WakeWatch {
    GSource source;       // first: GLib allocates and frees the whole block
    GPollFD pollfd;       // registered with the source, events set in prepare
    GIOChannel* channel;  // owned reference; reads go through its buffer
    gboolean dispatching;
    // Between the loop's thread and a Final on another thread.
    GMutex guard;
    GCond idle;         // signalled when a dispatch returns and a Final waits
    GThread* runner;    // the thread inside a dispatch, or null
    gboolean detached;  // Final ran: no later dispatch reaches the IO
    gint waiters;       // Finals waiting on |idle|: signalling it is a system call
};

WakeWatch* AsWakeWatch(GSource* source) {
    return reinterpret_cast<WakeWatch*>(source);
}

// Wake bytes already read into the channel's buffer count as readable.
bool BufferedWakeBytes(WakeWatch* watch) {
    return (g_io_channel_get_buffer_condition(watch->channel) & G_IO_IN) != 0;
}

// Marks a callback's use of the watch for the race detector (see above).
class WatchInUse {
public:
    explicit WatchInUse(WakeWatch* watch) : watch_(watch) { detail::TakeOver(watch_); }
    ~WatchInUse() { detail::HandOver(watch_); }
    WatchInUse(const WatchInUse&) = delete;
    WatchInUse& operator=(const WatchInUse&) = delete;

private:
    WakeWatch* watch_;
};

gboolean WakeWatchPrepare(GSource* source, gint* timeout) {
    WakeWatch* watch = AsWakeWatch(source);
    WatchInUse inUse(watch);
    *timeout = -1;
    if (watch->dispatching) {
        watch->pollfd.events = 0;
        return FALSE;
    }
    watch->pollfd.events = G_IO_IN;
    return BufferedWakeBytes(watch);
}

gboolean WakeWatchCheck(GSource* source) {
    WakeWatch* watch = AsWakeWatch(source);
    WatchInUse inUse(watch);
    if (watch->dispatching)
        return FALSE;
    return (watch->pollfd.revents & G_IO_IN) != 0 || BufferedWakeBytes(watch);
}

// Clears the dispatching mark on every way out of a dispatch.
class DispatchMark {
public:
    explicit DispatchMark(WakeWatch* watch) : watch_(watch) { watch_->dispatching = TRUE; }
    ~DispatchMark() { watch_->dispatching = FALSE; }
    DispatchMark(const DispatchMark&) = delete;
    DispatchMark& operator=(const DispatchMark&) = delete;

private:
    WakeWatch* watch_;
};

// Marks the dispatch that runs on this thread for a Final on another one;
// false when the watch was detached already.
class RunningDispatch {
public:
    explicit RunningDispatch(WakeWatch* watch) : watch_(watch) {
        g_mutex_lock(&watch_->guard);
        started_ = !watch_->detached;
        if (started_)
            watch_->runner = g_thread_self();
        g_mutex_unlock(&watch_->guard);
    }
    ~RunningDispatch() {
        if (!started_)
            return;
        g_mutex_lock(&watch_->guard);
        watch_->runner = nullptr;
        if (watch_->waiters > 0)
            g_cond_broadcast(&watch_->idle);
        g_mutex_unlock(&watch_->guard);
    }
    RunningDispatch(const RunningDispatch&) = delete;
    RunningDispatch& operator=(const RunningDispatch&) = delete;

    bool Started() const { return started_; }

private:
    WakeWatch* watch_;
    bool started_ = false;
};

gboolean WakeWatchDispatch(GSource* source, GSourceFunc callback, gpointer data) {
    WakeWatch* watch = AsWakeWatch(source);
    if (callback == nullptr)
        return G_SOURCE_REMOVE;  // nothing to call: the source is useless
    // A dispatch of its own is already running further up this thread's
    // stack; check never lets this happen, and this keeps it so.
    if (watch->dispatching)
        return G_SOURCE_CONTINUE;
    WatchInUse inUse(watch);
    RunningDispatch running(watch);
    if (!running.Started())
        return G_SOURCE_REMOVE;  // the IO was finalised on another thread
    DispatchMark mark(watch);
    GIOFunc onWake = reinterpret_cast<GIOFunc>(reinterpret_cast<void (*)()>(callback));
    return onWake(watch->channel, G_IO_IN, data);
}

void WakeWatchFinalize(GSource* source) {
    detail::TakeOver(source);
    WakeWatch* watch = AsWakeWatch(source);
    g_io_channel_unref(watch->channel);
    g_mutex_clear(&watch->guard);
    g_cond_clear(&watch->idle);
}

// Stops |source| from reaching its IO: later dispatches do nothing, and one
// running on another thread is waited for, at most for the close's limit.
// False (with one error line naming |name|) when that limit was reached.
bool DetachWakeWatch(GSource* source, const std::string& name) {
    WakeWatch* watch = AsWakeWatch(source);
    g_mutex_lock(&watch->guard);
    watch->detached = TRUE;
    const gint64 limitUs = static_cast<gint64>(detail::OtherThreadWaitLimitMs()) * 1000;
    const gint64 deadline = g_get_monotonic_time() + limitUs;
    bool idle = true;
    ++watch->waiters;
    while (watch->runner != nullptr && watch->runner != g_thread_self()) {
        if (!g_cond_wait_until(&watch->idle, &watch->guard, deadline)) {
            idle = watch->runner == nullptr;
            break;
        }
    }
    --watch->waiters;
    g_mutex_unlock(&watch->guard);
    if (!idle) {
        QLOGE("event io %s: its loop still runs an event after %u ms; finalising without it",
              name.c_str(), detail::OtherThreadWaitLimitMs());
    }
    return idle;
}

GSourceFuncs wakeWatchFuncs = {WakeWatchPrepare,  WakeWatchCheck, WakeWatchDispatch,
                               WakeWatchFinalize, nullptr,        nullptr};

// A watch for |channel|'s descriptor; it takes its own channel reference.
GSource* NewWakeWatch(GIOChannel* channel) {
    GSource* source = g_source_new(&wakeWatchFuncs, sizeof(WakeWatch));
    WakeWatch* watch = AsWakeWatch(source);
    watch->channel = g_io_channel_ref(channel);
    watch->dispatching = FALSE;
    g_mutex_init(&watch->guard);
    g_cond_init(&watch->idle);
    watch->runner = nullptr;
    watch->detached = FALSE;
    watch->waiters = 0;
    watch->pollfd.fd = g_io_channel_unix_get_fd(channel);
    watch->pollfd.events = G_IO_IN;
    watch->pollfd.revents = 0;
    g_source_add_poll(source, &watch->pollfd);
    g_source_set_can_recurse(source, TRUE);
    g_source_set_name(source, "harvo-fw event queue");
    detail::HandOver(watch);
    return source;
}

// The node m_Put or m_Insert queues for |event|, made before the lock is
// taken so that the lock is held for the wake byte and two pointer moves
// only: a loop woken by the byte then rarely finds the lock still held. A
// synchronous sender waits for its own object; everything else is queued
// as a copy that the loop destroys. Empty for a null event, which the
// locked path refuses.
std::list<TCEvent*> NewQueueNode(TCEvent* event, bool copy) {
    std::list<TCEvent*> node;
    if (event != nullptr)
        node.push_back(copy ? new TCEvent(*event) : event);
    return node;
}

// A node that was never queued: the copy goes, the sender's object stays.
void DropUnqueued(std::list<TCEvent*>& node, bool copy) {
    if (copy && !node.empty())
        delete node.front();
    node.clear();
}

// Set by the loop's watch around its m_Get: a queued copy is then handed
// over as it is, instead of being moved field by field into an empty event
// that is made, filled and destroyed for every wake-up. The watch runs the
// handler on that copy and destroys it; what the handler sees is the same.
thread_local TCEvent** t_adoptQueuedCopy = nullptr;

// m_Get's out event while a copy is handed over: it is never written then,
// only checked for null.
TCEvent* UnwrittenOutEvent() {
    static TCEvent unwritten;
    return &unwritten;
}

// Points t_adoptQueuedCopy at |slot| for one m_Get on this thread.
class AdoptQueuedCopy {
public:
    explicit AdoptQueuedCopy(TCEvent** slot) { t_adoptQueuedCopy = slot; }
    ~AdoptQueuedCopy() { t_adoptQueuedCopy = nullptr; }
    AdoptQueuedCopy(const AdoptQueuedCopy&) = delete;
    AdoptQueuedCopy& operator=(const AdoptQueuedCopy&) = delete;
};

// The event IO that serves |event|'s receiver.
TCEventIO* ServingIO(const TCEvent* event) {
    return event->receiver->GetEventIO();
}

}  // namespace

unsigned long detail::SyncWaitUs() {
    const unsigned long override_us = g_syncWaitOverrideUs.load();
    return override_us != 0 ? override_us : kSyncWaitUs;
}

void detail::SetSyncWaitUsForTests(unsigned long us) {
    g_syncWaitOverrideUs.store(us);
}

// ---------------------------------------------------------------------------
// Construction

TCEventIO::TCEventIO(std::string name)
    : m_Name(name),
      m_FlagCreate(false),
      m_pMainLoop(nullptr),
      m_pWatch(nullptr),
      m_pChannel(nullptr) {
    m_IOType = 10;
    // Every event IO is the handler half of itself.
    m_pEventIO = this;
    m_PipeFileDes[0] = -1;
    m_PipeFileDes[1] = -1;
    if (!m_Lock.Create())
        QUELT_ASSERT(0);
}

// Owners call Final first: the events still queued are not destroyed here.
TCEventIO::~TCEventIO() {
    // One that did not leaves its watch attached to the loop: detach it, so
    // that no later wake-up calls into a queue that is gone.
    if (m_pWatch != nullptr) {
        QLOGW("event io %s destroyed without Final: its watch is removed", m_Name.c_str());
        DetachWakeWatch(m_pWatch, m_Name);
        g_source_destroy(m_pWatch);
        g_source_unref(m_pWatch);
        m_pWatch = nullptr;
    }
    m_Lock.Destroy();
}

// ---------------------------------------------------------------------------
// Attaching and detaching

bool TCEventIO::Init(GMainLoop* loop) {
    QLOGI(" %s : %p", m_Name.c_str(), static_cast<void*>(loop));
    if (m_FlagCreate)
        return true;

    m_pMainLoop = loop;
    if (pipe(m_PipeFileDes) == -1) {
        QLOGE("Create pipe fail!");
        return false;
    }
    // The loop must never block on an empty pipe; the write end stays
    // blocking, so a pipe full of unread bytes holds the sender back.
    fcntl(m_PipeFileDes[0], F_SETFL, O_NONBLOCK);

    m_pChannel = g_io_channel_unix_new(m_PipeFileDes[0]);
    if (m_pChannel == nullptr) {
        QLOGE("Create channel fail!");
        return false;
    }
    GError* gErr = nullptr;
    if (g_io_channel_set_encoding(m_pChannel, nullptr, &gErr) != G_IO_STATUS_NORMAL &&
        gErr != nullptr) {
        QLOGE("Read char from pipe fail,%s", gErr->message);
        g_error_free(gErr);
        g_io_channel_unref(m_pChannel);
        m_pChannel = nullptr;
        return false;
    }

    m_pWatch = NewWakeWatch(m_pChannel);
    GMainContext* context =
        loop != nullptr ? g_main_loop_get_context(loop) : g_main_context_default();
    g_source_set_callback(m_pWatch, G_SOURCE_FUNC(m_InterIOWatch), static_cast<gpointer>(this),
                          nullptr);
    g_source_attach(m_pWatch, context);
    // The watch holds the channel from now on.
    g_io_channel_unref(m_pChannel);
    m_pChannel = nullptr;

    m_Lock.Lock();
    m_FlagCreate = t_Init();
    m_Lock.Unlock();

    QLOGI("End");
    return m_FlagCreate;
}

void TCEventIO::Final() {
    QLOGI(" %s : %p", m_Name.c_str(), static_cast<void*>(m_pMainLoop));
    if (!m_FlagCreate) {
        QLOGI("already final");
        return;
    }

    // From another thread, the loop's dispatch must be over first, and
    // senders must stop appending: the drain below does not take the lock,
    // as it runs on the loop's thread (or with the loop stopped) by design,
    // and a list appended to while it is drained is corrupted. Senders see
    // the queue destroyed from here on, as they would once Final returned.
    if (m_pWatch != nullptr)
        DetachWakeWatch(m_pWatch, m_Name);
    m_Lock.Lock();
    m_FlagCreate = false;
    m_Lock.Unlock();
    while (!m_EventList.empty()) {
        TCEvent* event = m_EventList.front();
        m_EventList.pop_front();
        if (auto* queued = dynamic_cast<QueuedSyncEvent*>(event)) {
            // A synchronous sender's event is not the queue's to clear or
            // destroy: the sender is released instead.
            DropQueuedSyncEvent(queued);
            continue;
        }
        if (event->receiver != nullptr)
            event->receiver->OnClear(event);
        // A synchronous sender's own object queued by SendEvent goes too.
        delete event;
    }

    if (m_pWatch != nullptr) {
        g_source_destroy(m_pWatch);
        g_source_unref(m_pWatch);
        m_pWatch = nullptr;
    }
    // The numbers stay: a later send fails on m_FlagCreate, not on them.
    close(m_PipeFileDes[0]);
    close(m_PipeFileDes[1]);
    m_FlagCreate = false;
}

bool TCEventIO::t_Init() {
    return true;
}

void TCEventIO::t_Final() {}

// ---------------------------------------------------------------------------
// The queue

bool TCEventIO::m_Put(TCEvent* event) {
    const bool copy = event != nullptr && !event->sync;
    std::list<TCEvent*> node;
    SyncCall* call = t_queuingSyncCall;
    if (event != nullptr && event->sync && call != nullptr && call->sender == event) {
        // SendSyncEvent's own event: the queue holds the call, never the
        // sender's object.
        node.push_back(new QueuedSyncEvent(call));
    } else {
        node = NewQueueNode(event, copy);
    }
    m_Lock.Lock();
    if (!m_FlagCreate) {
        QLOGE("event io %s has destroyed!", m_Name.c_str());
        m_Lock.Unlock();
        // The copy, or what stood for a synchronous sender's event, goes.
        DropUnqueued(node, copy || dynamic_cast<QueuedSyncEvent*>(node.front()) != nullptr);
        return false;
    }
    QUELT_ASSERT(event != NULL);
    QUELT_ASSERT(m_PipeFileDes[1] != -1);
    // The byte goes in before the event: the loop takes an event under this
    // same lock before it reads a byte, so it never sees one without the
    // other. A pipe full of unread bytes blocks this write with the lock
    // held, and the loop, which only tries the lock, cannot drain it then:
    // senders must stay less than the pipe's capacity ahead of the loop.
    QUELT_ASSERT(-1 != write(m_PipeFileDes[1], "O", 1));
    m_EventList.splice(m_EventList.end(), node);
    m_Lock.Unlock();
    return true;
}

bool TCEventIO::m_Insert(TCEvent* event) {
    // Always a copy, even of a synchronous event; the newest urgent event
    // runs first.
    std::list<TCEvent*> node = NewQueueNode(event, true);
    m_Lock.Lock();
    if (!m_FlagCreate) {
        QLOGE("event io %s has destroyed!", m_Name.c_str());
        m_Lock.Unlock();
        DropUnqueued(node, true);
        return false;
    }
    QUELT_ASSERT(event != NULL);
    QUELT_ASSERT(m_PipeFileDes[1] != -1);
    QUELT_ASSERT(-1 != write(m_PipeFileDes[1], "O", 1));
    m_EventList.splice(m_EventList.begin(), node);
    m_Lock.Unlock();
    return true;
}

// |event| is the caller's out event (named so for the assertion text).
bool TCEventIO::m_Get(TCEvent* event, TCEvent** syncOut, unsigned long timeout) {
    QUELT_ASSERT(event != NULL);
    if (!m_Lock.Try(timeout)) {
        QLOGE("Try lock mutex fail!");
        return false;
    }
    if (!m_FlagCreate) {
        QLOGE("event io %s has destroyed!", m_Name.c_str());
        // The lock stays with this thread on purpose: this path is only
        // reached while Final runs concurrently with a wake-up.
        return false;
    }
    if (m_EventList.empty()) {
        m_Lock.Unlock();
        return true;
    }

    // Only the unlinking needs the lock; the event is ours once it is off
    // the queue, and its node is freed after the unlock.
    std::list<TCEvent*> taken;
    taken.splice(taken.begin(), m_EventList, m_EventList.begin());
    m_Lock.Unlock();

    TCEvent* front = taken.front();
    if (front->sync) {
        *syncOut = front;  // the sender's own object: not ours to destroy
    } else if (t_adoptQueuedCopy != nullptr) {
        *t_adoptQueuedCopy = front;  // the loop's watch destroys it
    } else {
        TakeQueuedEvent(event, front);
        delete front;
    }
    return true;
}

unsigned TCEventIO::CountEvent() {
    // Read without the lock: a snapshot for statistics and tests.
    return static_cast<unsigned>(m_EventList.size());
}

// ---------------------------------------------------------------------------
// The loop's side

gboolean TCEventIO::m_InterIOWatch(GIOChannel* channel, GIOCondition /*condition*/, gpointer data) {
    TCEvent* taken = nullptr;  // the queued copy of an asynchronous event
    TCEvent* syncEvent = nullptr;
    TCEventIO* pThis = static_cast<TCEventIO*>(data);
    QUELT_ASSERT(pThis != NULL);

    // One event per wake-up, so other sources of the loop interleave with a
    // long queue. Without the lock the byte stays and we come back.
    bool got;
    {
        AdoptQueuedCopy adopt(&taken);
        got = pThis->m_Get(UnwrittenOutEvent(), &syncEvent, kLoopLockWaitUs);
    }
    // Destroyed on every return, like a local event.
    std::unique_ptr<TCEvent> owned(taken);
    if (!got)
        return TRUE;
    // What stands for a synchronous sender's event; dropped (its sender
    // released) on the ways out that run nothing.
    std::unique_ptr<QueuedSyncEvent, void (*)(QueuedSyncEvent*)> queuedSync(
        dynamic_cast<QueuedSyncEvent*>(syncEvent), DropQueuedSyncEvent);

    gchar byte = 0;
    gsize len = 0;
    GError* gErr = nullptr;
    GIOStatus status = g_io_channel_read_chars(channel, &byte, 1, &len, &gErr);
    if (status == G_IO_STATUS_ERROR || status == G_IO_STATUS_AGAIN) {
        if (gErr != nullptr) {
            QLOGE("Read char from pipe fail,%s", gErr->message);
            QUELT_ASSERT(gErr == NULL);
        }
        // The pipe is unusable: returning FALSE makes GLib remove the watch
        // and the IO goes deaf. The event just taken is dropped. GLib holds
        // the source while it dispatches, so our reference can go now.
        if (pThis->m_pWatch != nullptr)
            g_source_unref(pThis->m_pWatch);
        pThis->m_pWatch = nullptr;
        return FALSE;
    }
    if (status == G_IO_STATUS_EOF) {
        QLOGW("Read char from pipe to the end!");
        return TRUE;
    }
    QUELT_ASSERT(len > 0);

    if (syncEvent == nullptr) {
        if (taken == nullptr) {
            // A wake with nothing queued (its event was cleared away) ends
            // here, on the empty event.
            TCEvent event;
            QUELT_ASSERT(event.receiver != NULL);
        }
        TCEvent& event = *taken;
        if (event.deleted) {
            QLOGI("deleted event");
        } else {
            QUELT_CALL_GUARDED("OnEvent", [&] { event.receiver->OnEvent(&event); });
        }
        QUELT_CALL_GUARDED("OnClear", [&] { event.receiver->OnClear(&event); });
        return TRUE;
    }

    if (queuedSync)
        return RunQueuedSyncEvent(queuedSync.release());

    // The sender's own object: no deleted test and no clear step, since the
    // sender keeps it.
    // A handler that throws still releases its waiting sender below.
    QUELT_CALL_GUARDED("OnEvent", [&] { syncEvent->receiver->OnEvent(syncEvent); });
    if (syncEvent->param.p == nullptr) {
        QLOGE("param.p should not be NULL!");
        return TRUE;
    }
    // The sender may return (and drop its event) as soon as it is woken:
    // take the pair first and never touch the event afterwards.
    TCSemaphore* pair = static_cast<TCSemaphore*>(syncEvent->param.p);
    AnswerSemaphorePair(pair);
    DeleteSemaphorePair(pair);
    return TRUE;
}

bool TCEventIO::t_OnEvent(const TCEvent* event) {
    if (event == nullptr)
        return false;
    switch (event->type) {
        case EVENT_EXIT_TASK:
            if (m_pMainLoop != nullptr)
                g_main_loop_quit(m_pMainLoop);
            return true;
        case EVENT_INTERNAL_MESSAGE: {
            if (event->param.p == nullptr)
                return true;
            QLOGI("transfer async internal event to sync message call");
            std::string from = ReadEndpointName(event->data.m_value, "from");
            std::string dest = ReadEndpointName(event->data.m_value, "dest");
            // Connected to TCServer::SendMessage by the bus endpoint: the
            // sender is found by name again, and since the destination lives
            // in this process the message is delivered by a direct call, now
            // on this IO's thread. The reply has nowhere to go.
            TCMessage localReply;
            TCServer::SendMessage(from.c_str(), dest.c_str(),
                                  static_cast<const TCMessage*>(event->param.p), true, &localReply);
            return true;
        }
        case EVENT_PING:
            if (event->param.p != nullptr) {
                AnswerSemaphorePair(static_cast<TCSemaphore*>(event->param.p));
            }
            return true;
        case EVENT_EXECUTE: {
            TCExecuteCallable* callable = static_cast<TCExecuteCallable*>(event->param.p);
            if (callable == nullptr)
                return true;
            QLOGI("execute function in this event io");
            if (*callable)
                (*callable)();
            return true;
        }
        default:
            return false;
    }
}

void TCEventIO::t_Clear(TCEvent* event) {
    if (event == nullptr)
        return;
    switch (event->type) {
        case EVENT_INTERNAL_MESSAGE:
            QLOGI("clear message memory");
            if (event->param.p == nullptr)
                return;
            delete static_cast<TCMessage*>(event->param.p);
            event->param.p = nullptr;
            return;
        case EVENT_PING:
            if (event->param.p == nullptr)
                return;
            // The pinger gives the second semaphore only once and the ping
            // handler has already taken it: a successful ping leaves this
            // loop waiting here.
            static_cast<TCSemaphore*>(event->param.p)[1].Take();
            DeleteSemaphorePair(static_cast<TCSemaphore*>(event->param.p));
            event->param.p = nullptr;
            return;
        case EVENT_CLEAR_ALL:
            m_ClearAll();
            return;
        case EVENT_EXECUTE:
            QLOGI("clear message memory");
            if (event->param.p == nullptr)
                return;
            delete static_cast<TCExecuteCallable*>(event->param.p);
            event->param.p = nullptr;
            return;
        default:
            return;
    }
}

// Empties the queue for an EVENT_CLEAR_ALL event. The removed events' wake
// bytes stay in the pipe.
void TCEventIO::m_ClearAll() {
    if (!m_Lock.Try(kClearAllLockWaitUs))
        return;
    while (!m_EventList.empty()) {
        TCEvent* event = m_EventList.front();
        m_EventList.pop_front();
        if (auto* queued = dynamic_cast<QueuedSyncEvent*>(event)) {
            DropQueuedSyncEvent(queued);
            continue;
        }
        if (event->receiver != nullptr)
            event->receiver->OnClear(event);
        delete event;
    }
    m_Lock.Unlock();
}

// ---------------------------------------------------------------------------
// Sending

bool TCEventIO::SendEvent(TCEvent* event) {
    QUELT_ASSERT(event != NULL);
    if (event->receiver == nullptr) {
        QLOGE("receiver is NULL");
        return false;
    }
    return ServingIO(event)->m_Put(event);
}

bool TCEventIO::SendUrgentEvent(TCEvent* event) {
    QUELT_ASSERT(event != NULL);
    if (event->receiver == nullptr) {
        QLOGE("receiver is NULL");
        return false;
    }
    return ServingIO(event)->m_Insert(event);
}

bool TCEventIO::SendSyncEvent(TCEvent* event) {
    QUELT_ASSERT(event != NULL);
    if (event->receiver == nullptr) {
        QLOGE("receiver is NULL");
        return false;
    }
    TCEventIO* io = ServingIO(event);
    if (RunsOnThisThread(io)) {
        // Waiting would only wait for ourselves: the loop runs the event
        // once we return. It runs here and now instead, as the loop would
        // run a synchronous event (no clear step), ahead of what is queued.
        QLOGD("synchronous event %d sent to %s from its own loop's thread: run at once",
              event->type, io->m_Name.c_str());
        event->param.p = nullptr;
        event->sync = true;
        QUELT_CALL_GUARDED("OnEvent", [&] { event->receiver->OnEvent(event); });
        return true;
    }
    TCSemaphore* pair = NewSemaphorePair();
    if (pair == nullptr)
        return false;

    // Synchronous events cannot carry a parameter pointer of their own.
    event->param.p = pair;
    event->sync = true;
    SyncCall* call = new SyncCall(pair, event);
    t_queuingSyncCall = call;
    const bool queued = io->m_Put(event);
    t_queuingSyncCall = nullptr;
    if (!queued) {
        // The pair stays with the event; nobody frees it.
        QLOGE("SendSyncEvent fails!");
        call->pair = nullptr;
        Unref(call);
        return false;
    }
    // A timed-out wait reports success as well.
    if (!pair[0].Try(detail::SyncWaitUs()))
        AbandonOrAwait(call, event);
    pair[1].Give();
    Unref(call);
    return true;
}

bool TCEventIO::Ping(TCEventIO* target, unsigned long timeout) {
    if (target == nullptr)
        return false;
    TCSemaphore* pair = NewSemaphorePair();
    if (pair == nullptr)
        return false;

    TCEvent ping;
    ping.receiver = target;
    ping.type = EVENT_PING;
    ping.deleted = false;
    ping.sync = false;
    ping.param.p = pair;
    if (!SendEvent(&ping)) {
        DeleteSemaphorePair(pair);
        return false;
    }
    bool answered = pair[0].Try(std::max(timeout, kPingMinimumUs));
    pair[1].Give();
    return answered;
}

// ---------------------------------------------------------------------------
// Deleting

int TCEventIO::DeleteEvent(unsigned long type, const TCHandler* handler) {
    return m_DeleteEvent(handler, true, type);
}

int TCEventIO::DeleteEvent(const TCHandler* handler) {
    return m_DeleteEvent(handler, false, 0);
}

int TCEventIO::m_DeleteEvent(const TCHandler* handler, bool matchType, unsigned long type) {
    if (!m_FlagCreate) {
        QLOGI("m_FlagCreate is false");
        return -1;
    }
    if (handler == nullptr)
        handler = this;

    m_Lock.Lock();
    size_t count = m_EventList.size();
    m_Lock.Unlock();
    if (count == 0)
        return 0;

    // The walk runs without the lock; marked events stay queued and are
    // only skipped by the loop.
    int marked = 0;
    auto it = m_EventList.begin();
    for (size_t i = 0; i < count && it != m_EventList.end(); ++i, ++it) {
        TCEvent* event = *it;
        if (event->receiver != handler)
            continue;
        if (matchType && event->type != static_cast<int>(type))
            continue;
        event->deleted = true;
        ++marked;
    }
    return marked;
}

}  // namespace Quelt
