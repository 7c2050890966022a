// SPDX-License-Identifier: Apache-2.0
// The marshalled size of a message and the return of freed heap.

#include "BusLimits.h"

#include <malloc.h>

#include "QueltLog.h"

namespace Quelt {
namespace detail {

namespace {

size_t Align(size_t offset, size_t alignment) {
    return (offset + alignment - 1) / alignment * alignment;
}

// A string at |offset|: length (4, aligned to 4), bytes, terminating zero.
size_t AfterString(size_t offset, std::string_view text) {
    return Align(offset, 4) + 4 + text.size() + 1;
}

// One header field: code byte, one-character signature (3 bytes), value.
size_t AfterHeaderField(size_t offset, std::string_view value) {
    if (value.empty())
        return offset;
    return AfterString(Align(offset, 8) + 4, value);
}

// The sender (a unique name such as ":1.4242"), the serial of a reply and
// the daemon's own additions, generously.
const size_t kDaemonFieldsBytes = 128;

}  // namespace

size_t MessageWireSize(const WireHeader& header, std::string_view from, std::string_view type,
                       std::string_view text, bool withBuffer, size_t bufferSize, bool byteArray) {
    // Fixed part: endianness, type, flags, version, body length, serial,
    // then the length of the field array.
    size_t size = 16;
    size = AfterHeaderField(size, header.path);
    size = AfterHeaderField(size, header.interfaceName);
    size = AfterHeaderField(size, header.member);
    size = AfterHeaderField(size, header.destination);
    size = AfterHeaderField(size, !withBuffer ? "suss" : byteArray ? "sussay" : "sussa(y)");
    size = Align(size + kDaemonFieldsBytes, 8);

    size_t body = AfterString(0, from);
    body = Align(body, 4) + 4;  // code
    body = AfterString(body, type);
    body = AfterString(body, text);
    if (withBuffer && byteArray) {
        // Array length, then the bytes.
        body = Align(body, 4) + 4 + bufferSize;
    } else if (withBuffer) {
        // Array length, then the elements from an 8-byte boundary: each
        // one-byte structure is padded to 8 except the last.
        body = Align(body, 4) + 4;
        body = Align(body, 8);
        if (bufferSize > 0)
            body += (bufferSize - 1) * 8 + 1;
    }
    return size + body;
}

bool FitsOnBus(size_t wireSize, const char* what) {
    if (wireSize <= kBusMessageLimit)
        return true;
    QLOGE("%s refused: %zu bytes on the wire, the bus takes at most %zu", what, wireSize,
          kBusMessageLimit);
    return false;
}

void ReleaseHeapAfter(size_t bufferBytes) {
    if (bufferBytes < kLargeBufferBytes)
        return;
#ifdef __GLIBC__
    // Every arena, also those of GDBus's thread where the elements were made.
    malloc_trim(0);
#endif
}

}  // namespace detail
}  // namespace Quelt
