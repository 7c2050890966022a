/* SPDX-License-Identifier: Apache-2.0 */
/*
 * The format a byte buffer travels in (internal to the library).
 *
 * A buffer goes on the bus as an array of one-byte structures, "a(y)", which
 * every peer reads. On the D-Bus wire each element of that array is padded
 * to 8 bytes, and GDBus builds and parses every element as a value of its
 * own: a 1 MiB buffer costs seconds and leaves hundreds of MB in GLib's
 * slice allocator. A plain byte array, "ay", travels at the speed of the
 * socket.
 *
 * An endpoint announces that it takes "ay" buffers with the annotation
 * kByteArrayAnnotation = "true" on its interface (kInterfaceXml), which
 * stock introspection shows and which changes nothing else. A sender learns
 * the announcement once per destination connection, by one Introspect call
 * (made on a thread of its own), and keeps the answer keyed by the owner's
 * unique name and the bus name; a name that changes owner is a new key, so
 * nothing learned carries over to another connection.
 *
 * A request to a connection that announced goes to that connection's
 * unique name, with its buffer as "ay" (a request without buffer goes as
 * "SendMessageWithBuffer" with an empty "ay", which means "no buffer").
 * The unique name makes such a request unable to reach any other
 * connection, and it is how the receiver tells a negotiated request from a
 * stock tool's "ay": it answers with an "ay" buffer only a request that
 * carried "ay" and was addressed to its unique name. Everything else stays
 * "a(y)".
 *
 * Threads: everything here may be called from any thread. ChooseRoute may
 * block its caller (see there); nothing else does.
 */
#ifndef HARVO_FW_SRC_BUFFERFORMAT_H
#define HARVO_FW_SRC_BUFFERFORMAT_H

#include <gio/gio.h>

#include <chrono>
#include <cstddef>
#include <string>

namespace Quelt {
namespace detail {

// The interface annotation that announces "ay" buffers, with the value
// "true".
inline constexpr char kByteArrayAnnotation[] = "harvo.fw.Buffer.ByteArray";

enum class BufferFormat {
    kStructures,  // "a(y)": every peer reads it
    kByteArray,   // "ay": only for peers that announce it
};

// A request's buffer waits at most this long for the answer of a
// destination not known yet; then it goes as "a(y)".
inline constexpr std::chrono::milliseconds kFormatProbeWait{500};
// The Introspect call itself gives up after this long (the answer still
// serves later requests when it comes after kFormatProbeWait).
inline constexpr int kFormatProbeTimeoutMs = 5000;
// At most this many destinations are remembered; the oldest answer goes
// first.
inline constexpr size_t kFormatCacheLimit = 128;

// How one request goes to an endpoint.
struct Route {
    // Where the request is addressed: the bus name, or, negotiated, the
    // unique name of the connection that owns it.
    std::string destination;
    BufferFormat format = BufferFormat::kStructures;
    bool Negotiated() const { return format == BufferFormat::kByteArray; }
};

/* The route for a request to the endpoint |busName| (its interface has the
 * same name; its object is |objectPath|) over |connection| (borrowed).
 * Known destinations are answered from the cache. For a destination not
 * known yet the Introspect call is started; a request that carries a
 * buffer (|withBuffer|) waits for its answer, at most kFormatProbeWait
 * counted from the call's start (an "a(y)" buffer costs far more than one
 * round trip), and a request without buffer never waits. Whatever is not
 * known in time goes as today: "a(y)", to the bus name. */
Route ChooseRoute(GDBusConnection* connection, const std::string& busName,
                  const std::string& objectPath, bool withBuffer);

/* Forgets what was learned about |route|'s destination for |busName|: the
 * connection no longer serves the endpoint there. */
void ForgetRoute(const Route& route, const std::string& busName);

/* Whether a failed call to a unique name says that the connection does not
 * serve the endpoint any more (gone, or its object or interface removed). */
bool EndpointMovedAway(const GError* error);

/* |size| bytes as a floating buffer value of |format|, without copying: the
 * bytes must outlive every use of the value. */
GVariant* NewBufferValue(BufferFormat format, const unsigned char* bytes, unsigned int size);

/* The format of the reply to the request of |invocation| (borrowed; null
 * gives "a(y)"): "ay" for a request that carried an "ay" buffer and was
 * addressed to this connection's unique name, "a(y)" for every other. */
BufferFormat ReplyFormatFor(GDBusMethodInvocation* invocation);

/* Whether the last field of a payload is a plain byte array ("(sussay)"). */
bool HasByteArrayBuffer(GVariant* payload);

/* For tests: forgets every destination; the number remembered. */
void ForgetAllRoutes();
size_t RememberedRouteCount();

}  // namespace detail
}  // namespace Quelt

#endif  // HARVO_FW_SRC_BUFFERFORMAT_H
