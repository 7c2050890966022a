// SPDX-License-Identifier: Apache-2.0
// Bad input for the message record: empty and invalid texts, nesting far
// beyond the reader's limit, embedded NUL characters, a 64 MiB buffer.
#include <gtest/gtest.h>

#include <dlog.h>
#include <json/json.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "LogCapture.h"
#include "TCMessage.h"

using harvo_test::LogCapture;
using Quelt::TCData;
using Quelt::TCMessage;

namespace {

std::string NotJson(const std::string& text) {
    return "NOT JSON TYPE MESSAGE![" + text + "]";
}

struct ReaderResult {
    bool parsed = false;
    std::string errors;
};

// What JsonCpp's default reader makes of |text| (never throws).
ReaderResult Read(const std::string& text) {
    Json::CharReaderBuilder builder;
    std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    Json::Value ignored;
    ReaderResult result;
    try {
        result.parsed =
            reader->parse(text.data(), text.data() + text.size(), &ignored, &result.errors);
    } catch (const std::exception& e) {
        result.errors = e.what();
    }
    return result;
}

std::string Nested(int depth, const std::string& open, const std::string& close) {
    std::string text;
    text.reserve(depth * (open.size() + close.size()) + 1);
    for (int i = 0; i < depth; ++i)
        text += open;
    text += "1";
    for (int i = 0; i < depth; ++i)
        text += close;
    return text;
}

}  // namespace

TEST(BadInput, InvalidTextsFailWithTheReadersErrorAndOneLine) {
    const std::vector<std::string> texts = {"",
                                            " ",
                                            "\n\t",
                                            "{",
                                            "}",
                                            "[1,2",
                                            "{\"a\":}",
                                            "{a:1}",
                                            "'single'",
                                            "{\"a\" 1}",
                                            "\"unterminated",
                                            "nul",
                                            "tru",
                                            "\xff\xfe{}",
                                            "/* only a comment */"};
    for (const std::string& text : texts) {
        SCOPED_TRACE("text: [" + text + "]");
        ReaderResult expected = Read(text);
        ASSERT_FALSE(expected.parsed);
        LogCapture capture;
        TCData body(text);
        EXPECT_FALSE(body.Parse());
        EXPECT_TRUE(body.m_value.isNull());
        EXPECT_EQ(text, body.m_message);
        EXPECT_EQ(expected.errors, body.GetError());
        EXPECT_NE("no error", body.GetError());
        // One line for the constructor's parse, one for the explicit Parse.
        EXPECT_EQ(2u, capture.CountFramework(DLOG_INFO, NotJson(text))) << capture.Dump();
        EXPECT_EQ(2u, capture.Lines().size());

        TCMessage message;
        EXPECT_FALSE(message.SetMessage(text));
        EXPECT_EQ(expected.errors, message.GetError());
        EXPECT_EQ(text, message.GetMessage());
    }
}

TEST(BadInput, PartiallyReadTextLeavesANullTree) {
    // The reader builds part of the tree before it fails; none of it stays.
    TCData body(std::string("[1, 2, {\"a\": 3"));
    EXPECT_TRUE(body.m_value.isNull());
    EXPECT_EQ("[1, 2, {\"a\": 3", body.GetMessage());
    TCData copy(body);
    EXPECT_EQ("[1, 2, {\"a\": 3", copy.m_message);
}

TEST(BadInput, TenThousandNestedArraysFailWithoutCrashing) {
    const std::string text = Nested(10000, "[", "]");
    LogCapture capture;
    TCData body(text);
    EXPECT_TRUE(body.m_value.isNull());
    EXPECT_EQ(text, body.m_message);
    EXPECT_FALSE(body.m_error.empty());
    EXPECT_EQ(Read(text).errors, body.GetError());
    EXPECT_NE("no error", body.GetError());
    EXPECT_EQ(1u, capture.CountFramework(DLOG_INFO, NotJson(text)));
    EXPECT_EQ(1u, capture.Lines().size());
    // Parsing again fails the same way.
    EXPECT_FALSE(body.Parse());
    EXPECT_EQ(2u, capture.CountFramework(DLOG_INFO, NotJson(text)));
}

TEST(BadInput, TenThousandNestedObjectsFailThroughSetMessage) {
    const std::string text = Nested(10000, "{\"a\":", "}");
    TCMessage message;
    LogCapture capture;
    EXPECT_FALSE(message.SetMessage(text));
    EXPECT_TRUE(message.m_value.isNull());
    EXPECT_EQ(text, message.GetMessage());
    EXPECT_NE("no error", message.GetError());
    EXPECT_EQ(1u, capture.CountFramework(DLOG_INFO, NotJson(text)));
    // Copies keep the text as it was.
    TCMessage copy(message);
    EXPECT_EQ(text, copy.m_message);
}

TEST(BadInput, ModerateNestingParsesAndRegenerates) {
    const std::string text = Nested(500, "[ ", " ]");
    TCData body(text);
    EXPECT_EQ("no error", body.GetError());
    TCData copy(body);
    EXPECT_EQ(Nested(500, "[", "]"), copy.m_message);
}

TEST(BadInput, EmbeddedNulIsPartOfTheText) {
    const std::string text("{\"a\":\"x\0y\"}", 12);
    LogCapture capture;
    TCData body(text);
    // Parsing stopped at the NUL would have met an unterminated string.
    EXPECT_EQ("no error", body.GetError());
    EXPECT_EQ(std::string("x\0y", 3), body.m_value["a"].asString());
    EXPECT_EQ(text, body.GetMessage());
    EXPECT_TRUE(capture.Lines().empty()) << capture.Dump();
    // The generated text escapes the NUL.
    TCData copy(body);
    EXPECT_EQ("{\"a\":\"x\\u0000y\"}", copy.m_message);
}

TEST(BadInput, EmbeddedNulInNonJsonTextIsKeptWhole) {
    const std::string text("ab\0cd", 5);
    LogCapture capture;
    TCData body(text);
    EXPECT_TRUE(body.m_value.isNull());
    EXPECT_EQ(text, body.m_message);
    EXPECT_EQ(5u, body.GetMessage().size());
    EXPECT_EQ(Read(text).errors, body.GetError());
    // The log line's %s ends at the NUL.
    EXPECT_EQ(1u, capture.CountFramework(DLOG_INFO, NotJson("ab"))) << capture.Dump();
}

TEST(BadInput, LeadingNulIsNotAnEmptyText) {
    const std::string text("\0[1]", 4);
    TCData body(text);
    EXPECT_TRUE(body.m_value.isNull());
    EXPECT_EQ(text, body.m_message);
    EXPECT_NE("no error", body.GetError());
}

TEST(BadInput, SixtyFourMebibyteBuffer) {
    const unsigned int kSize = 64u * 1024u * 1024u;
    std::vector<unsigned char> data(kSize);
    for (unsigned int i = 0; i < kSize; ++i)
        data[i] = static_cast<unsigned char>(i * 131u >> 3);

    TCMessage message;
    message.SetMessage("{\"big\":true}");
    message.SetBuffer(data.data(), kSize);
    ASSERT_EQ(kSize, message.m_size);
    ASSERT_NE(nullptr, message.m_buffer);
    EXPECT_EQ(0, std::memcmp(data.data(), message.m_buffer, kSize));

    TCMessage copy(message);
    ASSERT_EQ(kSize, copy.m_size);
    EXPECT_NE(message.m_buffer, copy.m_buffer);
    EXPECT_EQ(0, std::memcmp(data.data(), copy.m_buffer, kSize));

    TCMessage assigned;
    assigned.SetBuffer(data.data(), 16);
    assigned = message;
    ASSERT_EQ(kSize, assigned.m_size);
    EXPECT_NE(message.m_buffer, assigned.m_buffer);
    EXPECT_EQ(0, std::memcmp(data.data(), assigned.m_buffer, kSize));

    unsigned char* out = nullptr;
    ASSERT_EQ(kSize, message.CopyBuffer(&out));
    ASSERT_NE(nullptr, out);
    EXPECT_EQ(0, std::memcmp(data.data(), out, kSize));
    delete[] out;

    unsigned char* borrowed = nullptr;
    EXPECT_EQ(kSize, copy.GetBuffer(borrowed));
    EXPECT_EQ(copy.m_buffer, borrowed);

    // Changing one leaves the others.
    message.m_buffer[kSize - 1] ^= 0xFF;
    EXPECT_EQ(data[kSize - 1], copy.m_buffer[kSize - 1]);
    EXPECT_EQ(data[kSize - 1], assigned.m_buffer[kSize - 1]);
    message.SetBuffer(nullptr, 0);
    EXPECT_EQ(nullptr, message.m_buffer);
    EXPECT_EQ(0, std::memcmp(data.data(), copy.m_buffer, kSize));
}
