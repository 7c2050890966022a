// SPDX-License-Identifier: Apache-2.0
// The payload a sender builds field by field is the value g_variant_new
// makes from the formats "(suss)" and "(suss@a*)": same type, same
// serialised bytes.

#include <gtest/gtest.h>

#include <glib.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "BusPayload.h"

namespace {

// Both values, serialised, byte for byte; both null counts as the same.
void ExpectSameValue(GVariant* built, GVariant* reference) {
    ASSERT_EQ(built == nullptr, reference == nullptr);
    if (built == nullptr)
        return;
    g_variant_ref_sink(built);
    g_variant_ref_sink(reference);
    EXPECT_STREQ(g_variant_get_type_string(reference), g_variant_get_type_string(built));
    ASSERT_EQ(g_variant_get_size(reference), g_variant_get_size(built));
    EXPECT_EQ(0, memcmp(g_variant_get_data(reference), g_variant_get_data(built),
                        g_variant_get_size(built)));
    EXPECT_TRUE(g_variant_equal(built, reference));
    g_variant_unref(built);
    g_variant_unref(reference);
}

GVariant* Reference(const char* from, guint32 code, const char* type, const char* text,
                    const std::vector<unsigned char>& bytes) {
    if (bytes.empty())
        return g_variant_new("(suss)", from, code, type, text);
    return g_variant_new("(suss@a*)", from, code, type, text,
                         g_variant_new_from_data(G_VARIANT_TYPE("a(y)"), bytes.data(), bytes.size(),
                                                 TRUE, nullptr, nullptr));
}

GVariant* Built(const char* from, guint32 code, const char* type, const char* text,
                const std::vector<unsigned char>& bytes) {
    return Quelt::detail::BuildPayload(from, code, type, text,
                                       bytes.empty() ? nullptr : bytes.data(),
                                       static_cast<unsigned int>(bytes.size()));
}

TEST(BuildPayload, IsTheValueTheFormatStringMakes) {
    const std::string large(70000, 'j');
    std::vector<unsigned char> many(70000);
    for (size_t i = 0; i < many.size(); ++i)
        many[i] = static_cast<unsigned char>(i);
    struct Case {
        const char* from;
        guint32 code;
        const char* type;
        const char* text;
        std::vector<unsigned char> bytes;
    } cases[] = {
        {"bench_sig", 3, "ping", "{\"city\":\"Seoul\",\"days\":[1,2,3],\"v\":7}", {}},
        {"", 0, "", "", {}},
        {"a", 4294967295u, "t\xc3\xa9", "\xe2\x82\xac", {1}},
        {"a", 1, "t", "m", {0}},
        {"a", 1, "t", "m", {0, 0, 9}},
        {"peer", 7, "blob", large.c_str(), many},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.type);
        ExpectSameValue(Built(c.from, c.code, c.type, c.text, c.bytes),
                        Reference(c.from, c.code, c.type, c.text, c.bytes));
    }
}

TEST(BuildPayload, ASizeOfZeroOrNoBytesIsTheFourFieldForm) {
    const unsigned char one = 5;
    GVariant* sizeless = Quelt::detail::BuildPayload("f", 1, "t", "m", &one, 0);
    GVariant* byteless = Quelt::detail::BuildPayload("f", 1, "t", "m", nullptr, 3);
    ExpectSameValue(sizeless, g_variant_new("(suss)", "f", 1u, "t", "m"));
    ExpectSameValue(byteless, g_variant_new("(suss)", "f", 1u, "t", "m"));
}

// GVariant refuses text that is not UTF-8 with a critical warning of its
// own; the payload is then the format string's value, whatever that is.
// In a child process: the warnings must not disturb this one.
TEST(BuildPayloadDeathTest, TextThatIsNotUtf8GoesTheFormatStringsWay) {
    EXPECT_EXIT(
        {
            GVariant* built = Built("f", 1, "t", "bad \xff text", {});
            GVariant* reference = Reference("f", 1, "t", "bad \xff text", {});
            const bool same = (built == nullptr) == (reference == nullptr) &&
                              (built == nullptr || g_variant_equal(built, reference));
            std::exit(same ? 0 : 1);
        },
        ::testing::ExitedWithCode(0), "");
}

}  // namespace
