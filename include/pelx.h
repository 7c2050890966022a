/* SPDX-License-Identifier: Apache-2.0 */
/**
 * \file pelx.h
 * The plain-function interface of harvo-fw, usable from C and from any
 * language that can call C.
 *
 * Records:
 *   pelx_message_s  mirrors Quelt::TCMessage (text, code, type, buffer);
 *   pelx_event_s    mirrors Quelt::TCEvent.
 * Their field order and widths are part of the binary interface.
 *
 * Ownership:
 *   - a record comes from its pelx_create_* function and goes back to the
 *     matching pelx_destroy_*, which releases the owned members first;
 *   - text members are owned by the record and released with free(); the
 *     message buffer is owned and released by the library (array delete):
 *     hand it only buffers that the library itself allocated;
 *   - setters store exactly what they are given: they neither copy nor
 *     release the previous value (set a member to something malloc'ed and
 *     free the old value yourself if you replace one);
 *   - an event's gadget and param are borrowed and never released.
 * Every function tolerates a null record: getters answer 0/null (except
 * pelx_get_event_deleted, which answers true) and setters do nothing.
 */
#ifndef HARVO_FW_PELX_H
#define HARVO_FW_PELX_H

#include <stdbool.h>

#include <ui-gadget-module.h>

#include "harvo-fw-export.h"

/** The export mark of the pelx_ functions: every one is part of the
 * library's exported interface (see harvo-fw-export.h). */
#define PELX_API HARVO_FW_API

#ifdef __cplusplus
extern "C" {
#endif

/** A message: the C form of Quelt::TCMessage. */
typedef struct pelx_message_s {
    char* info;               /**< message text (JSON as a rule); null when empty; free() */
    unsigned int code;        /**< message code */
    char* type;               /**< message type; null when empty; free() */
    unsigned char* buffer;    /**< optional binary payload; released by the library */
    unsigned int buffer_size; /**< bytes in buffer */
} pelx_message_s;

/** The untyped parameter word of an event; same layout as TCEvent's param. */
typedef struct pelx_event_param_s {
    void* p; /**< borrowed; never released by the record */
} pelx_event_param_s;

/** An event: the C form of Quelt::TCEvent. */
typedef struct pelx_event_s {
    void* gadget;             /**< receiving gadget activity; borrowed */
    int type;                 /**< event type code */
    bool deleted;             /**< deleted mark */
    char* data;               /**< text of the data body; free() */
    char* reply;              /**< text of the reply body; free() */
    bool sync;                /**< synchronous-send mark */
    pelx_event_param_s param; /**< borrowed; never released by the record */
} pelx_event_s;

/** A new message record with every field zero; release it with
 * pelx_destroy_message. */
PELX_API pelx_message_s* pelx_create_message(void);
/** Releases info, type and buffer, then the record (null ignored). */
PELX_API void pelx_destroy_message(pelx_message_s* message);
/** @{ */
/** The getters answer the field itself (borrowed, not a copy); 0 or null
 * for a null record. */
PELX_API char* pelx_get_message_info(pelx_message_s* message);
PELX_API unsigned int pelx_get_message_code(pelx_message_s* message);
PELX_API char* pelx_get_message_type(pelx_message_s* message);
PELX_API unsigned char* pelx_get_message_buffer(pelx_message_s* message);
PELX_API unsigned int pelx_get_message_buffer_size(pelx_message_s* message);
/** @} */
/** @{ */
/** The setters take over what they are given and do not release the old
 * value. */
PELX_API void pelx_set_message_info(pelx_message_s* message, char* info);
PELX_API void pelx_set_message_code(pelx_message_s* message, unsigned int code);
PELX_API void pelx_set_message_type(pelx_message_s* message, char* type);
PELX_API void pelx_set_message_buffer(pelx_message_s* message, unsigned char* buffer,
                                      unsigned int size);
/** @} */

/** A new event record for the gadget activity \p gadget (borrowed), every
 * other field zero; release it with pelx_destroy_event. */
PELX_API pelx_event_s* pelx_create_event(void* gadget);
/** Releases data and reply, then the record; gadget and param untouched. */
PELX_API void pelx_destroy_event(pelx_event_s* event);
/** @{ */
/** The getters answer the field itself (borrowed); 0 or null for a null
 * record. */
PELX_API int pelx_get_event_type(pelx_event_s* event);
PELX_API char* pelx_get_event_data(pelx_event_s* event);
PELX_API char* pelx_get_event_reply(pelx_event_s* event);
/** @} */
/** A null event counts as deleted: true. */
PELX_API bool pelx_get_event_deleted(pelx_event_s* event);
/** The address of the event's own param member (not a copy). */
PELX_API pelx_event_param_s* pelx_get_event_param(pelx_event_s* event);
/** @{ */
/** The setters take over what they are given and do not release the old
 * value; a null record is ignored. */
PELX_API void pelx_set_event_type(pelx_event_s* event, int type);
PELX_API void pelx_set_event_data(pelx_event_s* event, char* data);
PELX_API void pelx_set_event_reply(pelx_event_s* event, char* reply);
PELX_API void pelx_set_event_deleted(pelx_event_s* event, bool deleted);
/** @} */
/** Copies *param into the event; ignored when either pointer is null. */
PELX_API void pelx_set_event_param(pelx_event_s* event, const pelx_event_param_s* param);

/* Sending and signals. |source| names one of this process's servers (the
 * application or a gadget activity), |target| the receiving server. */

/** Asynchronous send. |reply| is never written (it may be null): the answer
 * arrives through the source server's reply hook. False for a null
 * message. */
PELX_API bool pelx_send_message(const char* source, const char* target, pelx_message_s* message,
                                pelx_message_s* reply);
/** Synchronous send. Both records are required. The reply record is
 * rewritten in every case (also when the send failed); its old info, type
 * and buffer are released first, and the caller owns the new ones. */
PELX_API bool pelx_send_message_sync(const char* source, const char* target,
                                     pelx_message_s* message, pelx_message_s* reply);
/** Posts a copy of |event| to the event queue of its gadget. */
PELX_API bool pelx_send_event(pelx_event_s* event);
/** Emits |signalName| from |source|; a null message emits an empty one. */
PELX_API bool pelx_send_signal(const char* source, const char* signalName, pelx_message_s* message);

/** A signal callback; |message| lives only for the duration of the call. */
typedef void (*pelx_signal_handler)(const char* from, const char* signalName,
                                    pelx_message_s* message, void* userData);
/** Subscribes |source| to |signalName| emitted by the server |from|
 * (required). Subscribing again to the same |from| and |signalName| keeps
 * the first callback and user data and returns true. */
PELX_API bool pelx_subscribe_signal(const char* source, const char* from, const char* signalName,
                                    pelx_signal_handler handler, void* userData);
/** Cancels the subscription of |source| to |signalName| from |from|: true
 * whether or not there was one; false, with a log line, when |from| is
 * null, |source| names no server of this process or its connection is not
 * open. */
PELX_API bool pelx_unsubscribe_signal(const char* source, const char* from, const char* signalName);

/** What a failed asynchronous send reports: the destination's endpoint
 * name, the bus method ("SendMessage" or "SendMessageWithBuffer"), the
 * message's type and code, the D-Bus error name (for instance
 * "org.freedesktop.DBus.Error.ServiceUnknown") and its text. The texts are
 * valid only during the call. */
typedef void (*pelx_send_failure_cb)(const char* dest, const char* method, const char* type,
                                     unsigned int code, const char* error_name,
                                     const char* error_text, void* user_data);
/** Sets the failure callback of this process's endpoint |source| (null
 * |cb| removes it); Quelt::SetSendFailureHandler has the details. With a
 * callback set, asynchronous sends from |source| without reply record
 * expect a reply too, only to learn of a failure. The callback runs in the
 * main context that was the sending thread's thread-default when it sent.
 * False, with a log line, when |source| names no endpoint of this process. */
PELX_API bool pelx_set_send_failure_cb(const char* source, pelx_send_failure_cb cb,
                                       void* user_data);

/** @name Application endpoints without C++
 * A program in any language that can call C becomes an application
 * endpoint with these functions alone: create it, set its callbacks, run
 * or iterate its loop, send with pelx_send_message and the other functions
 * above (|source| is the endpoint's name), and destroy it at the end.
 *
 * \code
 *   pelx_app_endpoint_s* app = pelx_create_app_endpoint("hello");
 *   pelx_set_app_message_cb(app, on_message, NULL);
 *   pelx_run_loop(app);           // until pelx_quit_loop(app)
 *   pelx_destroy_app_endpoint(app);
 * \endcode
 *
 * Threads: the endpoint belongs to the thread that created it. Its
 * messages, replies, signals and send failures arrive in the main context
 * that was that thread's thread-default at creation (the default context on
 * a program's main thread), and only while that thread runs
 * pelx_run_loop or pelx_iterate_loop. pelx_quit_loop may be called from
 * any thread.
 * @{ */

/** An application endpoint made by pelx_create_app_endpoint; opaque. */
typedef struct pelx_app_endpoint_s pelx_app_endpoint_s;

/** A message for the endpoint. |message| and |reply| live only during the
 * call; what the callback writes into |reply| (with the setters, which
 * take over malloc'ed texts) is the answer the sender receives.
 * |signal_name| is null for a message and names the signal for one
 * subscribed without callback. Returning false tells the sender that the
 * message failed: the reply's text becomes
 * {"dbus_result":"fail","errmsg":"error handling"}, which makes a
 * synchronous send return false. */
typedef bool (*pelx_app_message_cb)(const char* from, pelx_message_s* message,
                                    pelx_message_s* reply, const char* signal_name,
                                    void* user_data);
/** The reply of an asynchronous send that had a reply record; |reply|
 * lives only during the call. */
typedef void (*pelx_app_reply_cb)(const char* from, pelx_message_s* reply, void* user_data);

/** Creates the process's application endpoint named |name| (copied): it
 * owns the bus name |name| + ".message" (made legal), receives messages,
 * and is the application whose name every log line carries. At most one
 * per process (and none besides an application run by Quelt::AppMain).
 * \return the endpoint, owned by the caller until
 * pelx_destroy_app_endpoint; null, with a log line, when |name| is null or
 * empty or the bus refuses. */
PELX_API pelx_app_endpoint_s* pelx_create_app_endpoint(const char* name);
/** Closes the endpoint (its bus name, object and subscriptions go) and
 * frees it; null is ignored. Call it after its loop has returned, on any
 * thread, but not from one of its own callbacks: that is refused with a
 * log line (quit the loop there instead). */
PELX_API void pelx_destroy_app_endpoint(pelx_app_endpoint_s* endpoint);
/** Sets the message callback (null: messages get an empty reply, with a
 * warning line) and its |user_data| (not owned). \return false for a null
 * endpoint. */
PELX_API bool pelx_set_app_message_cb(pelx_app_endpoint_s* endpoint, pelx_app_message_cb cb,
                                      void* user_data);
/** Sets the reply callback (null: replies are dropped) and its |user_data|
 * (not owned). \return false for a null endpoint. */
PELX_API bool pelx_set_app_reply_cb(pelx_app_endpoint_s* endpoint, pelx_app_reply_cb cb,
                                    void* user_data);
/** Runs the endpoint's loop on the calling thread until pelx_quit_loop.
 * \return 0, or -1 for a null endpoint. */
PELX_API int pelx_run_loop(pelx_app_endpoint_s* endpoint);
/** Runs one iteration of the endpoint's loop: dispatches what is ready,
 * waiting at most |timeout_ms| milliseconds for something to become ready
 * (0: no wait, negative: without limit). For programs that keep their own
 * loop, and for interpreters that handle Ctrl-C between calls. */
PELX_API void pelx_iterate_loop(pelx_app_endpoint_s* endpoint, int timeout_ms);
/** Ends pelx_run_loop: the one under way, or, when none runs, the next
 * one (unless a pelx_iterate_loop takes the request first). Any thread,
 * also from a callback. */
PELX_API void pelx_quit_loop(pelx_app_endpoint_s* endpoint);
/** @} */

/** Whether some process owns the bus name of the application or service
 * endpoint |name|, asked through this process's endpoint |source|. False,
 * with a log line, when |source| names no endpoint of this process. */
PELX_API bool pelx_is_service_available(const char* source, const char* name);

/** Gadgets written in C. The gadget fills a pelx_gadget_activity_ops record
 * with its callbacks and calls pelx_init_ui_gadget from UG_MODULE_INIT; the
 * framework creates the activity behind it. Every callback gets the
 * record's priv_data last. */
/** Creates the gadget's layout and returns it; null fails the creation. */
typedef void* (*pelx_gadget_create_cb)(struct ui_gadget_s* ug, enum ug_mode mode,
                                       struct app_control_s* service, void* priv);
/** Start, pause, resume or destroy of the gadget. */
typedef void (*pelx_gadget_state_cb)(struct ui_gadget_s* ug, struct app_control_s* service,
                                     void* priv);
/** A user message from the host. */
typedef void (*pelx_gadget_message_cb)(struct ui_gadget_s* ug, struct app_control_s* msg,
                                       struct app_control_s* service, void* priv);
/** A system event from the UI gadget library. */
typedef void (*pelx_gadget_event_cb)(struct ui_gadget_s* ug, enum ug_event event,
                                     struct app_control_s* service, void* priv);
/** True when the event was handled. The record lives only during the call. */
typedef bool (*pelx_gadget_pelx_event_cb)(pelx_event_s* event, void* priv);
/** Releases what an event carries, after it ran. */
typedef void (*pelx_gadget_clear_pelx_event_cb)(pelx_event_s* event, void* priv);
/** What the callback writes into |reply| is what the sender receives.
 * |extra| is null for a message, the signal name for a signal subscribed
 * without callback. */
typedef bool (*pelx_gadget_msg_received_cb)(const char* sender, pelx_message_s* message,
                                            pelx_message_s* reply, const char* extra, void* priv);
/** The reply of an asynchronous send arrived; the record lives only
 * during the call. */
typedef bool (*pelx_gadget_msg_replied_cb)(const char* sender, pelx_message_s* message, void* priv);

/** Thirteen pointer-sized slots, in this order. */
typedef struct pelx_gadget_activity_ops {
    pelx_gadget_create_cb create_cb;                     /**< the gadget is created */
    pelx_gadget_state_cb start_cb;                       /**< the gadget starts */
    pelx_gadget_state_cb pause_cb;                       /**< the gadget is paused */
    pelx_gadget_state_cb resume_cb;                      /**< the gadget is resumed */
    pelx_gadget_state_cb destroy_cb;                     /**< the gadget is destroyed */
    pelx_gadget_message_cb message_cb;                   /**< a user message from the host */
    pelx_gadget_event_cb event_cb;                       /**< a system event */
    pelx_gadget_pelx_event_cb pelx_event_cb;             /**< an event posted to the gadget */
    pelx_gadget_clear_pelx_event_cb clear_pelx_event_cb; /**< an event's clear step */
    pelx_gadget_msg_received_cb pelx_msg_received_cb;    /**< a message or signal arrived */
    pelx_gadget_msg_replied_cb pelx_msg_replied_cb;      /**< an asynchronous reply arrived */
    void* event_handler; /**< the activity made by pelx_init_ui_gadget */
    void* priv_data;     /**< the gadget's own data */
} pelx_gadget_activity_ops;

/** Every slot null but priv_data. */
PELX_API pelx_gadget_activity_ops* pelx_create_gadget_activity_ops(void* priv_data);
/** Frees the record (null ignored); the activity is not touched. */
PELX_API void pelx_destory_gadget_activity_ops(pelx_gadget_activity_ops* ops);
/** @{ */
/** Setters of the callbacks: a null record is ignored. */
PELX_API void pelx_set_gadget_create_cb(pelx_gadget_activity_ops* ops, pelx_gadget_create_cb cb);
PELX_API void pelx_set_gadget_start_cb(pelx_gadget_activity_ops* ops, pelx_gadget_state_cb cb);
PELX_API void pelx_set_gadget_pause_cb(pelx_gadget_activity_ops* ops, pelx_gadget_state_cb cb);
PELX_API void pelx_set_gadget_resume_cb(pelx_gadget_activity_ops* ops, pelx_gadget_state_cb cb);
PELX_API void pelx_set_gadget_destroy_cb(pelx_gadget_activity_ops* ops, pelx_gadget_state_cb cb);
PELX_API void pelx_set_gadget_message_cb(pelx_gadget_activity_ops* ops, pelx_gadget_message_cb cb);
PELX_API void pelx_set_gadget_event_cb(pelx_gadget_activity_ops* ops, pelx_gadget_event_cb cb);
PELX_API void pelx_set_gadget_pelx_event_cb(pelx_gadget_activity_ops* ops,
                                            pelx_gadget_pelx_event_cb cb);
PELX_API void pelx_set_gadget_clear_pelx_event_cb(pelx_gadget_activity_ops* ops,
                                                  pelx_gadget_clear_pelx_event_cb cb);
PELX_API void pelx_set_gadget_pelx_msg_received_cb(pelx_gadget_activity_ops* ops,
                                                   pelx_gadget_msg_received_cb cb);
PELX_API void pelx_set_gadget_pelx_msg_replied_cb(pelx_gadget_activity_ops* ops,
                                                  pelx_gadget_msg_replied_cb cb);
/** @} */
/** @{ */
/** Getters: the gadget's own data and the activity made by
 * pelx_init_ui_gadget; null for a null record. */
PELX_API void* pelx_get_gadget_priv_data(pelx_gadget_activity_ops* ops);
PELX_API void* pelx_get_gadget_event_handler(pelx_gadget_activity_ops* ops);
/** @} */
/** The application's name ("nil" while there is none). */
PELX_API const char* pelx_get_app_name(void);

/** Module entry: creates the activity named |name| (not null) for |gops|
 * (not null) and points |ops| at it; -1 when |ops| is null. */
PELX_API int pelx_init_ui_gadget(struct ug_module_ops* ops, pelx_gadget_activity_ops* gops,
                                 enum ug_option option, const char* name, bool bCreateDBus);
/** Module exit: deletes the activity and returns its record for
 * pelx_destory_gadget_activity_ops; null when |ops| is null or has no
 * activity. The private data of |ops| is left as it was: do not call twice. */
PELX_API pelx_gadget_activity_ops* pelx_exit_ui_gadget(struct ug_module_ops* ops);

#ifdef __cplusplus
}
#endif

#endif /* HARVO_FW_PELX_H */
