// SPDX-License-Identifier: Apache-2.0
// Fuzz harness: the message body. The input is taken as body text, as it
// arrives from a peer; the harness parses it (TCData, TCMessage), copies it
// every way the framework does (copy constructors, both assignments),
// regenerates it and reads it back through every getter, and checks that
// whatever text the framework writes from a tree is valid JSON that parses
// back to the same tree and is written again unchanged. The JsonCpp reader
// and compact writer are the reference for what the body reads and
// writes: same result, error text, tree (offsets included) and text.

#include <json/json.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <memory>
#include <string>

#include "FuzzSupport.h"
#include "TCMessage.h"

namespace {

using harvo_fuzz::Require;

const char kTreeOnlyWarning[] = "<<WARN: JSON TYPE MESSAGE, GENERATE STRING FIRST>>";

// Strict UTF-8 (RFC 3629): no overlong forms, no surrogates, nothing above
// U+10FFFF. Embedded NUL bytes are fine (JSON's \u0000).
bool IsUtf8(const std::string& text) {
    size_t i = 0;
    const size_t n = text.size();
    while (i < n) {
        const unsigned char lead = static_cast<unsigned char>(text[i]);
        size_t extra = 0;
        uint32_t point = 0;
        if (lead < 0x80) {
            ++i;
            continue;
        } else if (lead >= 0xc2 && lead <= 0xdf) {
            extra = 1;
            point = lead & 0x1f;
        } else if (lead >= 0xe0 && lead <= 0xef) {
            extra = 2;
            point = lead & 0x0f;
        } else if (lead >= 0xf0 && lead <= 0xf4) {
            extra = 3;
            point = lead & 0x07;
        } else {
            return false;
        }
        if (n - i - 1 < extra)
            return false;
        for (size_t k = 1; k <= extra; ++k) {
            const unsigned char next = static_cast<unsigned char>(text[i + k]);
            if ((next & 0xc0) != 0x80)
                return false;
            point = (point << 6) | (next & 0x3f);
        }
        const uint32_t smallest[] = {0, 0x80, 0x800, 0x10000};
        if (point < smallest[extra] || point > 0x10ffff || (point >= 0xd800 && point <= 0xdfff))
            return false;
        i += extra + 1;
    }
    return true;
}

bool AllTextIsUtf8(const Json::Value& value) {
    if (value.isString())
        return IsUtf8(value.asString());
    if (value.isObject()) {
        for (auto it = value.begin(); it != value.end(); ++it) {
            if (!IsUtf8(it.name()) || !AllTextIsUtf8(*it))
                return false;
        }
    } else if (value.isArray()) {
        for (const Json::Value& child : value) {
            if (!AllTextIsUtf8(child))
                return false;
        }
    }
    return true;
}

// A reader that accepts exactly standard JSON: no comments, nothing after
// the root value, no special floats.
std::unique_ptr<Json::CharReader> MakeStrictReader() {
    Json::CharReaderBuilder builder;
    Json::CharReaderBuilder::strictMode(&builder.settings_);
    // Strict mode also rejects a scalar root and duplicate keys, which the
    // framework's reader accepts and writes back; neither makes the text
    // invalid JSON.
    builder["strictRoot"] = false;
    builder["rejectDupKeys"] = false;
    return std::unique_ptr<Json::CharReader>(builder.newCharReader());
}

bool ParseStrict(const std::string& text, Json::Value* tree) {
    static const std::unique_ptr<Json::CharReader> reader = MakeStrictReader();
    std::string errors;
    return reader->parse(text.data(), text.data() + text.size(), tree, &errors);
}

// JsonCpp's reader collects comments and its writer puts them back, so a
// body such as {"a":1 // note\n} used to be written as the invalid one-line
// text {"a":1 // note}. Every written text must pass a reader that rejects
// comments, bodies that carried comments included.
//
// |written| is the text the framework made from |tree|.
void CheckWrittenText(const std::string& written, const Json::Value& tree) {
    Require(written.find('\n') == std::string::npos, "written body spans more than one line",
            written);
    Json::Value reread;
    Require(ParseStrict(written, &reread), "written body is not valid JSON", written);
    // JSON text is UTF-8, but the reader keeps whatever bytes a string
    // holds, and the writer, which escapes everything beyond ASCII, decodes
    // a malformed sequence as best it can: such a string is written as
    // valid JSON with other characters. Only well-formed text must come
    // back unchanged.
    if (!AllTextIsUtf8(tree))
        return;
    Require(reread == tree, "written body parses back to another tree", written);

    // Writing what was read back gives the same text again.
    Quelt::TCData again(written);
    Require(again.GetError() == "no error", "written body is rejected by the framework", written);
    Quelt::TCData copy(again);
    Require(copy.m_message == written, "written body is not stable under copy", written);
}

void CheckParsed(const std::string& input, Quelt::TCData& body) {
    Require(body.m_message == input, "constructor changed the text", input);
    Quelt::TCData probe;
    probe.m_message = input;
    if (probe.Parse()) {
        Require(probe.GetError() == "no error", "parsed body keeps an error", input);
    } else {
        Require(probe.m_value.isNull(), "failed parse left a tree", input);
        Require(probe.GetError() != "no error", "failed parse without error text", input);
    }
    Require(probe.m_value == body.m_value, "Parse and the constructor disagree", input);
}

// The library reads and writes plain bodies itself; the JsonCpp reader
// and compact writer, configured as the library configures its own, are
// the reference: same parse result, same error text, same tree node for
// node (type, value, offsets), same written text.
bool SameTree(const Json::Value& a, const Json::Value& b) {
    if (a.type() != b.type() || a.getOffsetStart() != b.getOffsetStart() ||
        a.getOffsetLimit() != b.getOffsetLimit() || a.size() != b.size())
        return false;
    if (a.isArray()) {
        for (Json::ArrayIndex i = 0; i < a.size(); ++i) {
            if (!SameTree(a[i], b[i]))
                return false;
        }
        return true;
    }
    if (a.isObject()) {
        if (a.getMemberNames() != b.getMemberNames())
            return false;
        for (auto it = a.begin(); it != a.end(); ++it) {
            if (!SameTree(*it, b[it.name()]))
                return false;
        }
        return true;
    }
    // NaN is not equal to itself: compare the bits of reals.
    if (a.type() == Json::realValue) {
        const double x = a.asDouble();
        const double y = b.asDouble();
        return std::memcmp(&x, &y, sizeof(x)) == 0;
    }
    return a == b;
}

void CheckAgainstJsonCpp(const std::string& input, const Quelt::TCData& body) {
    static const std::unique_ptr<Json::CharReader> reader = [] {
        Json::CharReaderBuilder builder;
        builder["collectComments"] = false;
        return std::unique_ptr<Json::CharReader>(builder.newCharReader());
    }();
    Json::Value tree;
    std::string errors;
    bool parsed = false;
    try {
        parsed = reader->parse(input.data(), input.data() + input.size(), &tree, &errors);
    } catch (const std::exception& e) {
        errors = e.what();
    }
    if (!parsed) {
        Require(body.m_value.isNull() && body.m_error == errors,
                "the body's parse differs from the reader's (refused)", input);
        return;
    }
    Require(body.m_error.empty() && SameTree(tree, body.m_value),
            "the body's tree differs from the reader's", input);
    if (tree.empty())
        return;
    Json::StreamWriterBuilder writer;
    writer["indentation"] = "";
    writer["commentStyle"] = "None";
    Quelt::TCData copy(body);
    Require(copy.m_message == Json::writeString(writer, tree),
            "the body's text differs from the writer's", input);
}

void CheckCopies(const std::string& input, const Quelt::TCData& body) {
    Quelt::TCData copy(body);
    Require(copy.m_value == body.m_value, "copy has another tree", input);
    Require(copy.GetError() == "no error", "copy carries an error", input);
    if (body.m_value.empty()) {
        Require(copy.m_message == body.m_message, "copy of an empty tree changed the text", input);
    } else {
        CheckWrittenText(copy.m_message, body.m_value);
    }

    Quelt::TCData assigned;
    assigned = body;
    Require(assigned.m_message == body.m_message && assigned.m_value == body.m_value,
            "assignment differs from its source", input);
    const Quelt::TCData& same = assigned;
    assigned = same;  // self-assignment leaves the object as it was
    Require(assigned.m_message == body.m_message, "self-assignment changed the text", input);
}

void CheckTreeOnly(const std::string& input, const Json::Value& tree) {
    Quelt::TCData treeOnly;
    treeOnly.m_value = tree;
    const Quelt::TCData& constView = treeOnly;
    if (tree.empty()) {
        Require(constView.GetMessage().empty(), "const GetMessage of an empty body", input);
        Require(treeOnly.GetString().empty(), "GetString of an empty body", input);
        return;
    }
    Require(constView.GetMessage() == kTreeOnlyWarning, "const GetMessage without the warning",
            input);
    const std::string onTheSpot = treeOnly.GetString();
    Require(treeOnly.m_message.empty(), "GetString stored the text", input);
    const std::string generated = treeOnly.GetMessage();
    Require(generated == onTheSpot, "GetMessage and GetString disagree", input);
    Require(treeOnly.m_message == generated, "GetMessage did not store the text", input);
    CheckWrittenText(generated, tree);

    // SetMessage replaces the tree even while one is set.
    Quelt::TCData replaced;
    replaced.m_value = tree;
    replaced.SetMessage(generated);
    Require(replaced.m_message == generated, "SetMessage changed the text", input);
}

void CheckMessage(const std::string& input, const uint8_t* bytes, size_t size) {
    Quelt::TCMessage message;
    message.SetMessage(input);
    message.m_code = static_cast<unsigned int>(size);
    message.m_type = input.substr(0, 16);
    const unsigned int bufferSize = static_cast<unsigned int>(size % 257);
    message.SetBuffer(bytes, bufferSize);
    Require((message.m_buffer == nullptr) == (message.m_size == 0), "buffer and size disagree",
            input);

    Quelt::TCMessage copy(message);
    Require(copy.m_code == message.m_code && copy.m_type == message.m_type &&
                copy.m_size == message.m_size && copy.m_value == message.m_value,
            "message copy differs", input);
    Require(copy.m_size == 0 || (copy.m_buffer != message.m_buffer &&
                                 std::memcmp(copy.m_buffer, message.m_buffer, copy.m_size) == 0),
            "message copy shares or changes the buffer", input);
    if (!message.m_value.empty())
        CheckWrittenText(copy.m_message, message.m_value);

    Quelt::TCMessage assigned;
    assigned.SetBuffer(reinterpret_cast<const unsigned char*>("old"), 3);
    assigned = message;
    Require(assigned.m_size == message.m_size && assigned.m_value == message.m_value,
            "message assignment differs", input);
    if (!message.m_value.empty())
        CheckWrittenText(assigned.m_message, message.m_value);

    unsigned char* borrowed = nullptr;
    Require(assigned.GetBuffer(borrowed) == assigned.m_size && borrowed == assigned.m_buffer,
            "GetBuffer does not lend the buffer", input);
    unsigned char* owned = nullptr;
    const unsigned int copied = assigned.CopyBuffer(&owned);
    Require(copied == assigned.m_size, "CopyBuffer size", input);
    Require(copied == 0 || std::memcmp(owned, bytes, copied) == 0, "CopyBuffer bytes", input);
    delete[] owned;

    assigned.SetBuffer(nullptr, 0);
    Require(assigned.m_buffer == nullptr && assigned.m_size == 0, "SetBuffer(null, 0)", input);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    harvo_fuzz::SilenceLog();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string input(reinterpret_cast<const char*>(data), size);

    Quelt::TCData body(input);
    CheckParsed(input, body);
    CheckAgainstJsonCpp(input, body);
    CheckCopies(input, body);
    CheckTreeOnly(input, body.m_value);
    CheckMessage(input, data, size);
    return 0;
}
