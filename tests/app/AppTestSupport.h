/* SPDX-License-Identifier: Apache-2.0 */
// Shared pieces of the application tests: an application of each type that
// records its hooks, the way each type's loop is ended, and the private bus
// with the peer program of the bus tests.
#ifndef HARVO_TEST_APP_APPTESTSUPPORT_H
#define HARVO_TEST_APP_APPTESTSUPPORT_H

#include <Ecore.h>
#include <app-host.h>
#include <app.h>
#include <glib.h>
#include <gtest/gtest.h>

#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "../bus/BusTestSupport.h"
#include "LogCapture.h"
#include "TCApplication.h"
#include "TCEventIO.h"

namespace harvo_app_test {

using Quelt::TCApplication;
using Quelt::TCEvent;
using Quelt::TCMessage;

// Events of the tests carry type codes from here on (the framework's own
// codes are 1 to 6).
constexpr int kUserEvent = 100;

// The one service type without a class of its own.
class EcoreService : public TCApplication {
public:
    explicit EcoreService(const char* name) : TCApplication(ECORE_SERVICE, name) {}
};

// An application that records every hook (and the thread it ran on) and
// lets each test decide what the hooks do.
template <class Base>
class RecordingApp : public Base {
public:
    explicit RecordingApp(const char* name) : Base(name) {}

    std::function<bool()> onCreate = [] { return true; };
    std::function<bool()> onStart = [] { return true; };
    std::function<void()> onService;
    std::function<void()> onPause;
    std::function<void()> onResume;
    std::function<void()> onLangChanged;
    std::function<void()> onTerminate;
    std::function<void(const TCEvent*)> onEvent;
    std::function<void(const TCMessage*, TCMessage*)> onMessage;
    std::function<void(const TCMessage*)> onReplied;

    bool t_OnCreate() override {
        Record("create");
        return onCreate();
    }
    bool t_OnStart() override {
        Record("start");
        return onStart();
    }
    void t_OnService(app_control_s* appControl) override {
        Record(appControl != nullptr ? "service" : "service(null)");
        if (onService)
            onService();
    }
    void t_OnPause() override {
        Record("pause");
        if (onPause)
            onPause();
    }
    void t_OnResume() override {
        Record("resume");
        if (onResume)
            onResume();
    }
    void t_OnTerminate() override {
        Record("terminate");
        if (onTerminate)
            onTerminate();
    }
    void t_OnLangChanged() override {
        Record("lang");
        if (onLangChanged)
            onLangChanged();
    }
    bool t_OnEvent(const TCEvent* event) override {
        if (event->type < kUserEvent)
            return Quelt::TCEventIO::t_OnEvent(event);
        Record("event:" + std::to_string(event->type));
        if (onEvent)
            onEvent(event);
        return true;
    }
    bool IfMessageReceived(const char* from, const TCMessage* message, TCMessage* reply,
                           const char* signalName) override {
        Record(std::string("message:") + (from != nullptr ? from : "(null)") + ":" +
               message->m_type + (signalName != nullptr ? std::string(":") + signalName : ""));
        if (onMessage)
            onMessage(message, reply);
        return true;
    }
    bool IfMessageReplied(const char* from, const TCMessage* reply) override {
        Record(std::string("replied:") + (from != nullptr ? from : "(null)") + ":" + reply->m_type);
        if (onReplied)
            onReplied(reply);
        return true;
    }

    // Posts a user event to the application's own queue (any thread).
    bool Post(int type) {
        TCEvent event;
        event.receiver = this;
        event.type = type;
        return Quelt::TCEventIO::SendEvent(&event);
    }

    void Record(const std::string& hook) {
        std::lock_guard<std::mutex> guard(mutex_);
        hooks_.push_back(hook);
        threads_.push_back(std::this_thread::get_id());
    }
    std::vector<std::string> Hooks() const {
        std::lock_guard<std::mutex> guard(mutex_);
        return hooks_;
    }
    // Whether every hook ran on |thread|.
    bool AllOn(std::thread::id thread) const {
        std::lock_guard<std::mutex> guard(mutex_);
        for (const auto& id : threads_)
            if (id != thread)
                return false;
        return true;
    }

private:
    mutable std::mutex mutex_;
    std::vector<std::string> hooks_;
    std::vector<std::thread::id> threads_;
};

// Ends the main loop that AppMain runs for |app|'s type: the UI
// application's, the Ecore loop, or the daemon's stored GLib loop.
inline void QuitLoopOf(TCApplication* app) {
    switch (app->GetAppType()) {
        case TCApplication::EFL_APPLICATION:
            ui_app_exit();
            break;
        case TCApplication::ECORE_SERVICE:
            ecore_main_loop_quit();
            break;
        default:
            g_main_loop_quit(app->GetMainLoop());
            break;
    }
}

// AppMain's daemon path releases a reference of the default main context
// that it never took. A test that goes on using the default context after
// a daemon's AppMain (the test framework's own timers, GDBus callbacks)
// gives it that reference beforehand.
inline void LendDefaultContextReference() {
    g_main_context_ref(g_main_context_default());
}

// The framework line with |text| and |prio| logged from function |func|.
inline bool HasLineFrom(const harvo_test::LogCapture& capture, int prio, const std::string& text,
                        const std::string& func) {
    for (const auto& line : capture.Framework(text)) {
        if (line.func == func && line.colour == harvo_test::ColourFor(prio))
            return true;
    }
    return false;
}

// A thread that fails the test and ends the loop if it is still running
// after a generous limit, so that a broken quit fails instead of hanging.
class LoopWatchdog {
public:
    explicit LoopWatchdog(TCApplication* app) : app_(app) {
        thread_ = std::thread([this] {
            std::unique_lock<std::mutex> lock(mutex_);
            if (!cond_.wait_for(lock, std::chrono::seconds(60), [this] { return done_; })) {
                ADD_FAILURE() << "the application's loop did not end";
                QuitLoopOf(app_);
            }
        });
    }
    ~LoopWatchdog() {
        {
            std::lock_guard<std::mutex> guard(mutex_);
            done_ = true;
        }
        cond_.notify_all();
        thread_.join();
    }

private:
    TCApplication* app_;
    std::mutex mutex_;
    std::condition_variable cond_;
    bool done_ = false;
    std::thread thread_;
};

}  // namespace harvo_app_test

#endif  // HARVO_TEST_APP_APPTESTSUPPORT_H
