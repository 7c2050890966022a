// SPDX-License-Identifier: Apache-2.0
// TCApplication: the process's application object and its lifecycle
// callbacks.

#include "TCApplication.h"

#include <atomic>
#include <cstdlib>
#include <cstring>

#include "ApplicationState.h"
#include "Guarded.h"
#include "QueltLog.h"

namespace Quelt {

namespace {

const char* NameOrEmpty(const char* name) {
    return (name != nullptr) ? name : "";
}

// The last application object destroyed; log lines may be written from
// any thread while it goes.
std::atomic<const TCApplication*> g_goneApplication{nullptr};

}  // namespace

namespace detail {

bool IsApplicationGone(const TCApplication* app) {
    return app == g_goneApplication.load();
}

}  // namespace detail

TCApplication::TCApplication(APP_TYPE type, const char* name)
    : TCServer(std::string(NameOrEmpty(name)), SERVER_TYPE_APP),
      TCEventIO(std::string(NameOrEmpty(name))),
      m_appType(type),
      m_appName(strdup(NameOrEmpty(name))) {
    // A new object at the address of a destroyed one is alive again.
    const TCApplication* self = this;
    g_goneApplication.compare_exchange_strong(self, nullptr);
}

TCApplication::~TCApplication() {
    // From here on the project name is "nil" again, although g_pAppBase
    // keeps pointing here.
    if (g_pAppBase == this)
        g_goneApplication.store(this);
    free(m_appName);
    m_appName = nullptr;
}

bool TCApplication::t_OnCreate() {
    return true;
}

bool TCApplication::t_OnStart() {
    return true;
}

void TCApplication::t_OnService(app_control_s*) {}

void TCApplication::t_OnPause() {}

void TCApplication::t_OnResume() {}

void TCApplication::t_OnTerminate() {}

void TCApplication::t_OnLangChanged() {}

// Creation stops at the first step that fails; what a failed step opened
// is closed by OnTerminate (services) or left to the process's end (a UI
// application whose create fails is not terminated by the platform).
bool TCApplication::OnCreate(void* data) {
    QLOGI("");
    TCApplication* app = static_cast<TCApplication*>(data);
    bool created = false;
    if (!QUELT_CALL_GUARDED("t_OnCreate", [&] { created = app->t_OnCreate(); }) || !created) {
        QLOGE("fail!");
        return false;
    }
    if (!app->CreateDBusServer()) {
        app->CloseDBusServer();
        QLOGE("Create DBus server fail!");
        return false;
    }
    // The queue joins the default main context, which the main loop runs:
    // events sent to the application run on the main thread.
    if (!app->Init(nullptr)) {
        QLOGE("Init fail!");
        return false;
    }
    bool started = false;
    QUELT_CALL_GUARDED("t_OnStart", [&] { started = app->t_OnStart(); });
    return started;
}

void TCApplication::OnTerminate(void* data) {
    QLOGI("");
    TCApplication* app = static_cast<TCApplication*>(data);
    // The queue and the endpoint are closed whatever the hook did.
    QUELT_CALL_GUARDED("t_OnTerminate", [&] { app->t_OnTerminate(); });
    app->Final();
    app->CloseDBusServer();
}

void TCApplication::OnPause(void* data) {
    QUELT_CALL_GUARDED("t_OnPause", [&] { static_cast<TCApplication*>(data)->t_OnPause(); });
}

void TCApplication::OnResume(void* data) {
    QUELT_CALL_GUARDED("t_OnResume", [&] { static_cast<TCApplication*>(data)->t_OnResume(); });
}

void TCApplication::OnService(app_control_s* appControl, void* data) {
    QLOGI("");
    QUELT_CALL_GUARDED("t_OnService",
                       [&] { static_cast<TCApplication*>(data)->t_OnService(appControl); });
}

void TCApplication::OnLangChanged(app_event_info*, void* data) {
    QUELT_CALL_GUARDED("t_OnLangChanged",
                       [&] { static_cast<TCApplication*>(data)->t_OnLangChanged(); });
}

TCEFLApplication::TCEFLApplication(const char* name) : TCApplication(EFL_APPLICATION, name) {}

TCDaemonService::TCDaemonService(const char* name) : TCApplication(DAEMON_SERVICE, name) {}

}  // namespace Quelt
