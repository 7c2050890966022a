/*
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

#if defined(__GNUC__)
#define PELX_API __attribute__((visibility("default")))
#else
#define PELX_API
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* A message: the C form of Quelt::TCMessage. */
typedef struct pelx_message_s {
    char* info;               /* message text (JSON as a rule); null when empty; free() */
    unsigned int code;        /* message code */
    char* type;               /* message type; null when empty; free() */
    unsigned char* buffer;    /* optional binary payload; released by the library */
    unsigned int buffer_size; /* bytes in buffer */
} pelx_message_s;

/* The untyped parameter word of an event; same layout as TCEvent's param. */
typedef struct pelx_event_param_s {
    void* p;
} pelx_event_param_s;

/* An event: the C form of Quelt::TCEvent. */
typedef struct pelx_event_s {
    void* gadget;             /* receiving gadget activity; borrowed */
    int type;                 /* event type code */
    bool deleted;             /* deleted mark */
    char* data;               /* text of the data body; free() */
    char* reply;              /* text of the reply body; free() */
    bool sync;                /* synchronous-send mark */
    pelx_event_param_s param; /* borrowed; never released by the record */
} pelx_event_s;

/* Messages. */
PELX_API pelx_message_s* pelx_create_message(void);
PELX_API void pelx_destroy_message(pelx_message_s* message);
PELX_API char* pelx_get_message_info(pelx_message_s* message);
PELX_API unsigned int pelx_get_message_code(pelx_message_s* message);
PELX_API char* pelx_get_message_type(pelx_message_s* message);
PELX_API unsigned char* pelx_get_message_buffer(pelx_message_s* message);
PELX_API unsigned int pelx_get_message_buffer_size(pelx_message_s* message);
/* The setters take over what they are given and do not release the old
 * value. */
PELX_API void pelx_set_message_info(pelx_message_s* message, char* info);
PELX_API void pelx_set_message_code(pelx_message_s* message, unsigned int code);
PELX_API void pelx_set_message_type(pelx_message_s* message, char* type);
PELX_API void pelx_set_message_buffer(pelx_message_s* message, unsigned char* buffer,
                                      unsigned int size);

/* Events. */
PELX_API pelx_event_s* pelx_create_event(void* gadget);
/* Releases data and reply, then the record; gadget and param untouched. */
PELX_API void pelx_destroy_event(pelx_event_s* event);
PELX_API int pelx_get_event_type(pelx_event_s* event);
PELX_API char* pelx_get_event_data(pelx_event_s* event);
PELX_API char* pelx_get_event_reply(pelx_event_s* event);
/* A null event counts as deleted: true. */
PELX_API bool pelx_get_event_deleted(pelx_event_s* event);
/* The address of the event's own param member (not a copy). */
PELX_API pelx_event_param_s* pelx_get_event_param(pelx_event_s* event);
PELX_API void pelx_set_event_type(pelx_event_s* event, int type);
PELX_API void pelx_set_event_data(pelx_event_s* event, char* data);
PELX_API void pelx_set_event_reply(pelx_event_s* event, char* reply);
PELX_API void pelx_set_event_deleted(pelx_event_s* event, bool deleted);
/* Copies *param into the event; ignored when either pointer is null. */
PELX_API void pelx_set_event_param(pelx_event_s* event, const pelx_event_param_s* param);

/* Sending and signals. |source| names one of this process's servers (the
 * application or a gadget activity), |target| the receiving server. */

/* Asynchronous send. |reply| is never written (it may be null): the answer
 * arrives through the source server's reply hook. False for a null
 * message. */
PELX_API bool pelx_send_message(const char* source, const char* target, pelx_message_s* message,
                                pelx_message_s* reply);
/* Synchronous send. Both records are required. The reply record is
 * rewritten in every case (also when the send failed); its old info, type
 * and buffer are released first, and the caller owns the new ones. */
PELX_API bool pelx_send_message_sync(const char* source, const char* target,
                                     pelx_message_s* message, pelx_message_s* reply);
/* Posts a copy of |event| to the event queue of its gadget. */
PELX_API bool pelx_send_event(pelx_event_s* event);
/* Emits |signalName| from |source|; a null message emits an empty one. */
PELX_API bool pelx_send_signal(const char* source, const char* signalName, pelx_message_s* message);

/* A signal callback; |message| lives only for the duration of the call. */
typedef void (*pelx_signal_handler)(const char* from, const char* signalName,
                                    pelx_message_s* message, void* userData);
/* Subscribes |source| to |signalName| emitted by the server |from|
 * (required). */
PELX_API bool pelx_subscribe_signal(const char* source, const char* from, const char* signalName,
                                    pelx_signal_handler handler, void* userData);
PELX_API bool pelx_unsubscribe_signal(const char* source, const char* from, const char* signalName);

#ifdef __cplusplus
}
#endif

#endif /* HARVO_FW_PELX_H */
