/* SPDX-License-Identifier: Apache-2.0 */
/**
 * \file TCLock.h
 * Lock primitives: a counting semaphore and a recursive mutex built on it.
 *
 * Both are constructed empty, become usable after Create() and release
 * their GLib objects only in an explicit Destroy(); the destructors release
 * nothing. Timeouts are microseconds; QUELT_INFINITY waits without limit.
 *
 * Thread-safety: every operation may be called from any thread.
 */
#ifndef HARVO_FW_TCLOCK_H
#define HARVO_FW_TCLOCK_H

#include "harvo-fw-export.h"

#include <glib.h>

namespace Quelt {

/** The timeout (and repeat count) that means "without limit". It is a 32-bit
 *  value on every platform: on 64-bit hosts only its low 32 bits count. */
extern HARVO_FW_API const unsigned long QUELT_INFINITY;

/** A counting semaphore. Usable between Create() and Destroy(); any
 *  thread may take and give. */
class HARVO_FW_API TCSemaphore {
public:
    /** An empty semaphore: call Create() before using it. */
    TCSemaphore();
    /** Releases nothing; call Destroy() first. */
    virtual ~TCSemaphore();
    /** Logs an empty error line and frees the GLib mutex and condition.
     *  No thread may wait on the semaphore then, and it is not to be
     *  destroyed twice; Try() afterwards fails with a log line. */
    virtual void Destroy();

    /** Sets the count to \p initial and allocates the GLib mutex and
     *  condition. Never reports failure: an allocation failure is only
     *  logged. \return true. */
    bool Create(int initial);
    /** Takes one unit, waiting without limit until one is there. */
    void Take();
    /** Gives one unit back and wakes one waiter, if a thread waits (with
     *  nobody waiting it makes no wake-up call). */
    void Give();
    /** Takes one unit, waiting at most \p timeout microseconds after every
     *  wake-up (QUELT_INFINITY: without limit).
     *  \return false on timeout, or when the semaphore is destroyed. */
    bool Try(unsigned long timeout);

private:
    int m_Count;
    GMutex* m_pEventMutex;  // owned
    GCond* m_pCond;         // owned

    friend class TCMutex;
};

/** A recursive mutex built on TCSemaphore: the holding thread may lock
 *  again and must unlock as often. Usable between Create() and Destroy(). */
class HARVO_FW_API TCMutex {
public:
    /** An empty mutex: call Create() before using it. */
    TCMutex();
    /** Releases nothing; call Destroy() first. */
    virtual ~TCMutex();
    /** Frees the semaphore underneath. */
    virtual void Destroy();

    /** Makes the mutex usable (unlocked). \return true. */
    bool Create();
    /** Takes the mutex, waiting without limit. Recursive: the holder may
     *  lock again and must unlock as often. */
    void Lock();
    /** Releases one level of the holder's locks. An unlock by a thread that
     *  does not hold the mutex is ignored. */
    void Unlock();
    /** Takes the mutex, waiting at most \p timeout microseconds
     *  (QUELT_INFINITY: without limit); the holder gets it at once.
     *  \return false when the wait expired. */
    bool Try(unsigned long timeout);

private:
    TCSemaphore m_Sem;
    GThread* m_pOwner;  // read without a lock: only the holder can find itself here
    int m_Depth;
};

}  // namespace Quelt

#endif  // HARVO_FW_TCLOCK_H
