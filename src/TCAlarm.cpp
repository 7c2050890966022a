// SPDX-License-Identifier: Apache-2.0
// TCAlarm: periodic timers on an event IO's loop, and the millisecond tick.

#include "TCAlarm.h"

#include <atomic>
#include <cstdint>
#include <ctime>

#include "Guarded.h"
#include "QueltLog.h"
#include "TCEventIO.h"
#include "TCLock.h"

namespace Quelt {

namespace detail {
struct AlarmTimeouts {
    static gboolean Fire(gpointer core);
};
}  // namespace detail

namespace {

// Counts are 32-bit values on the device: on 64-bit hosts only the low 32
// bits decide whether a count means "without limit".
inline bool IsUnlimited(unsigned long count) {
    return static_cast<uint32_t>(count) == static_cast<uint32_t>(QUELT_INFINITY);
}

// What the alarm's lock pointer points at: the recursive lock first (so
// that the pointer is the lock's), then what outlives the alarm for as long
// as a timeout source of it may still fire. A source holds a reference and
// drops it in its destroy notify; the alarm's destructor clears |alarm|
// under the lock, so that a timeout that fires later (a dispatch already
// under way on the loop's thread, or an alarm deleted while armed) finds it
// gone and stops.
struct AlarmCore {
    GRecMutex lock;  // first: m_pLock points here
    TCAlarm* alarm;  // null once the alarm is destroyed
    std::atomic<int> refs;
};

AlarmCore* CoreOf(GRecMutex* lock) {
    return reinterpret_cast<AlarmCore*>(lock);
}

AlarmCore* NewCore(TCAlarm* alarm) {
    AlarmCore* core = new AlarmCore();
    g_rec_mutex_init(&core->lock);
    core->alarm = alarm;
    core->refs.store(1);
    return core;
}

void RefCore(AlarmCore* core) {
    core->refs.fetch_add(1);
}

void UnrefCore(gpointer data) {
    AlarmCore* core = static_cast<AlarmCore*>(data);
    if (core->refs.fetch_sub(1) == 1) {
        g_rec_mutex_clear(&core->lock);
        delete core;
    }
}

// Holds the alarm's recursive lock for one scope. The lock pointer itself is
// published and read atomically: the timeout callback must look at it on the
// loop's thread before it can take the lock.
class RecLocker {
public:
    explicit RecLocker(GRecMutex** slot)
        : m_pLock(static_cast<GRecMutex*>(g_atomic_pointer_get(slot))) {
        g_rec_mutex_lock(m_pLock);
    }
    ~RecLocker() { g_rec_mutex_unlock(m_pLock); }
    RecLocker(const RecLocker&) = delete;
    RecLocker& operator=(const RecLocker&) = delete;

private:
    GRecMutex* m_pLock;
};

}  // namespace

TCAlarm::TCAlarm()
    : m_pCallback(nullptr),
      m_pData(nullptr),
      m_pLock(nullptr),
      m_bCreated(false),
      m_pLoop(nullptr),
      m_pSource(nullptr),
      m_Interval(0),
      m_Count(QUELT_INFINITY) {
    g_atomic_pointer_set(&m_pLock, &NewCore(this)->lock);
}

TCAlarm::~TCAlarm() {
    // Frees the lock; an armed alarm should have been destroyed first. One
    // that was not loses its timeout here, and a timeout already firing on
    // the loop's thread (which holds the lock while it runs the callback)
    // is waited for: either way no callback reaches the alarm afterwards.
    GRecMutex* lock = static_cast<GRecMutex*>(g_atomic_pointer_get(&m_pLock));
    if (lock == nullptr)
        return;
    AlarmCore* core = CoreOf(lock);
    g_rec_mutex_lock(lock);
    core->alarm = nullptr;
    if (m_pSource != nullptr) {
        g_source_destroy(m_pSource);
        m_pSource = nullptr;
    }
    g_atomic_pointer_set(&m_pLock, nullptr);
    g_rec_mutex_unlock(lock);
    UnrefCore(core);
}

bool TCAlarm::Create(TCEventIO* io, unsigned long interval, unsigned long count) {
    RecLocker locker(&m_pLock);
    // A second Create keeps the first binding.
    if (!m_bCreated) {
        m_pLoop = io != nullptr ? io->GetMainLoop() : nullptr;
        m_Interval = interval;
        m_Count = count;
        m_bCreated = true;
    }
    return true;
}

bool TCAlarm::SetAlarmCallback(bool (*callback)(void*), void* data) {
    RecLocker locker(&m_pLock);
    if (!m_bCreated || callback == nullptr)
        return false;
    m_pCallback = callback;
    m_pData = data;
    // A source already running stays: arming twice runs two timeouts.
    if (m_Interval != 0 && m_Count != 0)
        m_AttachSource();
    return true;
}

bool TCAlarm::Reset(unsigned long interval, unsigned long count) {
    RecLocker locker(&m_pLock);
    if (m_pCallback == nullptr)
        return false;
    if (m_pSource != nullptr) {
        g_source_destroy(m_pSource);
        m_pSource = nullptr;
    }
    m_Interval = interval;
    m_Count = count;
    if (m_Interval != 0 && m_Count != 0)
        m_AttachSource();
    return true;
}

void TCAlarm::Destroy() {
    RecLocker locker(&m_pLock);
    if (!m_bCreated)
        return;
    if (m_pSource != nullptr) {
        g_source_destroy(m_pSource);
        m_pSource = nullptr;
    }
    m_pCallback = nullptr;
    m_pData = nullptr;
    m_Interval = 0;
    m_bCreated = false;
    m_Count = QUELT_INFINITY;
}

gboolean TCAlarm::m_GSourceFunc(void* alarm) {
    TCAlarm* self = static_cast<TCAlarm*>(alarm);
    if (self == nullptr)
        return FALSE;
    GRecMutex* lock = static_cast<GRecMutex*>(g_atomic_pointer_get(&self->m_pLock));
    if (lock == nullptr)
        return FALSE;
    // Held across the callback, which may delete the alarm: after it, the
    // alarm is touched only if it is still there.
    AlarmCore* core = CoreOf(lock);
    RefCore(core);
    g_rec_mutex_lock(lock);
    gboolean keep = FALSE;
    if (self->m_pCallback != nullptr) {
        unsigned long left = self->m_Count;
        if (left != 0 && !IsUnlimited(left))
            self->m_Count = left - 1;
        // The lock stays held while the callback runs; the callback may take
        // it again (Reset, Destroy) because it is recursive.
        if (left != 0) {
            // A callback that throws has not asked to stop: the alarm keeps
            // its schedule, as a periodic timer should after one failed tick.
            bool again = true;
            bool (*callback)(void*) = self->m_pCallback;
            void* data = self->m_pData;
            QUELT_CALL_GUARDED("alarm callback", [&] { again = callback(data); });
            keep = again ? TRUE : FALSE;
        }
    }
    if (core->alarm == self && !keep) {
        // No callback, count used up, or the callback asked to stop: GLib
        // drops the source, and the count reads as unlimited again.
        self->m_pSource = nullptr;
        self->m_Count = QUELT_INFINITY;
    }
    if (core->alarm != self)
        keep = FALSE;  // deleted by its own callback
    g_rec_mutex_unlock(lock);
    UnrefCore(core);
    return keep;
}

// The timeout's callback: GLib holds a reference to the alarm's core, never
// the alarm itself, and drops it when the source goes.
gboolean detail::AlarmTimeouts::Fire(gpointer data) {
    AlarmCore* core = static_cast<AlarmCore*>(data);
    g_rec_mutex_lock(&core->lock);
    TCAlarm* alarm = core->alarm;
    // Destroy or Reset on another thread removes the source under the lock
    // while this dispatch waited for it: such a timeout does not fire.
    GSource* firing = g_main_current_source();
    const bool removed = firing != nullptr && g_source_is_destroyed(firing);
    const gboolean keep = alarm != nullptr && !removed ? TCAlarm::m_GSourceFunc(alarm) : FALSE;
    g_rec_mutex_unlock(&core->lock);
    return keep;
}

void TCAlarm::m_AttachSource() {
    m_pSource = g_timeout_source_new(static_cast<guint>(m_Interval));
    AlarmCore* core = CoreOf(static_cast<GRecMutex*>(g_atomic_pointer_get(&m_pLock)));
    RefCore(core);
    g_source_set_callback(m_pSource, detail::AlarmTimeouts::Fire, core, UnrefCore);
    GMainContext* context =
        m_pLoop != nullptr ? g_main_loop_get_context(m_pLoop) : g_main_context_default();
    g_source_attach(m_pSource, context);
    // The context keeps the source alive; m_pSource is only a handle to
    // destroy it with.
    g_source_unref(m_pSource);
}

unsigned long TCAlarm::GetTickCount() {
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    // A 32-bit millisecond count that wraps after about 49.7 days; durations
    // are taken by unsigned 32-bit subtraction.
    uint64_t ms =
        static_cast<uint64_t>(now.tv_sec) * 1000u + static_cast<uint64_t>(now.tv_nsec) / 1000000u;
    return static_cast<uint32_t>(ms);
}

}  // namespace Quelt
