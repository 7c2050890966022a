// The plain reader (src/PlainJson.h) and the body that uses it: a body's
// tree is the JsonCpp reader's tree, node for node (type, value, offsets,
// no comments), and a text it refuses is refused with its error. Where the
// build has the plain reader, it must never differ from the reader; where
// it has not (JsonCpp of a version it is not proven with, or the option
// HARVO_JSON_FAST_PATHS=OFF), the same comparisons show that the body is
// JsonCpp's, and the plain reader takes nothing.
#include <gtest/gtest.h>

#include <json/json.h>

#include <cstdio>
#include <locale>
#include <memory>
#include <random>
#include <string>

#include "PlainJson.h"
#include "PlainJsonMode.h"
#include "TCMessage.h"

using Quelt::TCData;
using Quelt::detail::kPlainJsonEnabled;
using Quelt::detail::ReadPlainJson;

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

// Compares the body read from |text|, and the plain reader's own result,
// with the reader's. Answers whether the plain reader took the text.
bool ExpectReadAsTheReaderReads(const std::string& text) {
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

    // A text the plain reader does not take leaves its tree untouched.
    Json::Value direct("untouched");
    const bool plain = ReadPlainJson(text.data(), text.data() + text.size(), direct);
    if (plain) {
        EXPECT_TRUE(reference.parsed);
        ExpectSameTree(reference.value, direct, "$");
    } else {
        EXPECT_TRUE(direct == Json::Value("untouched"));
    }
    return plain;
}

// Where the build has the plain reader, it takes a good share of what
// senders write; where it has not, nothing.
void ExpectTakenByThePlainReader(int plain, int total) {
    if (kPlainJsonEnabled) {
        EXPECT_GT(plain, total / 10) << "of " << total;
    } else {
        EXPECT_EQ(plain, 0) << "of " << total;
    }
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

class PlainParse : public harvo_test::PlainJsonTest {};

TEST(PlainJsonMode, IsWhatTheConfigureStepWorkedOut) {
    // CMake predicts the mode from the option and the JsonCpp version that
    // pkg-config reports; the library decides from JsonCpp's headers.
    EXPECT_EQ(kPlainJsonEnabled, HARVO_EXPECT_JSON_FAST_PATHS != 0)
        << "JsonCpp headers say " << JSONCPP_VERSION_STRING;
    std::printf("JSON fast paths %s (JsonCpp %s)\n", harvo_test::JsonMode(),
                JSONCPP_VERSION_STRING);
}

TEST(PlainJsonMode, OnlyTheProvenJsonCppVersionsHaveTheFastPaths) {
    EXPECT_TRUE(HARVO_JSONCPP_PROVEN(1, 9, 5));
    // Earlier versions type some integers differently; later ones are
    // not proven yet.
    EXPECT_FALSE(HARVO_JSONCPP_PROVEN(1, 7, 0));
    EXPECT_FALSE(HARVO_JSONCPP_PROVEN(1, 8, 4));
    EXPECT_FALSE(HARVO_JSONCPP_PROVEN(1, 9, 4));
    EXPECT_FALSE(HARVO_JSONCPP_PROVEN(1, 9, 6));
    EXPECT_FALSE(HARVO_JSONCPP_PROVEN(2, 9, 5));
    // This build: a proven version and the option on, or JsonCpp does all.
    EXPECT_EQ(
        kPlainJsonEnabled,
        HARVO_JSON_FAST_PATHS && HARVO_JSONCPP_PROVEN(JSONCPP_VERSION_MAJOR, JSONCPP_VERSION_MINOR,
                                                      JSONCPP_VERSION_PATCH));
}

TEST_F(PlainParse, ThePlainReaderTakesPlainTextsOnlyWhereTheBuildHasIt) {
    const std::string plain = "{\"city\":\"Seoul\",\"days\":[1,2.5,-3],\"ok\":true,\"n\":null}";
    Json::Value tree("untouched");
    EXPECT_EQ(ReadPlainJson(plain.data(), plain.data() + plain.size(), tree), kPlainJsonEnabled);
    EXPECT_EQ(tree.isObject(), kPlainJsonEnabled);
    // Never a comment, whatever the build.
    const std::string commented = "{\"a\":1} // note";
    Json::Value other("untouched");
    EXPECT_FALSE(ReadPlainJson(commented.data(), commented.data() + commented.size(), other));
    EXPECT_TRUE(other == Json::Value("untouched"));
}

TEST_F(PlainParse, RandomDocumentsAreReadAsTheReaderReadsThem) {
    std::mt19937 random(1123);
    const int kDocuments = 3000;
    int plain = 0;
    for (int i = 0; i < kDocuments; ++i) {
        plain += ExpectReadAsTheReaderReads(RandomDocument(random, 0)) ? 1 : 0;
        if (HasFailure())
            return;
    }
    ExpectTakenByThePlainReader(plain, kDocuments);
}

TEST_F(PlainParse, DamagedDocumentsAreReadOrRefusedAsTheReaderDoes) {
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

TEST_F(PlainParse, EdgeTexts) {
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

TEST_F(PlainParse, ABodyWhoseTreeWasAnEmptyObjectKeepsItsComments) {
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

TEST_F(PlainParse, NumbersUnderAnotherGlobalLocaleAreTheReadersToo) {
    const std::locale previous =
        std::locale::global(std::locale(std::locale::classic(), new CommaDecimal));
    for (const char* text : {"2.5", "[1.25e-3,7]", "{\"c\":10.5}", "2,5", "[2,5]"})
        ExpectReadAsTheReaderReads(text);
    std::locale::global(previous);
}
