// The body's JSON reader and writer: JsonCpp's, with the plain reader and
// writer in front of them where this build has them (see PlainJson.h).

#include "PlainJson.h"

#include <clocale>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <locale>
#include <memory>
#include <sstream>

namespace Quelt {
namespace detail {

namespace {

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

std::string WriteWithWriter(const Json::Value& value) {
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

#if HARVO_PLAIN_JSON

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

// Appends the compact text of |value| as the compact writer makes it:
// members in the tree's (byte-wise) key order, no blanks, a missing array
// element as null, floating-point numbers in JsonCpp's own text for them.
// Anything else (a string or key to escape, a very deep tree) returns
// false, and |out| is then to be discarded: the writer makes that text
// itself.
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

// The plain reader (what it takes: ReadPlainJson in PlainJson.h). Every
// value gets the offsets the JsonCpp reader gives it (the token's start and
// end; a container's end after its closing bracket).
class PlainReader {
public:
    PlainReader(const char* begin, const char* end) : m_begin(begin), m_at(begin), m_end(end) {}

    bool Read(Json::Value& root) {
        Json::Value value;
        if (!ReadValue(value, 0))
            return false;
        SkipBlanks();
        if (m_at != m_end)
            return false;
        // The reader fills the root in place: its payload and offsets.
        root.swapPayload(value);
        root.setOffsetStart(value.getOffsetStart());
        root.setOffsetLimit(value.getOffsetLimit());
        return true;
    }

private:
    static const int kDepthLimit = 64;

    void SkipBlanks() {
        while (m_at != m_end && (*m_at == ' ' || *m_at == '\t' || *m_at == '\n' || *m_at == '\r'))
            ++m_at;
    }
    ptrdiff_t Offset() const { return m_at - m_begin; }
    bool At(char c) const { return m_at != m_end && *m_at == c; }

    // A string token's contents, between its quotes; m_at moves past the
    // closing quote.
    bool ReadText(const char*& textBegin, const char*& textEnd) {
        ++m_at;  // the opening quote
        textBegin = m_at;
        while (m_at != m_end && *m_at != '"') {
            const unsigned char c = static_cast<unsigned char>(*m_at);
            if (c < 0x20 || c > 0x7E || c == '\\')
                return false;
            ++m_at;
        }
        if (m_at == m_end)
            return false;
        textEnd = m_at;
        ++m_at;  // the closing quote
        return true;
    }

    bool ReadLiteral(const char* word, size_t length) {
        if (static_cast<size_t>(m_end - m_at) < length || std::memcmp(m_at, word, length) != 0)
            return false;
        m_at += length;
        return true;
    }

    static bool IsDigit(char c) { return c >= '0' && c <= '9'; }

    // Digits from m_at on; their count.
    ptrdiff_t SkipDigits() {
        const char* first = m_at;
        while (m_at != m_end && IsDigit(*m_at))
            ++m_at;
        return m_at - first;
    }

    // The reader turns a number with a fraction or an exponent into a
    // double through a stream in the global C++ locale, which converts as
    // strtod does in the "C" locale; an overflow becomes an infinity. Only
    // finite values, read under the classic global locale, are taken here.
    static bool ToDouble(const char* begin, const char* end, double& number) {
        static const locale_t cLocale = newlocale(LC_ALL_MASK, "C", static_cast<locale_t>(nullptr));
        char text[64];
        const size_t length = static_cast<size_t>(end - begin);
        if (cLocale == static_cast<locale_t>(nullptr) || length >= sizeof(text) ||
            !(std::locale() == std::locale::classic()))
            return false;
        std::memcpy(text, begin, length);
        text[length] = '\0';
        char* stop = nullptr;
        number = strtod_l(text, &stop, cLocale);
        return stop == text + length && std::isfinite(number);
    }

    bool ReadNumber(Json::Value& value) {
        const char* begin = m_at;
        const bool negative = *m_at == '-';
        if (negative)
            ++m_at;
        const char* digits = m_at;
        const ptrdiff_t count = SkipDigits();
        if (count == 0 || (*digits == '0' && count > 1))
            return false;
        bool integral = true;
        if (At('.')) {
            ++m_at;
            if (SkipDigits() == 0)
                return false;
            integral = false;
        }
        if (At('e') || At('E')) {
            ++m_at;
            if (At('+') || At('-'))
                ++m_at;
            if (SkipDigits() == 0)
                return false;
            integral = false;
        }
        if (!integral) {
            double real = 0;
            if (!ToDouble(begin, m_at, real))
                return false;
            Json::Value number(real);
            value.swapPayload(number);
            return true;
        }
        if (count > 18)
            return false;
        unsigned long long magnitude = 0;
        for (const char* d = digits; d != digits + count; ++d)
            magnitude = magnitude * 10 + static_cast<unsigned>(*d - '0');
        Json::Value number(negative ? -static_cast<Json::LargestInt>(magnitude)
                                    : static_cast<Json::LargestInt>(magnitude));
        value.swapPayload(number);
        return true;
    }

    bool ReadValue(Json::Value& value, int depth) {
        SkipBlanks();
        if (m_at == m_end)
            return false;
        const ptrdiff_t start = Offset();
        bool read = false;
        switch (*m_at) {
            case '{':
                read = depth < kDepthLimit && ReadObject(value, depth);
                break;
            case '[':
                read = depth < kDepthLimit && ReadArray(value, depth);
                break;
            case '"': {
                const char* textBegin = nullptr;
                const char* textEnd = nullptr;
                read = ReadText(textBegin, textEnd);
                if (read) {
                    Json::Value text(textBegin, textEnd);
                    value.swapPayload(text);
                }
                break;
            }
            case 't':
            case 'f': {
                const bool truth = *m_at == 't';
                read = truth ? ReadLiteral("true", 4) : ReadLiteral("false", 5);
                if (read) {
                    Json::Value boolean(truth);
                    value.swapPayload(boolean);
                }
                break;
            }
            case 'n':
                read = ReadLiteral("null", 4);
                if (read) {
                    Json::Value null;
                    value.swapPayload(null);
                }
                break;
            default:
                read = (*m_at == '-' || IsDigit(*m_at)) && ReadNumber(value);
                break;
        }
        if (!read)
            return false;
        value.setOffsetStart(start);
        value.setOffsetLimit(Offset());
        return true;
    }

    // What follows a member or an element: the container's closing
    // bracket |close| (consumed), or a comma (consumed, with the blanks
    // after it), or anything else.
    enum class After { kClosed, kNext, kBad };
    After CloseOrComma(char close) {
        SkipBlanks();
        if (At(close)) {
            ++m_at;
            return After::kClosed;
        }
        if (!At(','))
            return After::kBad;
        ++m_at;
        SkipBlanks();
        return After::kNext;
    }

    bool ReadObject(Json::Value& object, int depth) {
        Json::Value empty(Json::objectValue);
        object.swapPayload(empty);
        ++m_at;  // '{'
        SkipBlanks();
        if (At('}')) {
            ++m_at;
            return true;
        }
        for (;;) {
            if (!At('"'))
                return false;
            const char* keyBegin = nullptr;
            const char* keyEnd = nullptr;
            if (!ReadText(keyBegin, keyEnd))
                return false;
            SkipBlanks();
            if (!At(':'))
                return false;
            ++m_at;
            const Json::ArrayIndex before = object.size();
            Json::Value* member = object.demand(keyBegin, keyEnd);
            if (object.size() == before)
                return false;  // a repeated key
            if (!ReadValue(*member, depth + 1))
                return false;
            const After after = CloseOrComma('}');
            if (after != After::kNext)
                return after == After::kClosed;
        }
    }

    bool ReadArray(Json::Value& array, int depth) {
        Json::Value empty(Json::arrayValue);
        array.swapPayload(empty);
        ++m_at;  // '['
        SkipBlanks();
        if (At(']')) {
            ++m_at;
            return true;
        }
        for (Json::ArrayIndex index = 0;; ++index) {
            if (!ReadValue(array[index], depth + 1))
                return false;
            const After after = CloseOrComma(']');
            if (after != After::kNext)
                return after == After::kClosed;
            if (At(']'))
                return false;  // a trailing comma
        }
    }

    const char* m_begin;
    const char* m_at;
    const char* m_end;
};

#endif  // HARVO_PLAIN_JSON

}  // namespace

#if HARVO_PLAIN_JSON

bool ReadPlainJson(const char* begin, const char* end, Json::Value& root) {
    return PlainReader(begin, end).Read(root);
}

bool WritePlainJson(const Json::Value& value, std::string& out) {
    return AppendPlain(value, out, 0);
}

#else  // JsonCpp reads and writes every body.

bool ReadPlainJson(const char*, const char*, Json::Value&) {
    return false;
}

bool WritePlainJson(const Json::Value&, std::string&) {
    return false;
}

#endif  // HARVO_PLAIN_JSON

bool ReadJson(const char* begin, const char* end, Json::Value& root, std::string& errors) {
    // Most bodies are plain JSON: read directly, without the reader's
    // token and node machinery.
    if (ReadPlainJson(begin, end, root)) {
        errors.clear();
        return true;
    }
    errors.clear();
    try {
        // The whole text, to its length: embedded NUL bytes are the reader's
        // business, not a terminator.
        return ThreadReader().parse(begin, end, &root, &errors);
    } catch (const std::exception& e) {
        // The reader throws on input beyond its limits (nesting depth);
        // that is reported like any other parse failure.
        errors = e.what();
        return false;
    }
}

std::string WriteCompactJson(const Json::Value& value) {
    // Most bodies are plain: their text is put together directly, without
    // the writer's stream.
    {
        std::string text;
        if (WritePlainJson(value, text))
            return text;
    }
    return WriteWithWriter(value);
}

}  // namespace detail
}  // namespace Quelt
