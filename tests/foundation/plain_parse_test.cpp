// SPDX-License-Identifier: Apache-2.0
// A body's tree is the JsonCpp reader's tree, node for node (type, value,
// offsets, no comments), and a text it refuses is refused with its error:
// the library reads plain bodies itself and must never differ from it.
#include <gtest/gtest.h>

#include <json/json.h>

#include <locale>
#include <memory>
#include <random>
#include <string>

#include "TCMessage.h"

using Quelt::TCData;

namespace {

// The reference: a JsonCpp reader as the library configures its own.
struct Reference {
    bool parsed = false;
    Json::Value value;
    std::string errors;
};

Reference ReadWithReader(const std::string& text) {
    Json::CharReaderBuilder builder;
    builder["collectComments"] = false;
    std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    Reference result;
    try {
        result.parsed =
            reader->parse(text.data(), text.data() + text.size(), &result.value, &result.errors);
    } catch (const std::exception& e) {
        result.parsed = false;
        result.errors = e.what();
    }
    return result;
}

// Type, value, offsets and comments of every node.
void ExpectSameTree(const Json::Value& expected, const Json::Value& actual,
                    const std::string& path) {
    ASSERT_EQ(expected.type(), actual.type()) << path;
    EXPECT_EQ(expected.getOffsetStart(), actual.getOffsetStart()) << path;
    EXPECT_EQ(expected.getOffsetLimit(), actual.getOffsetLimit()) << path;
    EXPECT_FALSE(actual.hasComment(Json::commentBefore)) << path;
    EXPECT_FALSE(actual.hasComment(Json::commentAfterOnSameLine)) << path;
    EXPECT_FALSE(actual.hasComment(Json::commentAfter)) << path;
    switch (expected.type()) {
        case Json::arrayValue:
            ASSERT_EQ(expected.size(), actual.size()) << path;
            for (Json::ArrayIndex i = 0; i < expected.size(); ++i)
                ExpectSameTree(expected[i], actual[i], path + "[" + std::to_string(i) + "]");
            break;
        case Json::objectValue: {
            ASSERT_EQ(expected.getMemberNames(), actual.getMemberNames()) << path;
            for (const auto& name : expected.getMemberNames())
                ExpectSameTree(expected[name], actual[name], path + "." + name);
            break;
        }
        default:
            EXPECT_TRUE(expected == actual) << path;
    }
}

void ExpectReadAsTheReaderReads(const std::string& text) {
    SCOPED_TRACE(text);
    const Reference reference = ReadWithReader(text);
    TCData body(text);
    if (reference.parsed) {
        EXPECT_EQ(body.GetError(), "no error");
        ExpectSameTree(reference.value, body.m_value, "$");
    } else {
        EXPECT_TRUE(body.m_value.isNull());
        EXPECT_EQ(body.GetError(), reference.errors);
    }
    EXPECT_EQ(body.m_message, text);
}

std::string RandomBlanks(std::mt19937& random) {
    static const char kBlanks[] = {' ', '\t', '\n', '\r'};
    std::string blanks;
    while (random() % 3 == 0)
        blanks += kBlanks[random() % 4];
    return blanks;
}

std::string RandomKey(std::mt19937& random) {
    static const char* const kKeys[] = {"a", "b", "city", "", "k 1", "days", "v", "x/y", "a\\\"q"};
    return kKeys[random() % 9];
}

// A document in the shapes senders write, blanks anywhere between tokens.
std::string RandomDocument(std::mt19937& random, int depth) {
    std::string text = RandomBlanks(random);
    switch (random() % (depth > 4 ? 6 : 8)) {
        case 0: {
            static const char* const kNumbers[] = {"0",
                                                   "-0",
                                                   "7",
                                                   "-12",
                                                   "123456789012345678",
                                                   "-999999999999999999",
                                                   "1234567890123456789",
                                                   "18446744073709551615",
                                                   "2.5",
                                                   "1e3",
                                                   "007",
                                                   "-",
                                                   "-0.5",
                                                   "1.25e-3",
                                                   "1E+2",
                                                   "0.1",
                                                   "1e400",
                                                   "1.7976931348623157e308",
                                                   "4.9e-324",
                                                   "123.456e7",
                                                   "1.",
                                                   ".5",
                                                   "1e",
                                                   "-0.0",
                                                   "2.2250738585072014e-308",
                                                   "0.30000000000000004"};
            text += kNumbers[random() % 26];
            break;
        }
        case 1:
            text += random() % 2 ? "true" : "false";
            break;
        case 2:
            text += "null";
            break;
        case 3:
        case 4: {
            static const char* const kTexts[] = {"\"\"",    "\"Seoul\"",    "\"a b/c\"",
                                                 "\"\\n\"", "\"\xc3\xa9\"", "\"~\""};
            text += kTexts[random() % 6];
            break;
        }
        case 5:
            text += random() % 2 ? "[]" : "{}";
            break;
        case 6: {
            text += "[";
            const int size = static_cast<int>(random() % 5) + 1;
            for (int i = 0; i < size; ++i) {
                if (i != 0)
                    text += RandomBlanks(random) + ",";
                text += RandomDocument(random, depth + 1);
            }
            text += RandomBlanks(random) + "]";
            break;
        }
        default: {
            text += "{";
            const int size = static_cast<int>(random() % 5) + 1;
            for (int i = 0; i < size; ++i) {
                if (i != 0)
                    text += RandomBlanks(random) + ",";
                text += RandomBlanks(random) + "\"" + RandomKey(random) + "\"" +
                        RandomBlanks(random) + ":" + RandomDocument(random, depth + 1);
            }
            text += RandomBlanks(random) + "}";
            break;
        }
    }
    return text + RandomBlanks(random);
}

}  // namespace

TEST(PlainParse, RandomDocumentsAreReadAsTheReaderReadsThem) {
    std::mt19937 random(1123);
    for (int i = 0; i < 3000; ++i) {
        ExpectReadAsTheReaderReads(RandomDocument(random, 0));
        if (HasFailure())
            return;
    }
}

TEST(PlainParse, DamagedDocumentsAreReadOrRefusedAsTheReaderDoes) {
    std::mt19937 random(2311);
    static const char kNoise[] = {'{', '}', '[', ']', ',',  ':', '"',
                                  ' ', '1', 'x', '/', '\\', '\0'};
    for (int i = 0; i < 3000; ++i) {
        std::string text = RandomDocument(random, 0);
        const int edits = static_cast<int>(random() % 3) + 1;
        for (int e = 0; e < edits && !text.empty(); ++e) {
            const size_t at = random() % text.size();
            switch (random() % 3) {
                case 0:
                    text.erase(at, 1);
                    break;
                case 1:
                    text.insert(at, 1, kNoise[random() % sizeof(kNoise)]);
                    break;
                default:
                    text[at] = kNoise[random() % sizeof(kNoise)];
                    break;
            }
        }
        ExpectReadAsTheReaderReads(text);
        if (HasFailure())
            return;
    }
}

TEST(PlainParse, EdgeTexts) {
    for (const char* text : {"",
                             " ",
                             "{}",
                             "[]",
                             "{\"a\":1,\"a\":2}",
                             "[1,]",
                             "{\"a\":1,}",
                             "[1 2]",
                             "{\"a\" 1}",
                             "1 2",
                             "true false",
                             "nul",
                             "truex",
                             "[true]x",
                             "// c\n{\"a\":1}",
                             "{\"a\":1} // c",
                             "{\"city\":\"Seoul\",\"days\":[1,2,3],\"v\":7}",
                             "[[[[[[[[[[1]]]]]]]]]]",
                             "\"\\u0041\"",
                             "-",
                             "--1",
                             "01",
                             "1.",
                             "[1e5]",
                             "{\"\":{\"\":[]}}"}) {
        ExpectReadAsTheReaderReads(text);
    }
    ExpectReadAsTheReaderReads(std::string(70, '[') + "0" + std::string(70, ']'));
    ExpectReadAsTheReaderReads(std::string(2000, '[') + std::string(2000, ']'));
    ExpectReadAsTheReaderReads(std::string("{\"a\":\"b\0c\"}", 11));
}

TEST(PlainParse, ABodyWhoseTreeWasAnEmptyObjectKeepsItsComments) {
    // Parse fills the tree in place, payload and offsets, as the reader does.
    TCData body;
    body.m_value = Json::Value(Json::objectValue);
    body.m_value.setComment(std::string("// kept"), Json::commentBefore);
    body.m_message = "{\"a\":1}";
    ASSERT_TRUE(body.Parse());
    Json::Value reference(Json::objectValue);
    reference.setComment(std::string("// kept"), Json::commentBefore);
    Json::CharReaderBuilder builder;
    builder["collectComments"] = false;
    std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    const std::string text = body.m_message;
    ASSERT_TRUE(reader->parse(text.data(), text.data() + text.size(), &reference, nullptr));
    EXPECT_EQ(reference.getComment(Json::commentBefore),
              body.m_value.getComment(Json::commentBefore));
    EXPECT_EQ(reference.getOffsetStart(), body.m_value.getOffsetStart());
    EXPECT_EQ(reference.getOffsetLimit(), body.m_value.getOffsetLimit());
    EXPECT_TRUE(reference == body.m_value);
}

namespace {

// Decimal comma: what a program that sets its global C++ locale may use.
struct CommaDecimal : std::numpunct<char> {
    char do_decimal_point() const override { return ','; }
};

}  // namespace

TEST(PlainParse, NumbersUnderAnotherGlobalLocaleAreTheReadersToo) {
    const std::locale previous =
        std::locale::global(std::locale(std::locale::classic(), new CommaDecimal));
    for (const char* text : {"2.5", "[1.25e-3,7]", "{\"c\":10.5}", "2,5", "[2,5]"})
        ExpectReadAsTheReaderReads(text);
    std::locale::global(previous);
}
