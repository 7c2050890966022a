/* SPDX-License-Identifier: Apache-2.0 */
/**
 * \file TCAlarm.h
 * TCAlarm: a periodic timer firing on the loop of an event IO, and the
 * framework's millisecond tick.
 *
 * Thread-affinity: the callback runs on the thread that iterates the IO's
 * loop; Reset and Destroy may be called from any thread, including from
 * inside the callback (the alarm's lock is recursive).
 */
#ifndef HARVO_FW_TCALARM_H
#define HARVO_FW_TCALARM_H

#include "harvo-fw-export.h"

#include <glib.h>

namespace Quelt {

class TCEventIO;
namespace detail {
struct AlarmTimeouts;
}

/** A periodic timer that fires on the loop of an event IO: Create, then
 *  SetAlarmCallback arms it; it fires every interval until the count is
 *  used up, the callback returns false, or Destroy. */
class HARVO_FW_API TCAlarm {
public:
    /** An unbound alarm. */
    TCAlarm();
    /** Frees the lock; an armed alarm should be destroyed first. One that
     *  was not loses its timeout here (a timeout firing meanwhile on the
     *  loop's thread is waited for), so no callback comes after. */
    ~TCAlarm();

    /** Binds the alarm to \p io's loop (null: the default context).
     *  \p interval is in milliseconds; \p count is the number of times it
     *  fires (QUELT_INFINITY: without limit). A second Create changes
     *  nothing. \return true. */
    bool Create(TCEventIO* io, unsigned long interval, unsigned long count);
    /** Arms the alarm: \p callback runs with \p data (not owned) on the
     *  loop's thread at every interval; returning false stops the alarm.
     *  \return false before Create or with a null callback. */
    bool SetAlarmCallback(bool (*callback)(void*), void* data);
    /** Restarts with a new interval (milliseconds) and count, also after
     *  the alarm stopped. \return false while no callback is set. */
    bool Reset(unsigned long interval, unsigned long count);
    /** Stops the alarm and unbinds it; it may be created again. */
    void Destroy();

    /** CLOCK_MONOTONIC in milliseconds, as a wrapping 32-bit value. */
    static unsigned long GetTickCount();

private:
    /** The timeout source holds the alarm's lock block, not the alarm, and
     * reaches m_GSourceFunc through this while the alarm exists. */
    friend struct detail::AlarmTimeouts;

    static gboolean m_GSourceFunc(void* alarm);
    void m_AttachSource();

    bool (*m_pCallback)(void*);
    void* m_pData;       // not owned
    GRecMutex* m_pLock;  // owned
    bool m_bCreated;
    GMainLoop* m_pLoop;  // not owned
    GSource* m_pSource;
    unsigned long m_Interval;
    unsigned long m_Count;  // QUELT_INFINITY: without limit
};

}  // namespace Quelt

#endif  // HARVO_FW_TCALARM_H
