// SPDX-License-Identifier: Apache-2.0
// Application endpoints for programs without C++ (pelx_create_app_endpoint
// and its loop): a daemon service whose hooks call C callbacks, attached to
// the creating thread's main context, with a loop the caller runs or
// iterates.

#include <atomic>
#include <mutex>

#include "ApplicationState.h"
#include "QueltLog.h"
#include "TCApplication.h"
#include "TCWrapperMessageOpr.h"
#include "pelx.h"

namespace {

// The body a failed message is answered with, as the framework's own.
const char kFailedReply[] = "{\"dbus_result\":\"fail\",\"errmsg\":\"error handling\"}";

// Endpoints whose callbacks run on this thread just now (a destroy from
// inside one of them would delete the object that runs it).
thread_local int t_callbackDepth = 0;
thread_local const void* t_callbackOwner = nullptr;

}  // namespace

struct pelx_app_endpoint_s : public Quelt::TCDaemonService {
    explicit pelx_app_endpoint_s(const char* name) : Quelt::TCDaemonService(name) {}

    bool IfMessageReceived(const char* from, const Quelt::TCMessage* message,
                           Quelt::TCMessage* reply, const char* signalName) override;
    bool IfMessageReplied(const char* from, const Quelt::TCMessage* reply) override;

    // The loop's context and the loop (GetMainLoop answers it too).
    GMainContext* context = nullptr;
    void SetLoop(GMainLoop* loop) { m_mainLoop = loop; }
    GMainLoop* Loop() const { return m_mainLoop; }

    std::mutex lock;  // guards the callbacks
    pelx_app_message_cb onMessage = nullptr;
    void* messageData = nullptr;
    pelx_app_reply_cb onReply = nullptr;
    void* replyData = nullptr;
};

namespace {

// Marks this thread as running one of |endpoint|'s callbacks.
class InCallback {
public:
    explicit InCallback(const pelx_app_endpoint_s* endpoint) : m_outer(t_callbackOwner) {
        t_callbackOwner = endpoint;
        ++t_callbackDepth;
    }
    ~InCallback() {
        --t_callbackDepth;
        t_callbackOwner = m_outer;
    }
    InCallback(const InCallback&) = delete;
    InCallback& operator=(const InCallback&) = delete;

private:
    const void* m_outer;
};

gboolean QuitLoop(gpointer loop) {
    g_main_loop_quit(static_cast<GMainLoop*>(loop));
    return G_SOURCE_REMOVE;
}

gboolean EndWait(gpointer /*unused*/) {
    return G_SOURCE_REMOVE;
}

}  // namespace

bool pelx_app_endpoint_s::IfMessageReceived(const char* from, const Quelt::TCMessage* message,
                                            Quelt::TCMessage* reply, const char* signalName) {
    pelx_app_message_cb callback = nullptr;
    void* userData = nullptr;
    {
        std::lock_guard<std::mutex> guard(lock);
        callback = onMessage;
        userData = messageData;
    }
    if (callback == nullptr) {
        QLOGW(
            "message from %s to %s answered empty: no message callback "
            "(pelx_set_app_message_cb)",
            from != nullptr ? from : "(null)", GetName().c_str());
        return false;
    }
    Quelt::TCWrapperMessage wrappedMessage(message);
    Quelt::TCWrapperMessage wrappedReply(reply);
    bool handled = false;
    {
        InCallback scope(this);
        handled = callback(from, wrappedMessage.GetMMessager(), wrappedReply.GetMMessager(),
                           signalName, userData);
    }
    Quelt::ConvertToMessage(wrappedReply.GetMMessager(), reply);
    if (!handled && signalName == nullptr)
        reply->SetMessage(kFailedReply);
    return handled;
}

bool pelx_app_endpoint_s::IfMessageReplied(const char* from, const Quelt::TCMessage* reply) {
    pelx_app_reply_cb callback = nullptr;
    void* userData = nullptr;
    {
        std::lock_guard<std::mutex> guard(lock);
        callback = onReply;
        userData = replyData;
    }
    if (callback == nullptr)
        return false;
    Quelt::TCWrapperMessage wrapped(reply);
    InCallback scope(this);
    callback(from, wrapped.GetMMessager(), userData);
    return true;
}

namespace {

// Undoes what a create did, in reverse; the endpoint is gone afterwards.
void Release(pelx_app_endpoint_s* endpoint) {
    endpoint->Final();
    endpoint->CloseDBusServer();
    GMainLoop* loop = endpoint->Loop();
    GMainContext* context = endpoint->context;
    delete endpoint;
    g_main_loop_unref(loop);
    g_main_context_unref(context);
}

}  // namespace

extern "C" {

PELX_API pelx_app_endpoint_s* pelx_create_app_endpoint(const char* name) {
    if (name == nullptr || name[0] == '\0') {
        QLOGW("%s is null", "name");
        return nullptr;
    }
    pelx_app_endpoint_s* endpoint = new pelx_app_endpoint_s(name);
    // Messages arrive where the object is registered: the creating thread's
    // thread-default context, which the endpoint's loop runs.
    endpoint->context = g_main_context_ref_thread_default();
    endpoint->SetLoop(g_main_loop_new(endpoint->context, FALSE));
    if (!endpoint->CreateDBusServer()) {
        QLOGE("application endpoint %s not created", name);
        Release(endpoint);
        return nullptr;
    }
    if (!endpoint->Init(endpoint->Loop())) {
        QLOGE("application endpoint %s not created: its event queue failed", name);
        Release(endpoint);
        return nullptr;
    }
    // The process's application from now on (its name is on every log
    // line), unless another application object is alive.
    if (g_pAppBase == nullptr || Quelt::detail::IsApplicationGone(g_pAppBase))
        g_pAppBase = endpoint;
    return endpoint;
}

PELX_API void pelx_destroy_app_endpoint(pelx_app_endpoint_s* endpoint) {
    if (endpoint == nullptr)
        return;
    if (t_callbackDepth > 0 && t_callbackOwner == endpoint) {
        QLOGE(
            "application endpoint %s not destroyed: called from its own callback (quit the loop "
            "there, and destroy it after pelx_run_loop returned)",
            endpoint->GetName().c_str());
        return;
    }
    Release(endpoint);
}

PELX_API bool pelx_set_app_message_cb(pelx_app_endpoint_s* endpoint, pelx_app_message_cb cb,
                                      void* user_data) {
    if (endpoint == nullptr) {
        QLOGW("%s is null", "endpoint");
        return false;
    }
    std::lock_guard<std::mutex> guard(endpoint->lock);
    endpoint->onMessage = cb;
    endpoint->messageData = user_data;
    return true;
}

PELX_API bool pelx_set_app_reply_cb(pelx_app_endpoint_s* endpoint, pelx_app_reply_cb cb,
                                    void* user_data) {
    if (endpoint == nullptr) {
        QLOGW("%s is null", "endpoint");
        return false;
    }
    std::lock_guard<std::mutex> guard(endpoint->lock);
    endpoint->onReply = cb;
    endpoint->replyData = user_data;
    return true;
}

PELX_API int pelx_run_loop(pelx_app_endpoint_s* endpoint) {
    if (endpoint == nullptr) {
        QLOGW("%s is null", "endpoint");
        return -1;
    }
    g_main_loop_run(endpoint->Loop());
    return 0;
}

PELX_API void pelx_iterate_loop(pelx_app_endpoint_s* endpoint, int timeout_ms) {
    if (endpoint == nullptr) {
        QLOGW("%s is null", "endpoint");
        return;
    }
    if (timeout_ms <= 0) {
        g_main_context_iteration(endpoint->context, timeout_ms < 0 ? TRUE : FALSE);
        return;
    }
    // A timer of our own bounds the wait.
    GSource* limit = g_timeout_source_new(static_cast<guint>(timeout_ms));
    g_source_set_callback(limit, EndWait, nullptr, nullptr);
    g_source_attach(limit, endpoint->context);
    g_main_context_iteration(endpoint->context, TRUE);
    g_source_destroy(limit);
    g_source_unref(limit);
}

PELX_API void pelx_quit_loop(pelx_app_endpoint_s* endpoint) {
    if (endpoint == nullptr) {
        QLOGW("%s is null", "endpoint");
        return;
    }
    // Through the loop's own context, so that a quit that comes before the
    // loop runs (or from another thread while it starts) is not lost.
    GSource* quit = g_idle_source_new();
    g_source_set_priority(quit, G_PRIORITY_HIGH);
    g_source_set_callback(quit, QuitLoop, g_main_loop_ref(endpoint->Loop()),
                          reinterpret_cast<GDestroyNotify>(g_main_loop_unref));
    g_source_attach(quit, endpoint->context);
    g_source_unref(quit);
}

}  // extern "C"
