/* SPDX-License-Identifier: Apache-2.0 */
/*
 * Who owns a bus name (internal to the library).
 *
 * Answers which connection currently owns a well-known bus name, so that a
 * request or a buffer format can be judged by the connection behind a name
 * without asking the bus daemon every time.
 *
 * How the answer is kept current: the first question about a name on a
 * connection adds a match for the daemon's NameOwnerChanged signal with that
 * name as arg0, then asks GetNameOwner, both without waiting in between. A
 * filter on the connection (GDBus's worker thread, in the order messages
 * arrive) takes the answer and every later change of owner, so a request or
 * signal that arrives right after an ownership change is judged against the
 * new owner. At most kFollowedNamesPerConnection names are followed per
 * connection (the daemon allows a connection a few hundred match rules, and
 * the application's own subscriptions need them too): the name asked about
 * least recently is let go (its match removed) to make room. A connection's
 * names are dropped when the connection is finalised.
 *
 * Threads: everything here may be called from any thread except GDBus's
 * worker thread (NameOwner may wait for the daemon's answer).
 */
#ifndef HARVO_FW_SRC_NAMEOWNERS_H
#define HARVO_FW_SRC_NAMEOWNERS_H

#include <gio/gio.h>

#include <cstddef>
#include <string>

namespace Quelt {
namespace detail {

/* The unique name (":1.42") of the connection that owns |busName| on the
 * bus of |connection| (borrowed), or "" when nobody owns it or the bus
 * cannot say. */
std::string NameOwner(GDBusConnection* connection, const std::string& busName);

/* Names followed at once on one connection. */
constexpr size_t kFollowedNamesPerConnection = 128;

/* Starts following |busName| on |connection| (borrowed) without waiting
 * for the daemon: a subscription to an endpoint's signals calls it before
 * it adds its own match, so that the owner is known, in wire order, before
 * the first signal the subscription lets through. Invalid names are
 * ignored. */
void FollowNameOwner(GDBusConnection* connection, const std::string& busName);

/* What the connection's filter saw of a signal when it arrived. */
enum class SignalSender {
    kOwner,     // its sender owned the bus name it was emitted on
    kNotOwner,  // its sender did not own that name
    kUnjudged,  // the interface is not a followed name (or the filter did
                // not see this very message)
};

/* The verdict on the signal whose body is |body| (the parameters GDBus
 * hands to a signal callback), valid while the signal's message lives,
 * which is the whole of every callback that receives it. */
SignalSender JudgedSignalSender(GVariant* body);

/* What the cache holds and has cost, for tests. */
struct NameOwnerCounts {
    size_t daemonQuestions = 0;  // GetNameOwner calls made, since the start
    size_t followedNames = 0;    // names followed on the given connection
    size_t connections = 0;      // connections whose names are followed
};
NameOwnerCounts NameOwnerCountsFor(GDBusConnection* connection);

}  // namespace detail
}  // namespace Quelt

#endif  // HARVO_FW_SRC_NAMEOWNERS_H
