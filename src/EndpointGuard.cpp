// SPDX-License-Identifier: Apache-2.0
// Keeping endpoints alive while other threads use them: tokens, pins and
// the waits of CloseDBusServer. See EndpointGuard.h.

#include "EndpointGuard.h"

#include <algorithm>
#include <condition_variable>
#include <map>
#include <vector>

#include "QueltLog.h"

namespace Quelt {
namespace detail {

struct EndpointState {
    TCServer* server;  // null once the close has begun
    std::string name;
    int pins = 0;  // pins held on every thread
};

namespace {

// Function-level statics: usable from constructors of other statics, and
// never destroyed before a late user (a GDBus thread may still run at exit).
std::condition_variable& Changed() {
    static auto* changed = new std::condition_variable();
    return *changed;
}

std::map<const TCServer*, EndpointToken>& OpenEndpoints() {
    static auto* open = new std::map<const TCServer*, EndpointToken>();
    return *open;
}

// The pins this thread holds, one entry per pin, so that a close on this
// thread waits only for the others.
std::vector<const EndpointState*>& ThreadPins() {
    thread_local std::vector<const EndpointState*> pins;
    return pins;
}

int PinsOfThisThread(const EndpointState* state) {
    const auto& pins = ThreadPins();
    return static_cast<int>(std::count(pins.begin(), pins.end(), state));
}

}  // namespace

std::mutex& RegistryMutex() {
    static auto* mutex = new std::mutex();
    return *mutex;
}

EndpointPin::~EndpointPin() {
    Release();
}

EndpointPin::EndpointPin(EndpointPin&& other) noexcept
    : m_token(std::move(other.m_token)), m_server(other.m_server) {
    other.m_server = nullptr;
}

EndpointPin& EndpointPin::operator=(EndpointPin&& other) noexcept {
    if (this != &other) {
        Release();
        m_token = std::move(other.m_token);
        m_server = other.m_server;
        other.m_server = nullptr;
    }
    return *this;
}

TCServer* EndpointPin::get() const {
    return m_server;
}

const std::string& EndpointPin::Name() const {
    return TokenName(m_token);
}

const std::string& TokenName(const EndpointToken& token) {
    static const std::string kNone;
    return token ? token->name : kNone;
}

void EndpointPin::Release() {
    if (m_server == nullptr)
        return;
    std::lock_guard<std::mutex> guard(RegistryMutex());
    --m_token->pins;
    auto& pins = ThreadPins();
    auto mine = std::find(pins.begin(), pins.end(), m_token.get());
    if (mine != pins.end())
        pins.erase(mine);
    m_server = nullptr;
    m_token.reset();
    Changed().notify_all();
}

void OpenEndpoint(TCServer* server, const std::string& name) {
    auto state = std::make_shared<EndpointState>();
    state->server = server;
    state->name = name;
    std::lock_guard<std::mutex> guard(RegistryMutex());
    OpenEndpoints()[server] = std::move(state);
}

EndpointToken TokenOf(const TCServer* server) {
    std::lock_guard<std::mutex> guard(RegistryMutex());
    auto found = OpenEndpoints().find(server);
    return found != OpenEndpoints().end() ? found->second : EndpointToken();
}

EndpointPin PinLocked(const EndpointToken& token) {
    if (!token || token->server == nullptr)
        return EndpointPin();
    EndpointPin pin(token);
    pin.m_server = token->server;
    ++token->pins;
    ThreadPins().push_back(token.get());
    return pin;
}

EndpointPin Pin(const EndpointToken& token) {
    std::lock_guard<std::mutex> guard(RegistryMutex());
    return PinLocked(token);
}

EndpointPin PinIfOpen(const TCServer* server) {
    std::lock_guard<std::mutex> guard(RegistryMutex());
    return PinIfOpenLocked(server);
}

EndpointPin PinIfOpenLocked(const TCServer* server) {
    auto found = OpenEndpoints().find(server);
    if (found == OpenEndpoints().end())
        return EndpointPin();
    return PinLocked(found->second);
}

void CloseEndpoint(const TCServer* server) {
    std::unique_lock<std::mutex> lock(RegistryMutex());
    auto found = OpenEndpoints().find(server);
    if (found == OpenEndpoints().end())
        return;
    EndpointToken token = found->second;
    OpenEndpoints().erase(found);
    token->server = nullptr;
    const int others = token->pins - PinsOfThisThread(token.get());
    if (others > 0)
        QLOGD("close %s: waiting for %d call(s) in progress on other threads", token->name.c_str(),
              others);
    Changed().wait(lock, [&token] { return token->pins == PinsOfThisThread(token.get()); });
}

void EndSend(volatile gint* count) {
    if (g_atomic_int_dec_and_test(count)) {
        // Under the lock, so that a close between its test and its sleep
        // cannot miss the wake-up.
        std::lock_guard<std::mutex> guard(RegistryMutex());
        Changed().notify_all();
    }
}

void WaitForSends(volatile gint* count) {
    std::unique_lock<std::mutex> lock(RegistryMutex());
    Changed().wait(lock, [count] { return g_atomic_int_get(count) == 0; });
}

}  // namespace detail
}  // namespace Quelt
