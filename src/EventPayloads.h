/* SPDX-License-Identifier: Apache-2.0 */
/*
 * What the framework's own events carry in param.p (internal to the
 * library). Every payload is made on the heap by the sender and released by
 * TCEventIO::t_Clear once the event has run:
 *
 *   EVENT_INTERNAL_MESSAGE  TCMessage*, a copy owned by the event
 *   EVENT_PING              TCSemaphore[2], made with new[]
 *   EVENT_EXECUTE           TCExecuteCallable*, made with new
 *
 * The bus endpoint builds EVENT_EXECUTE events with this very type, so the
 * event IO that runs and deletes the callable agrees with its maker.
 */
#ifndef HARVO_FW_SRC_EVENTPAYLOADS_H
#define HARVO_FW_SRC_EVENTPAYLOADS_H

#include <cstddef>
#include <functional>

namespace Quelt {

/* A bus request meant for a worker (IfHandleInEventIO) is refused with the
 * error reply once the worker's queue holds this many events. Every queued
 * event is one byte in the queue's wake pipe, whose capacity is 65536 bytes
 * on Linux; a sender that finds the pipe full blocks in write() with the
 * queue's lock held, and the loop, which only tries that lock, never drains
 * it. 1024 keeps bus traffic alone 64 times below that point, leaves the
 * rest of the pipe to the application's own events, and bounds the memory
 * of waiting requests (each holds its message) while a worker is stuck. */
constexpr size_t kWorkerHandOffHighWater = 1024;

/* The function an EVENT_EXECUTE event runs on the serving IO's thread. */
using TCExecuteCallable = std::function<void()>;

namespace detail {
/* How long SendSyncEvent waits for the receiver: 20 s. Tests shorten it;
 * 0 restores the default. */
unsigned long SyncWaitUs();
void SetSyncWaitUsForTests(unsigned long us);
}  // namespace detail

}  // namespace Quelt

#endif  // HARVO_FW_SRC_EVENTPAYLOADS_H
