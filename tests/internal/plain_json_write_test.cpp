// The plain writer (src/PlainJson.h) and the body that uses it: the
// compact text of a body is the JsonCpp compact writer's text, byte for
// byte, for every kind of tree. Where the build has the plain writer, it
// must never differ from the writer; where it has not (JsonCpp of a version
// it is not proven with, or the option HARVO_JSON_FAST_PATHS=OFF), the same
// comparisons show that the text is the writer's, and the plain writer
// takes nothing.
#include <gtest/gtest.h>

#include <json/json.h>

#include <cstdint>
#include <limits>
#include <random>
#include <string>

#include "PlainJson.h"
#include "PlainJsonMode.h"
#include "TCMessage.h"

using Quelt::TCData;
using Quelt::detail::kPlainJsonEnabled;
using Quelt::detail::WritePlainJson;

namespace {

// The reference: a JsonCpp compact writer, made afresh.
std::string WriterText(const Json::Value& value) {
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    builder["commentStyle"] = "None";
    return Json::writeString(builder, value);
}

// The body's text for |value|. An empty tree (null, {}, []) is never
// written by itself (Generate leaves the text), so every tree is also
// written as the element of a one-element array.
std::string Generated(const Json::Value& value) {
    TCData data;
    data.m_value = value;
    data.Generate();
    return data.m_message;
}

// Compares the body's text for |value|, and the plain writer's own text,
// with the writer's. Answers whether the plain writer took the tree.
bool ExpectWrittenAsTheWriterWrites(const Json::Value& value, const std::string& what) {
    if (!value.empty()) {
        EXPECT_EQ(WriterText(value), Generated(value)) << what;
    }
    Json::Value wrapped(Json::arrayValue);
    wrapped.append(value);
    EXPECT_EQ(WriterText(wrapped), Generated(wrapped)) << what;

    std::string direct;
    const bool plain = WritePlainJson(value, direct);
    if (plain) {
        EXPECT_EQ(WriterText(value), direct) << what;
    }
    return plain;
}

// Strings: mostly plain, sometimes with bytes the writer escapes.
std::string RandomText(std::mt19937& random) {
    static const char* const kPieces[] = {
        "a",  "Seoul", " ",  "/",    "~",        "\x7f",         "\"",
        "\\", "\n",    "\t", "\x01", "\xc3\xa9", "\xe2\x82\xac", "\xf0\x9f\x98\x80",
        "{}", "[1]",   "",
    };
    const size_t pieces = sizeof(kPieces) / sizeof(kPieces[0]);
    std::string text;
    const int count = static_cast<int>(random() % 6);
    for (int i = 0; i < count; ++i) {
        // Plain pieces nine times out of ten.
        const size_t index =
            random() % 10 != 0 ? random() % 2 + (random() % 2) * 14 : random() % pieces;
        text += kPieces[index];
    }
    return text;
}

Json::Value RandomValue(std::mt19937& random, int depth) {
    const int kind = static_cast<int>(random() % (depth > 4 ? 7 : 9));
    switch (kind) {
        case 0:
            return Json::Value();
        case 1:
            return Json::Value(random() % 2 == 0);
        case 2: {
            static const Json::Int64 kInts[] = {0,
                                                -1,
                                                7,
                                                std::numeric_limits<Json::Int>::min(),
                                                std::numeric_limits<Json::Int>::max(),
                                                std::numeric_limits<Json::Int64>::min(),
                                                std::numeric_limits<Json::Int64>::max(),
                                                -1234567890123LL};
            return Json::Value(kInts[random() % 8]);
        }
        case 3: {
            static const Json::UInt64 kUints[] = {0u, 4000000000u,
                                                  std::numeric_limits<Json::UInt64>::max()};
            return Json::Value(kUints[random() % 3]);
        }
        case 4: {
            static const double kReals[] = {0.5,
                                            -0.0,
                                            1e300,
                                            3.0,
                                            0.1,
                                            2.5e-8,
                                            -123456789.125,
                                            1e17,
                                            std::numeric_limits<double>::quiet_NaN(),
                                            std::numeric_limits<double>::infinity(),
                                            -std::numeric_limits<double>::infinity(),
                                            std::numeric_limits<double>::denorm_min()};
            return Json::Value(kReals[random() % 12]);
        }
        case 5:
        case 6:
            return Json::Value(RandomText(random));
        case 7: {
            Json::Value array(Json::arrayValue);
            const int size = static_cast<int>(random() % 12);
            for (int i = 0; i < size; ++i)
                array.append(RandomValue(random, depth + 1));
            if (random() % 8 == 0)
                array[static_cast<Json::ArrayIndex>(size + 3)] = 1;  // holes read as null
            return array;
        }
        default: {
            Json::Value object(Json::objectValue);
            const int size = static_cast<int>(random() % 8);
            for (int i = 0; i < size; ++i)
                object[RandomText(random)] = RandomValue(random, depth + 1);
            return object;
        }
    }
}

bool IsPlainText(const std::string& text) {
    for (unsigned char c : text) {
        if (c < 0x20 || c > 0x7E || c == '"' || c == '\\')
            return false;
    }
    return true;
}

// Trees without anything to escape: those the library writes without the
// writer.
bool IsPlainTree(const Json::Value& value) {
    if (value.isString())
        return IsPlainText(value.asString());
    for (auto it = value.begin(); it != value.end(); ++it) {
        if ((value.isObject() && !IsPlainText(it.name())) || !IsPlainTree(*it))
            return false;
    }
    return true;
}

}  // namespace

class CompactText : public harvo_test::PlainJsonTest {};

TEST_F(CompactText, ThePlainWriterTakesPlainTreesOnlyWhereTheBuildHasIt) {
    Json::Value plain;
    plain["city"] = "Seoul";
    plain["days"].append(1);
    plain["days"].append(2.5);
    std::string text;
    EXPECT_EQ(WritePlainJson(plain, text), kPlainJsonEnabled);
    if (kPlainJsonEnabled) {
        EXPECT_EQ(text, "{\"city\":\"Seoul\",\"days\":[1,2.5]}");
    }
    // A string to escape is never the plain writer's, whatever the build.
    Json::Value escaped;
    escaped["line"] = "a\nb";
    std::string discarded;
    EXPECT_FALSE(WritePlainJson(escaped, discarded));
}

TEST_F(CompactText, RandomTreesAreWrittenAsTheWriterWritesThem) {
    std::mt19937 random(20261123);
    int plain = 0;
    int takenByThePlainWriter = 0;
    const int kTrees = 5000;
    for (int i = 0; i < kTrees; ++i) {
        const Json::Value value = RandomValue(random, 0);
        const bool plainTree = IsPlainTree(value);
        plain += plainTree ? 1 : 0;
        const bool taken = ExpectWrittenAsTheWriterWrites(value, "tree " + std::to_string(i));
        takenByThePlainWriter += taken ? 1 : 0;
        // The plain writer takes exactly the trees without anything to
        // escape (none of them is deep enough to be left to the writer).
        EXPECT_EQ(taken, kPlainJsonEnabled && plainTree) << "tree " << i;
        if (HasFailure())
            return;
    }
    // Both kinds are well represented.
    EXPECT_GT(plain, kTrees / 10);
    EXPECT_GT(kTrees - plain, kTrees / 10);
    EXPECT_EQ(takenByThePlainWriter, kPlainJsonEnabled ? plain : 0);
}

TEST_F(CompactText, EdgeShapes) {
    Json::Value cases(Json::arrayValue);
    cases.append(Json::Value(Json::objectValue));
    cases.append(Json::Value(Json::arrayValue));
    Json::Value wide(Json::arrayValue);  // longer than the writer's right margin
    for (int i = 0; i < 60; ++i)
        wide.append(i * 1000);
    cases.append(wide);
    Json::Value nestedWide(Json::arrayValue);
    for (int i = 0; i < 5; ++i)
        nestedWide.append(wide);
    cases.append(nestedWide);
    Json::Value objects(Json::arrayValue);
    for (int i = 0; i < 4; ++i) {
        Json::Value member;
        member["k" + std::to_string(i)] = i;
        member["list"] = wide;
        objects.append(member);
    }
    cases.append(objects);
    Json::Value keys;
    keys["b"] = 1;
    keys["a"] = 2;
    keys["ab"] = 3;
    keys[""] = 4;
    keys["B"] = 5;
    keys[std::string("a\0b", 3)] = 6;  // a key with a NUL byte
    cases.append(keys);
    cases.append(Json::Value(std::string("nul\0inside", 10)));
    Json::Value deep = 1;
    for (int i = 0; i < 200; ++i) {
        Json::Value outer(Json::arrayValue);
        outer.append(deep);
        deep = outer;
    }
    cases.append(deep);
    for (Json::ArrayIndex i = 0; i < cases.size(); ++i)
        ExpectWrittenAsTheWriterWrites(cases[i], "case " + std::to_string(i));
    ExpectWrittenAsTheWriterWrites(cases, "all cases");
}

TEST_F(CompactText, CopiesAndGetStringUseTheSameText) {
    TCData body(std::string("{ \"z\" : [1, 2, {\"y\": null}], \"a\" : \"x\" }"));
    const std::string expected = WriterText(body.m_value);
    EXPECT_EQ(expected, "{\"a\":\"x\",\"z\":[1,2,{\"y\":null}]}");
    EXPECT_EQ(expected, TCData(body).m_message);
    TCData treeOnly;
    treeOnly.m_value = body.m_value;
    EXPECT_EQ(expected, treeOnly.GetString());
}
