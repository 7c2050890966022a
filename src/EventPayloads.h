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

#include <functional>

namespace Quelt {

/* The function an EVENT_EXECUTE event runs on the serving IO's thread. */
using TCExecuteCallable = std::function<void()>;

}  // namespace Quelt

#endif  // HARVO_FW_SRC_EVENTPAYLOADS_H
