/* SPDX-License-Identifier: Apache-2.0 */
/*
 * What a message costs on the bus (internal to the library): its size as
 * D-Bus marshals it, checked against the bus daemon's limit before anything
 * is sent, and the return of freed heap after a large payload.
 */
#ifndef HARVO_FW_SRC_BUSLIMITS_H
#define HARVO_FW_SRC_BUSLIMITS_H

#include <cstddef>
#include <string_view>

namespace Quelt {
namespace detail {

/* The bus daemon's largest message (its max_message_size, 32 MiB on the
 * system bus). A larger one is not refused by the daemon: it drops the
 * sender's connection, which every endpoint of the process shares. */
constexpr size_t kBusMessageLimit = 32u * 1024u * 1024u;

/* Buffers from this size on are "large": their unpacking leaves much freed
 * heap behind (see ReleaseHeapAfter). */
constexpr size_t kLargeBufferBytes = 64u * 1024u;

/* The names a message carries in its header, borrowed from the caller for
 * the computation. */
struct WireHeader {
    std::string_view destination;  // empty for a signal or a reply
    std::string_view path;         // empty for a reply
    std::string_view interfaceName;
    std::string_view member;
};

/* An upper bound of the marshalled size of a message whose body is
 * (from, code, type, text) followed, when |withBuffer|, by |bufferSize|
 * bytes as an array of one-byte structures (8 bytes each on the wire) or,
 * when |byteArray|, as a plain byte array (1 byte each). The header allows
 * for the fields the daemon adds (sender, serials). */
size_t MessageWireSize(const WireHeader& header, std::string_view from, std::string_view type,
                       std::string_view text, bool withBuffer, size_t bufferSize,
                       bool byteArray = false);

/* True when a message of |wireSize| bytes passes the bus; otherwise logs
 * one error line naming |what| and both sizes. */
bool FitsOnBus(size_t wireSize, const char* what);

/* Gives freed heap back to the system after a payload of |bufferBytes|.
 * GDBus unpacks an array of structures element by element: a 1 MiB buffer
 * makes about a million small allocations on GDBus's thread, and although
 * they are freed once the buffer is read, the allocator keeps the pages
 * (hundreds of MB). Only done for large buffers: the trim walks the heap. */
void ReleaseHeapAfter(size_t bufferBytes);

}  // namespace detail
}  // namespace Quelt

#endif  // HARVO_FW_SRC_BUSLIMITS_H
