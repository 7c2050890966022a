/* SPDX-License-Identifier: Apache-2.0 */
/*
 * A per-sender bound on the bus requests waiting for one worker (internal
 * to the library).
 *
 * A request that IfHandleInEventIO hands to a worker's event IO waits in
 * that queue until the worker takes it. The queue as a whole is bounded
 * (kWorkerHandOffHighWater, EventPayloads.h); without a bound per sender,
 * one connection flooding requests that expect no reply (which the bus
 * daemon's pending-reply limit does not count) would take the whole queue,
 * and every other client would be refused until the worker caught up.
 *
 * kHandOffPerSender = 128, an eighth of the queue: it takes eight
 * connections flooding at once to fill it, while a client with many
 * requests in flight (128 waiting for one worker is far beyond a normal
 * client) is not refused. A sender is a bus connection (its unique name),
 * so all the endpoints and threads of one process share one budget.
 *
 * Threads: any thread.
 */
#ifndef HARVO_FW_SRC_HANDOFFBUDGET_H
#define HARVO_FW_SRC_HANDOFFBUDGET_H

#include <cstddef>
#include <string>
#include <utility>

namespace Quelt {
namespace detail {

/* Requests one sender may have waiting in one worker's queue. */
constexpr size_t kHandOffPerSender = 128;

/* One waiting request's place in its sender's budget; given back by
 * Release or at destruction, once. */
class HandOffSlot {
public:
    HandOffSlot() = default;
    ~HandOffSlot() { Release(); }
    HandOffSlot(HandOffSlot&& other) noexcept;
    HandOffSlot& operator=(HandOffSlot&& other) noexcept;
    HandOffSlot(const HandOffSlot&) = delete;
    HandOffSlot& operator=(const HandOffSlot&) = delete;

    explicit operator bool() const { return m_queue != nullptr; }
    void Release();

private:
    friend HandOffSlot TakeHandOffSlot(const void* queue, const std::string& sender,
                                       size_t* waiting);
    HandOffSlot(const void* queue, std::string sender)
        : m_queue(queue), m_sender(std::move(sender)) {}

    const void* m_queue = nullptr;  // only compared
    std::string m_sender;
};

/* A slot of |sender| for |queue| (only compared, never touched), or an
 * empty one when |sender| already has kHandOffPerSender requests waiting
 * there. |waiting| receives how many it has waiting, not counting this
 * one. */
HandOffSlot TakeHandOffSlot(const void* queue, const std::string& sender, size_t* waiting);

}  // namespace detail
}  // namespace Quelt

#endif  // HARVO_FW_SRC_HANDOFFBUDGET_H
