// SPDX-License-Identifier: Apache-2.0
// TCData: text and tree side by side, parsing, generating, the const and
// non-const GetMessage, GetString, GetError, copy versus assignment.
#include <gtest/gtest.h>

#include <dlog.h>
#include <json/json.h>

#include <memory>
#include <string>
#include <type_traits>

#include "LogCapture.h"
#include "TCMessage.h"

using harvo_test::LogCapture;
using Quelt::TCData;

namespace {

const char kWarning[] = "<<WARN: JSON TYPE MESSAGE, GENERATE STRING FIRST>>";
const char kSpaced[] = "{ \"a\" : 1 ,\n  \"b\" : [ 1, 2 ] }";
const char kCompact[] = "{\"a\":1,\"b\":[1,2]}";

// What JsonCpp's default reader says about |text|.
std::string ReaderError(const std::string& text) {
    Json::CharReaderBuilder builder;
    std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    Json::Value ignored;
    std::string errors;
    reader->parse(text.data(), text.data() + text.size(), &ignored, &errors);
    return errors;
}

std::string NotJson(const std::string& text) {
    return "NOT JSON TYPE MESSAGE![" + text + "]";
}

}  // namespace

TEST(TCData, DefaultConstructedBodyIsEmptyAndDoesNotParse) {
    LogCapture capture;
    TCData body;
    EXPECT_EQ("", body.m_message);
    EXPECT_TRUE(body.m_value.isNull());
    EXPECT_EQ("", body.m_error);
    EXPECT_EQ("no error", body.GetError());
    EXPECT_EQ("", body.GetMessage());
    EXPECT_EQ("", static_cast<const TCData&>(body).GetMessage());
    EXPECT_EQ("", body.GetString());
    EXPECT_TRUE(capture.Lines().empty()) << capture.Dump();
}

TEST(TCData, EmptyTextIsNotJsonAndGetErrorGivesTheReadersMessage) {
    LogCapture capture;
    TCData body(std::string(""));
    EXPECT_TRUE(body.m_value.isNull());
    EXPECT_EQ("", body.m_message);
    const std::string expected = ReaderError("");
    ASSERT_FALSE(expected.empty());
    EXPECT_EQ(expected, body.m_error);
    EXPECT_EQ(expected, body.GetError());
    EXPECT_NE("no error", body.GetError());
    EXPECT_EQ(1u, capture.CountFramework(DLOG_INFO, NotJson(""))) << capture.Dump();
    EXPECT_EQ(1u, capture.Lines().size());
}

TEST(TCData, ParseOfTheDefaultBodyFailsLikeTheEmptyText) {
    TCData body;
    LogCapture capture;
    EXPECT_FALSE(body.Parse());
    EXPECT_EQ(ReaderError(""), body.GetError());
    EXPECT_EQ(1u, capture.CountFramework(DLOG_INFO, NotJson(""))) << capture.Dump();
}

TEST(TCData, ValidJsonFillsTheTreeAndReportsNoError) {
    LogCapture capture;
    TCData body(std::string("{\"name\":\"x\",\"n\":3}"));
    EXPECT_EQ("x", body.m_value["name"].asString());
    EXPECT_EQ(3, body.m_value["n"].asInt());
    EXPECT_EQ("", body.m_error);
    EXPECT_EQ("no error", body.GetError());
    EXPECT_TRUE(capture.Lines().empty()) << capture.Dump();
}

TEST(TCData, NonJsonTextIsKeptWithANullTreeAndTheError) {
    LogCapture capture;
    TCData body(std::string("hello there"));
    EXPECT_EQ("hello there", body.m_message);
    EXPECT_TRUE(body.m_value.isNull());
    EXPECT_EQ(ReaderError("hello there"), body.GetError());
    EXPECT_EQ("hello there", body.GetMessage());
    EXPECT_EQ("hello there", static_cast<const TCData&>(body).GetMessage());
    EXPECT_EQ("hello there", body.GetString());
    std::vector<harvo_test::FrameworkLine> lines = capture.Framework(NotJson("hello there"));
    ASSERT_EQ(1u, lines.size()) << capture.Dump();
    EXPECT_EQ("TCMessage.cpp", lines[0].file);
    EXPECT_EQ("Parse", lines[0].func);
    EXPECT_EQ("nil", lines[0].project);
    EXPECT_EQ(1u, capture.CountFramework(DLOG_INFO, NotJson("hello there")));
    // Parsing again fails again, with its line again.
    EXPECT_FALSE(body.Parse());
    EXPECT_EQ(2u, capture.CountFramework(DLOG_INFO, NotJson("hello there")));
}

TEST(TCData, TreeOnlyBodyAndTheThreeReaders) {
    TCData body;
    body.m_value["k"] = "v";
    body.m_value["n"] = 5;
    const TCData& view = body;

    // The const GetMessage may not generate: it warns instead.
    EXPECT_EQ(kWarning, view.GetMessage());
    EXPECT_EQ("", body.m_message);
    // GetString serialises on the spot without storing.
    EXPECT_EQ("{\"k\":\"v\",\"n\":5}", view.GetString());
    EXPECT_EQ("", body.m_message);
    EXPECT_EQ(kWarning, view.GetMessage());
    // The non-const GetMessage generates and stores.
    EXPECT_EQ("{\"k\":\"v\",\"n\":5}", body.GetMessage());
    EXPECT_EQ("{\"k\":\"v\",\"n\":5}", body.m_message);
    EXPECT_EQ("{\"k\":\"v\",\"n\":5}", view.GetMessage());
    EXPECT_EQ("{\"k\":\"v\",\"n\":5}", view.GetString());
}

TEST(TCData, ReadersReturnTheTextWhenTextAndTreeAreBothSet) {
    TCData body{std::string(kSpaced)};
    const TCData& view = body;
    EXPECT_EQ(kSpaced, body.GetMessage());
    EXPECT_EQ(kSpaced, view.GetMessage());
    EXPECT_EQ(kSpaced, view.GetString());
    EXPECT_EQ(kSpaced, body.m_message);
}

TEST(TCData, SpacedJsonIsKeptByGetMessage) {
    TCData body{std::string(kSpaced)};
    EXPECT_EQ(kSpaced, body.GetMessage());
    EXPECT_EQ(1, body.m_value["a"].asInt());
}

TEST(TCData, CopyConstructorWritesTheCompactForm) {
    TCData body{std::string(kSpaced)};
    TCData copy(body);
    EXPECT_EQ(kCompact, copy.GetMessage());
    EXPECT_EQ(kCompact, copy.m_message);
    EXPECT_EQ(body.m_value, copy.m_value);
    // The original is left as it was.
    EXPECT_EQ(kSpaced, body.m_message);
}

TEST(TCData, AssignmentKeepsTheSpacedText) {
    TCData body{std::string(kSpaced)};
    TCData target;
    target = body;
    EXPECT_EQ(kSpaced, target.GetMessage());
    EXPECT_EQ(body.m_value, target.m_value);
}

TEST(TCData, CopyConstructorDoesNotCopyTheError) {
    LogCapture capture;
    TCData broken(std::string("not json"));
    ASSERT_NE("no error", broken.GetError());
    TCData copy(broken);
    EXPECT_EQ("", copy.m_error);
    EXPECT_EQ("no error", copy.GetError());
    // A copy of a non-JSON body keeps its text.
    EXPECT_EQ("not json", copy.m_message);
    EXPECT_TRUE(copy.m_value.isNull());
    // Copying does not parse: only the original's line was written.
    EXPECT_EQ(1u, capture.CountFramework(DLOG_INFO, NotJson("not json")));
}

TEST(TCData, AssignmentLeavesTheTargetsErrorAlone) {
    TCData broken(std::string("not json"));
    const std::string error = broken.GetError();
    TCData target(std::string("also not json"));
    const std::string target_error = target.GetError();

    TCData good(std::string("[1]"));
    good = broken;  // error of |good| stays empty
    EXPECT_EQ("no error", good.GetError());
    EXPECT_EQ("not json", good.m_message);
    EXPECT_TRUE(good.m_value.isNull());

    target = TCData(std::string("[2]"));  // error of |target| stays set
    EXPECT_EQ(target_error, target.GetError());
    EXPECT_EQ("[2]", target.m_message);
    EXPECT_EQ(2, target.m_value[0].asInt());
}

TEST(TCData, SelfAssignmentChangesNothing) {
    TCData body{std::string(kSpaced)};
    TCData& alias = body;
    body = alias;
    EXPECT_EQ(kSpaced, body.m_message);
    EXPECT_EQ(1, body.m_value["a"].asInt());
}

TEST(TCData, ParseAfterADirectTextChangeDoesNothingWhileTheTreeIsSet) {
    TCData body(std::string("{\"a\":1}"));
    LogCapture capture;
    body.m_message = "{\"b\":2}";
    EXPECT_TRUE(body.Parse());
    EXPECT_TRUE(body.m_value.isMember("a"));
    EXPECT_FALSE(body.m_value.isMember("b"));
    EXPECT_EQ("{\"b\":2}", body.m_message);
    // Not even an invalid text is looked at.
    body.m_message = "garbage";
    EXPECT_TRUE(body.Parse());
    EXPECT_EQ("no error", body.GetError());
    EXPECT_TRUE(capture.Lines().empty()) << capture.Dump();
}

TEST(TCData, SetMessageReplacesAJsonBody) {
    TCData body(std::string("{\"a\":1}"));
    EXPECT_TRUE(body.SetMessage("{\"b\":2}"));
    EXPECT_FALSE(body.m_value.isMember("a"));
    EXPECT_EQ(2, body.m_value["b"].asInt());
    EXPECT_EQ("{\"b\":2}", body.GetMessage());
    EXPECT_EQ("no error", body.GetError());
}

TEST(TCData, SetMessageWithNonJsonClearsTheTreeAndKeepsTheText) {
    TCData body(std::string("{\"a\":1}"));
    LogCapture capture;
    EXPECT_FALSE(body.SetMessage("free text"));
    EXPECT_TRUE(body.m_value.isNull());
    EXPECT_EQ("free text", body.GetMessage());
    EXPECT_EQ(ReaderError("free text"), body.GetError());
    EXPECT_EQ(1u, capture.CountFramework(DLOG_INFO, NotJson("free text"))) << capture.Dump();
}

TEST(TCData, SetMessageAfterAFailureClearsTheError) {
    TCData body(std::string("free text"));
    ASSERT_NE("no error", body.GetError());
    EXPECT_TRUE(body.SetMessage("[true]"));
    EXPECT_EQ("no error", body.GetError());
    EXPECT_TRUE(body.m_value[0].asBool());
}

TEST(TCData, SetMessageReplacesATreeBuiltByHand) {
    TCData body;
    body.m_value["x"] = 1;
    EXPECT_TRUE(body.SetMessage("{\"y\":2}"));
    EXPECT_FALSE(body.m_value.isMember("x"));
    EXPECT_EQ(2, body.m_value["y"].asInt());
}

TEST(TCData, SetMessageReplacesAScalarTree) {
    TCData body;
    body.m_value = 5;  // a tree that is not empty and not a container
    EXPECT_TRUE(body.SetMessage("[3]"));
    EXPECT_EQ(3, body.m_value[0].asInt());
    EXPECT_FALSE(body.SetMessage("nope"));
    EXPECT_TRUE(body.m_value.isNull());
}

TEST(TCData, GenerateRewritesTheTextFromTheTree) {
    TCData body{std::string(kSpaced)};
    body.m_value["c"] = "new";
    body.Generate();
    EXPECT_EQ("{\"a\":1,\"b\":[1,2],\"c\":\"new\"}", body.m_message);
    // No indentation, no line break, no blank: one compact line.
    EXPECT_EQ(std::string::npos, body.m_message.find_first_of(" \n\t"));
}

TEST(TCData, GenerateLeavesTheTextAloneWhenTheTreeIsEmpty) {
    TCData body(std::string("free text"));
    body.Generate();
    EXPECT_EQ("free text", body.m_message);
    // An empty object or array is empty too.
    body.m_value = Json::Value(Json::objectValue);
    body.Generate();
    EXPECT_EQ("free text", body.m_message);
    body.m_value = Json::Value(Json::arrayValue);
    body.Generate();
    EXPECT_EQ("free text", body.m_message);
}

TEST(TCData, GenerateWritesAScalarTree) {
    TCData body;
    body.m_value = "text";
    body.Generate();
    EXPECT_EQ("\"text\"", body.m_message);
    body.m_value = 12;
    body.Generate();
    EXPECT_EQ("12", body.m_message);
}

TEST(TCData, EmptyContainersKeepTheirTextOnCopy) {
    // "{ }" parses to an empty object: the tree is empty, so the copy
    // constructor's Generate leaves the text as it was.
    TCData object_body(std::string("{ }"));
    EXPECT_EQ("no error", object_body.GetError());
    TCData object_copy(object_body);
    EXPECT_EQ("{ }", object_copy.m_message);
    TCData null_body(std::string("null"));
    EXPECT_EQ("no error", null_body.GetError());
    EXPECT_TRUE(null_body.m_value.isNull());
    TCData null_copy(null_body);
    EXPECT_EQ("null", null_copy.GetMessage());
}

TEST(TCData, TreeOnlyBodyCopiesWithGeneratedTextAndAssignsWithout) {
    TCData body;
    body.m_value["k"] = true;
    TCData copy(body);
    EXPECT_EQ("{\"k\":true}", copy.m_message);
    TCData assigned;
    assigned = body;
    EXPECT_EQ("", assigned.m_message);
    EXPECT_EQ(kWarning, static_cast<const TCData&>(assigned).GetMessage());
    EXPECT_EQ("{\"k\":true}", assigned.GetMessage());
}

TEST(TCData, DestroysThroughABasePointer) {
    std::unique_ptr<TCData> body(new Quelt::TCMessage());
    static_cast<Quelt::TCMessage*>(body.get())
        ->SetBuffer(reinterpret_cast<const unsigned char*>("abc"), 3);
    EXPECT_TRUE(std::has_virtual_destructor<TCData>::value);
    EXPECT_TRUE(std::has_virtual_destructor<Quelt::TCMessage>::value);
    body.reset();  // the buffer is freed: a leak fails under AddressSanitizer
    EXPECT_EQ(nullptr, body);
}
