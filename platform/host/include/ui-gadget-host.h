/* SPDX-License-Identifier: Apache-2.0 */
/**
 * \file ui-gadget-host.h
 * Host-only extension of the UI gadget library: where modules are found.
 * Not part of Tizen's UI gadget library; never include it from framework
 * sources.
 *
 * ug_create(name) loads the shared object "libug-<name>.so". The directories
 * searched, first to last, are:
 *   1. the list given to ug_host_set_module_path, when one was set;
 *   2. otherwise the list in the environment variable UG_MODULE_PATH, when it
 *      is set and not empty (read by this host library only, at each create);
 *   3. otherwise the dynamic loader's own search (dlopen of the bare file
 *      name: LD_LIBRARY_PATH, the run path, the system directories).
 * A list is a colon-separated string of directories; empty entries are
 * skipped.
 *
 * Order kept by the library:
 *   ug_create:  dlopen, UG_MODULE_INIT(&ops), ops.create; when create returns
 *               a layout: ops.start, then the host's layout_cb. When create
 *               returns null the gadget is not created: UG_MODULE_EXIT,
 *               dlclose, and ug_create returns null (ops.destroy is not run).
 *   ug_destroy: ops.destroy, then the host's end_cb, then UG_MODULE_EXIT,
 *               then dlclose; the handle is invalid afterwards.
 *   ug_destroy_me: runs the host's destroy_cb only (the host decides).
 *   ug_send_message / ug_send_result: ops.message / the host's result_cb,
 *               on the caller's thread, before returning.
 *   ug_pause / ug_resume / ug_send_event: the operation on every live
 *               gadget, oldest first.
 * Callbacks may call back into the library (e.g. ug_destroy from destroy_cb).
 */
#ifndef HARVO_HOST_UI_GADGET_HOST_H
#define HARVO_HOST_UI_GADGET_HOST_H

#ifdef __cplusplus
extern "C" {
#endif

/** Sets the colon-separated module directory list \p dirs (copied); null
 * clears it so that UG_MODULE_PATH and the loader's search apply again. */
void ug_host_set_module_path(const char* dirs);

/** Number of live gadgets of the process. */
int ug_host_gadget_count(void);

#ifdef __cplusplus
}
#endif

#endif /* HARVO_HOST_UI_GADGET_HOST_H */
