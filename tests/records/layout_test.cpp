// SPDX-License-Identifier: Apache-2.0
// Byte layout of the records that cross the library's C boundary: the
// exported records of pelx.h and the UI gadget library's records that the
// library fills or reads. Each size and offset is written out for both
// architectures the library ships on, 32-bit ARM (armv7l, the devices) and
// 64-bit (the build machines), and the value of the running one is checked.
// A field that moves therefore fails here, on whichever machine runs the
// tests, instead of on a device.
#include <gtest/gtest.h>

#include <ui-gadget-module.h>
#include <ui-gadget.h>

#include <cstddef>
#include <type_traits>

#include "pelx.h"

namespace {

static_assert(sizeof(void*) == 4 || sizeof(void*) == 8, "a 32-bit or 64-bit target");

// The expected value on this target: the first on 32-bit, the second on 64-bit.
constexpr std::size_t On(std::size_t on32, std::size_t on64) {
    return sizeof(void*) == 4 ? on32 : on64;
}

TEST(RecordLayout, TheTargetIsOneOfTheTwoArchitectures) {
    // On both, int and enums are 32 bits wide, bool one byte, and every
    // pointer (data or function) has the width of void*.
    EXPECT_EQ(4u, sizeof(int));
    EXPECT_EQ(4u, sizeof(unsigned int));
    EXPECT_EQ(1u, sizeof(bool));
    EXPECT_EQ(4u, sizeof(enum ug_option));
    EXPECT_EQ(sizeof(void*), sizeof(void (*)(void)));
    EXPECT_EQ(sizeof(void*), sizeof(unsigned long));
}

TEST(RecordLayout, Message) {
    static_assert(std::is_standard_layout<pelx_message_s>::value, "flat record");
    EXPECT_EQ(On(20, 40), sizeof(pelx_message_s));
    EXPECT_EQ(On(4, 8), alignof(pelx_message_s));
    EXPECT_EQ(On(0, 0), offsetof(pelx_message_s, info));
    EXPECT_EQ(On(4, 8), offsetof(pelx_message_s, code));
    EXPECT_EQ(On(8, 16), offsetof(pelx_message_s, type));
    EXPECT_EQ(On(12, 24), offsetof(pelx_message_s, buffer));
    EXPECT_EQ(On(16, 32), offsetof(pelx_message_s, buffer_size));
}

TEST(RecordLayout, Event) {
    static_assert(std::is_standard_layout<pelx_event_s>::value, "flat record");
    EXPECT_EQ(On(28, 48), sizeof(pelx_event_s));
    EXPECT_EQ(On(4, 8), alignof(pelx_event_s));
    EXPECT_EQ(On(0, 0), offsetof(pelx_event_s, gadget));
    EXPECT_EQ(On(4, 8), offsetof(pelx_event_s, type));
    EXPECT_EQ(On(8, 12), offsetof(pelx_event_s, deleted));
    EXPECT_EQ(On(12, 16), offsetof(pelx_event_s, data));
    EXPECT_EQ(On(16, 24), offsetof(pelx_event_s, reply));
    EXPECT_EQ(On(20, 32), offsetof(pelx_event_s, sync));
    EXPECT_EQ(On(24, 40), offsetof(pelx_event_s, param));
    EXPECT_EQ(On(4, 8), sizeof(pelx_event_param_s));
}

TEST(RecordLayout, GadgetActivityOps) {
    static_assert(std::is_standard_layout<pelx_gadget_activity_ops>::value, "flat record");
    EXPECT_EQ(On(52, 104), sizeof(pelx_gadget_activity_ops));
    EXPECT_EQ(On(0, 0), offsetof(pelx_gadget_activity_ops, create_cb));
    EXPECT_EQ(On(4, 8), offsetof(pelx_gadget_activity_ops, start_cb));
    EXPECT_EQ(On(8, 16), offsetof(pelx_gadget_activity_ops, pause_cb));
    EXPECT_EQ(On(12, 24), offsetof(pelx_gadget_activity_ops, resume_cb));
    EXPECT_EQ(On(16, 32), offsetof(pelx_gadget_activity_ops, destroy_cb));
    EXPECT_EQ(On(20, 40), offsetof(pelx_gadget_activity_ops, message_cb));
    EXPECT_EQ(On(24, 48), offsetof(pelx_gadget_activity_ops, event_cb));
    EXPECT_EQ(On(28, 56), offsetof(pelx_gadget_activity_ops, pelx_event_cb));
    EXPECT_EQ(On(32, 64), offsetof(pelx_gadget_activity_ops, clear_pelx_event_cb));
    EXPECT_EQ(On(36, 72), offsetof(pelx_gadget_activity_ops, pelx_msg_received_cb));
    EXPECT_EQ(On(40, 80), offsetof(pelx_gadget_activity_ops, pelx_msg_replied_cb));
    EXPECT_EQ(On(44, 88), offsetof(pelx_gadget_activity_ops, event_handler));
    EXPECT_EQ(On(48, 96), offsetof(pelx_gadget_activity_ops, priv_data));
}

TEST(RecordLayout, GadgetModuleOps) {
    static_assert(std::is_standard_layout<ug_module_ops>::value, "flat record");
    // The 64-bit record ends in four bytes of padding after the option.
    EXPECT_EQ(On(56, 112), sizeof(ug_module_ops));
    EXPECT_EQ(On(0, 0), offsetof(ug_module_ops, create));
    EXPECT_EQ(On(4, 8), offsetof(ug_module_ops, start));
    EXPECT_EQ(On(8, 16), offsetof(ug_module_ops, pause));
    EXPECT_EQ(On(12, 24), offsetof(ug_module_ops, resume));
    EXPECT_EQ(On(16, 32), offsetof(ug_module_ops, destroy));
    EXPECT_EQ(On(20, 40), offsetof(ug_module_ops, message));
    EXPECT_EQ(On(24, 48), offsetof(ug_module_ops, event));
    EXPECT_EQ(On(28, 56), offsetof(ug_module_ops, key_event));
    EXPECT_EQ(On(32, 64), offsetof(ug_module_ops, destroying));
    EXPECT_EQ(On(36, 72), offsetof(ug_module_ops, reserved));
    EXPECT_EQ(On(12, 24), sizeof(ug_module_ops::reserved));
    EXPECT_EQ(On(48, 96), offsetof(ug_module_ops, priv));
    EXPECT_EQ(On(52, 104), offsetof(ug_module_ops, opt));
}

TEST(RecordLayout, GadgetHostCallbacks) {
    static_assert(std::is_standard_layout<ug_cbs>::value, "flat record");
    EXPECT_EQ(On(32, 64), sizeof(ug_cbs));
    EXPECT_EQ(On(0, 0), offsetof(ug_cbs, layout_cb));
    EXPECT_EQ(On(4, 8), offsetof(ug_cbs, result_cb));
    EXPECT_EQ(On(8, 16), offsetof(ug_cbs, destroy_cb));
    EXPECT_EQ(On(12, 24), offsetof(ug_cbs, end_cb));
    EXPECT_EQ(On(16, 32), offsetof(ug_cbs, priv));
    EXPECT_EQ(On(20, 40), offsetof(ug_cbs, reserved));
    EXPECT_EQ(On(12, 24), sizeof(ug_cbs::reserved));
}

}  // namespace
