// SPDX-License-Identifier: Apache-2.0
// Keeping endpoints alive while other threads and GLib use them: tokens,
// pins, callback references and the waits of CloseDBusServer. See
// EndpointGuard.h.

#include "EndpointGuard.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <map>
#include <vector>

#include "QueltLog.h"
#include "TCLock.h"

namespace Quelt {
namespace detail {

struct EndpointState {
    TCServer* server;  // null once the close has begun
    std::string name;
    int pins = 0;           // pins held on every thread
    int sends = 0;          // of which the server's own sends in flight
    int parked = 0;         // pins of threads that wait in this endpoint's close or create
    bool detached = false;  // the close ended: pins going later leave the server alone
};

namespace {

// 30 s: longer than the bus's default call timeout (25 s) and the wait of a
// synchronous event (20 s).
constexpr unsigned kDefaultWaitLimitMs = 30000;
std::atomic<unsigned> g_waitLimitOverrideMs{0};

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

// Endpoints whose close has begun and not ended yet.
std::map<const TCServer*, EndpointToken>& ClosingEndpoints() {
    static auto* closing = new std::map<const TCServer*, EndpointToken>();
    return *closing;
}

// Endpoints whose create is in progress, with the number of creates (a
// create may run inside a handler called during another one).
std::map<const TCServer*, int>& CreatingEndpoints() {
    static auto* creating = new std::map<const TCServer*, int>();
    return *creating;
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

// Pins that hold up a close running on this thread.
int OtherThreadsPins(const EndpointState* state) {
    return state->pins - PinsOfThisThread(state) - state->parked;
}

EndpointToken FindLocked(std::map<const TCServer*, EndpointToken>& endpoints,
                         const TCServer* server) {
    auto found = endpoints.find(server);
    return found != endpoints.end() ? found->second : EndpointToken();
}

struct CallbackRef {
    EndpointToken token;
};

}  // namespace

std::mutex& RegistryMutex() {
    static auto* mutex = new std::mutex();
    return *mutex;
}

std::mutex& SignalTablesMutex() {
    static auto* mutex = new std::mutex();
    return *mutex;
}

// ---------------------------------------------------------------------------
// Pins

EndpointPin::~EndpointPin() {
    Release();
}

EndpointPin::EndpointPin(EndpointPin&& other) noexcept
    : m_token(std::move(other.m_token)), m_server(other.m_server), m_count(other.m_count) {
    other.m_server = nullptr;
    other.m_count = nullptr;
}

EndpointPin& EndpointPin::operator=(EndpointPin&& other) noexcept {
    if (this != &other) {
        Release();
        m_token = std::move(other.m_token);
        m_server = other.m_server;
        m_count = other.m_count;
        other.m_server = nullptr;
        other.m_count = nullptr;
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
    if (m_count != nullptr) {
        --m_token->sends;
        // Until its close ends the count is the server's; afterwards the
        // server may be gone.
        if (!m_token->detached)
            g_atomic_int_add(m_count, -1);
    }
    auto& pins = ThreadPins();
    auto mine = std::find(pins.begin(), pins.end(), m_token.get());
    if (mine != pins.end())
        pins.erase(mine);
    m_server = nullptr;
    m_count = nullptr;
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
    return FindLocked(OpenEndpoints(), server);
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
    return PinLocked(FindLocked(OpenEndpoints(), server));
}

// ---------------------------------------------------------------------------
// What GLib holds

gpointer NewCallbackRef(const EndpointToken& token) {
    return new CallbackRef{token};
}

void FreeCallbackRef(gpointer ref) {
    delete static_cast<CallbackRef*>(ref);
}

EndpointPin PinCallbackRef(gpointer ref) {
    if (ref == nullptr)
        return EndpointPin();
    return Pin(static_cast<CallbackRef*>(ref)->token);
}

const std::string& CallbackRefName(gpointer ref) {
    static const std::string kNone;
    return ref != nullptr ? TokenName(static_cast<CallbackRef*>(ref)->token) : kNone;
}

// ---------------------------------------------------------------------------
// Sends

SendInFlight::SendInFlight(TCServer* server, volatile gint* count) {
    std::lock_guard<std::mutex> guard(RegistryMutex());
    const EndpointToken open = FindLocked(OpenEndpoints(), server);
    if (open) {
        m_pin = PinLocked(open);
        m_pin.m_count = count;
        ++open->sends;
        g_atomic_int_inc(count);
        return;
    }
    if (FindLocked(ClosingEndpoints(), server)) {
        m_start = kClosing;
        return;
    }
    // Never created, or closed: the send fails further on ("dbus connection
    // is not open"), and no close waits for it.
    m_unpinnedCount = count;
    g_atomic_int_inc(count);
}

SendInFlight::~SendInFlight() {
    if (m_unpinnedCount != nullptr)
        g_atomic_int_add(m_unpinnedCount, -1);
}

// ---------------------------------------------------------------------------
// Closing

bool IsBeingClosed(const TCServer* server) {
    std::lock_guard<std::mutex> guard(RegistryMutex());
    return static_cast<bool>(FindLocked(ClosingEndpoints(), server));
}

CreateInProgress::CreateInProgress(const TCServer* server) : m_server(server) {
    std::lock_guard<std::mutex> guard(RegistryMutex());
    ++CreatingEndpoints()[m_server];
}

CreateInProgress::~CreateInProgress() {
    std::lock_guard<std::mutex> guard(RegistryMutex());
    auto found = CreatingEndpoints().find(m_server);
    if (found != CreatingEndpoints().end() && --found->second == 0)
        CreatingEndpoints().erase(found);
}

bool TakeCloseLockForSend(const TCServer* server, TCMutex& lock) {
    // The limit is counted in microseconds.
    constexpr unsigned long kTryUs = 1000;
    while (!lock.Try(kTryUs)) {
        std::lock_guard<std::mutex> guard(RegistryMutex());
        if (CreatingEndpoints().count(server) != 0 || FindLocked(ClosingEndpoints(), server))
            return false;
    }
    return true;
}

bool BeginClose(const TCServer* server) {
    std::lock_guard<std::mutex> guard(RegistryMutex());
    auto found = OpenEndpoints().find(server);
    if (found == OpenEndpoints().end())
        return false;
    EndpointToken token = found->second;
    OpenEndpoints().erase(found);
    token->server = nullptr;
    ClosingEndpoints()[server] = token;
    return true;
}

bool WaitForOtherThreads(const TCServer* server) {
    std::unique_lock<std::mutex> lock(RegistryMutex());
    const EndpointToken token = FindLocked(ClosingEndpoints(), server);
    if (!token)
        return true;
    const int others = OtherThreadsPins(token.get());
    if (others <= 0)
        return true;
    QLOGD("close %s: waiting for %d call(s) in progress on other threads", token->name.c_str(),
          others);
    const unsigned limitMs = OtherThreadWaitLimitMs();
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(limitMs);
    if (Changed().wait_until(lock, deadline,
                             [&token] { return OtherThreadsPins(token.get()) <= 0; })) {
        return true;
    }
    // Memory-safe from here on: the pins still held were taken from the
    // detached token, and once EndClose has run they go without touching
    // the server.
    const int sends = token->sends;
    const int others_left = OtherThreadsPins(token.get());
    QLOGE(
        "close %s: still waiting after %u ms for %d call(s) on other threads (%d send(s) of its "
        "own, %d handler(s) or deliveries): closing without them",
        token->name.c_str(), limitMs, others_left, std::min(sends, others_left),
        std::max(others_left - sends, 0));
    return false;
}

void EndClose(const TCServer* server, volatile gint* count) {
    std::lock_guard<std::mutex> guard(RegistryMutex());
    auto found = ClosingEndpoints().find(server);
    if (found == ClosingEndpoints().end())
        return;
    // Sends still in flight (the close stopped waiting for them, or they
    // run further up this thread's stack) no longer count for the server.
    if (count != nullptr)
        g_atomic_int_add(count, -found->second->sends);
    found->second->detached = true;
    ClosingEndpoints().erase(found);
    Changed().notify_all();
}

void WaitWhileBeingClosed(const TCServer* server) {
    std::unique_lock<std::mutex> lock(RegistryMutex());
    const EndpointToken token = FindLocked(ClosingEndpoints(), server);
    if (!token)
        return;
    // The close must not wait for us while we wait for it.
    const int mine = PinsOfThisThread(token.get());
    token->parked += mine;
    Changed().notify_all();
    Changed().wait(lock, [&token] { return token->detached; });
    token->parked -= mine;
}

void ForgetEndpoint(const TCServer* server) {
    if (!BeginClose(server)) {
        WaitWhileBeingClosed(server);
        return;
    }
    WaitForOtherThreads(server);
    EndClose(server, nullptr);
}

unsigned OtherThreadWaitLimitMs() {
    const unsigned override_ms = g_waitLimitOverrideMs.load();
    return override_ms != 0 ? override_ms : kDefaultWaitLimitMs;
}

void SetOtherThreadWaitLimitMsForTests(unsigned ms) {
    g_waitLimitOverrideMs.store(ms);
}

}  // namespace detail
}  // namespace Quelt
