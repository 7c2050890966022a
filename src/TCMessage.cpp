// TCData (JSON body kept as text and tree) and TCMessage.

#include "TCMessage.h"

#include <cstring>
#include <exception>
#include <memory>
#include <sstream>

#include "MessageText.h"
#include "QueltLog.h"

namespace Quelt {

namespace {

const char kTreeOnlyWarning[] = "<<WARN: JSON TYPE MESSAGE, GENERATE STRING FIRST>>";

// JsonCpp's builders turn their settings into a tree on every construction,
// which costs more than parsing or writing a small body. Each thread keeps
// one reader and one compact writer, made once; neither may be shared
// between threads, and neither keeps state from one use to the next.
//
// Comments: the reader accepts them in incoming text but does not keep
// them in the tree, and the writer never writes any. A kept "//" comment
// would be written before the closing brace of the one-line text, where it
// swallows the brace and leaves text that no JSON reader accepts.
Json::CharReader& ThreadReader() {
    struct CommentDroppingReader {
        CommentDroppingReader() {
            Json::CharReaderBuilder builder;
            builder["collectComments"] = false;
            reader.reset(builder.newCharReader());
        }
        std::unique_ptr<Json::CharReader> reader;
    };
    thread_local CommentDroppingReader parsing;
    return *parsing.reader;
}

// Bytes that every JSON writer puts between quotes as they are: printable
// ASCII other than the quote and the backslash. The writer escapes the
// rest (control characters, and non-ASCII as \u sequences).
bool IsVerbatim(const char* begin, const char* end) {
    for (const char* p = begin; p != end; ++p) {
        const unsigned char c = static_cast<unsigned char>(*p);
        if (c < 0x20 || c > 0x7E || c == '"' || c == '\\')
            return false;
    }
    return true;
}

bool AppendQuoted(const char* begin, const char* end, std::string& out) {
    if (!IsVerbatim(begin, end))
        return false;
    out += '"';
    out.append(begin, static_cast<size_t>(end - begin));
    out += '"';
    return true;
}

void AppendInteger(unsigned long long magnitude, bool negative, std::string& out) {
    char digits[24];
    char* end = digits + sizeof(digits);
    char* p = end;
    do {
        *--p = static_cast<char>('0' + magnitude % 10);
        magnitude /= 10;
    } while (magnitude != 0);
    if (negative)
        *--p = '-';
    out.append(p, static_cast<size_t>(end - p));
}

// Deeper trees go to the writer, which has no limit of its own.
const int kPlainDepthLimit = 64;

// Appends the compact text of |value| as the compact writer makes it, for
// trees of objects, arrays, numbers, booleans, nulls and strings that need
// no escape: members in the tree's (byte-wise) key order, no blanks, a
// missing array element as null, floating-point numbers in JsonCpp's own
// text for them. Anything else (a string or key to escape, a very deep
// tree) returns false, and |out| is then to be discarded: the writer makes
// that text itself.
bool AppendPlain(const Json::Value& value, std::string& out, int depth) {
    switch (value.type()) {
        case Json::nullValue:
            out += "null";
            return true;
        case Json::booleanValue:
            out += value.asBool() ? "true" : "false";
            return true;
        case Json::intValue: {
            const Json::LargestInt number = value.asLargestInt();
            const unsigned long long magnitude =
                number < 0 ? 0ull - static_cast<unsigned long long>(number)
                           : static_cast<unsigned long long>(number);
            AppendInteger(magnitude, number < 0, out);
            return true;
        }
        case Json::uintValue:
            AppendInteger(value.asLargestUInt(), false, out);
            return true;
        case Json::stringValue: {
            const char* begin = nullptr;
            const char* end = nullptr;
            return value.getString(&begin, &end) && AppendQuoted(begin, end, out);
        }
        case Json::arrayValue: {
            if (depth >= kPlainDepthLimit)
                return false;
            out += '[';
            const Json::ArrayIndex size = value.size();
            for (Json::ArrayIndex i = 0; i < size; ++i) {
                if (i != 0)
                    out += ',';
                if (!AppendPlain(value[i], out, depth + 1))
                    return false;
            }
            out += ']';
            return true;
        }
        case Json::objectValue: {
            if (depth >= kPlainDepthLimit)
                return false;
            out += '{';
            bool first = true;
            for (auto it = value.begin(); it != value.end(); ++it) {
                if (!first)
                    out += ',';
                first = false;
                const char* keyEnd = nullptr;
                const char* key = it.memberName(&keyEnd);
                if (!AppendQuoted(key, keyEnd, out))
                    return false;
                out += ':';
                if (!AppendPlain(*it, out, depth + 1))
                    return false;
            }
            out += '}';
            return true;
        }
        case Json::realValue:
            // The writer's own number text, at its default precision.
            out += Json::valueToString(value.asDouble());
            return true;
        default:
            return false;
    }
}

std::string WriteCompact(const Json::Value& value) {
    // Most bodies are plain: their text is put together directly, without
    // the writer's stream.
    {
        std::string text;
        if (AppendPlain(value, text, 0))
            return text;
    }
    struct CompactWriter {
        CompactWriter() {
            Json::StreamWriterBuilder builder;
            builder["indentation"] = "";  // one line, no indentation, no line breaks
            // A tree filled by the application may carry comments of its own.
            builder["commentStyle"] = "None";
            writer.reset(builder.newStreamWriter());
        }
        std::unique_ptr<Json::StreamWriter> writer;
        std::ostringstream out;
    };
    thread_local CompactWriter compact;
    compact.out.str(std::string());
    compact.out.clear();
    compact.writer->write(value, &compact.out);
    std::string text = compact.out.str();
    // A large body would otherwise stay allocated by the thread's stream.
    compact.out.str(std::string());
    return text;
}

unsigned char* DuplicateBytes(const unsigned char* bytes, unsigned int size) {
    unsigned char* copy = new unsigned char[size];
    if (bytes != nullptr) {
        std::memcpy(copy, bytes, size);
    } else {
        std::memset(copy, 0, size);
    }
    return copy;
}

}  // namespace

namespace detail {

std::string CopiedText(const TCData& data) {
    // The steps of the copy: the text, then Generate, which rewrites it
    // from a tree that is not empty.
    return data.m_value.empty() ? data.m_message : WriteCompact(data.m_value);
}

}  // namespace detail

// ---------------------------------------------------------------------------
// TCData

TCData::TCData() {}

TCData::TCData(const std::string& message) : m_message(message) {
    Parse();
}

TCData::TCData(const TCData& other) : m_value(other.m_value) {
    // What Generate would leave: the tree's compact text, or the other's
    // text when the tree is empty. The text is not copied only to be
    // overwritten.
    m_message = m_value.empty() ? other.m_message : WriteCompact(m_value);
}

TCData& TCData::operator=(const TCData& other) {
    if (this == &other)
        return *this;
    // Unlike the copy constructor: no regeneration, and the error stays.
    m_message = other.m_message;
    m_value = other.m_value;
    return *this;
}

TCData::~TCData() {}

bool TCData::Parse() {
    if (!m_value.empty())
        return true;

    Json::CharReader& reader = ThreadReader();
    std::string errors;
    bool parsed = false;
    const char* begin = m_message.data();
    try {
        // The whole text, to its length: embedded NUL bytes are the reader's
        // business, not a terminator.
        parsed = reader.parse(begin, begin + m_message.size(), &m_value, &errors);
    } catch (const std::exception& e) {
        // The reader throws on input beyond its limits (nesting depth);
        // the framework reports that like any other parse failure.
        parsed = false;
        errors = e.what();
    }
    if (!parsed) {
        m_value = Json::Value();
        QLOGI("NOT JSON TYPE MESSAGE![%s]", m_message.c_str());
    }
    m_error = errors;
    return parsed;
}

void TCData::Generate() {
    if (m_value.empty())
        return;
    m_message = WriteCompact(m_value);
}

std::string TCData::GetMessage() {
    if (!m_value.empty() && m_message.empty())
        Generate();
    return m_message;
}

std::string TCData::GetMessage() const {
    if (!m_value.empty() && m_message.empty())
        return kTreeOnlyWarning;
    return m_message;
}

std::string TCData::GetString() const {
    if (!m_value.empty() && m_message.empty())
        return WriteCompact(m_value);
    return m_message;
}

std::string TCData::GetError() {
    if (!m_error.empty())
        return m_error;
    return "no error";
}

bool TCData::SetMessage(const std::string& message) {
    // Clearing leaves a null tree, so Parse always reads the new text.
    m_value = Json::Value();
    m_message = message;
    return Parse();
}

// ---------------------------------------------------------------------------
// TCMessage

TCMessage::TCMessage() : m_code(0), m_buffer(nullptr), m_size(0) {}

TCMessage::TCMessage(const TCMessage& other)
    : TCData(other),
      m_code(other.m_code),
      m_type(other.m_type),
      m_buffer(nullptr),
      m_size(other.m_size) {
    if (m_size != 0)
        m_buffer = DuplicateBytes(other.m_buffer, m_size);
}

TCMessage& TCMessage::operator=(const TCMessage& other) {
    if (this == &other)
        return *this;
    m_code = other.m_code;
    m_type = other.m_type;
    m_message = other.m_message;
    m_value = other.m_value;
    Generate();  // deliberately unlike TCData's assignment
    m_size = other.m_size;
    delete[] m_buffer;
    m_buffer = nullptr;
    if (m_size != 0)
        m_buffer = DuplicateBytes(other.m_buffer, m_size);
    return *this;
}

TCMessage::~TCMessage() {
    if (m_buffer != nullptr) {
        delete[] m_buffer;
        m_buffer = nullptr;
        m_size = 0;
    }
}

void TCMessage::SetBuffer(const unsigned char* buffer, unsigned int size) {
    delete[] m_buffer;
    m_buffer = nullptr;
    m_size = size;
    if (size != 0)
        m_buffer = DuplicateBytes(buffer, size);
}

unsigned int TCMessage::GetBuffer(unsigned char*& buffer) const {
    buffer = m_buffer;
    return m_size;
}

unsigned int TCMessage::CopyBuffer(unsigned char** buffer) const {
    if (buffer == nullptr)
        return 0;
    if (m_buffer == nullptr)
        return 0;
    *buffer = DuplicateBytes(m_buffer, m_size);
    return m_size;
}

}  // namespace Quelt
