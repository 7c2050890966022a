// SPDX-License-Identifier: Apache-2.0
// Bus naming and payload packing: the names an endpoint is known by on the
// bus, and the unpacking of the "(suss)" / "(sussa(y))" payloads.

#include "TCServerHelper.h"

#include <unistd.h>

#include <cstring>

#include "BusPayload.h"
#include "EndpointGuard.h"
#include "QueltLog.h"
#include "TCServer.h"

namespace Quelt {

namespace {

// A fresh zero-terminated new[] copy of |text|; the caller delete[]s it.
char* DuplicateText(const char* text) {
    const size_t length = std::strlen(text);
    char* copy = new char[length + 1];
    std::memcpy(copy, text, length + 1);
    return copy;
}

// Stores a copy of |text| through |out| unless the value is not wanted or
// there is no text.
void StoreText(char** out, const char* text) {
    if (out != nullptr && text != nullptr)
        *out = DuplicateText(text);
}

// The shape of a payload without buffer.
const char kPlainPayload[] = "(suss)";
// The shape in which a payload with buffer arrives: the "@a*" it was built
// with is concrete once the array is made, "a(y)".
const char kBufferPayload[] = "(sussa(y))";
// A buffer as a plain array of bytes: what stock tools send, and what
// endpoints that announce it exchange.
const char kByteArrayPayload[] = "(sussay)";

}  // namespace

void TCServerHelper::GetProcessName(std::string& name) {
    char path[1024] = {0};
    const ssize_t length = readlink("/proc/self/exe", path, sizeof(path) - 1);
    if (length < 1) {
        name = "nil";
    } else {
        const char* slash = std::strrchr(path, '/');
        const char* start = (slash != nullptr) ? slash + 1 : path;
        name.assign(start, static_cast<size_t>(path + length - start));
    }
    QLOGI("process name : %s,process path : %s", name.c_str(), path);
}

bool TCServerHelper::FormatDBusName(std::string& name) {
    // Byte by byte: every byte of a multi-byte character is replaced on its
    // own, so the length never changes.
    bool replaced = false;
    const size_t length = name.size();
    for (size_t i = 0; i < length; ++i) {
        const char c = name[i];
        const bool legal = (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') ||
                           (c >= 'a' && c <= 'z') || c == '_' || c == '.';
        if (!legal) {
            name[i] = '_';
            replaced = true;
        }
    }
    return replaced;
}

bool TCServerHelper::FormatDBusNameElements(std::string& name) {
    std::string legal;
    legal.reserve(name.size() + 4);
    bool inserted = false;
    bool elementStart = true;
    for (const char c : name) {
        if (elementStart && c >= '0' && c <= '9') {
            legal += '_';
            inserted = true;
        }
        legal += c;
        elementStart = c == '.';
    }
    if (inserted)
        name.swap(legal);
    return inserted;
}

std::string TCServerHelper::GetObjectPath(std::string busName) {
    std::string path = "." + busName;
    for (char& c : path) {
        if (c == '.')
            c = '/';
    }
    return path;
}

bool TCServerHelper::AnalyseServerMsg(GVariant* msg, char** from, unsigned int* code, char** type,
                                      char** message, unsigned char** buffer, unsigned int* size) {
    detail::PayloadView view;
    if (!detail::AnalyseServerMsg(msg, &view))
        return false;
    // Another shape: nothing is written and the caller's preset values
    // stand.
    if (!view.known)
        return true;
    StoreText(from, view.from);
    StoreText(type, view.type);
    StoreText(message, view.text);
    if (code != nullptr)
        *code = view.code;
    if (view.size != 0) {
        if (size != nullptr)
            *size = view.size;
        if (buffer != nullptr) {
            *buffer = new unsigned char[view.size];
            std::memcpy(*buffer, view.bytes, view.size);
        }
    }
    return true;
}

void TCServerHelper::SetTCMessage(TCMessage* target, char* message, unsigned int code, char* type,
                                  unsigned char* buffer, unsigned int size) {
    if (target == nullptr) {
        QLOGI("null reply");
        return;
    }
    if (message != nullptr)
        target->SetMessage(message);
    target->m_code = code;
    if (type != nullptr)
        target->m_type = type;
    // A zero size keeps whatever buffer the target already had.
    if (size != 0)
        target->SetBuffer(buffer, size);
}

std::string TCServer::m_GetDBusName(std::string name) {
    {
        std::lock_guard<std::mutex> guard(detail::RegistryMutex());
        auto found = m_CreatedDbusServers.find(name);
        if (found != m_CreatedDbusServers.end() && found->second != nullptr)
            return found->second->m_busName;
    }
    std::string busName = name + ".message";
    TCServerHelper::FormatDBusName(busName);
    TCServerHelper::FormatDBusNameElements(busName);
    return busName;
}

namespace detail {

PayloadView::~PayloadView() {
    if (array != nullptr)
        g_variant_unref(array);
}

namespace {

// The string of child |index| of a tuple whose type is already known. The
// text lives in |tuple| (in its serialised data, or in the child it holds),
// so it stays valid after the child reference is dropped.
const gchar* BorrowString(GVariant* tuple, gsize index) {
    GVariant* child = g_variant_get_child_value(tuple, index);
    const gchar* text = g_variant_get_string(child, nullptr);
    g_variant_unref(child);
    return text;
}

guint32 ReadUint32(GVariant* tuple, gsize index) {
    GVariant* child = g_variant_get_child_value(tuple, index);
    const guint32 value = g_variant_get_uint32(child);
    g_variant_unref(child);
    return value;
}

// The four leading fields, child by child: the payload's type string was
// compared already, and reading the children directly skips the format
// string that g_variant_get parses and checks on every call.
void ReadHead(GVariant* msg, PayloadView* view) {
    view->from = BorrowString(msg, 0);
    view->code = ReadUint32(msg, 1);
    view->type = BorrowString(msg, 2);
    view->text = BorrowString(msg, 3);
}

}  // namespace

// Named like the public helper, whose log lines it writes.
namespace {

// AnalyseServerMsg, with a plain byte array ("(sussay)") read as the buffer
// too when |byteArrayToo|; its lines then name the array of structures, as
// they did when such a payload was first converted into one. (An overload,
// so that the lines carry the function's name.)
bool AnalyseServerMsg(GVariant* msg, PayloadView* view, bool byteArrayToo) {
    if (msg == nullptr) {
        QLOGW("%s is null", "msg");
        return false;
    }
    const gchar* typeString = g_variant_get_type_string(msg);
    const bool byteArray = byteArrayToo && std::strcmp(typeString, kByteArrayPayload) == 0;
    if (byteArray)
        typeString = kBufferPayload;
    QLOGI("%s", typeString);

    if (std::strcmp(typeString, kPlainPayload) == 0) {
        ReadHead(msg, view);
        view->known = true;
        return true;
    }
    if (std::strcmp(typeString, kBufferPayload) == 0) {
        ReadHead(msg, view);
        view->array = g_variant_get_child_value(msg, 4);
        // Each "(y)" element, like each byte of "ay", is one byte, so the
        // array's data is the buffer.
        const guchar* data = static_cast<const guchar*>(g_variant_get_data(view->array));
        const gsize dataSize = g_variant_get_size(view->array);
        QLOGI("get data of %s", typeString);
        view->known = true;
        // An empty array or the single byte 0 stands for "no buffer".
        if (dataSize > 1 || (dataSize == 1 && data[0] != 0)) {
            view->bytes = data;
            view->size = static_cast<unsigned int>(dataSize);
        }
    }
    return true;
}

}  // namespace

bool AnalyseServerMsg(GVariant* msg, PayloadView* view) {
    return AnalyseServerMsg(msg, view, false);
}

bool ReadMessagePayload(GVariant* msg, PayloadView* view) {
    return AnalyseServerMsg(msg, view, true);
}

GVariant* BuildPayload(const char* from, guint32 code, const char* type, const char* text,
                       const unsigned char* bytes, unsigned int size) {
    const bool withBuffer = bytes != nullptr && size != 0;
    GVariant* fields[5] = {g_variant_new_string(from), g_variant_new_uint32(code),
                           g_variant_new_string(type), g_variant_new_string(text), nullptr};
    if (fields[0] == nullptr || fields[2] == nullptr || fields[3] == nullptr) {
        // A text GVariant refuses (not UTF-8): the format string's path,
        // which reports it its own way, makes the value as it always has.
        for (GVariant* field : fields) {
            if (field != nullptr)
                g_variant_unref(g_variant_ref_sink(field));
        }
        if (!withBuffer)
            return g_variant_new("(suss)", from, code, type, text);
        return g_variant_new(
            "(suss@a*)", from, code, type, text,
            g_variant_new_from_data(G_VARIANT_TYPE("a(y)"), bytes, size, TRUE, nullptr, nullptr));
    }
    if (!withBuffer)
        return g_variant_new_tuple(fields, 4);
    fields[4] =
        g_variant_new_from_data(G_VARIANT_TYPE("a(y)"), bytes, size, TRUE, nullptr, nullptr);
    return g_variant_new_tuple(fields, 5);
}

bool IsMessagePayload(GVariant* payload) {
    if (payload == nullptr)
        return false;
    const gchar* shape = g_variant_get_type_string(payload);
    return std::strcmp(shape, kPlainPayload) == 0 || std::strcmp(shape, kBufferPayload) == 0 ||
           std::strcmp(shape, kByteArrayPayload) == 0;
}

void FillMessage(TCMessage* message, const PayloadView& view) {
    if (message == nullptr) {
        // The helper writes the line for a missing target.
        TCServerHelper::SetTCMessage(nullptr, nullptr, 0, nullptr, nullptr, 0);
        return;
    }
    if (view.text != nullptr) {
        // SetMessage's steps, with the text taken straight from the payload
        // rather than through a std::string made only to be copied.
        message->m_value = Json::Value();
        message->m_message.assign(view.text);
        message->Parse();
    }
    message->m_code = view.code;
    if (view.type != nullptr)
        message->m_type.assign(view.type);
    // A zero size keeps whatever buffer the message already had.
    if (view.size != 0)
        message->SetBuffer(view.bytes, view.size);
}

void UnpackIntoMessage(GVariant* payload, char** from, TCMessage* message) {
    // Outputs start empty: a payload of another shape writes nothing but
    // the code, 0.
    PayloadView view;
    ReadMessagePayload(payload, &view);
    StoreText(from, view.known ? view.from : nullptr);
    FillMessage(message, view);
}

}  // namespace detail

}  // namespace Quelt
