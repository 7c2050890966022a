/* SPDX-License-Identifier: Apache-2.0 */
/*
 * Who speaks for an endpoint (internal to the library).
 *
 * An endpoint's bus name is owned by one connection at a time; only that
 * connection speaks for the endpoint. A request names its sender in its
 * payload ("from") and a signal is emitted on its sender's interface (the
 * sender's bus name), and any process may write either: these checks
 * compare them with the connection the bus says the message came from.
 * Owners are followed as NameOwners.h describes, so a check costs no
 * daemon round trip once the name has been asked about.
 *
 * Threads: any thread but GDBus's worker.
 */
#ifndef HARVO_FW_SRC_SENDERIDENTITY_H
#define HARVO_FW_SRC_SENDERIDENTITY_H

#include <gio/gio.h>

#include <string>

namespace Quelt {
namespace detail {

/* Whether a request that |caller| (its unique name; null on a peer-to-peer
 * connection) sent to |endpoint| with the payload's |from| may be handed
 * over as coming from |from|: false only when |claimedBusName|, the bus
 * name of the endpoint |from| names, is owned by a connection other than
 * the caller. A |from| that names no live endpoint passes (stock tools
 * send any text there). A refusal writes a warning (RefusalLog.h) naming
 * both the claimed endpoint and the caller. */
bool RequestSenderIsHonest(GDBusConnection* connection, const char* caller,
                           const std::string& endpoint, const char* from,
                           const std::string& claimedBusName);

/* Whether the signal with parameters |body| that |sender| emitted on
 * |interfaceName| comes from the connection that owned that bus name when
 * it arrived; a signal the connection's filter did not see is judged by
 * the current owner. A refusal writes a warning (RefusalLog.h); nothing
 * is written for a signal that passes. */
bool SignalIsFromNameOwner(GDBusConnection* connection, const char* sender,
                           const char* interfaceName, const char* signalName, GVariant* body);

}  // namespace detail
}  // namespace Quelt

#endif  // HARVO_FW_SRC_SENDERIDENTITY_H
