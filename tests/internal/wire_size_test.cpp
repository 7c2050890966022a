// SPDX-License-Identifier: Apache-2.0
// The wire size the endpoint computes before sending bounds what GDBus
// really marshals, from above and closely, so a message it lets through
// never exceeds the bus's limit and one it refuses would have been close.

#include <gtest/gtest.h>

#include <gio/gio.h>

#include <vector>

#include "BusLimits.h"

namespace {

TEST(SizeLimits, TheComputedWireSizeBoundsWhatGDBusMarshals) {
    for (unsigned size : {1u, 2u, 1000u, 65537u}) {
        std::vector<unsigned char> bytes(size, 7);
        GDBusMessage* message = g_dbus_message_new_method_call(
            "dest.message", "/dest/message", "dest.message", "SendMessageWithBuffer");
        g_dbus_message_set_body(
            message, g_variant_new("(suss@a(y))", "from", 1u, "type", "{\"a\":1}",
                                   g_variant_new_from_data(G_VARIANT_TYPE("a(y)"), bytes.data(),
                                                           size, TRUE, nullptr, nullptr)));
        gsize marshalled = 0;
        guchar* blob =
            g_dbus_message_to_blob(message, &marshalled, G_DBUS_CAPABILITY_FLAGS_NONE, nullptr);
        ASSERT_NE(blob, nullptr);
        const size_t computed = Quelt::detail::MessageWireSize(
            {"dest.message", "/dest/message", "dest.message", "SendMessageWithBuffer"}, "from",
            "type", "{\"a\":1}", true, size);
        EXPECT_GE(computed, marshalled) << size;
        EXPECT_LE(computed, marshalled + 256) << size;
        g_free(blob);
        g_object_unref(message);
    }
}

}  // namespace
