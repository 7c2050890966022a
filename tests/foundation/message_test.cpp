// SPDX-License-Identifier: Apache-2.0
// TCMessage: code, type, the owned buffer through copies and assignment,
// SetBuffer, GetBuffer, CopyBuffer, and the regenerating assignment.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "LogCapture.h"
#include "TCMessage.h"

using Quelt::TCData;
using Quelt::TCMessage;

namespace {

const char kSpaced[] = "{ \"a\" : 1 , \"b\" : \"two\" }";
const char kCompact[] = "{\"a\":1,\"b\":\"two\"}";

std::vector<unsigned char> Bytes(const std::string& text) {
    return std::vector<unsigned char>(text.begin(), text.end());
}

std::vector<unsigned char> BufferOf(const TCMessage& message) {
    if (message.m_buffer == nullptr)
        return {};
    return std::vector<unsigned char>(message.m_buffer, message.m_buffer + message.m_size);
}

// A message with every member set.
TCMessage Full(const std::string& text, unsigned int code, const std::string& type,
               const std::string& bytes) {
    TCMessage message;
    message.SetMessage(text);
    message.m_code = code;
    message.m_type = type;
    message.SetBuffer(reinterpret_cast<const unsigned char*>(bytes.data()),
                      static_cast<unsigned int>(bytes.size()));
    return message;
}

}  // namespace

TEST(TCMessage, DefaultConstructedMessageIsEmpty) {
    harvo_test::LogCapture capture;
    TCMessage message;
    EXPECT_EQ(0u, message.m_code);
    EXPECT_EQ("", message.m_type);
    EXPECT_EQ(nullptr, message.m_buffer);
    EXPECT_EQ(0u, message.m_size);
    EXPECT_EQ("", message.m_message);
    EXPECT_TRUE(message.m_value.isNull());
    EXPECT_EQ("no error", message.GetError());
    EXPECT_TRUE(capture.Lines().empty()) << capture.Dump();
}

TEST(TCMessage, SetBufferCopiesTheBytes) {
    TCMessage message;
    unsigned char source[] = {1, 2, 3, 0, 5};
    message.SetBuffer(source, sizeof(source));
    ASSERT_NE(nullptr, message.m_buffer);
    EXPECT_NE(source, message.m_buffer);
    EXPECT_EQ(5u, message.m_size);
    source[0] = 99;
    EXPECT_EQ((std::vector<unsigned char>{1, 2, 3, 0, 5}), BufferOf(message));
}

TEST(TCMessage, SetBufferReplacesTheOldBuffer) {
    TCMessage message;
    message.SetBuffer(reinterpret_cast<const unsigned char*>("first"), 5);
    message.SetBuffer(reinterpret_cast<const unsigned char*>("second!"), 7);
    EXPECT_EQ(Bytes("second!"), BufferOf(message));
    EXPECT_EQ(7u, message.m_size);
}

TEST(TCMessage, SetBufferWithNullAndZeroDropsTheBuffer) {
    TCMessage message;
    message.SetBuffer(reinterpret_cast<const unsigned char*>("data"), 4);
    message.SetBuffer(nullptr, 0);
    EXPECT_EQ(nullptr, message.m_buffer);
    EXPECT_EQ(0u, message.m_size);
}

TEST(TCMessage, SetBufferWithSizeZeroDropsTheBufferWhateverThePointer) {
    TCMessage message;
    message.SetBuffer(reinterpret_cast<const unsigned char*>("data"), 4);
    message.SetBuffer(reinterpret_cast<const unsigned char*>("ignored"), 0);
    EXPECT_EQ(nullptr, message.m_buffer);
    EXPECT_EQ(0u, message.m_size);
}

TEST(TCMessage, GetBufferBorrowsTheBuffer) {
    TCMessage message;
    message.SetBuffer(reinterpret_cast<const unsigned char*>("abc"), 3);
    unsigned char* borrowed = nullptr;
    EXPECT_EQ(3u, message.GetBuffer(borrowed));
    EXPECT_EQ(message.m_buffer, borrowed);
}

TEST(TCMessage, GetBufferWithoutBufferWritesNull) {
    const TCMessage message;
    unsigned char sentinel = 0;
    unsigned char* borrowed = &sentinel;
    EXPECT_EQ(0u, message.GetBuffer(borrowed));
    EXPECT_EQ(nullptr, borrowed);
}

TEST(TCMessage, CopyBufferHandsOverANewCopy) {
    TCMessage message;
    message.SetBuffer(reinterpret_cast<const unsigned char*>("payload"), 7);
    unsigned char* copy = nullptr;
    EXPECT_EQ(7u, message.CopyBuffer(&copy));
    ASSERT_NE(nullptr, copy);
    EXPECT_NE(message.m_buffer, copy);
    EXPECT_EQ(0, std::memcmp("payload", copy, 7));
    copy[0] = 'P';
    EXPECT_EQ(Bytes("payload"), BufferOf(message));
    delete[] copy;  // the caller owns it
}

TEST(TCMessage, CopyBufferWithoutBufferReturnsZeroAndWritesNothing) {
    const TCMessage message;
    unsigned char sentinel = 0;
    unsigned char* target = &sentinel;
    EXPECT_EQ(0u, message.CopyBuffer(&target));
    EXPECT_EQ(&sentinel, target);
}

TEST(TCMessage, CopyBufferIntoNullReturnsZero) {
    TCMessage message;
    message.SetBuffer(reinterpret_cast<const unsigned char*>("abc"), 3);
    EXPECT_EQ(0u, message.CopyBuffer(nullptr));
}

TEST(TCMessage, CopyConstructorCopiesEverythingAndRegenerates) {
    TCMessage original = Full(kSpaced, 7, "kind", "bytes");
    TCMessage copy(original);
    EXPECT_EQ(7u, copy.m_code);
    EXPECT_EQ("kind", copy.m_type);
    EXPECT_EQ(kCompact, copy.m_message);
    EXPECT_EQ(original.m_value, copy.m_value);
    EXPECT_EQ(5u, copy.m_size);
    EXPECT_EQ(Bytes("bytes"), BufferOf(copy));
    EXPECT_NE(original.m_buffer, copy.m_buffer);
    EXPECT_EQ(kSpaced, original.m_message);
}

TEST(TCMessage, CopyConstructorWithoutBufferHasNone) {
    TCMessage original = Full("[1]", 1, "t", "");
    TCMessage copy(original);
    EXPECT_EQ(nullptr, copy.m_buffer);
    EXPECT_EQ(0u, copy.m_size);
}

TEST(TCMessage, CopiedBufferIsIndependent) {
    TCMessage* original = new TCMessage(Full("[1]", 1, "t", "shared?"));
    TCMessage copy(*original);
    original->m_buffer[0] = 'S';
    EXPECT_EQ(Bytes("shared?"), BufferOf(copy));
    original->SetBuffer(reinterpret_cast<const unsigned char*>("new"), 3);
    EXPECT_EQ(Bytes("shared?"), BufferOf(copy));
    delete original;  // freeing the original's buffer leaves the copy's
    EXPECT_EQ(Bytes("shared?"), BufferOf(copy));
    copy.m_buffer[0] = 'X';
    EXPECT_EQ(Bytes("Xhared?"), BufferOf(copy));
}

TEST(TCMessage, AssignmentCopiesEverythingAndRegenerates) {
    TCMessage source = Full(kSpaced, 9, "reply", "12345");
    TCMessage target = Full("{\"old\":true}", 1, "old", "old buffer");
    target = source;
    EXPECT_EQ(9u, target.m_code);
    EXPECT_EQ("reply", target.m_type);
    // Unlike TCData's assignment, the message's assignment regenerates.
    EXPECT_EQ(kCompact, target.m_message);
    EXPECT_EQ(source.m_value, target.m_value);
    EXPECT_FALSE(target.m_value.isMember("old"));
    EXPECT_EQ(Bytes("12345"), BufferOf(target));
    EXPECT_NE(source.m_buffer, target.m_buffer);
    EXPECT_EQ(kSpaced, source.m_message);
}

TEST(TCMessage, BodyAssignmentThroughTheBaseKeepsTheSpacing) {
    TCMessage source = Full(kSpaced, 9, "reply", "12345");
    TCMessage target;
    static_cast<TCData&>(target) = static_cast<const TCData&>(source);
    EXPECT_EQ(kSpaced, target.m_message);
    // Only the body was assigned.
    EXPECT_EQ(0u, target.m_code);
    EXPECT_EQ(nullptr, target.m_buffer);
}

TEST(TCMessage, AssignmentOfAMessageWithoutBufferDropsTheTargets) {
    TCMessage source = Full("[1]", 2, "t", "");
    TCMessage target = Full("[2]", 3, "u", "to be dropped");
    target = source;
    EXPECT_EQ(nullptr, target.m_buffer);
    EXPECT_EQ(0u, target.m_size);
}

TEST(TCMessage, AssignedBufferIsIndependent) {
    TCMessage source = Full("[1]", 2, "t", "abc");
    TCMessage target;
    target = source;
    source.SetBuffer(reinterpret_cast<const unsigned char*>("zz"), 2);
    EXPECT_EQ(Bytes("abc"), BufferOf(target));
    target.SetBuffer(nullptr, 0);
    EXPECT_EQ(Bytes("zz"), BufferOf(source));
}

TEST(TCMessage, AssignmentLeavesTheErrorAlone) {
    harvo_test::LogCapture capture;
    TCMessage source = Full("[1]", 2, "t", "");
    TCMessage target;
    target.SetMessage("not json");
    const std::string error = target.GetError();
    ASSERT_NE("no error", error);
    target = source;
    EXPECT_EQ(error, target.GetError());
    EXPECT_EQ("[1]", target.m_message);
}

TEST(TCMessage, AssignmentOfATreeOnlyBodyGeneratesTheText) {
    TCMessage source;
    source.m_value["k"] = "v";
    TCMessage target;
    target = source;
    EXPECT_EQ("{\"k\":\"v\"}", target.m_message);
    EXPECT_EQ("", source.m_message);
}

TEST(TCMessage, AssignmentOfANonJsonBodyKeepsItsText) {
    TCMessage source;
    source.SetMessage("plain");
    TCMessage target = Full("[1]", 1, "t", "x");
    target = source;
    EXPECT_EQ("plain", target.m_message);
    EXPECT_TRUE(target.m_value.isNull());
}

TEST(TCMessage, SelfAssignmentChangesNothing) {
    TCMessage message = Full(kSpaced, 4, "self", "mine");
    unsigned char* buffer = message.m_buffer;
    TCMessage& alias = message;
    message = alias;
    EXPECT_EQ(buffer, message.m_buffer);  // not freed and replaced
    EXPECT_EQ(Bytes("mine"), BufferOf(message));
    EXPECT_EQ(kSpaced, message.m_message);
    EXPECT_EQ(4u, message.m_code);
    EXPECT_EQ("self", message.m_type);
}

TEST(TCMessage, DestructorFreesTheBuffer) {
    // Run under AddressSanitizer, a leak of any of these fails the program.
    for (int i = 0; i < 100; ++i) {
        TCMessage message = Full("[1]", 1, "t", std::string(1000, 'b'));
        TCMessage copy(message);
        TCMessage assigned;
        assigned = copy;
        EXPECT_EQ(1000u, assigned.m_size);
    }
}
