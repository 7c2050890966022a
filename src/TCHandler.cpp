// SPDX-License-Identifier: Apache-2.0
// The lock classes (TCSemaphore, TCMutex) and QUELT_INFINITY, and the
// defaults of the event handler interface (TCHandler).

#include "TCLock.h"
#include "TCEvent.h"

#include <cstddef>
#include <cstdint>
#include <type_traits>

#include "QueltLog.h"

namespace Quelt {

const unsigned long QUELT_INFINITY = 0xFFFFFFFFUL;

namespace {

// Timeouts are 32-bit values on the device; on 64-bit hosts only the low
// 32 bits count, so that QUELT_INFINITY + 1 wraps to 0 as it does there.
inline bool IsInfinite(unsigned long timeout) {
    return static_cast<uint32_t>(static_cast<uint32_t>(timeout) + 1u) == 0u;
}

// A semaphore's GMutex and GCond live in one block, which also counts the
// threads waiting on the condition so that a give wakes only when someone
// waits. The semaphore itself keeps its two pointers (into the block) and
// its count; one allocation per semaphore instead of two, which a
// synchronous send, making and freeing a pair of semaphores each time,
// notices.
struct SemaphoreBlock {
    GMutex mutex;  // first: the block's address is the mutex's
    GCond cond;
    int waiters;  // threads inside a wait on |cond|; under |mutex|
};
static_assert(std::is_standard_layout<SemaphoreBlock>::value &&
                  offsetof(SemaphoreBlock, mutex) == 0,
              "a semaphore's mutex pointer is also its block's");

SemaphoreBlock* BlockOf(GMutex* mutex) {
    return reinterpret_cast<SemaphoreBlock*>(mutex);
}

SemaphoreBlock* NewSemaphoreBlock() {
    return g_new0(SemaphoreBlock, 1);
}

void FreeSemaphoreBlock(GMutex* mutex) {
    g_free(BlockOf(mutex));
}

// Both are called with |mutex| held.
int Waiters(GMutex* mutex) {
    return BlockOf(mutex)->waiters;
}

void WaitCounted(GCond* cond, GMutex* mutex) {
    BlockOf(mutex)->waiters += 1;
    g_cond_wait(cond, mutex);
    BlockOf(mutex)->waiters -= 1;
}

gboolean WaitCountedUntil(GCond* cond, GMutex* mutex, gint64 end_time) {
    BlockOf(mutex)->waiters += 1;
    gboolean signalled = g_cond_wait_until(cond, mutex, end_time);
    BlockOf(mutex)->waiters -= 1;
    return signalled;
}

// The count is written under the semaphore's mutex, and read there; a
// mutex glances at it without the semaphore's mutex (see WatchAndTake),
// so every write is a single atomic store.
inline void SetCount(int* count, int value) {
    __atomic_store_n(count, value, __ATOMIC_RELAXED);
}

inline int PeekCount(const int* count) {
    return __atomic_load_n(count, __ATOMIC_RELAXED);
}

// One step of a busy wait: tells the processor (and a hypervisor) that this
// thread only waits.
inline void CpuRelax() {
#if defined(__x86_64__) || defined(__i386__)
    __builtin_ia32_pause();
#elif defined(__aarch64__) || defined(__arm__)
    __asm__ __volatile__("yield" ::: "memory");
#endif
}

// How long a mutex's Try watches a held mutex before it goes to sleep on
// it. The event queue's sections under the mutex are a wake byte and two
// pointer moves, and the loop that the byte wakes often arrives while the
// sender is still leaving: sleeping then costs the loop two system calls
// and a wake-up of its own, far more than a few microseconds of watching.
// The bound keeps a holder that stays long (or is not running) cheap.
constexpr gint64 kMutexWatchUs = 3;
// When the wake byte woke the loop on the sender's own processor, the
// sender cannot leave the section while the loop watches: after the watch
// the loop offers the processor this many times before it sleeps.
constexpr int kMutexYields = 2;

// Takes a unit of the semaphore whose mutex is |guard| and whose count is
// |count| if one is there, without waiting. A mutex uses it between glances.
bool TakeUnitNow(GMutex* guard, int* count) {
    g_mutex_lock(guard);
    const bool got = *count > 0;
    if (got)
        SetCount(count, *count - 1);
    g_mutex_unlock(guard);
    return got;
}

// Watches |count| and calls |takeNow| (a take that never sleeps) whenever
// it shows a unit, until a take succeeds (true) or the watch and the
// yields are over (false: the caller then takes the semaphore as usual,
// sleeping if it must). Another thread may take the unit between the
// glance and the take; the watch simply goes on.
template <typename TakeNow>
bool WatchAndTake(const int* count, TakeNow takeNow) {
    gint64 until = 0;
    int yields = 0;
    for (unsigned spins = 0;; ++spins) {
        if (PeekCount(count) > 0 && takeNow())
            return true;
        if (spins % 64 != 0) {
            CpuRelax();
            continue;
        }
        const gint64 now = g_get_monotonic_time();
        if (until == 0) {
            until = now + kMutexWatchUs;
        } else if (now >= until) {
            if (yields == kMutexYields)
                return false;
            ++yields;
            g_thread_yield();
        }
    }
}

}  // namespace

// ---------------------------------------------------------------------------
// TCSemaphore

TCSemaphore::TCSemaphore() : m_Count(0), m_pEventMutex(nullptr), m_pCond(nullptr) {}

TCSemaphore::~TCSemaphore() {}

bool TCSemaphore::Create(int initial) {
    SetCount(&m_Count, initial);
    SemaphoreBlock* block = NewSemaphoreBlock();
    m_pEventMutex = block != nullptr ? &block->mutex : nullptr;
    m_pCond = block != nullptr ? &block->cond : nullptr;
    if (m_pEventMutex == nullptr || m_pCond == nullptr) {
        QLOGE("can't allocate memory");
    }
    if (m_pEventMutex != nullptr)
        g_mutex_init(m_pEventMutex);
    if (m_pCond != nullptr)
        g_cond_init(m_pCond);
    // Creation never reports failure.
    return true;
}

void TCSemaphore::Take() {
    g_mutex_lock(m_pEventMutex);
    while (m_Count < 1)
        WaitCounted(m_pCond, m_pEventMutex);
    SetCount(&m_Count, m_Count - 1);
    g_mutex_unlock(m_pEventMutex);
}

void TCSemaphore::Give() {
    g_mutex_lock(m_pEventMutex);
    SetCount(&m_Count, m_Count + 1);
    // One waiter per unit. With nobody waiting there is nobody to wake,
    // and GLib's signal is a system call even then.
    if (Waiters(m_pEventMutex) > 0)
        g_cond_signal(m_pCond);
    g_mutex_unlock(m_pEventMutex);
}

bool TCSemaphore::Try(unsigned long timeout) {
    if (IsInfinite(timeout)) {
        Take();
        return true;
    }
    if (m_pEventMutex == nullptr) {
        QLOGE("m_EventMutex is NULL");
        return false;
    }
    const gint64 wait_us = static_cast<uint32_t>(timeout);
    g_mutex_lock(m_pEventMutex);
    for (;;) {
        if (m_Count > 0) {
            SetCount(&m_Count, m_Count - 1);
            g_mutex_unlock(m_pEventMutex);
            return true;
        }
        // The deadline is taken afresh after every wake-up: a waiter that
        // loses the unit to another thread waits a full timeout again.
        if (!WaitCountedUntil(m_pCond, m_pEventMutex, g_get_monotonic_time() + wait_us)) {
            g_mutex_unlock(m_pEventMutex);
            return false;
        }
    }
}

void TCSemaphore::Destroy() {
    QLOGE("");
    g_mutex_clear(m_pEventMutex);
    g_cond_clear(m_pCond);
    // The condition lives in the mutex's block.
    FreeSemaphoreBlock(m_pEventMutex);
    m_pEventMutex = nullptr;
    m_pCond = nullptr;
}

// ---------------------------------------------------------------------------
// TCMutex

TCMutex::TCMutex() : m_pOwner(nullptr), m_Depth(0) {}

TCMutex::~TCMutex() {}

// The owner is read by every thread that locks, outside any lock: only the
// holder can find itself there, and it is the only writer while it holds the
// mutex. The reads and writes are atomic so that a non-holder never sees a
// torn pointer (and race detectors agree). The depth is touched only by the
// holder; the semaphore orders one holder's writes before the next's.

bool TCMutex::Create() {
    bool created = m_Sem.Create(1);
    if (created)
        g_atomic_pointer_set(&m_pOwner, nullptr);
    return created;
}

void TCMutex::Lock() {
    GThread* self = g_thread_self();
    if (g_atomic_pointer_get(&m_pOwner) == self) {
        m_Depth += 1;
        return;
    }
    GMutex* guard = m_Sem.m_pEventMutex;
    int* count = &m_Sem.m_Count;
    if (guard == nullptr ||
        !WatchAndTake(count, [guard, count] { return TakeUnitNow(guard, count); }))
        m_Sem.Take();
    g_atomic_pointer_set(&m_pOwner, self);
    m_Depth = 1;
}

void TCMutex::Unlock() {
    // Not ours: ignored silently.
    if (g_atomic_pointer_get(&m_pOwner) != g_thread_self())
        return;
    m_Depth -= 1;
    if (m_Depth > 0)
        return;
    g_atomic_pointer_set(&m_pOwner, nullptr);
    m_Sem.Give();
}

bool TCMutex::Try(unsigned long timeout) {
    GThread* self = g_thread_self();
    if (g_atomic_pointer_get(&m_pOwner) == self) {
        m_Depth += 1;
        return true;
    }
    GMutex* guard = m_Sem.m_pEventMutex;
    int* count = &m_Sem.m_Count;
    const bool taken = guard != nullptr &&
                       WatchAndTake(count, [guard, count] { return TakeUnitNow(guard, count); });
    if (!taken && !m_Sem.Try(timeout))
        return false;
    g_atomic_pointer_set(&m_pOwner, self);
    m_Depth = 1;
    return true;
}

void TCMutex::Destroy() {
    // A second Destroy finds the semaphore already released.
    if (m_Sem.m_pEventMutex != nullptr)
        m_Sem.Destroy();
}

}  // namespace Quelt

// ---------------------------------------------------------------------------
// TCHandler

namespace Quelt {

// A bare handler serves no queue until its owner binds it: every TCEventIO
// points its own handler half at itself.
TCHandler::TCHandler() : m_pEventIO(nullptr) {}

TCHandler::~TCHandler() {}

bool TCHandler::OnEvent(const TCEvent* event) {
    QUELT_ASSERT(event);
    if (t_OnEvent(event))
        return true;
    // Second chance for what the handler proper left alone.
    return t_OnMEvent(event);
}

void TCHandler::OnClear(TCEvent* event) {
    QUELT_ASSERT(event);
    t_Clear(event);
    // Always runs, so a second-chance handler can release its own payload.
    t_ClearMEvent(event);
}

bool TCHandler::t_OnMEvent(const TCEvent* /*event*/) {
    return false;
}

void TCHandler::t_ClearMEvent(TCEvent* /*event*/) {}

}  // namespace Quelt
