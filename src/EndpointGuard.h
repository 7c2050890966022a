/* SPDX-License-Identifier: Apache-2.0 */
/*
 * Keeping endpoints alive while other threads use them (internal to the
 * library).
 *
 * TCServer's layout is fixed, so the state that makes close and delete safe
 * lives here, beside the class, keyed by the server's address:
 *
 *  - one process-wide lock, the registry lock, guards TCServer's registry
 *    of created servers and everything below;
 *  - every open endpoint has a shared token; whoever may reach the server
 *    later without holding a reference the server knows about (an
 *    asynchronous call waiting for its reply, a request handed to a worker)
 *    keeps a copy of the token instead of the bare pointer;
 *  - a pin keeps an endpoint usable for one scope: it is taken under the
 *    registry lock, from the registry or from a token, and
 *    CloseDBusServer detaches the token and then waits (sleeping on a
 *    condition) until no other thread holds a pin of that endpoint;
 *  - the in-flight send count of TCServer is lowered through EndSend, which
 *    wakes a close waiting for the count to reach 0.
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

class TCServer;

namespace detail {

struct EndpointState;
/* Null for an endpoint that is not open. */
using EndpointToken = std::shared_ptr<EndpointState>;

/* Guards TCServer's registry and every token and pin. Not recursive: never
 * call into application code while holding it. */
std::mutex& RegistryMutex();

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
    explicit EndpointPin(EndpointToken token) : m_token(std::move(token)) {}
    void Release();

    EndpointToken m_token;
    TCServer* m_server = nullptr;  // what the token named when pinned
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
/* Detaches |server|'s token (late users find it closed) and waits until no
 * other thread holds a pin of it. The registry lock must NOT be held. */
void CloseEndpoint(const TCServer* server);

/* Lowers an in-flight send count by one; the last one wakes a waiting
 * close. */
void EndSend(volatile gint* count);
/* Sleeps until |count| is 0. */
void WaitForSends(volatile gint* count);

}  // namespace detail
}  // namespace Quelt

#endif  // HARVO_FW_SRC_ENDPOINTGUARD_H
