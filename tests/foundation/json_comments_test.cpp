// SPDX-License-Identifier: Apache-2.0
// Comments in JSON bodies: accepted on input, never written back. A kept
// "//" comment used to be written before the closing brace of the one-line
// text ('{"a":1 // note}'), which no JSON reader accepts.
#include <gtest/gtest.h>

#include <dlog.h>
#include <json/json.h>

#include <memory>
#include <string>

#include "LogCapture.h"
#include "TCMessage.h"

using harvo_test::LogCapture;
using Quelt::TCData;
using Quelt::TCMessage;

namespace {

const char kLineComment[] = "{\"a\":1 // note\n}";
const char kBlockComment[] = "/* head */ {\"a\" : /* inline */ 1, \"b\" : [2] } // tail";

// Whether a strict reader (no comments allowed) accepts |text| as JSON.
bool IsStrictJson(const std::string& text) {
    Json::CharReaderBuilder builder;
    Json::CharReaderBuilder::strictMode(&builder.settings_);
    std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    Json::Value ignored;
    std::string errors;
    return reader->parse(text.data(), text.data() + text.size(), &ignored, &errors);
}

}  // namespace

TEST(JsonComments, ALineCommentIsReadButNotWrittenBack) {
    LogCapture capture;
    TCData body(kLineComment);
    EXPECT_EQ(body.GetError(), "no error");
    EXPECT_EQ(body.m_value["a"].asInt(), 1);
    // The text as given stays until something regenerates it.
    EXPECT_EQ(body.GetMessage(), kLineComment);
    body.Generate();
    EXPECT_EQ(body.GetMessage(), "{\"a\":1}");
    EXPECT_TRUE(IsStrictJson(body.GetMessage()));
    EXPECT_FALSE(capture.HasFramework(DLOG_INFO,
                                      std::string("NOT JSON TYPE MESSAGE![") + kLineComment + "]"));
}

TEST(JsonComments, CopiesOfACommentedBodyAreValidJson) {
    TCMessage original;
    ASSERT_TRUE(original.SetMessage(kBlockComment));
    const TCData bodyCopy(original);
    EXPECT_EQ(bodyCopy.m_message, "{\"a\":1,\"b\":[2]}");
    const TCMessage messageCopy(original);
    EXPECT_EQ(messageCopy.m_message, "{\"a\":1,\"b\":[2]}");
    TCMessage assigned;
    assigned = original;
    EXPECT_EQ(assigned.m_message, "{\"a\":1,\"b\":[2]}");
    EXPECT_TRUE(IsStrictJson(assigned.m_message));
    EXPECT_EQ(original.GetString(), kBlockComment);  // text present: returned as it is
}

TEST(JsonComments, ATreeOnlyBodyParsedWithCommentsSerialisesWithout) {
    TCData parsed(kLineComment);
    TCData treeOnly;
    treeOnly.m_value = parsed.m_value;
    EXPECT_EQ(treeOnly.GetString(), "{\"a\":1}");
    EXPECT_EQ(treeOnly.GetMessage(), "{\"a\":1}");
}

TEST(JsonComments, CommentsPutIntoTheTreeByTheApplicationAreNotWritten) {
    TCData body;
    body.m_value["a"] = 1;
    body.m_value["a"].setComment(std::string("// mine"), Json::commentAfterOnSameLine);
    body.m_value.setComment(std::string("/* top */"), Json::commentBefore);
    body.Generate();
    EXPECT_EQ(body.m_message, "{\"a\":1}");
    EXPECT_TRUE(IsStrictJson(body.m_message));
}
