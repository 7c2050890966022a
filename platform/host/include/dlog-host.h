/* SPDX-License-Identifier: Apache-2.0 */
/**
 * \file dlog-host.h
 * Host-only extension of the platform log (not part of Tizen's dlog; never
 * include it from framework sources).
 *
 * On this machine every log line is copied to standard error in dlogutil's
 * "P/TAG(PID): text" shape. This header controls that copy, and lets tests
 * and tools observe every line:
 *
 *  - a filter: a minimum priority for all tags and one per tag, set with
 *    dlog_host_set_min_priority or dlog_host_set_filter, or from outside the
 *    program with the environment variable HARVO_LOG (read once, at the
 *    first line), as a device's log filter is configured outside the
 *    program. Its syntax, also that of dlog_host_set_filter: rules
 *    separated by commas or blanks; a rule is either a priority letter
 *    (the minimum for every tag) or TAG:LETTER (the minimum for one tag).
 *    The letters are dlogutil's: V(erbose), D(ebug), I(nfo), W(arning),
 *    E(rror), F(atal) and S(ilent: nothing), in either case; "*:W" is the
 *    same as "W". For instance HARVO_LOG=W (warnings and errors only) or
 *    HARVO_LOG=HarvoFW:I,WPERF:S (the framework from info up, no
 *    performance traces, everything of other tags). A value that does not
 *    parse is ignored with one line on standard error;
 *  - colour: the framework colours its lines with terminal escapes; they
 *    are written to standard error only when it is a terminal (checked at
 *    the first line written), and stripped otherwise;
 *  - a sink that sees every line, whatever the filter, with its text
 *    exactly as the caller formatted it (escapes included).
 *
 * Threads: every function may be called from any thread.
 */
#ifndef HARVO_HOST_DLOG_HOST_H
#define HARVO_HOST_DLOG_HOST_H

#ifdef __cplusplus
extern "C" {
#endif

/** A line observer. Called once per line, in the order the lines were
 * written, with the log's internal lock held (a sink must not log).
 * \p text is the fully formatted text, exactly as the caller produced it
 * (colour escapes and trailing newline included); it is valid only during
 * the call. */
typedef void (*dlog_host_sink_cb)(int log_id, int prio, const char* tag, const char* text,
                                  void* user_data);

/** Installs \p sink with \p user_data (null removes it). At most one sink
 * at a time. The sink sees every line, whatever the filter. */
void dlog_host_set_sink(dlog_host_sink_cb sink, void* user_data);

/** Enables (non-zero, the default) or disables the copy on standard error. */
void dlog_host_set_stderr(int enabled);

/** Sets the minimum priority of the copy on standard error for every tag
 * without a filter of its own: lines below \p prio (a log_priority, e.g.
 * DLOG_WARN) are not copied; DLOG_SILENT copies nothing. The default is
 * DLOG_VERBOSE (everything), unless HARVO_LOG says otherwise. */
void dlog_host_set_min_priority(int prio);

/** Replaces the whole filter (the minimum for every tag and the per-tag
 * ones) with \p rules, in HARVO_LOG's syntax (see the file's description);
 * null or "" copies everything again.
 * \return 0, or -EINVAL when \p rules does not parse (the filter is then
 * left as it was). */
int dlog_host_set_filter(const char* rules);

/** Colour escapes on standard error: chosen by whether it is a terminal. */
#define DLOG_HOST_COLOUR_AUTO (-1)
/** Colour escapes on standard error: always stripped. */
#define DLOG_HOST_COLOUR_NEVER 0
/** Colour escapes on standard error: always kept. */
#define DLOG_HOST_COLOUR_ALWAYS 1

/** Whether the copy on standard error keeps the colour escapes:
 * DLOG_HOST_COLOUR_AUTO (the default: when standard error is a terminal,
 * checked again at the next line), DLOG_HOST_COLOUR_NEVER or
 * DLOG_HOST_COLOUR_ALWAYS. The sink always gets the text unchanged. */
void dlog_host_set_colour(int mode);

/** The dlogutil letter of a priority: 'V', 'D', 'I', 'W', 'E', 'F', 'S', or '?'. */
char dlog_host_priority_letter(int prio);

#ifdef __cplusplus
}
#endif

#endif /* HARVO_HOST_DLOG_HOST_H */
