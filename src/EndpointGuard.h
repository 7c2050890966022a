/* SPDX-License-Identifier: Apache-2.0 */
/*
 * Keeping endpoints alive while other threads and GLib use them (internal
 * to the library). docs/lifetimes.md lists every place where GLib or GDBus
 * holds a pointer to a framework object and the rule each one follows.
 *
 * TCServer's layout is fixed, so the state that makes close and delete safe
 * lives here, beside the class, keyed by the server's address:
 *
 *  - one process-wide lock, the registry lock, guards TCServer's registry
 *    of created servers and everything below;
 *  - every open endpoint has a shared token (EndpointToken). GLib and GDBus
 *    never hold a bare TCServer*: what they call back with is a token (a
 *    CallbackRef, released by GLib's destroy notify), and so is every
 *    request handed to a worker and every asynchronous call waiting for its
 *    reply;
 *  - a pin keeps an endpoint usable for one scope: it is taken under the
 *    registry lock, from the registry or from a token, only while the
 *    endpoint is open. Handlers running, deliveries and the endpoint's own
 *    sends in flight all hold pins;
 *  - CloseDBusServer detaches the token first (late callbacks find the
 *    endpoint gone and do nothing), then waits, without holding any lock of
 *    the endpoint, until no other thread holds a pin of it, at most
 *    OtherThreadWaitLimit(); a thread that itself waits in the close or
 *    create of that endpoint does not count;
 *  - once the close has stopped waiting, releasing a pin never touches the
 *    server again (the send count it lowers belongs to the server only
 *    until then).
 *
 * A thread's own pins do not hold up its own close: a handler that closes
 * the endpoint it was called for must not wait for itself.
 *
 * Threads: everything here may be called from any thread.
 */
#ifndef HARVO_FW_SRC_ENDPOINTGUARD_H
#define HARVO_FW_SRC_ENDPOINTGUARD_H

#include <glib.h>

#include <memory>
#include <mutex>
#include <string>

namespace Quelt {

class TCMutex;
class TCServer;

namespace detail {

struct EndpointState;
/* Null for an endpoint that is not open. */
using EndpointToken = std::shared_ptr<EndpointState>;

/* Guards TCServer's registry and every token and pin. Not recursive: never
 * call into application code while holding it. */
std::mutex& RegistryMutex();

/* Guards every server's subscription tables (TCServerSignalManager)
 * between the threads that subscribe or unsubscribe and the threads that
 * dispatch signals. Never held while application code runs. */
std::mutex& SignalTablesMutex();

/* A pinned endpoint: the server stays usable until the pin goes. Empty
 * (get() null) when the endpoint was closed. Move-only. */
class EndpointPin {
public:
    EndpointPin() = default;
    ~EndpointPin();
    EndpointPin(EndpointPin&& other) noexcept;
    EndpointPin& operator=(EndpointPin&& other) noexcept;
    EndpointPin(const EndpointPin&) = delete;
    EndpointPin& operator=(const EndpointPin&) = delete;

    TCServer* get() const;
    explicit operator bool() const { return get() != nullptr; }
    /* The endpoint name captured when the token was made. */
    const std::string& Name() const;
    /* The token this pin was taken from (null when empty). */
    const EndpointToken& Token() const { return m_token; }

private:
    friend EndpointPin PinLocked(const EndpointToken& token);
    friend class SendInFlight;
    explicit EndpointPin(EndpointToken token) : m_token(std::move(token)) {}
    void Release();

    EndpointToken m_token;
    TCServer* m_server = nullptr;      // what the token named when pinned
    volatile gint* m_count = nullptr;  // the send count raised with this pin
};

/* The endpoint name a token was made for ("" for a null token). */
const std::string& TokenName(const EndpointToken& token);
/* Marks |server| open and gives it a fresh token (create). */
void OpenEndpoint(TCServer* server, const std::string& name);
/* The token of an open |server|, or null. */
EndpointToken TokenOf(const TCServer* server);
/* Pins the endpoint of |token| unless it was closed. The registry lock must
 * be held by the caller. */
EndpointPin PinLocked(const EndpointToken& token);
/* The same, taking the registry lock. */
EndpointPin Pin(const EndpointToken& token);
/* Pins |server| if it is open (takes the registry lock). The server is only
 * compared, never touched, so a stale pointer is harmless. */
EndpointPin PinIfOpen(const TCServer* server);
/* The same, with the registry lock already held by the caller. */
EndpointPin PinIfOpenLocked(const TCServer* server);

/* What GLib holds instead of a server: a token, released by FreeCallbackRef
 * (the destroy notify given to GLib). */
gpointer NewCallbackRef(const EndpointToken& token);
void FreeCallbackRef(gpointer ref);
/* Pins the endpoint a CallbackRef names; empty once it was closed. */
EndpointPin PinCallbackRef(gpointer ref);
/* The endpoint name a CallbackRef was made for. */
const std::string& CallbackRefName(gpointer ref);

/* One send or emission of a server, from start to return: raises the
 * server's in-flight count and pins the server's own endpoint, so that its
 * close waits for the send (on other threads) and, once the close stopped
 * waiting, the late end of the send leaves the server alone. */
class SendInFlight {
public:
    enum Start {
        kStarted,  // counted (and pinned when the endpoint is open)
        kClosing,  // the endpoint is being closed: nothing was counted
    };
    /* Call with the server's close lock held, as senders do. */
    SendInFlight(TCServer* server, volatile gint* count);
    ~SendInFlight();
    SendInFlight(const SendInFlight&) = delete;
    SendInFlight& operator=(const SendInFlight&) = delete;

    Start Result() const { return m_start; }

private:
    EndpointPin m_pin;
    volatile gint* m_unpinnedCount = nullptr;  // a server that is not open
    Start m_start = kStarted;
};

/* Closing. The close runs BeginClose (under the server's close lock), then
 * WaitForOtherThreads (without it), then tears down and ends with EndClose
 * (under the close lock again). */

/* Whether another thread is in the middle of closing |server|. */
bool IsBeingClosed(const TCServer* server);
/* Detaches |server|'s token: late users find the endpoint closed, new pins
 * fail, and sends of the server report kClosing. False when |server| was
 * not open. */
bool BeginClose(const TCServer* server);
/* Waits until no other thread holds a pin of |server| (the ones parked in
 * its close or create do not count), at most OtherThreadWaitLimit(). On
 * reaching the limit logs one error line that names the endpoint and what
 * it still waits for, and returns false. */
bool WaitForOtherThreads(const TCServer* server);
/* Ends the close: pins still held afterwards never touch the server when
 * they go, and the sends among them are taken off |count| (the server's
 * in-flight count; may be null); threads waiting in WaitWhileBeingClosed
 * wake. */
void EndClose(const TCServer* server, volatile gint* count);
/* Waits until another thread's close of |server| has ended; this thread's
 * own pins of it are parked meanwhile (the close does not wait for them). */
void WaitWhileBeingClosed(const TCServer* server);
/* For a server that goes away without its close: BeginClose,
 * WaitForOtherThreads and EndClose in one. */
void ForgetEndpoint(const TCServer* server);

/* Creating. CreateDBusServer holds the server's close lock throughout (a
 * bus round trip or more): marked for its scope, so that a sender that
 * finds the lock held can tell a create from a moment's hold. */
class CreateInProgress {
public:
    explicit CreateInProgress(const TCServer* server);
    ~CreateInProgress();
    CreateInProgress(const CreateInProgress&) = delete;
    CreateInProgress& operator=(const CreateInProgress&) = delete;

private:
    const TCServer* m_server;
};

/* Takes |lock|, the close lock of |server|, for a send or an emission. Only
 * a create or a close holds it for long, and a sender never waits for
 * them: false once a try of 1 ms fails while one of them is in progress.
 * Anyone else (another sender, a subscription) holds it for a moment, and
 * is waited for however long the system keeps that thread off the
 * processor: under load that can be longer than 1 ms, and a send refused
 * then would be a message lost from a server that is not closing. */
bool TakeCloseLockForSend(const TCServer* server, TCMutex& lock);

/* How long a close (and an event queue's Final) waits for other threads:
 * 30 s, longer than the bus's default call timeout (25 s) and the
 * synchronous event's wait (20 s), so that legitimate work always ends
 * first. */
unsigned OtherThreadWaitLimitMs();
/* Tests shorten the limit; 0 restores the default. */
void SetOtherThreadWaitLimitMsForTests(unsigned ms);

}  // namespace detail
}  // namespace Quelt

#endif  // HARVO_FW_SRC_ENDPOINTGUARD_H
