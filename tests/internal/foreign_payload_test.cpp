// SPDX-License-Identifier: Apache-2.0
// Payload shapes as the receiving paths see them: which shapes may reach
// application code, and a plain byte array read as the buffer. The
// documented helper AnalyseServerMsg keeps ignoring every other shape.
#include <gtest/gtest.h>

#include <dlog.h>
#include <glib.h>

#include <string>
#include <vector>

#include "BusPayload.h"
#include "LogCapture.h"
#include "TCMessage.h"
#include "TCServerHelper.h"

using harvo_test::LogCapture;
using Quelt::TCMessage;
using Quelt::TCServerHelper;

namespace {

GVariant* Parsed(const char* text) {
    return g_variant_ref_sink(g_variant_new_parsed(text));
}

std::vector<unsigned char> BufferOf(const TCMessage& message) {
    if (message.m_buffer == nullptr)
        return {};
    return std::vector<unsigned char>(message.m_buffer, message.m_buffer + message.m_size);
}

}  // namespace

TEST(ForeignPayload, OnlyTheThreeMessageShapesAreAccepted) {
    const char* accepted[] = {
        "('f', @u 1, 't', 'm')",
        "('f', @u 1, 't', 'm', [(byte 1,)])",
        "('f', @u 1, 't', 'm', [byte 1, 2])",
        "('f', @u 1, 't', 'm', @ay [])",
    };
    for (const char* text : accepted) {
        GVariant* payload = Parsed(text);
        EXPECT_TRUE(Quelt::detail::IsMessagePayload(payload)) << text;
        g_variant_unref(payload);
    }
    const char* refused[] = {
        "('f', @u 1, 't', 'm', ['a'])",
        "('f', @u 1, 't', 'm', [(byte 1, byte 2)])",
        "('f', @u 1, 't', 'm', [1, 2])",
        "('f', @u 1, 't')",
        "('f', @u 1, 't', 'm', [(byte 1,)], byte 2)",
        "@a{sv} {}",
        "('only',)",
    };
    for (const char* text : refused) {
        GVariant* payload = Parsed(text);
        EXPECT_FALSE(Quelt::detail::IsMessagePayload(payload)) << text;
        g_variant_unref(payload);
    }
    EXPECT_FALSE(Quelt::detail::IsMessagePayload(nullptr));
}

TEST(ForeignPayload, AByteArrayIsUnpackedAsTheBuffer) {
    GVariant* payload = Parsed("('sender', @u 9, 'kind', '{\"a\":1}', [byte 1, 0, 255])");
    TCMessage message;
    char* from = nullptr;
    Quelt::detail::UnpackIntoMessage(payload, &from, &message);
    ASSERT_NE(from, nullptr);
    EXPECT_STREQ(from, "sender");
    EXPECT_EQ(message.m_code, 9u);
    EXPECT_EQ(message.m_type, "kind");
    EXPECT_EQ(message.m_message, "{\"a\":1}");
    EXPECT_EQ(BufferOf(message), (std::vector<unsigned char>{1, 0, 255}));
    delete[] from;

    // The single zero byte and the empty array mean "no buffer", as in the
    // framework's own shape.
    for (const char* text : {"('s', @u 1, 't', 'm', [byte 0])", "('s', @u 1, 't', 'm', @ay [])"}) {
        GVariant* none = Parsed(text);
        TCMessage empty;
        Quelt::detail::UnpackIntoMessage(none, nullptr, &empty);
        EXPECT_EQ(empty.m_buffer, nullptr) << text;
        EXPECT_EQ(empty.m_size, 0u) << text;
        g_variant_unref(none);
    }
    g_variant_unref(payload);
}

TEST(ForeignPayload, AByteArrayIsReadInPlaceWithTheLinesOfStructures) {
    LogCapture capture;
    GVariant* payload = Parsed("('sender', @u 9, 'kind', 'text', [byte 1, 2])");
    Quelt::detail::PayloadView view;
    EXPECT_TRUE(Quelt::detail::ReadMessagePayload(payload, &view));
    EXPECT_TRUE(view.known);
    EXPECT_STREQ(view.from, "sender");
    EXPECT_EQ(view.code, 9u);
    ASSERT_EQ(view.size, 2u);
    // The bytes are the payload's own: nothing was copied.
    GVariant* array = g_variant_get_child_value(payload, 4);
    EXPECT_EQ(view.bytes, g_variant_get_data(array));
    g_variant_unref(array);
    EXPECT_TRUE(capture.HasFramework(DLOG_INFO, "(sussa(y))"));
    EXPECT_TRUE(capture.HasFramework(DLOG_INFO, "get data of (sussa(y))"));
    g_variant_unref(payload);
}

TEST(ForeignPayload, AnalyseServerMsgStillIgnoresAByteArray) {
    GVariant* payload = Parsed("('sender', @u 9, 'kind', 'text', [byte 1, 2])");
    char* from = nullptr;
    unsigned int code = 0;
    unsigned char* buffer = nullptr;
    unsigned int size = 0;
    EXPECT_TRUE(
        TCServerHelper::AnalyseServerMsg(payload, &from, &code, nullptr, nullptr, &buffer, &size));
    EXPECT_EQ(from, nullptr);
    EXPECT_EQ(code, 0u);
    EXPECT_EQ(buffer, nullptr);
    EXPECT_EQ(size, 0u);
    g_variant_unref(payload);
}
