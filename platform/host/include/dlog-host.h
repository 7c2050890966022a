/* SPDX-License-Identifier: Apache-2.0 */
/*
 * Host-only extension of the platform log: lets tests and tools observe
 * every line (priority, tag, fully formatted text) and silence stderr.
 * Not part of Tizen's dlog; never include it from framework sources.
 */
#ifndef HARVO_HOST_DLOG_HOST_H
#define HARVO_HOST_DLOG_HOST_H

#ifdef __cplusplus
extern "C" {
#endif

/* Called once per line, in the order the lines were written, with the
 * log's internal lock held (a sink must not log). |text| is the fully
 * formatted text, exactly as the caller produced it (colour escapes and
 * trailing newline included); it is only valid during the call. */
typedef void (*dlog_host_sink_cb)(int log_id, int prio, const char* tag, const char* text,
                                  void* user_data);

/* Installs |sink| (null removes it). At most one sink at a time. */
void dlog_host_set_sink(dlog_host_sink_cb sink, void* user_data);

/* Enables (non-zero, the default) or disables the copy on standard error. */
void dlog_host_set_stderr(int enabled);

/* The dlogutil letter of a priority: 'V', 'D', 'I', 'W', 'E', 'F', 'S', or '?'. */
char dlog_host_priority_letter(int prio);

#ifdef __cplusplus
}
#endif

#endif /* HARVO_HOST_DLOG_HOST_H */
