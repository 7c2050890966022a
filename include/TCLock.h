/*
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

/* The timeout (and repeat count) that means "without limit". It is a 32-bit
 * value on every platform: on 64-bit hosts only its low 32 bits count. */
extern HARVO_FW_API const unsigned long QUELT_INFINITY;

class HARVO_FW_API TCSemaphore {
public:
    TCSemaphore();
    virtual ~TCSemaphore();  // releases nothing; call Destroy() first
    virtual void Destroy();

    /* Sets the count and allocates the GLib mutex and condition. Never
     * reports failure: an allocation failure is only logged. */
    bool Create(int initial);
    void Take();
    void Give();
    /* Takes one unit, waiting at most |timeout| microseconds after every
     * wake-up. False on timeout, or when the semaphore is destroyed. */
    bool Try(unsigned long timeout);

private:
    int m_Count;
    GMutex* m_pEventMutex;  // owned
    GCond* m_pCond;         // owned

    friend class TCMutex;
};

class HARVO_FW_API TCMutex {
public:
    TCMutex();
    virtual ~TCMutex();  // releases nothing; call Destroy() first
    virtual void Destroy();

    bool Create();
    /* Recursive: the holder may lock again and must unlock as often. */
    void Lock();
    /* An unlock by a thread that does not hold the mutex is ignored. */
    void Unlock();
    bool Try(unsigned long timeout);

private:
    TCSemaphore m_Sem;
    GThread* m_pOwner;  // read without a lock: only the holder can find itself here
    int m_Depth;
};

}  // namespace Quelt

#endif  // HARVO_FW_TCLOCK_H
