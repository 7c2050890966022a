/* SPDX-License-Identifier: Apache-2.0 */
/*
 * Warnings about refused peers, at most one line per sender per second
 * (internal to the library).
 *
 * A peer that floods an endpoint with refused requests must not flood the
 * log as well. The first refusal of a sender is written at once; the ones
 * that follow within the second are counted, and when the second is over
 * one line reports the last of them with their number. Every refusal is
 * thus counted in exactly one line:
 *
 *   "<text> (<N> refused from <sender> since its last line)"
 *
 * The closing line of a second is written from a timer on the main context
 * that is the thread-default of the refusing thread (the endpoint's bus
 * dispatch context, which runs).
 *
 * Threads: any thread.
 */
#ifndef HARVO_FW_SRC_REFUSALLOG_H
#define HARVO_FW_SRC_REFUSALLOG_H

#include <string>

namespace Quelt {
namespace detail {

/* Reports one refusal of |sender| (a unique bus name) described by |text|
 * as a warning, coalesced as described above. */
void WarnRefused(const std::string& sender, const std::string& text);

}  // namespace detail
}  // namespace Quelt

#endif  // HARVO_FW_SRC_REFUSALLOG_H
