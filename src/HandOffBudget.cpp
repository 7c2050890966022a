// SPDX-License-Identifier: Apache-2.0
// The per-sender bound on requests waiting for a worker. See HandOffBudget.h.

#include "HandOffBudget.h"

#include <map>
#include <mutex>
#include <utility>

namespace Quelt {
namespace detail {

namespace {

using Key = std::pair<const void*, std::string>;

std::mutex& Mutex() {
    static auto* mutex = new std::mutex();
    return *mutex;
}

// Waiting requests per queue and sender; entries go when they reach 0, so
// the table holds only senders with requests waiting.
std::map<Key, size_t>& Waiting() {
    static auto* waiting = new std::map<Key, size_t>();
    return *waiting;
}

}  // namespace

HandOffSlot::HandOffSlot(HandOffSlot&& other) noexcept
    : m_queue(other.m_queue), m_sender(std::move(other.m_sender)) {
    other.m_queue = nullptr;
}

HandOffSlot& HandOffSlot::operator=(HandOffSlot&& other) noexcept {
    if (this != &other) {
        Release();
        m_queue = other.m_queue;
        m_sender = std::move(other.m_sender);
        other.m_queue = nullptr;
    }
    return *this;
}

void HandOffSlot::Release() {
    if (m_queue == nullptr)
        return;
    std::lock_guard<std::mutex> guard(Mutex());
    auto found = Waiting().find(Key(m_queue, m_sender));
    if (found != Waiting().end() && --found->second == 0)
        Waiting().erase(found);
    m_queue = nullptr;
}

HandOffSlot TakeHandOffSlot(const void* queue, const std::string& sender, size_t* waiting) {
    std::lock_guard<std::mutex> guard(Mutex());
    size_t& count = Waiting()[Key(queue, sender)];
    if (waiting != nullptr)
        *waiting = count;
    if (count >= kHandOffPerSender)
        return HandOffSlot();
    ++count;
    return HandOffSlot(queue, sender);
}

}  // namespace detail
}  // namespace Quelt
