/* SPDX-License-Identifier: Apache-2.0 */
/**
 * \file TCEvent.h
 * Events and the interfaces of their receivers.
 *
 * A TCEvent names the handler that must run it; it is queued on the event
 * IO that serves that handler and run on the thread of that IO's loop:
 * OnEvent (unless deleted), then OnClear, where param.p is released.
 */
#ifndef HARVO_FW_TCEVENT_H
#define HARVO_FW_TCEVENT_H

#include "harvo-fw-export.h"

#include <glib.h>

#include "TCMessage.h"

namespace Quelt {

class TCHandler;
class TCEventIO;

/** The framework's own event type codes; every other value is a user event. */
enum TCEventType {
    EVENT_EXIT_TASK = 1,         ///< quit the serving IO's loop
    EVENT_RESERVED = 2,          ///< never sent by the framework
    EVENT_INTERNAL_MESSAGE = 3,  ///< param.p: heap TCMessage, owned by the event
    EVENT_PING = 4,              ///< param.p: TCSemaphore[2], made with new[]
    EVENT_CLEAR_ALL = 5,         ///< clearing it empties the serving IO's queue
    EVENT_EXECUTE = 6,           ///< param.p: heap std::function<void()>
};

/** The record posted between threads: which handler runs it, its type
 *  code, two bodies and a parameter word. Sending copies it (except a
 *  synchronous send, which queues the caller's own object). */
class HARVO_FW_API TCEvent {
public:
    /** No receiver, type 0, empty bodies, null parameter. */
    TCEvent();
    /** Copies every field; param.p is shared, never duplicated. */
    TCEvent(const TCEvent& other);
    /** Copies every field, as the copy constructor does. */
    TCEvent& operator=(const TCEvent& other);
    /** Destroys the two bodies only; never frees param.p. */
    virtual ~TCEvent();

    TCHandler* receiver;  ///< not owned; sending fails when null
    int type;             ///< a TCEventType code (1 to 6) or a user event
    bool deleted;         ///< marked by DeleteEvent: skipped, only cleared
    TCData data;          ///< the first body
    TCData message;       ///< the second body
    bool sync;            ///< true only while a synchronous send is in flight
    /** The parameter word; what \c p points to depends on the type. */
    union {
        void* p;  ///< not owned by the record: the handler's clear step releases it
    } param;
};

/** The receiver of events. Every TCEventIO is its own handler: the handler
 * half of an event IO, through which the sending functions find the queue. */
class HARVO_FW_API TCHandler {
public:
    TCHandler();
    virtual ~TCHandler();

    /** t_OnEvent, then t_OnMEvent when the first did not consume the event.
     * A null event is a fatal assertion. */
    bool OnEvent(const TCEvent* event);
    /** t_Clear, then always t_ClearMEvent. A null event is fatal. */
    void OnClear(TCEvent* event);

    /** The event IO that serves this handler. */
    TCEventIO* GetEventIO() const { return m_pEventIO; }

    /** Runs \p event on the serving IO's thread. \return true when the
     *  event was consumed. */
    virtual bool t_OnEvent(const TCEvent* event) = 0;
    /** Releases what \p event carries, after it ran or when it was
     *  deleted. */
    virtual void t_Clear(TCEvent* event) = 0;
    /** Second chance for events that t_OnEvent did not consume. */
    virtual bool t_OnMEvent(const TCEvent* event);
    /** Second clear step, always after t_Clear. Default nothing. */
    virtual void t_ClearMEvent(TCEvent* event);

protected:
    TCEventIO* m_pEventIO;  ///< the serving IO; not owned

    friend class TCEventIO;
};

/** Anything a task can attach to its main loop. */
class HARVO_FW_API TCIOBase {
public:
    TCIOBase();
    virtual ~TCIOBase();
    /** Attaches to \p loop's context (null: the default context). */
    virtual bool Init(GMainLoop* loop) = 0;
    /** Detaches from the loop and releases what Init made. */
    virtual void Final() = 0;

protected:
    int m_IOType;  ///< every event IO sets it to 10; nothing reads it
};

}  // namespace Quelt

#endif  // HARVO_FW_TCEVENT_H
