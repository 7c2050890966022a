/* SPDX-License-Identifier: Apache-2.0 */
/*
 * Platform log: the subset of Tizen's dlog that harvo-fw uses.
 * Host implementation: lines go to standard error in dlogutil's
 * "P/TAG(PID): text" shape; see dlog-host.h to capture them in tests.
 */
#ifndef HARVO_HOST_DLOG_H
#define HARVO_HOST_DLOG_H

#ifdef __cplusplus
extern "C" {
#endif

typedef enum { LOG_ID_MAIN = 0, LOG_ID_RADIO, LOG_ID_SYSTEM, LOG_ID_APPS, LOG_ID_MAX } log_id_t;

typedef enum {
    DLOG_UNKNOWN = 0,
    DLOG_DEFAULT,
    DLOG_VERBOSE,
    DLOG_DEBUG,
    DLOG_INFO,
    DLOG_WARN,
    DLOG_ERROR,
    DLOG_FATAL,
    DLOG_SILENT,
    DLOG_PRIO_MAX
} log_priority;

/* Formats and writes one log line. Returns the number of bytes of the
 * formatted text, or a negative error (-EINVAL for a null tag or format). */
int __dlog_print(log_id_t log_id, int prio, const char* tag, const char* fmt, ...)
    __attribute__((format(printf, 4, 5)));

#ifdef __cplusplus
}
#endif

#endif /* HARVO_HOST_DLOG_H */
