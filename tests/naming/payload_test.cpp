// SPDX-License-Identifier: Apache-2.0
// Bus payloads: "(suss)" and "(suss@a*)" built as a sender builds them,
// read back as they arrive, and turned into a TCMessage.
#include <gtest/gtest.h>

#include <dlog.h>
#include <glib.h>

#include <cstring>
#include <string>
#include <vector>

#include "LogCapture.h"
#include "TCMessage.h"
#include "TCServerHelper.h"

using harvo_test::LogCapture;
using Quelt::TCMessage;
using Quelt::TCServerHelper;

namespace {

// A request of method "SendMessage", built as the sender builds it.
GVariant* PlainPayload(const char* from, unsigned int code, const char* type, const char* message) {
    return g_variant_ref_sink(g_variant_new("(suss)", from, code, type, message));
}

// A request with buffer, or a reply: the buffer is an "a(y)" array laid
// over the raw bytes, so N elements are N bytes. |bytes| must outlive the
// payload (the array does not copy them).
GVariant* BufferPayload(const char* from, unsigned int code, const char* type, const char* message,
                        const std::vector<unsigned char>& bytes) {
    static const unsigned char kNothing = 0;
    const void* data = bytes.empty() ? &kNothing : bytes.data();
    GVariant* array =
        g_variant_new_from_data(G_VARIANT_TYPE("a(y)"), data, bytes.size(), TRUE, NULL, NULL);
    return g_variant_ref_sink(g_variant_new("(suss@a*)", from, code, type, message, array));
}

// What the receiver gets: the payload's serialised bytes read back under
// its concrete type, as the bus delivers it.
GVariant* Arrive(GVariant* built) {
    GBytes* bytes = g_variant_get_data_as_bytes(built);
    GVariant* arrived = g_variant_ref_sink(
        g_variant_new_from_bytes(G_VARIANT_TYPE(g_variant_get_type_string(built)), bytes, TRUE));
    g_bytes_unref(bytes);
    return arrived;
}

// The unpacked fields; owns what AnalyseServerMsg allocated.
struct Unpacked {
    char* from = nullptr;
    unsigned int code = 0;
    char* type = nullptr;
    char* message = nullptr;
    unsigned char* buffer = nullptr;
    unsigned int size = 0;

    bool Analyse(GVariant* payload) {
        return TCServerHelper::AnalyseServerMsg(payload, &from, &code, &type, &message, &buffer,
                                                &size);
    }
    ~Unpacked() {
        delete[] from;
        delete[] type;
        delete[] message;
        delete[] buffer;
    }
};

}  // namespace

// ---------------------------------------------------------------------------
// AnalyseServerMsg: "(suss)"

TEST(AnalyseServerMsg, PlainRequestIsReadBack) {
    GVariant* payload = PlainPayload("sender", 42, "greeting", "{\"hello\":\"world\"}");
    LogCapture capture;
    Unpacked out;
    EXPECT_TRUE(out.Analyse(payload));
    EXPECT_STREQ("sender", out.from);
    EXPECT_EQ(42u, out.code);
    EXPECT_STREQ("greeting", out.type);
    EXPECT_STREQ("{\"hello\":\"world\"}", out.message);
    EXPECT_EQ(nullptr, out.buffer);
    EXPECT_EQ(0u, out.size);
    // The payload's type string is logged in white.
    EXPECT_EQ(1u, capture.CountFramework(DLOG_INFO, "(suss)")) << capture.Dump();
    EXPECT_EQ(0u, capture.CountFramework(DLOG_INFO, "get data of (suss)"));
    g_variant_unref(payload);
}

TEST(AnalyseServerMsg, PlainRequestLeavesBufferOutputsAsTheyWere) {
    GVariant* payload = Arrive(PlainPayload("a", 1, "t", "m"));
    unsigned char sentinel[4] = {1, 2, 3, 4};
    char* from = nullptr;
    unsigned int code = 0;
    unsigned char* buffer = sentinel;
    unsigned int size = 77;
    EXPECT_TRUE(
        TCServerHelper::AnalyseServerMsg(payload, &from, &code, nullptr, nullptr, &buffer, &size));
    EXPECT_EQ(sentinel, buffer);
    EXPECT_EQ(77u, size);
    EXPECT_STREQ("a", from);
    delete[] from;
    g_variant_unref(payload);
}

TEST(AnalyseServerMsg, StringsAreFreshArrayCopies) {
    GVariant* payload = PlainPayload("f", 0, "t", "m");
    Unpacked out;
    ASSERT_TRUE(out.Analyse(payload));
    const gchar* borrowed = nullptr;
    g_variant_get_child(payload, 0, "&s", &borrowed);
    EXPECT_NE(static_cast<const void*>(borrowed), static_cast<const void*>(out.from));
    g_variant_unref(payload);
    // The copies outlive the payload (ASan checks the reads below).
    EXPECT_STREQ("f", out.from);
    EXPECT_STREQ("t", out.type);
    EXPECT_STREQ("m", out.message);
}

TEST(AnalyseServerMsg, EmptyStringsAndCodeLimitsPass) {
    GVariant* payload = PlainPayload("", 0xFFFFFFFFu, "", "");
    Unpacked out;
    out.code = 5;
    ASSERT_TRUE(out.Analyse(payload));
    EXPECT_STREQ("", out.from);
    EXPECT_EQ(0xFFFFFFFFu, out.code);
    EXPECT_STREQ("", out.type);
    EXPECT_STREQ("", out.message);
    g_variant_unref(payload);
}

TEST(AnalyseServerMsg, NullOutputsAreNotWanted) {
    const std::vector<unsigned char> bytes = {1, 2, 3};
    GVariant* payload = BufferPayload("f", 9, "t", "m", bytes);
    unsigned int code = 0;
    EXPECT_TRUE(TCServerHelper::AnalyseServerMsg(payload, nullptr, &code, nullptr, nullptr, nullptr,
                                                 nullptr));
    EXPECT_EQ(9u, code);

    // The size alone, without the buffer.
    unsigned int size = 0;
    EXPECT_TRUE(TCServerHelper::AnalyseServerMsg(payload, nullptr, &code, nullptr, nullptr, nullptr,
                                                 &size));
    EXPECT_EQ(3u, size);

    // The buffer alone, without the size.
    unsigned char* buffer = nullptr;
    EXPECT_TRUE(TCServerHelper::AnalyseServerMsg(payload, nullptr, &code, nullptr, nullptr, &buffer,
                                                 nullptr));
    ASSERT_NE(nullptr, buffer);
    EXPECT_EQ(3, buffer[2]);
    delete[] buffer;
    g_variant_unref(payload);
}

TEST(AnalyseServerMsg, NullPayloadFailsWithWarning) {
    LogCapture capture;
    Unpacked out;
    out.code = 3;
    EXPECT_FALSE(out.Analyse(nullptr));
    EXPECT_EQ(3u, out.code);
    EXPECT_EQ(nullptr, out.from);
    ASSERT_EQ(1u, capture.CountFramework(DLOG_WARN, "msg is null")) << capture.Dump();
    EXPECT_EQ("TCServerHelper.cpp", capture.Framework("msg is null")[0].file);
    EXPECT_EQ("AnalyseServerMsg", capture.Framework("msg is null")[0].func);
    EXPECT_EQ(1u, capture.Lines().size());
}

TEST(AnalyseServerMsg, EmbeddedNulCutsTheTextAtTheCStringBoundary) {
    // GVariant strings cannot hold a NUL: a sender packs the text of a
    // TCMessage as a C string, so whatever follows a NUL is lost.
    TCMessage original;
    original.m_message = std::string("ab\0cd", 5);
    original.m_type = std::string("t\0u", 3);
    ASSERT_EQ(5u, original.m_message.size());
    GVariant* payload =
        Arrive(PlainPayload("f", 1, original.m_type.c_str(), original.m_message.c_str()));
    Unpacked out;
    ASSERT_TRUE(out.Analyse(payload));
    EXPECT_STREQ("ab", out.message);
    EXPECT_EQ(2u, std::strlen(out.message));
    EXPECT_STREQ("t", out.type);
    g_variant_unref(payload);
}

// ---------------------------------------------------------------------------
// AnalyseServerMsg: "(suss@a*)", arriving as "(sussa(y))"

TEST(AnalyseServerMsg, BufferPayloadIsBuiltWithTheConcreteArrayType) {
    std::vector<unsigned char> bytes = {7, 8, 9};
    GVariant* payload = BufferPayload("f", 1, "t", "m", bytes);
    EXPECT_STREQ("(sussa(y))", g_variant_get_type_string(payload));
    GVariant* array = g_variant_get_child_value(payload, 4);
    // One byte per element.
    EXPECT_EQ(3u, g_variant_n_children(array));
    EXPECT_EQ(3u, g_variant_get_size(array));
    g_variant_unref(array);
    g_variant_unref(payload);
}

TEST(AnalyseServerMsg, BufferPayloadIsReadBackAfterArrival) {
    std::vector<unsigned char> bytes = {0x10, 0x00, 0xFF, 0x7F, 0x00};
    GVariant* built = BufferPayload("server", 7, "blob", "{\"n\":5}", bytes);
    GVariant* payload = Arrive(built);
    EXPECT_STREQ("(sussa(y))", g_variant_get_type_string(payload));

    LogCapture capture;
    Unpacked out;
    EXPECT_TRUE(out.Analyse(payload));
    EXPECT_STREQ("server", out.from);
    EXPECT_EQ(7u, out.code);
    EXPECT_STREQ("blob", out.type);
    EXPECT_STREQ("{\"n\":5}", out.message);
    ASSERT_EQ(bytes.size(), out.size);
    ASSERT_NE(nullptr, out.buffer);
    EXPECT_EQ(0, std::memcmp(bytes.data(), out.buffer, bytes.size()));

    EXPECT_EQ(1u, capture.CountFramework(DLOG_INFO, "(sussa(y))")) << capture.Dump();
    EXPECT_EQ(1u, capture.CountFramework(DLOG_INFO, "get data of (sussa(y))")) << capture.Dump();
    g_variant_unref(payload);
    g_variant_unref(built);
}

TEST(AnalyseServerMsg, BufferPayloadIsReadBackAsBuilt) {
    // Before serialisation (the in-process case of a built reply).
    std::vector<unsigned char> bytes = {1, 2};
    GVariant* payload = BufferPayload("f", 3, "t", "m", bytes);
    Unpacked out;
    ASSERT_TRUE(out.Analyse(payload));
    ASSERT_EQ(2u, out.size);
    EXPECT_EQ(1, out.buffer[0]);
    EXPECT_EQ(2, out.buffer[1]);
    // The buffer is a copy, not the payload's bytes.
    EXPECT_NE(static_cast<const void*>(bytes.data()), static_cast<const void*>(out.buffer));
    g_variant_unref(payload);
}

TEST(AnalyseServerMsg, NormalFormIsReadBack) {
    std::vector<unsigned char> bytes = {4, 5, 6};
    GVariant* built = BufferPayload("f", 3, "t", "m", bytes);
    GVariant* payload = g_variant_ref_sink(g_variant_get_normal_form(built));
    Unpacked out;
    ASSERT_TRUE(out.Analyse(payload));
    ASSERT_EQ(3u, out.size);
    EXPECT_EQ(6, out.buffer[2]);
    g_variant_unref(payload);
    g_variant_unref(built);
}

// The fields as g_variant_get reads them with the format string of each
// shape: what AnalyseServerMsg must hand out, however the payload is held.
struct Expected {
    std::string from, type, message;
    unsigned int code = 0;
    std::vector<unsigned char> array;
};

Expected ReadWithFormat(GVariant* payload) {
    Expected e;
    const gchar *from = nullptr, *type = nullptr, *message = nullptr;
    guint32 code = 0;
    if (g_variant_is_of_type(payload, G_VARIANT_TYPE("(suss)"))) {
        g_variant_get(payload, "(&su&s&s)", &from, &code, &type, &message);
    } else {
        GVariant* array = nullptr;
        g_variant_get(payload, "(&su&s&s@a*)", &from, &code, &type, &message, &array);
        const guchar* data = static_cast<const guchar*>(g_variant_get_data(array));
        e.array.assign(data, data + g_variant_get_size(array));
        g_variant_unref(array);
    }
    e.from = from;
    e.code = code;
    e.type = type;
    e.message = message;
    return e;
}

void ExpectReadAsWithFormat(GVariant* payload, const char* what) {
    SCOPED_TRACE(what);
    const Expected e = ReadWithFormat(payload);
    Unpacked out;
    ASSERT_TRUE(out.Analyse(payload));
    EXPECT_EQ(e.from, out.from);
    EXPECT_EQ(e.code, out.code);
    EXPECT_EQ(e.type, out.type);
    EXPECT_EQ(e.message, out.message);
    const bool hasBuffer = e.array.size() > 1 || (e.array.size() == 1 && e.array[0] != 0);
    if (hasBuffer) {
        ASSERT_EQ(e.array.size(), out.size);
        EXPECT_EQ(0, std::memcmp(e.array.data(), out.buffer, out.size));
    } else {
        EXPECT_EQ(0u, out.size);
        EXPECT_EQ(nullptr, out.buffer);
    }
}

// The same payload bytes, loaded without trusting them (as a stock tool's
// message could reach a reader that skips GDBus's checks).
GVariant* ArriveUntrusted(const std::string& type, const std::vector<unsigned char>& bytes) {
    return g_variant_ref_sink(g_variant_new_from_data(G_VARIANT_TYPE(type.c_str()), bytes.data(),
                                                      bytes.size(), FALSE, NULL, NULL));
}

std::vector<unsigned char> Serialised(GVariant* payload) {
    const guchar* data = static_cast<const guchar*>(g_variant_get_data(payload));
    return std::vector<unsigned char>(data, data + g_variant_get_size(payload));
}

TEST(AnalyseServerMsg, FieldsAreThoseTheFormatStringReads) {
    std::vector<unsigned char> bytes = {0x10, 0x00, 0xFF};
    GVariant* plain = PlainPayload("server", 4000000000u, "tp", "{\"k\":\"v\"}");
    GVariant* buffered = BufferPayload("server", 7, "blob", "{\"n\":5}", bytes);
    ExpectReadAsWithFormat(plain, "plain, built");
    ExpectReadAsWithFormat(buffered, "buffer, built");

    // An array built element by element is held as a tree of children,
    // never serialised, unlike one laid over raw bytes.
    GVariantBuilder elements;
    g_variant_builder_init(&elements, G_VARIANT_TYPE("a(y)"));
    for (unsigned char b : bytes)
        g_variant_builder_add(&elements, "(y)", b);
    GVariant* tree = g_variant_ref_sink(
        g_variant_new("(suss@a(y))", "s", 1u, "t", "m", g_variant_builder_end(&elements)));
    ExpectReadAsWithFormat(tree, "buffer, tree of children");

    for (GVariant* built : {plain, buffered, tree}) {
        GVariant* arrived = Arrive(built);
        ExpectReadAsWithFormat(arrived, "arrived");
        std::vector<unsigned char> wire = Serialised(built);
        const std::string type = g_variant_get_type_string(built);
        GVariant* untrusted = ArriveUntrusted(type, wire);
        ExpectReadAsWithFormat(untrusted, "untrusted");
        // Damaged: the last byte (a frame offset or a string's terminator)
        // changed. GVariant reads such data as defaults where it must, the
        // same way for both readers.
        std::vector<unsigned char> damaged = wire;
        damaged.back() ^= 0x5A;
        GVariant* broken = ArriveUntrusted(type, damaged);
        ExpectReadAsWithFormat(broken, "damaged");
        g_variant_unref(broken);
        g_variant_unref(untrusted);
        g_variant_unref(arrived);
    }
    g_variant_unref(tree);
    g_variant_unref(buffered);
    g_variant_unref(plain);
}

TEST(AnalyseServerMsg, SingleZeroByteArrivesAsNoBuffer) {
    // The reply form of "no buffer"; a real one-byte buffer holding 0
    // cannot be told apart from it.
    std::vector<unsigned char> bytes = {0};
    GVariant* built = BufferPayload("f", 1, "t", "m", bytes);
    GVariant* payload = Arrive(built);
    unsigned char sentinel[1] = {9};
    Unpacked out;
    out.buffer = sentinel;
    out.size = 55;
    EXPECT_TRUE(out.Analyse(payload));
    EXPECT_EQ(sentinel, out.buffer);
    EXPECT_EQ(55u, out.size);
    EXPECT_STREQ("m", out.message);
    out.buffer = nullptr;  // not ours to free
    g_variant_unref(payload);
    g_variant_unref(built);
}

TEST(AnalyseServerMsg, SingleNonZeroByteIsABuffer) {
    std::vector<unsigned char> bytes = {1};
    GVariant* built = BufferPayload("f", 1, "t", "m", bytes);
    GVariant* payload = Arrive(built);
    Unpacked out;
    EXPECT_TRUE(out.Analyse(payload));
    ASSERT_EQ(1u, out.size);
    ASSERT_NE(nullptr, out.buffer);
    EXPECT_EQ(1, out.buffer[0]);
    g_variant_unref(payload);
    g_variant_unref(built);
}

TEST(AnalyseServerMsg, TwoZeroBytesArriveWhole) {
    std::vector<unsigned char> bytes = {0, 0};
    GVariant* built = BufferPayload("f", 1, "t", "m", bytes);
    GVariant* payload = Arrive(built);
    Unpacked out;
    EXPECT_TRUE(out.Analyse(payload));
    ASSERT_EQ(2u, out.size);
    ASSERT_NE(nullptr, out.buffer);
    EXPECT_EQ(0, out.buffer[0]);
    EXPECT_EQ(0, out.buffer[1]);
    g_variant_unref(payload);
    g_variant_unref(built);
}

TEST(AnalyseServerMsg, EmptyArrayArrivesAsNoBuffer) {
    const std::vector<unsigned char> none;
    GVariant* built = BufferPayload("f", 2, "t", "m", none);
    GVariant* payload = Arrive(built);
    Unpacked out;
    out.size = 12;
    EXPECT_TRUE(out.Analyse(payload));
    EXPECT_EQ(nullptr, out.buffer);
    EXPECT_EQ(12u, out.size);
    EXPECT_EQ(2u, out.code);
    g_variant_unref(payload);
    g_variant_unref(built);
}

TEST(AnalyseServerMsg, SixteenMebibyteBufferArrivesWhole) {
    const size_t kSize = 16u * 1024u * 1024u;
    std::vector<unsigned char> bytes(kSize);
    for (size_t i = 0; i < kSize; ++i)
        bytes[i] = static_cast<unsigned char>(i * 31u + 7u);
    GVariant* built = BufferPayload("big", 16, "bulk", "{}", bytes);
    GVariant* payload = Arrive(built);
    Unpacked out;
    EXPECT_TRUE(out.Analyse(payload));
    ASSERT_EQ(kSize, out.size);
    ASSERT_NE(nullptr, out.buffer);
    EXPECT_EQ(0, std::memcmp(bytes.data(), out.buffer, kSize));
    g_variant_unref(payload);
    g_variant_unref(built);
}

// ---------------------------------------------------------------------------
// AnalyseServerMsg: other shapes

TEST(AnalyseServerMsg, UnknownShapeWritesNothingYetSucceeds) {
    GVariant* payload = g_variant_ref_sink(g_variant_new("(ss)", "a", "b"));
    unsigned char sentinel[2] = {1, 2};
    char fromPreset[] = "preset";
    char* from = fromPreset;
    unsigned int code = 31;
    char* type = nullptr;
    char* message = nullptr;
    unsigned char* buffer = sentinel;
    unsigned int size = 2;

    LogCapture capture;
    EXPECT_TRUE(
        TCServerHelper::AnalyseServerMsg(payload, &from, &code, &type, &message, &buffer, &size));
    EXPECT_EQ(fromPreset, from);
    EXPECT_EQ(31u, code);
    EXPECT_EQ(nullptr, type);
    EXPECT_EQ(nullptr, message);
    EXPECT_EQ(sentinel, buffer);
    EXPECT_EQ(2u, size);
    // Only the type string is logged.
    EXPECT_EQ(1u, capture.CountFramework(DLOG_INFO, "(ss)")) << capture.Dump();
    EXPECT_EQ(1u, capture.Lines().size()) << capture.Dump();
    g_variant_unref(payload);
}

TEST(AnalyseServerMsg, PlainByteArrayIsAnUnknownShape) {
    // "ay" instead of "a(y)": not the wire format, so nothing is read.
    const unsigned char bytes[] = {1, 2, 3};
    GVariant* array = g_variant_new_fixed_array(G_VARIANT_TYPE_BYTE, bytes, 3, 1);
    GVariant* payload = g_variant_ref_sink(g_variant_new("(suss@ay)", "f", 1u, "t", "m", array));
    EXPECT_STREQ("(sussay)", g_variant_get_type_string(payload));
    Unpacked out;
    EXPECT_TRUE(out.Analyse(payload));
    EXPECT_EQ(nullptr, out.from);
    EXPECT_EQ(0u, out.code);
    EXPECT_EQ(nullptr, out.buffer);
    g_variant_unref(payload);
}

TEST(AnalyseServerMsg, NonTupleIsAnUnknownShape) {
    GVariant* payload = g_variant_ref_sink(g_variant_new_string("(suss)"));
    Unpacked out;
    EXPECT_TRUE(out.Analyse(payload));
    EXPECT_EQ(nullptr, out.message);
    g_variant_unref(payload);
}

// ---------------------------------------------------------------------------
// SetTCMessage

TEST(SetTCMessage, NullTargetOnlyLogs) {
    LogCapture capture;
    char message[] = "{}";
    TCServerHelper::SetTCMessage(nullptr, message, 1, nullptr, nullptr, 0);
    ASSERT_EQ(1u, capture.CountFramework(DLOG_INFO, "null reply")) << capture.Dump();
    EXPECT_EQ("SetTCMessage", capture.Framework("null reply")[0].func);
    EXPECT_EQ(1u, capture.Lines().size());
}

TEST(SetTCMessage, FillsEveryFieldAndParsesTheText) {
    TCMessage target;
    char message[] = "{\"k\":1}";
    char type[] = "kind";
    unsigned char buffer[3] = {5, 6, 7};
    TCServerHelper::SetTCMessage(&target, message, 12, type, buffer, 3);
    EXPECT_EQ("{\"k\":1}", target.m_message);
    EXPECT_EQ(1, target.m_value["k"].asInt());
    EXPECT_EQ(12u, target.m_code);
    EXPECT_EQ("kind", target.m_type);
    ASSERT_EQ(3u, target.m_size);
    ASSERT_NE(nullptr, target.m_buffer);
    EXPECT_NE(buffer, target.m_buffer);  // copied
    EXPECT_EQ(0, std::memcmp(buffer, target.m_buffer, 3));
}

TEST(SetTCMessage, NullTextsAndZeroSizeKeepWhatWasThere) {
    TCMessage target;
    target.SetMessage("{\"old\":true}");
    target.m_type = "old type";
    const unsigned char old[2] = {1, 2};
    target.SetBuffer(old, 2);
    unsigned char* before = target.m_buffer;

    unsigned char ignored[1] = {9};
    TCServerHelper::SetTCMessage(&target, nullptr, 0, nullptr, ignored, 0);
    EXPECT_EQ("{\"old\":true}", target.m_message);
    EXPECT_TRUE(target.m_value["old"].asBool());
    EXPECT_EQ("old type", target.m_type);
    EXPECT_EQ(before, target.m_buffer);
    EXPECT_EQ(2u, target.m_size);
    // The code is always set.
    EXPECT_EQ(0u, target.m_code);
}

TEST(SetTCMessage, TextThatIsNotJsonIsKept) {
    TCMessage target;
    char message[] = "plain words";
    LogCapture capture;
    TCServerHelper::SetTCMessage(&target, message, 1, nullptr, nullptr, 0);
    EXPECT_EQ("plain words", target.m_message);
    EXPECT_TRUE(target.m_value.isNull());
    EXPECT_EQ(1u, capture.CountFramework(DLOG_INFO, "NOT JSON TYPE MESSAGE![plain words]"))
        << capture.Dump();
}

TEST(SetTCMessage, RoundTripThroughThePayload) {
    TCMessage original;
    original.SetMessage("{\"a\":[1,2]}");
    original.m_code = 99;
    original.m_type = "list";
    const unsigned char bytes[4] = {0, 1, 0, 1};
    original.SetBuffer(bytes, 4);

    std::vector<unsigned char> wire(original.m_buffer, original.m_buffer + original.m_size);
    GVariant* built = BufferPayload("peer", original.m_code, original.m_type.c_str(),
                                    original.GetMessage().c_str(), wire);
    GVariant* payload = Arrive(built);
    Unpacked out;
    ASSERT_TRUE(out.Analyse(payload));

    TCMessage received;
    TCServerHelper::SetTCMessage(&received, out.message, out.code, out.type, out.buffer, out.size);
    EXPECT_STREQ("peer", out.from);
    EXPECT_EQ(original.GetMessage(), received.GetMessage());
    EXPECT_EQ(original.m_code, received.m_code);
    EXPECT_EQ(original.m_type, received.m_type);
    ASSERT_EQ(4u, received.m_size);
    EXPECT_EQ(0, std::memcmp(bytes, received.m_buffer, 4));
    g_variant_unref(payload);
    g_variant_unref(built);
}
