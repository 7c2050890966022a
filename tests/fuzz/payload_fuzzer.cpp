// SPDX-License-Identifier: Apache-2.0
// Fuzz harness: the unpacking of bus payloads. The input chooses a GVariant
// type (one of the shapes a peer may really send, or a type string taken
// from the input) and supplies the serialised bytes, which GLib loads as
// untrusted data, as GDBus does for a message from the bus. The value then
// goes through every way the receiving paths unpack it:
// TCServerHelper::AnalyseServerMsg as the method handler calls it for
// SendMessage (no buffer) and SendMessageWithBuffer, with every output
// unwanted but the code, and detail::UnpackIntoMessage as the reply and
// signal paths call it. Checks: the two payload shapes come out field for
// field, any other shape writes nothing, and nothing crashes or leaks.
//
// Input layout: byte 0 picks the type; when it picks "from the input",
// byte 1 is the length of the type string that follows. The rest is data.

#include <glib.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

#include "BusPayload.h"
#include "FuzzSupport.h"
#include "TCMessage.h"
#include "TCServerHelper.h"

namespace {

using harvo_fuzz::Require;

const char kRequest[] = "(suss)";
const char kWithBuffer[] = "(sussa(y))";
const char kPlainBytes[] = "(sussay)";

// Shapes that stock tools and buggy peers send in place of the two real
// ones, and the two real ones.
const char* const kShapes[] = {kRequest,   kWithBuffer,   kPlainBytes, "(sussas)",    "(sussa(yy))",
                               "(sussv)",  "(sussa(y)s)", "(ssss)",    "(susu)",      "(sus)",
                               "(s)",      "()",          "ay",        "as",          "a(yy)",
                               "a(y)",     "s",           "v",         "(sussa{sv})", "(usss)",
                               "((suss))", "(sussmay)"};
constexpr size_t kShapeCount = sizeof(kShapes) / sizeof(kShapes[0]);

// The type for this input, and how many input bytes chose it.
std::string PickType(const uint8_t* data, size_t size, size_t* used) {
    *used = 0;
    if (size == 0)
        return kRequest;
    const size_t pick = data[0];
    *used = 1;
    if (pick < 2 * kShapeCount)
        return kShapes[pick % kShapeCount];  // the real shapes twice as often
    if (size < 2)
        return kRequest;
    const size_t length = data[1];
    *used = 2;
    if (size - 2 < length)
        return kRequest;
    std::string type(reinterpret_cast<const char*>(data + 2), length);
    *used = 2 + length;
    const char* end = nullptr;
    // One complete definite type and nothing after it.
    if (type.empty() || !g_variant_type_string_scan(type.c_str(), nullptr, &end) || *end != '\0' ||
        type.find('\0') != std::string::npos ||
        !g_variant_type_is_definite(reinterpret_cast<const GVariantType*>(type.c_str())))
        return kRequest;
    return type;
}

// An owned, aligned copy of the bytes, loaded as untrusted serialised data.
GVariant* LoadUntrusted(const std::string& type, const uint8_t* bytes, size_t size) {
    gpointer copy = g_memdup2(bytes, size);
    GVariant* value =
        g_variant_new_from_data(G_VARIANT_TYPE(type.c_str()), copy, size, FALSE, g_free, copy);
    return g_variant_ref_sink(value);
}

struct Unpacked {
    char* from = nullptr;
    unsigned int code = 0;
    char* type = nullptr;
    char* text = nullptr;
    unsigned char* buffer = nullptr;
    unsigned int size = 0;

    ~Unpacked() {
        delete[] from;
        delete[] type;
        delete[] text;
        delete[] buffer;
    }
    bool Untouched() const {
        return from == nullptr && code == 0 && type == nullptr && text == nullptr &&
               buffer == nullptr && size == 0;
    }
};

// What a well-formed payload must unpack to; the strings as GLib reads them.
void CheckFields(GVariant* payload, const Unpacked& out, const std::string& where) {
    const char* from = nullptr;
    guint32 code = 0;
    const char* type = nullptr;
    const char* text = nullptr;
    g_variant_get_child(payload, 0, "&s", &from);
    g_variant_get_child(payload, 1, "u", &code);
    g_variant_get_child(payload, 2, "&s", &type);
    g_variant_get_child(payload, 3, "&s", &text);
    Require(out.from != nullptr && std::strcmp(out.from, from) == 0, "from differs", where);
    Require(out.code == code, "code differs", where);
    Require(out.type != nullptr && std::strcmp(out.type, type) == 0, "type differs", where);
    Require(out.text != nullptr && std::strcmp(out.text, text) == 0, "message differs", where);
}

// The buffer rule: more than one byte, or one byte that is not 0.
void CheckBuffer(GVariant* payload, const Unpacked& out, const std::string& where) {
    GVariant* array = g_variant_get_child_value(payload, 4);
    gsize length = 0;
    const guint8* bytes = static_cast<const guint8*>(g_variant_get_fixed_array(array, &length, 1));
    const bool carried = length > 1 || (length == 1 && bytes[0] != 0);
    if (carried) {
        Require(out.size == length && out.buffer != nullptr &&
                    std::memcmp(out.buffer, bytes, length) == 0,
                "buffer differs", where);
    } else {
        Require(out.size == 0 && out.buffer == nullptr, "a buffer out of nothing", where);
    }
    g_variant_unref(array);
}

void CheckAnalyse(GVariant* payload, const std::string& shape, const std::string& where) {
    // As the method handler unpacks SendMessage: no buffer wanted.
    {
        Unpacked out;
        Require(Quelt::TCServerHelper::AnalyseServerMsg(payload, &out.from, &out.code, &out.type,
                                                        &out.text, nullptr, nullptr),
                "AnalyseServerMsg failed on a payload", where);
        if (shape == kRequest || shape == kWithBuffer)
            CheckFields(payload, out, where);
        else
            Require(out.Untouched(), "another shape wrote an output", where);
    }
    // As it unpacks SendMessageWithBuffer, and as a reply is unpacked.
    {
        Unpacked out;
        Quelt::TCServerHelper::AnalyseServerMsg(payload, &out.from, &out.code, &out.type, &out.text,
                                                &out.buffer, &out.size);
        if (shape == kRequest || shape == kWithBuffer)
            CheckFields(payload, out, where);
        else
            Require(out.Untouched(), "another shape wrote an output", where);
        if (shape == kWithBuffer)
            CheckBuffer(payload, out, where);
        else
            Require(out.buffer == nullptr && out.size == 0, "a buffer out of nothing", where);
    }
    // Only the code wanted.
    {
        Unpacked out;
        Quelt::TCServerHelper::AnalyseServerMsg(payload, nullptr, &out.code, nullptr, nullptr,
                                                nullptr, nullptr);
    }
}

void CheckUnpackIntoMessage(GVariant* payload, const std::string& shape, const std::string& where) {
    // The signal path: the sender's name wanted.
    char* from = nullptr;
    Quelt::TCMessage message;
    Quelt::detail::UnpackIntoMessage(payload, &from, &message);
    // The receiving paths take the plain byte array that stock tools send
    // as a buffer too; every other shape is refused before it gets here.
    const bool accepted = shape == kRequest || shape == kWithBuffer || shape == kPlainBytes;
    Require(Quelt::detail::IsMessagePayload(payload) == accepted, "the shape check disagrees",
            where);
    if (accepted) {
        const char* expected = nullptr;
        g_variant_get_child(payload, 0, "&s", &expected);
        Require(from != nullptr && std::strcmp(from, expected) == 0, "from differs", where);
        const char* text = nullptr;
        g_variant_get_child(payload, 3, "&s", &text);
        Require(message.m_message == text, "message text differs", where);
    } else {
        Require(from == nullptr && message.m_message.empty() && message.m_type.empty() &&
                    message.m_size == 0,
                "another shape filled the message", where);
    }
    Require((message.m_buffer == nullptr) == (message.m_size == 0), "buffer and size disagree",
            where);
    delete[] from;

    // The synchronous reply path: the sender's name not wanted, and the
    // reply object already holds something.
    Quelt::TCMessage reply;
    reply.SetMessage("{\"kept\":true}");
    Quelt::detail::UnpackIntoMessage(payload, nullptr, &reply);
    Quelt::TCMessage copy(reply);
    Require(copy.m_size == reply.m_size, "reply copy differs", where);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    harvo_fuzz::SilenceLog();
    // A GLib critical or warning on the way means a bad argument reached
    // GLib: a finding like a crash.
    g_log_set_always_fatal(
        static_cast<GLogLevelFlags>(G_LOG_FATAL_MASK | G_LOG_LEVEL_CRITICAL | G_LOG_LEVEL_WARNING));
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    size_t used = 0;
    const std::string shape = PickType(data, size, &used);
    // Named in a finding; the input file holds the rest.
    const std::string& where = shape;

    GVariant* loaded = LoadUntrusted(shape, data + used, size - used);
    // The last byte also says in which form the value is unpacked: as
    // loaded, in normal form (as GDBus hands over a message it has
    // checked), or byte-swapped (a peer of the other byte order).
    GVariant* payload = nullptr;
    switch (size > used ? data[size - 1] % 3 : 0) {
        case 1:
            payload = g_variant_get_normal_form(loaded);
            break;
        case 2: {
            GVariant* normal = g_variant_get_normal_form(loaded);
            payload = g_variant_byteswap(normal);
            g_variant_unref(normal);
            break;
        }
        default:
            payload = g_variant_ref(loaded);
            break;
    }
    CheckAnalyse(payload, shape, where);
    CheckUnpackIntoMessage(payload, shape, where);
    g_variant_unref(payload);
    g_variant_unref(loaded);
    return 0;
}
