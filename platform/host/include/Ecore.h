/* SPDX-License-Identifier: Apache-2.0 */
/*
 * Ecore: the subset of EFL's core loop that harvo-fw uses. On Tizen the
 * Ecore loop is built on GLib's default main context; this host version
 * runs a GMainLoop on that same context, so GLib sources attached to the
 * default context (IO watches, timeouts, GDBus) are served while it runs.
 */
#ifndef HARVO_HOST_ECORE_H
#define HARVO_HOST_ECORE_H

#ifdef __cplusplus
extern "C" {
#endif

/* Reference counted: returns the count after the call. */
int ecore_init(void);
/* Returns the count after the call (never below 0). */
int ecore_shutdown(void);

/* Runs GLib's default main context until ecore_main_loop_quit. Call it on
 * the thread that may own the default context (normally the main thread). */
void ecore_main_loop_begin(void);

/* Makes the running loop return; any thread may call it. A quit while no
 * loop runs is remembered until the next ecore_main_loop_begin, which then
 * returns at once. */
void ecore_main_loop_quit(void);

#ifdef __cplusplus
}
#endif

#endif /* HARVO_HOST_ECORE_H */
