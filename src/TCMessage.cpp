// TCData (JSON body kept as text and tree) and TCMessage. How a body's text
// is read into a tree and written back is PlainJson.cpp's.

#include "TCMessage.h"

#include <cstring>

#include "MessageText.h"
#include "PlainJson.h"
#include "QueltLog.h"

namespace Quelt {

namespace {

const char kTreeOnlyWarning[] = "<<WARN: JSON TYPE MESSAGE, GENERATE STRING FIRST>>";

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
    return data.m_value.empty() ? data.m_message : detail::WriteCompactJson(data.m_value);
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
    m_message = m_value.empty() ? other.m_message : detail::WriteCompactJson(m_value);
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

    std::string errors;
    const char* begin = m_message.data();
    const bool parsed = detail::ReadJson(begin, begin + m_message.size(), m_value, errors);
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
    m_message = detail::WriteCompactJson(m_value);
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
        return detail::WriteCompactJson(m_value);
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
