/* SPDX-License-Identifier: Apache-2.0 */
/*
 * Who owns a bus name (internal to the library).
 *
 * Answers which connection currently owns a well-known bus name, so that a
 * request or a buffer format can be judged by the connection behind a name
 * without asking the bus daemon every time.
 *
 * Threads: everything here may be called from any thread.
 */
#ifndef HARVO_FW_SRC_NAMEOWNERS_H
#define HARVO_FW_SRC_NAMEOWNERS_H

#include <gio/gio.h>

#include <string>

namespace Quelt {
namespace detail {

/* The unique name (":1.42") of the connection that owns |busName| on the
 * bus of |connection| (borrowed), or "" when nobody owns it or the bus
 * cannot say. */
std::string NameOwner(GDBusConnection* connection, const std::string& busName);

}  // namespace detail
}  // namespace Quelt

#endif  // HARVO_FW_SRC_NAMEOWNERS_H
