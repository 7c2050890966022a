// SPDX-License-Identifier: Apache-2.0
// Who owns a bus name. See NameOwners.h.
//
// Asks the daemon each time; callers on hot paths will want the answer
// cached and kept current from the daemon's owner-changed signals.

#include "NameOwners.h"

namespace Quelt {
namespace detail {

std::string NameOwner(GDBusConnection* connection, const std::string& busName) {
    if (connection == nullptr || g_dbus_connection_is_closed(connection) ||
        !g_dbus_is_name(busName.c_str()))
        return std::string();
    GVariant* answer = g_dbus_connection_call_sync(
        connection, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
        "GetNameOwner", g_variant_new("(s)", busName.c_str()), G_VARIANT_TYPE("(s)"),
        G_DBUS_CALL_FLAGS_NONE, -1, nullptr, nullptr);
    if (answer == nullptr)
        return std::string();  // NameHasNoOwner, or the bus is gone
    const gchar* owner = nullptr;
    g_variant_get(answer, "(&s)", &owner);
    std::string result = owner != nullptr ? owner : "";
    g_variant_unref(answer);
    return result;
}

}  // namespace detail
}  // namespace Quelt
