// SPDX-License-Identifier: Apache-2.0
// Each thread reads and writes bodies with one reader and one writer that
// live as long as the thread: nothing of one body may show in the next.
// A failed parse (also one the reader aborts by throwing), a long body
// followed by a short one, and bodies handled on many threads at once.
#include <gtest/gtest.h>

#include <dlog.h>
#include <json/json.h>

#include <string>
#include <thread>
#include <vector>

#include "LogCapture.h"
#include "TCMessage.h"

using harvo_test::LogCapture;
using Quelt::TCData;
using Quelt::TCMessage;

namespace {

std::string Nested(int depth) {
    return std::string(depth, '[') + "1" + std::string(depth, ']');
}

// What a fresh JsonCpp compact writer makes of |value|.
std::string FreshCompact(const Json::Value& value) {
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    return Json::writeString(builder, value);
}

}  // namespace

TEST(BodyReuse, ParseAfterAFailedParseStartsAfresh) {
    TCData broken(std::string("{\"a\": [1, 2"));
    ASSERT_TRUE(broken.m_value.isNull());
    TCData good(std::string("{\"b\":true}"));
    EXPECT_TRUE(good.m_value.isObject());
    EXPECT_TRUE(good.m_value["b"].asBool());
    EXPECT_FALSE(good.m_value.isMember("a"));
    EXPECT_EQ("no error", good.GetError());
}

TEST(BodyReuse, ParseAfterTheReaderThrewStartsAfresh) {
    TCData deep(Nested(10000));
    ASSERT_TRUE(deep.m_value.isNull());
    ASSERT_NE("no error", deep.GetError());
    TCData good(std::string("[[1],[2,3]]"));
    ASSERT_TRUE(good.m_value.isArray());
    EXPECT_EQ(2u, good.m_value.size());
    EXPECT_EQ(3, good.m_value[1][1].asInt());
    EXPECT_EQ("no error", good.GetError());
}

TEST(BodyReuse, ShortBodyAfterALongOneIsWrittenWhole) {
    TCData big;
    big.m_value["d"] = std::string(200000, 'x');
    big.Generate();
    EXPECT_EQ(FreshCompact(big.m_value), big.m_message);
    TCData small;
    small.m_value["k"] = 1;
    small.Generate();
    EXPECT_EQ("{\"k\":1}", small.m_message);
    // The copy constructor writes through the same writer.
    TCData copy(small);
    EXPECT_EQ("{\"k\":1}", copy.m_message);
}

TEST(BodyReuse, CopyOfATreeOnlyBodyIsItsCompactText) {
    TCMessage message;
    message.m_value["city"] = "Seoul";
    message.m_value["days"].append(1);
    message.m_message = "stale text";
    TCMessage copy(message);
    EXPECT_EQ("{\"city\":\"Seoul\",\"days\":[1]}", copy.m_message);
    EXPECT_EQ(message.m_value, copy.m_value);
    // A body without a tree keeps its text, whatever it is.
    TCData text(std::string("not json"));
    TCData textCopy(text);
    EXPECT_EQ("not json", textCopy.m_message);
    EXPECT_TRUE(textCopy.m_value.isNull());
}

TEST(BodyReuse, ThreadsParseAndWriteAtTheSameTime) {
    constexpr int kThreads = 6;
    constexpr int kRounds = 2000;
    std::vector<std::thread> threads;
    std::vector<int> failures(kThreads, 0);
    LogCapture capture;  // the broken bodies' lines stay out of the test's output
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([t, &failures] {
            for (int i = 0; i < kRounds; ++i) {
                // Members in key order, as the writer puts them.
                const std::string text =
                    "{\"i\":" + std::to_string(i) + ",\"t\":" + std::to_string(t) + "}";
                TCData body(text);
                if (!body.m_value.isObject() || body.m_value["t"].asInt() != t ||
                    body.m_value["i"].asInt() != i)
                    ++failures[t];
                TCData copy(body);
                if (copy.m_message != text)
                    ++failures[t];
                if (i % 100 == 0) {
                    TCData broken(std::string("{\"t\":"));
                    if (!broken.m_value.isNull())
                        ++failures[t];
                }
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    for (int t = 0; t < kThreads; ++t)
        EXPECT_EQ(0, failures[t]) << "thread " << t;
    EXPECT_EQ(static_cast<size_t>(kThreads * kRounds / 100),
              capture.CountFramework(DLOG_INFO, "NOT JSON TYPE MESSAGE![{\"t\":]"));
}
