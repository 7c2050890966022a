// SPDX-License-Identifier: Apache-2.0
// Host UI application loop: create, the launch request, the loop on GLib's
// default context until ui_app_exit or SIGINT/SIGTERM, then terminate; the
// host raises pause, resume and system events onto the running loop.
#include <gtest/gtest.h>

#include <app-host.h>
#include <app.h>
#include <glib.h>
#include <signal.h>
#include <unistd.h>

#include <cstddef>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace {

// What the callbacks saw, in order, and on which thread.
struct Recorder {
    std::mutex mutex;
    std::vector<std::string> calls;
    std::vector<std::thread::id> threads;
    bool create_result = true;
    bool app_control_was_valid = false;
    std::thread raiser;

    void Add(const std::string& call) {
        std::lock_guard<std::mutex> guard(mutex);
        calls.push_back(call);
        threads.push_back(std::this_thread::get_id());
    }
    std::vector<std::string> Calls() {
        std::lock_guard<std::mutex> guard(mutex);
        return calls;
    }
};

bool RecordCreate(void* data) {
    auto* recorder = static_cast<Recorder*>(data);
    recorder->Add("create");
    return recorder->create_result;
}
void RecordTerminate(void* data) {
    static_cast<Recorder*>(data)->Add("terminate");
}
void RecordPause(void* data) {
    static_cast<Recorder*>(data)->Add("pause");
}
void RecordResume(void* data) {
    static_cast<Recorder*>(data)->Add("resume");
}
void RecordAppControl(app_control_h app_control, void* data) {
    auto* recorder = static_cast<Recorder*>(data);
    recorder->app_control_was_valid = (app_control != nullptr);
    recorder->Add("app_control");
}

ui_app_lifecycle_callback_s RecordingCallbacks() {
    ui_app_lifecycle_callback_s callbacks = {};
    callbacks.create = RecordCreate;
    callbacks.terminate = RecordTerminate;
    callbacks.pause = RecordPause;
    callbacks.resume = RecordResume;
    callbacks.app_control = RecordAppControl;
    return callbacks;
}

// Ends a loop that a broken exit would leave running, so a failing test
// fails instead of hanging.
guint AddWatchdog() {
    return g_timeout_add_seconds(
        30,
        [](gpointer) -> gboolean {
            ADD_FAILURE() << "the loop did not end";
            ui_app_exit();
            return G_SOURCE_REMOVE;
        },
        nullptr);
}

void RemoveSource(guint id) {
    GSource* source = g_main_context_find_source_by_id(nullptr, id);
    if (source != nullptr)
        g_source_destroy(source);
}

void RecordLanguage(app_event_info_h info, void* data) {
    auto* recorder = static_cast<Recorder*>(data);
    EXPECT_EQ(APP_EVENT_LANGUAGE_CHANGED, ui_app_host_event_info_type(info));
    recorder->Add("language");
}

void RecordLowBattery(app_event_info_h info, void* data) {
    EXPECT_EQ(APP_EVENT_LOW_BATTERY, ui_app_host_event_info_type(info));
    static_cast<Recorder*>(data)->Add("low_battery");
}

char* kArgv[] = {const_cast<char*>("app_main_test"), nullptr};

}  // namespace

TEST(HostAppMain, DeclarationsMatchThePlatform) {
    EXPECT_EQ(0, APP_ERROR_NONE);
    EXPECT_LT(APP_ERROR_INVALID_PARAMETER, 0);
    EXPECT_LT(APP_ERROR_OUT_OF_MEMORY, 0);
    EXPECT_LT(APP_ERROR_ALREADY_RUNNING, 0);
    EXPECT_LT(APP_ERROR_INVALID_CONTEXT, 0);
    EXPECT_EQ(0, APP_EVENT_LOW_MEMORY);
    EXPECT_EQ(1, APP_EVENT_LOW_BATTERY);
    EXPECT_EQ(2, APP_EVENT_LANGUAGE_CHANGED);
    EXPECT_EQ(3, APP_EVENT_DEVICE_ORIENTATION_CHANGED);
    EXPECT_EQ(4, APP_EVENT_REGION_FORMAT_CHANGED);
    EXPECT_EQ(5, APP_EVENT_SUSPENDED_STATE_CHANGED);
    // Field order of the lifecycle record.
    EXPECT_EQ(0u, offsetof(ui_app_lifecycle_callback_s, create));
    EXPECT_LT(offsetof(ui_app_lifecycle_callback_s, create),
              offsetof(ui_app_lifecycle_callback_s, terminate));
    EXPECT_LT(offsetof(ui_app_lifecycle_callback_s, terminate),
              offsetof(ui_app_lifecycle_callback_s, pause));
    EXPECT_LT(offsetof(ui_app_lifecycle_callback_s, pause),
              offsetof(ui_app_lifecycle_callback_s, resume));
    EXPECT_LT(offsetof(ui_app_lifecycle_callback_s, resume),
              offsetof(ui_app_lifecycle_callback_s, app_control));
}

TEST(HostAppMain, RunsCreateAppControlRaisedEventsThenTerminateOnTheLoopThread) {
    Recorder recorder;
    app_event_handler_h language = nullptr;
    app_event_handler_h battery = nullptr;
    ASSERT_EQ(APP_ERROR_NONE, ui_app_add_event_handler(&language, APP_EVENT_LANGUAGE_CHANGED,
                                                       RecordLanguage, &recorder));
    ASSERT_EQ(APP_ERROR_NONE, ui_app_add_event_handler(&battery, APP_EVENT_LOW_BATTERY,
                                                       RecordLowBattery, &recorder));
    ui_app_lifecycle_callback_s callbacks = RecordingCallbacks();
    // Once the launch request is in, another thread plays the platform.
    callbacks.app_control = [](app_control_h app_control, void* data) {
        RecordAppControl(app_control, data);
        auto* rec = static_cast<Recorder*>(data);
        rec->raiser = std::thread([] {
            EXPECT_EQ(APP_ERROR_NONE, ui_app_host_raise_pause());
            EXPECT_EQ(APP_ERROR_NONE, ui_app_host_raise_resume());
            EXPECT_EQ(APP_ERROR_NONE, ui_app_host_raise_language_changed());
            EXPECT_EQ(APP_ERROR_NONE, ui_app_host_raise_event(APP_EVENT_LOW_BATTERY));
            EXPECT_EQ(APP_ERROR_NONE, ui_app_host_raise_event(APP_EVENT_LOW_MEMORY));
            ui_app_exit();
        });
    };
    guint watchdog = AddWatchdog();

    EXPECT_EQ(APP_ERROR_NONE, ui_app_main(1, kArgv, &callbacks, &recorder));
    recorder.raiser.join();
    RemoveSource(watchdog);

    EXPECT_EQ((std::vector<std::string>{"create", "app_control", "pause", "resume", "language",
                                        "low_battery", "terminate"}),
              recorder.Calls());
    EXPECT_TRUE(recorder.app_control_was_valid);
    for (const std::thread::id& id : recorder.threads)
        EXPECT_EQ(std::this_thread::get_id(), id);
    EXPECT_FALSE(ui_app_host_is_running());
    EXPECT_EQ(APP_ERROR_NONE, ui_app_remove_event_handler(language));
    EXPECT_EQ(APP_ERROR_NONE, ui_app_remove_event_handler(battery));
}

TEST(HostAppMain, CreateRefusedEndsWithAnErrorWithoutLoopOrTerminate) {
    Recorder recorder;
    recorder.create_result = false;
    ui_app_lifecycle_callback_s callbacks = RecordingCallbacks();
    // An idle on the default context would run at the loop's first turn.
    bool idle_ran = false;
    guint idle = g_idle_add(
        [](gpointer data) -> gboolean {
            *static_cast<bool*>(data) = true;
            return G_SOURCE_REMOVE;
        },
        &idle_ran);

    EXPECT_EQ(APP_ERROR_INVALID_CONTEXT, ui_app_main(1, kArgv, &callbacks, &recorder));

    EXPECT_FALSE(idle_ran);
    RemoveSource(idle);
    EXPECT_EQ((std::vector<std::string>{"create"}), recorder.Calls());
    EXPECT_FALSE(ui_app_host_is_running());
}

TEST(HostAppMain, NullCallbacksAreRefused) {
    EXPECT_EQ(APP_ERROR_INVALID_PARAMETER, ui_app_main(1, kArgv, nullptr, nullptr));
    EXPECT_FALSE(ui_app_host_is_running());
}

TEST(HostAppMain, NullCallbackMembersAreSkipped) {
    ui_app_lifecycle_callback_s callbacks = {};
    guint exit_soon = g_idle_add(
        [](gpointer) -> gboolean {
            ui_app_exit();
            return G_SOURCE_REMOVE;
        },
        nullptr);
    EXPECT_EQ(APP_ERROR_NONE, ui_app_main(1, kArgv, &callbacks, nullptr));
    RemoveSource(exit_soon);
}

TEST(HostAppMain, ASecondConcurrentMainIsRefused) {
    struct Context {
        int nested = 1;
        int other_thread = 1;
    } context;
    ui_app_lifecycle_callback_s callbacks = {};
    callbacks.create = [](void* data) -> bool {
        auto* ctx = static_cast<Context*>(data);
        ui_app_lifecycle_callback_s inner = {};
        ctx->nested = ui_app_main(1, kArgv, &inner, nullptr);
        std::thread other([ctx] {
            ui_app_lifecycle_callback_s again = {};
            ctx->other_thread = ui_app_main(1, kArgv, &again, nullptr);
        });
        other.join();
        ui_app_exit();  // remembered until the loop starts
        return true;
    };
    guint watchdog = AddWatchdog();
    EXPECT_EQ(APP_ERROR_NONE, ui_app_main(1, kArgv, &callbacks, &context));
    RemoveSource(watchdog);
    EXPECT_EQ(APP_ERROR_ALREADY_RUNNING, context.nested);
    EXPECT_EQ(APP_ERROR_ALREADY_RUNNING, context.other_thread);
}

TEST(HostAppMain, ExitDuringCreateStillDeliversTheLaunchRequestAndTerminate) {
    Recorder recorder;
    ui_app_lifecycle_callback_s callbacks = RecordingCallbacks();
    callbacks.create = [](void* data) -> bool {
        // Raised before the loop runs: queued, delivered in order once it
        // starts; the exit comes last.
        EXPECT_EQ(APP_ERROR_NONE, ui_app_host_raise_pause());
        ui_app_exit();
        EXPECT_EQ(APP_ERROR_NONE, ui_app_host_raise_resume());  // after the exit: dropped
        return RecordCreate(data);
    };
    guint watchdog = AddWatchdog();
    EXPECT_EQ(APP_ERROR_NONE, ui_app_main(1, kArgv, &callbacks, &recorder));
    RemoveSource(watchdog);
    EXPECT_EQ((std::vector<std::string>{"create", "app_control", "pause", "terminate"}),
              recorder.Calls());
}

TEST(HostAppMain, ServesDefaultContextSourcesWhileRunning) {
    Recorder recorder;
    ui_app_lifecycle_callback_s callbacks = RecordingCallbacks();
    callbacks.app_control = [](app_control_h app_control, void* data) {
        RecordAppControl(app_control, data);
        g_timeout_add(
            1,
            [](gpointer data) -> gboolean {
                static_cast<Recorder*>(data)->Add("timeout");
                ui_app_exit();
                return G_SOURCE_REMOVE;
            },
            data);
    };
    guint watchdog = AddWatchdog();
    EXPECT_EQ(APP_ERROR_NONE, ui_app_main(1, kArgv, &callbacks, &recorder));
    RemoveSource(watchdog);
    EXPECT_EQ((std::vector<std::string>{"create", "app_control", "timeout", "terminate"}),
              recorder.Calls());
}

TEST(HostAppMain, RunsAgainAfterItEnded) {
    for (int round = 0; round < 2; ++round) {
        Recorder recorder;
        ui_app_lifecycle_callback_s callbacks = RecordingCallbacks();
        callbacks.app_control = [](app_control_h app_control, void* data) {
            RecordAppControl(app_control, data);
            ui_app_exit();
        };
        guint watchdog = AddWatchdog();
        EXPECT_EQ(APP_ERROR_NONE, ui_app_main(1, kArgv, &callbacks, &recorder));
        RemoveSource(watchdog);
        EXPECT_EQ((std::vector<std::string>{"create", "app_control", "terminate"}),
                  recorder.Calls());
    }
}

class HostAppMainSignal : public ::testing::TestWithParam<int> {};

TEST_P(HostAppMainSignal, EndsTheLoopThroughTerminate) {
    Recorder recorder;
    static int signum;
    signum = GetParam();
    ui_app_lifecycle_callback_s callbacks = RecordingCallbacks();
    callbacks.app_control = [](app_control_h app_control, void* data) {
        RecordAppControl(app_control, data);
        g_idle_add(
            [](gpointer) -> gboolean {
                kill(getpid(), signum);
                return G_SOURCE_REMOVE;
            },
            nullptr);
    };
    guint watchdog = AddWatchdog();
    EXPECT_EQ(APP_ERROR_NONE, ui_app_main(1, kArgv, &callbacks, &recorder));
    RemoveSource(watchdog);
    EXPECT_EQ((std::vector<std::string>{"create", "app_control", "terminate"}), recorder.Calls());
}

INSTANTIATE_TEST_SUITE_P(IntAndTerm, HostAppMainSignal, ::testing::Values(SIGINT, SIGTERM));

TEST(HostAppMain, RaisesWithoutARunningLoopAreRefused) {
    EXPECT_FALSE(ui_app_host_is_running());
    EXPECT_EQ(APP_ERROR_INVALID_CONTEXT, ui_app_host_raise_pause());
    EXPECT_EQ(APP_ERROR_INVALID_CONTEXT, ui_app_host_raise_resume());
    EXPECT_EQ(APP_ERROR_INVALID_CONTEXT, ui_app_host_raise_language_changed());
    EXPECT_EQ(APP_ERROR_INVALID_PARAMETER,
              ui_app_host_raise_event(static_cast<app_event_type_e>(6)));
    EXPECT_EQ(APP_ERROR_INVALID_PARAMETER,
              ui_app_host_raise_event(static_cast<app_event_type_e>(-1)));
    ui_app_exit();  // nothing runs: no effect
    EXPECT_EQ(-1, ui_app_host_event_info_type(nullptr));
}

TEST(HostAppMain, EventHandlerArgumentsAreChecked) {
    app_event_handler_h handler = nullptr;
    EXPECT_EQ(APP_ERROR_INVALID_PARAMETER,
              ui_app_add_event_handler(nullptr, APP_EVENT_LOW_MEMORY, RecordLanguage, nullptr));
    EXPECT_EQ(APP_ERROR_INVALID_PARAMETER,
              ui_app_add_event_handler(&handler, APP_EVENT_LOW_MEMORY, nullptr, nullptr));
    EXPECT_EQ(APP_ERROR_INVALID_PARAMETER,
              ui_app_add_event_handler(&handler, static_cast<app_event_type_e>(9), RecordLanguage,
                                       nullptr));
    EXPECT_EQ(nullptr, handler);
    EXPECT_EQ(APP_ERROR_INVALID_PARAMETER, ui_app_remove_event_handler(nullptr));
    ASSERT_EQ(APP_ERROR_NONE,
              ui_app_add_event_handler(&handler, APP_EVENT_LOW_MEMORY, RecordLanguage, nullptr));
    EXPECT_EQ(APP_ERROR_NONE, ui_app_remove_event_handler(handler));
}

TEST(HostAppMain, RemovedHandlersAreNotCalled) {
    Recorder recorder;
    app_event_handler_h removed = nullptr;
    app_event_handler_h kept = nullptr;
    ASSERT_EQ(APP_ERROR_NONE, ui_app_add_event_handler(&removed, APP_EVENT_LANGUAGE_CHANGED,
                                                       RecordLanguage, &recorder));
    ASSERT_EQ(APP_ERROR_NONE, ui_app_add_event_handler(&kept, APP_EVENT_LANGUAGE_CHANGED,
                                                       RecordLanguage, &recorder));
    ASSERT_EQ(APP_ERROR_NONE, ui_app_remove_event_handler(removed));
    ui_app_lifecycle_callback_s callbacks = RecordingCallbacks();
    callbacks.app_control = [](app_control_h app_control, void* data) {
        RecordAppControl(app_control, data);
        ui_app_host_raise_language_changed();
        ui_app_exit();
    };
    guint watchdog = AddWatchdog();
    EXPECT_EQ(APP_ERROR_NONE, ui_app_main(1, kArgv, &callbacks, &recorder));
    RemoveSource(watchdog);
    EXPECT_EQ((std::vector<std::string>{"create", "app_control", "language", "terminate"}),
              recorder.Calls());
    EXPECT_EQ(APP_ERROR_NONE, ui_app_remove_event_handler(kept));
}
