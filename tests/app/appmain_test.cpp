// SPDX-License-Identifier: Apache-2.0
// The entry point and the application object: AppMain's refusals,
// g_pAppBase, the project name every log line carries, the types fixed by
// the two concrete classes and the order of the hooks' virtual slots.
#include "AppTestSupport.h"

#include <cstddef>
#include <cstring>
#include <new>

namespace {

using harvo_app_test::kUserEvent;
using harvo_app_test::RecordingApp;
using Quelt::TCApplication;
using Quelt::TCDaemonService;
using Quelt::TCEFLApplication;

TEST(AppMainTest, ANullApplicationIsRefusedAndStoredAsNull) {
    TCDaemonService earlier("appmain.earlier");
    g_pAppBase = &earlier;
    ASSERT_STREQ("appmain.earlier", Quelt::GetProjectName());
    harvo_test::LogCapture capture;

    EXPECT_EQ(-1, Quelt::AppMain(0, nullptr, nullptr));

    EXPECT_EQ(nullptr, g_pAppBase);
    EXPECT_STREQ("nil", Quelt::GetProjectName());
    const auto lines = capture.Framework("Allocate Application fail!");
    ASSERT_EQ(1u, lines.size()) << capture.Dump();
    EXPECT_EQ("AppMain", lines[0].func);
    EXPECT_EQ(harvo_test::ColourFor(DLOG_ERROR), lines[0].colour);
    EXPECT_EQ("nil", lines[0].project);
    EXPECT_EQ("Quelt.cpp", lines[0].file);
    EXPECT_FALSE(capture.HasFramework(DLOG_DEBUG, "Main Begin"));
}

TEST(AppMainTest, TheProjectNameIsNilBeforeAndTheApplicationsNameAfter) {
    EXPECT_EQ(nullptr, g_pAppBase);
    EXPECT_STREQ("nil", Quelt::GetProjectName());
    EXPECT_STREQ("nil", Quelt::GetAppName());
    harvo_app_test::LendDefaultContextReference();  // the daemon's extra release
    harvo_test::LogCapture capture;
    RecordingApp<TCDaemonService> app("appmain.named");
    std::string during;
    app.onStart = [&] { return app.Post(kUserEvent); };
    app.onEvent = [&](const Quelt::TCEvent*) {
        during = Quelt::GetProjectName();
        g_main_loop_quit(app.GetMainLoop());
    };
    harvo_app_test::LoopWatchdog watchdog(&app);

    EXPECT_EQ(0, Quelt::AppMain(0, nullptr, &app));

    EXPECT_EQ("appmain.named", during);
    EXPECT_EQ(static_cast<TCApplication*>(&app), g_pAppBase);
    EXPECT_STREQ("appmain.named", Quelt::GetProjectName());
    EXPECT_STREQ("appmain.named", Quelt::GetAppName());
    // Every framework line from AppMain on carries the name.
    const auto lines = capture.Framework("Main Begin");
    ASSERT_EQ(1u, lines.size());
    EXPECT_EQ("appmain.named", lines[0].project);
}

TEST(AppMainTest, ArgumentsAreHandedOnUninterpreted) {
    RecordingApp<TCEFLApplication> app("appmain.argv");
    char empty[] = "";
    char dash[] = "--unknown=\x01\xff";
    char* argv[] = {empty, dash, nullptr, dash};  // a null inside, past argc
    app.onService = [] { ui_app_exit(); };
    harvo_app_test::LoopWatchdog watchdog(&app);

    EXPECT_EQ(0, Quelt::AppMain(2, argv, &app));

    EXPECT_EQ((std::vector<std::string>{"create", "start", "service", "terminate"}), app.Hooks());
}

// g_pAppBase is never cleared, so it may outlive its object; the name is
// then "nil" again (no application exists), also in the log lines that the
// object's own destruction writes.
TEST(AppMainTest, ADestroyedApplicationIsNoApplicationAlthoughThePointerStays) {
    alignas(TCDaemonService) unsigned char storage[sizeof(TCDaemonService)];
    auto* app = new (storage) TCDaemonService("appmain.gone");
    g_pAppBase = app;
    ASSERT_STREQ("appmain.gone", Quelt::GetProjectName());
    {
        harvo_test::LogCapture capture;
        app->~TCDaemonService();
        for (const auto& line : capture.Lines()) {
            harvo_test::FrameworkLine parsed;
            if (harvo_test::ParseFrameworkText(line.text, &parsed)) {
                EXPECT_EQ("nil", parsed.project) << line.text;
            }
        }
    }
    EXPECT_EQ(static_cast<void*>(storage), static_cast<void*>(g_pAppBase));
    EXPECT_STREQ("nil", Quelt::GetProjectName());
    // A new application built where the old one was is alive again.
    app = new (storage) TCDaemonService("appmain.again");
    EXPECT_STREQ("appmain.again", Quelt::GetProjectName());
    g_pAppBase = nullptr;
    app->~TCDaemonService();
}

TEST(ApplicationTest, TheConcreteClassesFixTheTypeAndCopyTheName) {
    char name[] = "appmain.copy";
    TCEFLApplication ui(name);
    TCDaemonService daemon(name);
    EXPECT_EQ(TCApplication::EFL_APPLICATION, ui.GetAppType());
    EXPECT_EQ(TCApplication::DAEMON_SERVICE, daemon.GetAppType());
    EXPECT_EQ(0, TCApplication::EFL_APPLICATION);
    EXPECT_EQ(1, TCApplication::ECORE_SERVICE);
    EXPECT_EQ(2, TCApplication::DAEMON_SERVICE);
    EXPECT_EQ(sizeof(int32_t), sizeof(TCApplication::APP_TYPE));
    // A heap copy: changing the caller's text changes nothing.
    EXPECT_NE(static_cast<const char*>(name), ui.GetApplicationName());
    name[0] = 'X';
    EXPECT_STREQ("appmain.copy", ui.GetApplicationName());
    EXPECT_EQ("appmain.copy", ui.GetName());
    EXPECT_EQ("appmain.copy", ui.Quelt::TCEventIO::GetName());
    EXPECT_EQ("appmain.copy.message", ui.GetBusName());
    // Not run: no stored loop, no event queue attached.
    EXPECT_EQ(nullptr, daemon.GetMainLoop());
    EXPECT_EQ(nullptr, daemon.Quelt::TCEventIO::GetMainLoop());
}

TEST(ApplicationTest, TheDefaultHooksAcceptAndDoNothing) {
    TCDaemonService daemon("appmain.defaults");
    TCApplication& app = daemon;
    EXPECT_TRUE(app.t_OnCreate());
    EXPECT_TRUE(app.t_OnStart());
    app.t_OnService(nullptr);
    app.t_OnPause();
    app.t_OnResume();
    app.t_OnTerminate();
    app.t_OnLangChanged();
    // The lifecycle callbacks that only forward log nothing of their own.
    harvo_test::LogCapture capture;
    TCApplication::OnPause(&app);
    TCApplication::OnResume(&app);
    TCApplication::OnLangChanged(nullptr, &app);
    EXPECT_TRUE(capture.Lines().empty()) << capture.Dump();
    TCApplication::OnService(nullptr, &app);
    EXPECT_TRUE(harvo_app_test::HasLineFrom(capture, DLOG_INFO, "", "OnService"));
}

// Decodes the slot of a pointer to a virtual member function. Both ABIs the
// library runs on store two words: a function word and an adjustment word.
// The generic Itanium ABI (x86-64) marks a virtual function by an odd
// function word, 1 + the byte offset of its slot in the primary table. The
// ARM C++ ABI (armv7l) keeps function addresses free to be odd (Thumb), so
// there the flag is the low bit of the adjustment word (2 * adjustment + 1)
// and the function word holds the slot's plain byte offset.
template <class Method>
std::ptrdiff_t SlotOf(Method method) {
    struct Raw {
        std::ptrdiff_t ptr;
        std::ptrdiff_t adj;
    } raw;
    static_assert(sizeof(Method) == sizeof(Raw), "two-word member pointer");
    std::memcpy(&raw, &method, sizeof(raw));
#if defined(__arm__) || defined(__aarch64__)
    EXPECT_EQ(1, raw.adj & 1) << "not a virtual member function";
    const std::ptrdiff_t offset = raw.ptr;
#else
    EXPECT_EQ(1, raw.ptr & 1) << "not a virtual member function";
    const std::ptrdiff_t offset = raw.ptr - 1;
#endif
    return offset / static_cast<std::ptrdiff_t>(sizeof(void*));
}

TEST(ApplicationTest, TheHooksFollowTheServersVirtualsInOrder) {
    // The server's table: destructor (two entries), then its three hooks.
    EXPECT_EQ(2, SlotOf(&Quelt::TCServer::IfHandleInEventIO));
    EXPECT_EQ(4, SlotOf(&Quelt::TCServer::IfMessageReplied));
    EXPECT_EQ(5, SlotOf(&TCApplication::t_OnCreate));
    EXPECT_EQ(6, SlotOf(&TCApplication::t_OnStart));
    EXPECT_EQ(7, SlotOf(&TCApplication::t_OnService));
    EXPECT_EQ(8, SlotOf(&TCApplication::t_OnPause));
    EXPECT_EQ(9, SlotOf(&TCApplication::t_OnResume));
    EXPECT_EQ(10, SlotOf(&TCApplication::t_OnTerminate));
    EXPECT_EQ(11, SlotOf(&TCApplication::t_OnLangChanged));
}

TEST(ApplicationTest, TheServerIsTheFirstBaseAndTheQueueTheSecond) {
    TCDaemonService daemon("appmain.bases");
    TCApplication* app = &daemon;
    EXPECT_EQ(static_cast<void*>(app), static_cast<void*>(static_cast<Quelt::TCServer*>(app)));
    EXPECT_LT(reinterpret_cast<char*>(static_cast<Quelt::TCServer*>(app)),
              reinterpret_cast<char*>(static_cast<Quelt::TCEventIO*>(app)));
    // Events sent to the application find its queue through the handler.
    EXPECT_EQ(static_cast<Quelt::TCEventIO*>(app),
              static_cast<Quelt::TCHandler*>(app)->GetEventIO());
}

}  // namespace
