/* SPDX-License-Identifier: Apache-2.0 */
/**
 * \file TCEventIO.h
 * TCEventIO: a cross-thread mailbox bound to one GLib main context.
 *
 * Any thread posts an event; the IO queues it under its recursive lock and
 * writes one wake byte into its pipe; the loop's watch on the pipe takes
 * one event per wake-up, so other sources of the loop interleave with a
 * long queue, and runs the receiver's OnEvent and OnClear on the loop's
 * thread.
 *
 * Thread-affinity: Init/Final on the thread that owns the loop (or before
 * it runs); sending functions from any thread; handlers run on the loop's
 * thread, one at a time, in queue order.
 */
#ifndef HARVO_FW_TCEVENTIO_H
#define HARVO_FW_TCEVENTIO_H

#include "harvo-fw-export.h"

#include <glib.h>

#include <list>
#include <string>

#include "TCEvent.h"
#include "TCLock.h"

namespace Quelt {

/** An event queue bound to one GLib main context: any thread posts, the
 *  loop's thread runs the events one per wake-up. Tasks, applications and
 *  gadget activities derive from it. */
class HARVO_FW_API TCEventIO : public TCIOBase, public TCHandler {
public:
    /** A queue named \p name, not attached yet: call Init. */
    explicit TCEventIO(std::string name);
    /** Releases the lock and the list nodes; does not call Final. */
    virtual ~TCEventIO();

    /** Attaches the IO to |loop|'s context (null: the default context). */
    virtual bool Init(GMainLoop* loop);
    /** Detaches, closes the pipe and clears every queued event. */
    virtual void Final();
    /** Handles the framework's codes 1, 3, 4 and 6. */
    virtual bool t_OnEvent(const TCEvent* event);
    /** Last step of Init, on the initialising thread; false fails Init.
     *  Default true. */
    virtual bool t_Init();
    /** A teardown hook for derived classes, the counterpart of t_Init.
     *  The framework never calls it (Final does not): an override of Final
     *  that needs it calls it itself. Default nothing. */
    virtual void t_Final();
    /** Releases what codes 3, 4 and 6 carry; code 5 empties the queue. */
    virtual void t_Clear(TCEvent* event);

    /** Queues a copy at the back.
     *
     * Queue depth: every queued event is one wake byte in the IO's pipe
     * (65536 bytes on Linux). The sending functions block while the pipe is
     * full, holding the queue's lock, until the loop has room again -- and
     * the loop cannot take events while a sender holds the lock: keep a
     * queue well below 65536 events. The bus endpoint never lets bus
     * traffic grow a worker's queue beyond 1024 events: above that it
     * answers requests with the error reply instead of queueing them. */
    static bool SendEvent(TCEvent* event);
    /** Queues a copy at the front: it runs next. */
    static bool SendUrgentEvent(TCEvent* event);
    /** Queues the caller's event and waits until it ran, at most 20
     * seconds; reports true also when the wait expired. The handler runs on
     * the caller's own object while the caller waits.
     *
     * The caller may drop its event as soon as this returns: a wait that
     * expired leaves a copy for the queue, which runs it later (with a
     * warning line); a handler already running on the caller's object when
     * the wait expires is waited for. Sent from the thread that runs the
     * receiver's loop (a handler of that loop, say), the event cannot wait
     * for itself: it runs at once, ahead of what is queued, and this
     * returns true. A queue finalised with the event still queued releases
     * the caller at once, without running it. */
    static bool SendSyncEvent(TCEvent* event);
    /** Round trip through |target|'s loop within max(timeout, 2100) us. */
    static bool Ping(TCEventIO* target, unsigned long timeout);

    /** Marks queued events of |handler| (null: this IO) as deleted; returns
     * the number marked, or -1 when the IO is not initialised. */
    ///@{
    int DeleteEvent(unsigned long type, const TCHandler* handler);
    /** The same for events of every type. */
    int DeleteEvent(const TCHandler* handler);
    ///@}
    /** The number of queued events, read without the lock. */
    unsigned CountEvent();

    /** The loop given to Init; null means the default context. */
    GMainLoop* GetMainLoop() const { return m_pMainLoop; }
    /** The name given at construction. */
    const std::string& GetName() const { return m_Name; }

private:
    bool m_Put(TCEvent* event);
    bool m_Insert(TCEvent* event);
    bool m_Get(TCEvent* out, TCEvent** syncOut, unsigned long timeout);
    int m_DeleteEvent(const TCHandler* handler, bool matchType, unsigned long type);
    /** The EVENT_CLEAR_ALL clear step: empties the queue. */
    void m_ClearAll();
    static gboolean m_InterIOWatch(GIOChannel* channel, GIOCondition condition, gpointer data);

    /** Tests reach the queue, the pipe and the watch callback through this
     * peer (e.g. to call the callback with null data). */
    friend class TCEventIOTestPeer;
    /* The bus endpoint checks the queue's depth before it hands a request
     * to a worker (see the note on queue depth above). */
    friend class TCServer;

    TCMutex m_Lock;  ///< guards m_EventList and m_FlagCreate
    std::string m_Name;
    std::list<TCEvent*> m_EventList;  ///< front runs next
    bool m_FlagCreate;
    GMainLoop* m_pMainLoop;  ///< not owned; null means the default context
    GSource* m_pWatch;
    GIOChannel* m_pChannel;  ///< held only during Init
    int m_PipeFileDes[2];
};

/** TCEventIO::SendEvent as a free function. */
HARVO_FW_API bool SendEvent(TCEvent* event);
/** TCEventIO::SendSyncEvent as a free function. */
HARVO_FW_API bool SendSyncEvent(TCEvent* event);
/** TCEventIO::SendUrgentEvent as a free function. */
HARVO_FW_API bool SendUrgentEvent(TCEvent* event);

}  // namespace Quelt

#endif  // HARVO_FW_TCEVENTIO_H
