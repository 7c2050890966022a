/* SPDX-License-Identifier: Apache-2.0 */
/**
 * \file TCTask.h
 * TCTask: a worker thread with its own GLib main context and loop, running
 * every IO attached to it. The task is itself an event IO; it ends on the
 * EVENT_EXIT_TASK event that Destroy sends from another thread.
 *
 * Thread-affinity: Create and Destroy from another thread (typically the
 * main thread); the loop, the IOs' Init/Final, every event of every
 * attached IO and the t_Create/t_Main/t_Destroy hooks run on the task's
 * thread (with initInCaller, t_AddIO, Init and t_Create run in the caller).
 */
#ifndef HARVO_FW_TCTASK_H
#define HARVO_FW_TCTASK_H

#include "harvo-fw-export.h"

#include <glib.h>

#include "TCEventIO.h"

namespace Quelt {

/** A worker thread with its own GLib main context and loop. The task is
 *  itself an event IO: events sent to it run on its thread, and so do the
 *  other IOs that a subclass attaches in t_AddIO. Destroy ends it from
 *  another thread. */
class HARVO_FW_API TCTask : public TCEventIO {
public:
    /** A task named \p name (the event queue's name); no thread yet. */
    explicit TCTask(const char* name);
    /** Neither stops the thread nor frees the loop: call Destroy first.
     *  A task whose thread still runs its loop ends the process with a
     *  fatal assertion (the thread would run on freed memory); one whose
     *  thread ended by itself (EVENT_EXIT_TASK from its own handler) is
     *  joined. */
    virtual ~TCTask();

    /** Starts the thread; with |initInCaller| the loop and its IOs are built
     * on the calling thread first. The third argument is ignored. */
    bool Create(const char* name, bool initInCaller, unsigned long option);
    /** Attaches |io| to the loop; only from t_AddIO, before the IOs are
     * initialised. */
    void AddIO(TCIOBase* io);
    /** Sends EVENT_EXIT_TASK and joins the thread. Refused (logged) on the
     * task's own thread. Right after Create it first waits until the thread
     * has built its loop, so that the exit event reaches it. */
    void Destroy();

protected:
    /** Last step of building the loop, on the task's thread (or the
     *  caller's with initInCaller); false fails Create. Default true. */
    virtual bool t_Create();
    /** The thread's work: the default runs the loop until EVENT_EXIT_TASK
     *  quits it. */
    virtual void t_Main();
    /** Runs on the task's thread after every IO was finalised, before the
     *  loop is freed. Default nothing. */
    virtual void t_Destroy();
    /** Attach further IOs here with AddIO, before they are initialised.
     *  Default nothing. */
    virtual void t_AddIO();

private:
    bool m_NewThread(const char* name, unsigned long option, bool initInCaller);
    static gpointer m_ThreadProcess(gpointer task);
    bool m_InitMainLoop();
    void m_Destroy();

    GThread* m_pThread;
    GList* m_pIOList;  ///< of TCIOBase*, attachment order, the task first
    GMainContext* m_pContext;
    GMainLoop* m_pLoop;
};

}  // namespace Quelt

#endif  // HARVO_FW_TCTASK_H
