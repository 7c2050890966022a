// SPDX-License-Identifier: Apache-2.0
// TCTask: the thread, its loop and IO list, the order of Init/Final, the
// hooks, initInCaller, Destroy (from another thread, from the task's own
// handler, after the thread ended by itself, without a thread) and the
// failure paths with their log lines.
#include <gtest/gtest.h>

#include <dlog.h>

#include <linux/filter.h>
#include <linux/seccomp.h>
#include <pthread.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "LogCapture.h"
#include "TCEvent.h"
#include "TCEventIO.h"
#include "TCTask.h"
#include "TaskTestSupport.h"

using harvo_test::FrameworkLine;
using harvo_test::LogCapture;
using task_test::Gate;
using task_test::Journal;
using task_test::JournalEntry;
using task_test::kWait;
using task_test::NotifyWhenContextFinalised;
using task_test::PostUserEvent;
using task_test::ProbeTask;
using task_test::RecordingIO;
using task_test::Signal;

namespace {

const char kRefusal[] =
    "Send event EVENT_EXIT_TASK to destroy when calling Destroy at the task what you want to "
    "destroy!";

std::string PointerText(const void* p) {
    char text[64];
    std::snprintf(text, sizeof(text), "%p", p);
    return text;
}

// The number of lines at |prio| whose message is |text|, written by |func|
// in TCTask.cpp.
size_t CountTaskLines(const LogCapture& capture, int prio, const std::string& text,
                      const std::string& func) {
    size_t count = 0;
    for (const harvo_test::LogLine& line : capture.Lines()) {
        FrameworkLine parsed;
        if (line.tag != "HarvoFW" || line.prio != prio ||
            !harvo_test::ParseFrameworkText(line.text, &parsed)) {
            continue;
        }
        if (parsed.text != text || parsed.func != func || parsed.file != "TCTask.cpp")
            continue;
        EXPECT_EQ(harvo_test::ColourFor(prio), parsed.colour) << text;
        ++count;
    }
    return count;
}

// The names of the journal entries that ran on |thread|.
std::vector<std::string> NamesOn(Journal& journal, GThread* thread) {
    std::vector<std::string> names;
    for (const JournalEntry& entry : journal.Entries()) {
        if (entry.thread == thread)
            names.push_back(entry.what);
    }
    return names;
}

// A plain event IO attached to a task: records its events and their thread.
class AttachedEventIO : public Quelt::TCEventIO {
public:
    AttachedEventIO(const char* name, Journal* journal) : TCEventIO(name), journal_(journal) {}
    Signal handled;

    bool Init(GMainLoop* loop) override {
        journal_->Add("io.Init");
        return TCEventIO::Init(loop);
    }
    void Final() override {
        journal_->Add("io.Final");
        TCEventIO::Final();
    }

protected:
    bool t_OnMEvent(const Quelt::TCEvent* event) override {
        journal_->Add("io event " + std::to_string(event->type));
        handled.Notify();
        return true;
    }

private:
    Journal* journal_;
};

}  // namespace

TEST(Task, ConstructorLeavesNothingRunningAndDestructorLogsEmptyInfo) {
    LogCapture capture;
    {
        Journal journal;
        ProbeTask task("idle", &journal);
        EXPECT_EQ(nullptr, task.GetMainLoop());
        EXPECT_EQ("idle", task.GetName());
        EXPECT_EQ(task.GetEventIO(), static_cast<Quelt::TCEventIO*>(&task));
        // Not initialised: the task's own queue refuses events.
        EXPECT_FALSE(PostUserEvent(&task, 100));
        EXPECT_TRUE(capture.HasFramework(DLOG_ERROR, "event io idle has destroyed!"))
            << capture.Dump();
        capture.Clear();
    }
    EXPECT_EQ(1u, CountTaskLines(capture, DLOG_INFO, "", "~TCTask")) << capture.Dump();
    EXPECT_EQ(1u, capture.CountFramework(DLOG_INFO, "")) << capture.Dump();
}

TEST(Task, LifecycleRunsEverythingOnTheTaskThreadAndLogsEachStep) {
    LogCapture capture;
    Journal journal;
    auto task = std::make_unique<ProbeTask>("lifecycle", &journal);
    std::string threadName;
    task->onUserEvent = [&](ProbeTask*, const Quelt::TCEvent*) {
        char name[32] = {0};
        pthread_getname_np(pthread_self(), name, sizeof(name));
        threadName = name;
    };

    ASSERT_TRUE(task->Create("lifecycle", false, 12345));
    ASSERT_TRUE(task->created.WaitFor(1));
    ASSERT_TRUE(capture.WaitForFramework(DLOG_INFO, "begin", kWait)) << capture.Dump();
    GMainLoop* loop = task->GetMainLoop();
    ASSERT_NE(nullptr, loop);

    for (int type = 100; type < 105; ++type) {
        ASSERT_TRUE(PostUserEvent(task.get(), type));
    }
    ASSERT_TRUE(task->userEvents.WaitFor(5));
    EXPECT_EQ("lifecycle", threadName);  // the thread carries the task's name

    task->Destroy();
    EXPECT_EQ(1, task->destroyed.Count());

    std::vector<std::string> expected = {"t_AddIO",   "task.Init",  "t_Create",  "t_Main",
                                         "event 100", "event 101",  "event 102", "event 103",
                                         "event 104", "task.Final", "t_Destroy"};
    EXPECT_EQ(expected, journal.Names());
    GThread* taskThread = journal.ThreadOf("t_Create");
    ASSERT_NE(nullptr, taskThread);
    EXPECT_NE(g_thread_self(), taskThread);
    EXPECT_EQ(expected, NamesOn(journal, taskThread)) << "every hook and event on one thread";

    EXPECT_EQ(1u, CountTaskLines(capture, DLOG_INFO, "coroutine num : 1", "AddIO"));
    EXPECT_EQ(1u, CountTaskLines(capture, DLOG_INFO, "Init IO begin", "m_InitMainLoop"));
    EXPECT_EQ(1u, CountTaskLines(capture, DLOG_INFO, "begin", "t_Main"));
    EXPECT_EQ(
        1u, CountTaskLines(capture, DLOG_INFO, "SERVICE " + PointerText(loop) + " End!", "t_Main"));
    EXPECT_EQ(1u, CountTaskLines(capture, DLOG_INFO, "", "m_Destroy"));
    EXPECT_EQ(1u, CountTaskLines(capture, DLOG_INFO, "Final IO begin", "m_Destroy"));
    EXPECT_EQ(1u, CountTaskLines(capture, DLOG_DEBUG, "task is destroyed!", "Destroy"));
    EXPECT_EQ(0u, capture.CountFramework(DLOG_ERROR, "Create thread fail!"));
    EXPECT_EQ(0u, capture.CountFramework(DLOG_ERROR, kRefusal));

    task.reset();
    EXPECT_EQ(1u, CountTaskLines(capture, DLOG_INFO, "", "~TCTask"));
}

TEST(Task, AttachedIOsInitialiseAfterTheTaskAndFinaliseInTheSameOrder) {
    LogCapture capture;
    Journal journal;
    RecordingIO first("first", &journal);
    RecordingIO second("second", &journal);
    ProbeTask task("ordered", &journal);
    task.extraIOs = {&first, &second};

    ASSERT_TRUE(task.Create("ordered", false, 0));
    ASSERT_TRUE(task.created.WaitFor(1));
    task.Destroy();

    std::vector<std::string> expected = {"t_AddIO",      "task.Init", "first.Init", "second.Init",
                                         "t_Create",     "t_Main",    "task.Final", "first.Final",
                                         "second.Final", "t_Destroy"};
    EXPECT_EQ(expected, journal.Names());
    GThread* taskThread = journal.ThreadOf("t_AddIO");
    EXPECT_NE(g_thread_self(), taskThread);
    EXPECT_EQ(expected, NamesOn(journal, taskThread));
    // Every IO is given the task's own loop.
    EXPECT_NE(nullptr, first.loop());
    EXPECT_EQ(first.loop(), second.loop());

    EXPECT_EQ(1u, CountTaskLines(capture, DLOG_INFO, "coroutine num : 1", "AddIO"));
    EXPECT_EQ(1u, CountTaskLines(capture, DLOG_INFO, "coroutine num : 2", "AddIO"));
    EXPECT_EQ(1u, CountTaskLines(capture, DLOG_INFO, "coroutine num : 3", "AddIO"));
    EXPECT_EQ(3u, CountTaskLines(capture, DLOG_INFO, "Init IO begin", "m_InitMainLoop"));
    EXPECT_EQ(3u, CountTaskLines(capture, DLOG_INFO, "Final IO begin", "m_Destroy"));
}

TEST(Task, EventsOfAnAttachedEventIORunOnTheTaskThread) {
    Journal journal;
    AttachedEventIO io("attached", &journal);
    ProbeTask task("carrier", &journal);
    task.extraIOs = {&io};

    ASSERT_TRUE(task.Create("carrier", false, 0));
    ASSERT_TRUE(task.created.WaitFor(1));
    ASSERT_EQ(task.GetMainLoop(), io.GetMainLoop());
    ASSERT_TRUE(PostUserEvent(&io, 300));
    ASSERT_TRUE(PostUserEvent(&task, 301));
    ASSERT_TRUE(PostUserEvent(&io, 302));
    ASSERT_TRUE(io.handled.WaitFor(2));
    ASSERT_TRUE(task.userEvents.WaitFor(1));
    task.Destroy();

    GThread* taskThread = journal.ThreadOf("t_Create");
    EXPECT_NE(g_thread_self(), taskThread);
    EXPECT_EQ(taskThread, journal.ThreadOf("io event 300"));
    EXPECT_EQ(taskThread, journal.ThreadOf("io event 302"));
    EXPECT_EQ(taskThread, journal.ThreadOf("event 301"));
    EXPECT_EQ(taskThread, journal.ThreadOf("io.Init"));
    EXPECT_EQ(taskThread, journal.ThreadOf("io.Final"));
    // After the task ended its IOs are finalised: they refuse events.
    EXPECT_FALSE(PostUserEvent(&io, 303));
}

TEST(Task, DestroyFromTheTasksOwnHandlerIsRefusedAndTheTaskKeepsRunning) {
    LogCapture capture;
    Journal journal;
    ProbeTask task("selfish", &journal);
    task.onUserEvent = [](ProbeTask* self, const Quelt::TCEvent* event) {
        if (event->type == 200)
            self->Destroy();
    };

    ASSERT_TRUE(task.Create("selfish", false, 0));
    ASSERT_TRUE(task.created.WaitFor(1));
    ASSERT_TRUE(PostUserEvent(&task, 200));
    ASSERT_TRUE(task.userEvents.WaitFor(1));

    std::vector<FrameworkLine> refusal = capture.Framework(kRefusal);
    ASSERT_EQ(1u, refusal.size()) << capture.Dump();
    EXPECT_EQ("TCTask.cpp", refusal[0].file);
    EXPECT_EQ("Destroy", refusal[0].func);
    EXPECT_EQ(1u, capture.CountFramework(DLOG_ERROR, kRefusal));
    EXPECT_EQ(0u, capture.CountFramework(DLOG_DEBUG, "task is destroyed!"));

    // Still running: the next event is handled, the loop did not end.
    ASSERT_TRUE(PostUserEvent(&task, 201));
    ASSERT_TRUE(task.userEvents.WaitFor(2));
    EXPECT_EQ(0, task.destroyed.Count());
    EXPECT_EQ(0u, capture.Framework("Final IO begin").size());

    task.Destroy();
    EXPECT_EQ(1, task.destroyed.Count());
    EXPECT_EQ(1u, capture.CountFramework(DLOG_DEBUG, "task is destroyed!"));
    std::vector<std::string> expected = {"t_AddIO",   "task.Init", "t_Create",   "t_Main",
                                         "event 200", "event 201", "task.Final", "t_Destroy"};
    EXPECT_EQ(expected, journal.Names());
}

TEST(Task, ATaskEndsItselfWithTheExitEventAndDestroyThenOnlyJoins) {
    LogCapture capture;
    Journal journal;
    Signal contextGone;
    ProbeTask task("quitter", &journal);
    task.onCreate = [&](ProbeTask* self) {
        NotifyWhenContextFinalised(g_main_loop_get_context(self->GetMainLoop()), &contextGone);
    };
    task.onUserEvent = [](ProbeTask* self, const Quelt::TCEvent* event) {
        if (event->type != 210)
            return;
        Quelt::TCEvent exitEvent;
        exitEvent.receiver = self;
        exitEvent.type = Quelt::EVENT_EXIT_TASK;
        exitEvent.sync = false;
        Quelt::SendEvent(&exitEvent);
    };

    ASSERT_TRUE(task.Create("quitter", false, 0));
    ASSERT_TRUE(task.created.WaitFor(1));
    ASSERT_TRUE(PostUserEvent(&task, 210));
    ASSERT_TRUE(contextGone.WaitFor(1)) << capture.Dump();
    EXPECT_EQ(1, task.destroyed.Count());
    EXPECT_EQ(1u, capture.CountFramework(DLOG_INFO, "Final IO begin"));

    task.Destroy();
    // No exit event was sent to the finalised queue: it would have been refused.
    EXPECT_EQ(0u, capture.CountFramework(DLOG_ERROR, "event io quitter has destroyed!"))
        << capture.Dump();
    EXPECT_EQ(1u, capture.CountFramework(DLOG_DEBUG, "task is destroyed!"));
}

TEST(Task, CreateHookFailingFinalisesTheIOsAndEndsWithoutRunningTheLoop) {
    LogCapture capture;
    Journal journal;
    Signal contextGone;
    RecordingIO first("first", &journal);
    RecordingIO second("second", &journal);
    ProbeTask task("nocreate", &journal);
    task.extraIOs = {&first, &second};
    task.createResult = false;
    task.onCreate = [&](ProbeTask* self) {
        NotifyWhenContextFinalised(g_main_loop_get_context(self->GetMainLoop()), &contextGone);
    };

    ASSERT_TRUE(task.Create("nocreate", false, 0));
    ASSERT_TRUE(contextGone.WaitFor(1)) << capture.Dump();

    std::vector<std::string> expected = {"t_AddIO",     "task.Init",    "first.Init",
                                         "second.Init", "t_Create",     "task.Final",
                                         "first.Final", "second.Final", "t_Destroy"};
    EXPECT_EQ(expected, journal.Names());
    EXPECT_EQ(1u, CountTaskLines(capture, DLOG_ERROR, "fail!", "m_InitMainLoop"));
    EXPECT_EQ(0u, capture.Framework("begin").size()) << "the loop never ran";
    EXPECT_EQ(3u, CountTaskLines(capture, DLOG_INFO, "Final IO begin", "m_Destroy"));

    // The loop is gone: Destroy sends nothing and only joins.
    task.Destroy();
    EXPECT_EQ(0u, capture.CountFramework(DLOG_ERROR, "event io nocreate has destroyed!"))
        << capture.Dump();
    EXPECT_EQ(1u, CountTaskLines(capture, DLOG_DEBUG, "task is destroyed!", "Destroy"));
}

TEST(Task, AnIOWhoseInitFailsStopsTheRestAndEveryIOIsFinalised) {
    LogCapture capture;
    Journal journal;
    Signal contextGone;
    RecordingIO first("first", &journal);
    RecordingIO broken("broken", &journal, false);
    RecordingIO last("last", &journal);
    ProbeTask task("badio", &journal);
    task.extraIOs = {&first, &broken, &last};
    // t_Create never runs here: watch the context from the first IO's Init.
    first.onInit = [&](GMainLoop* loop) {
        NotifyWhenContextFinalised(g_main_loop_get_context(loop), &contextGone);
    };

    ASSERT_TRUE(task.Create("badio", false, 0));
    ASSERT_TRUE(contextGone.WaitFor(1)) << capture.Dump();

    std::vector<std::string> expected = {"t_AddIO",      "task.Init",  "first.Init",
                                         "broken.Init",  "task.Final", "first.Final",
                                         "broken.Final", "last.Final", "t_Destroy"};
    EXPECT_EQ(expected, journal.Names()) << "last is finalised although never initialised";
    EXPECT_EQ(3u, CountTaskLines(capture, DLOG_INFO, "Init IO begin", "m_InitMainLoop"));
    EXPECT_EQ(1u, CountTaskLines(capture, DLOG_ERROR, "Init fail!", "m_InitMainLoop"));
    EXPECT_EQ(0u, capture.Framework("begin").size()) << "the loop never ran";
    EXPECT_EQ(4u, capture.CountFramework(DLOG_INFO, "Final IO begin"));
    GThread* taskThread = journal.ThreadOf("t_AddIO");
    EXPECT_NE(g_thread_self(), taskThread);
    EXPECT_EQ(expected, NamesOn(journal, taskThread));

    task.Destroy();
    EXPECT_EQ(0u, capture.CountFramework(DLOG_ERROR, "event io badio has destroyed!"));
    EXPECT_EQ(1u, capture.CountFramework(DLOG_DEBUG, "task is destroyed!"));
}

TEST(Task, DestroyWithoutAThreadSendsNothingAndJoinsNothing) {
    LogCapture capture;
    Journal journal;
    ProbeTask task("never", &journal);
    task.Destroy();
    EXPECT_EQ(1u, CountTaskLines(capture, DLOG_DEBUG, "task is destroyed!", "Destroy"));
    EXPECT_EQ(0u, capture.CountFramework(DLOG_ERROR, "event io never has destroyed!"));
    EXPECT_EQ(0u, capture.CountFramework(DLOG_ERROR, kRefusal));
    EXPECT_TRUE(journal.Names().empty());
    // A second Destroy is just as harmless.
    task.Destroy();
    EXPECT_EQ(2u, capture.CountFramework(DLOG_DEBUG, "task is destroyed!"));
}

TEST(Task, DestroyTwiceAfterARunningTaskOnlyLogs) {
    LogCapture capture;
    Journal journal;
    ProbeTask task("twice", &journal);
    ASSERT_TRUE(task.Create("twice", false, 0));
    ASSERT_TRUE(task.created.WaitFor(1));
    task.Destroy();
    task.Destroy();
    EXPECT_EQ(2u, capture.CountFramework(DLOG_DEBUG, "task is destroyed!"));
    EXPECT_EQ(1, task.destroyed.Count());
    EXPECT_EQ(0u, capture.CountFramework(DLOG_ERROR, "event io twice has destroyed!"));
}

TEST(Task, InitInCallerBuildsTheLoopOnTheCallingThreadAndQueuedEventsWait) {
    LogCapture capture;
    Journal journal;
    Gate gate;
    RecordingIO extra("extra", &journal);
    ProbeTask task("incaller", &journal);
    task.extraIOs = {&extra};
    task.mainGate = &gate;
    // Sent from t_Create, before the thread even exists.
    task.onCreate = [](ProbeTask* self) { EXPECT_TRUE(PostUserEvent(self, 400)); };

    ASSERT_TRUE(task.Create("incaller", true, 0));
    // Everything up to t_Create ran here, on the calling thread.
    std::vector<std::string> inCaller = {"t_AddIO", "task.Init", "extra.Init", "t_Create"};
    EXPECT_EQ(inCaller, NamesOn(journal, g_thread_self()));
    EXPECT_NE(nullptr, task.GetMainLoop());
    EXPECT_EQ(task.GetMainLoop(), extra.loop());

    // The thread is held back before its loop runs: events wait in the queue.
    ASSERT_TRUE(PostUserEvent(&task, 401));
    ASSERT_TRUE(PostUserEvent(&task, 402));
    EXPECT_EQ(3u, task.CountEvent());
    EXPECT_EQ(0, task.userEvents.Count());

    gate.Open();
    ASSERT_TRUE(task.userEvents.WaitFor(3));
    task.Destroy();

    std::vector<std::string> expected = {"t_AddIO",    "task.Init",   "extra.Init", "t_Create",
                                         "t_Main",     "event 400",   "event 401",  "event 402",
                                         "task.Final", "extra.Final", "t_Destroy"};
    EXPECT_EQ(expected, journal.Names());
    GThread* taskThread = journal.ThreadOf("t_Main");
    EXPECT_NE(g_thread_self(), taskThread);
    std::vector<std::string> onTask = {"t_Main",     "event 400",   "event 401", "event 402",
                                       "task.Final", "extra.Final", "t_Destroy"};
    EXPECT_EQ(onTask, NamesOn(journal, taskThread));
    // The loop was built once: only the caller logged the IO initialisation.
    EXPECT_EQ(2u, capture.CountFramework(DLOG_INFO, "Init IO begin"));
}

namespace {

// A task left behind on purpose: a failed initInCaller Create keeps its
// half-built loop, and nothing frees it. Kept reachable so the leak checker
// sees it as owned.
std::vector<ProbeTask*>* g_abandonedTasks = new std::vector<ProbeTask*>();
std::vector<RecordingIO*>* g_abandonedIOs = new std::vector<RecordingIO*>();

}  // namespace

TEST(Task, InitInCallerFailureDestroysInTheCallerAndReportsCreateFailure) {
    LogCapture capture;
    Journal* journal = new Journal();
    RecordingIO* extra = new RecordingIO("extra", journal);
    ProbeTask* task = new ProbeTask("earlyfail", journal);
    g_abandonedTasks->push_back(task);
    g_abandonedIOs->push_back(extra);
    task->extraIOs = {extra};
    task->createResult = false;

    EXPECT_FALSE(task->Create("earlyfail", true, 0));

    EXPECT_EQ(1u, CountTaskLines(capture, DLOG_ERROR, "fail!", "m_InitMainLoop"));
    EXPECT_EQ(1u, CountTaskLines(capture, DLOG_ERROR, "Create thread fail!", "Create"));
    EXPECT_EQ(0u, capture.CountFramework(DLOG_ERROR, kRefusal));
    EXPECT_EQ(1u, CountTaskLines(capture, DLOG_DEBUG, "task is destroyed!", "Destroy"));
    // Destroy found the loop and posted the exit event into the task's own
    // queue; no thread ever takes it, and no IO is finalised.
    EXPECT_EQ(1u, task->CountEvent());
    EXPECT_EQ(0u, capture.Framework("Final IO begin").size());
    std::vector<std::string> expected = {"t_AddIO", "task.Init", "extra.Init", "t_Create"};
    EXPECT_EQ(expected, NamesOn(*journal, g_thread_self()));
    EXPECT_EQ(expected, journal->Names());
}

namespace {

// Makes every later clone/clone3 of this process fail with EAGAIN, so no
// thread can be created. Returns false when the kernel refuses the filter.
bool ForbidNewThreads() {
    struct sock_filter filter[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(struct seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_clone, 2, 0),
#ifdef SYS_clone3
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_clone3, 1, 0),
#else
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_clone, 0, 0),
#endif
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | (EAGAIN & SECCOMP_RET_DATA)),
    };
    struct sock_fprog program = {static_cast<unsigned short>(sizeof(filter) / sizeof(filter[0])),
                                 filter};
    if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0)
        return false;
    return prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) == 0;
}

// Runs in a child process: a task whose thread cannot be created.
void CreateWithoutThreads() {
    LogCapture capture;
    Journal journal;
    ProbeTask task("nothread", &journal);
    if (!ForbidNewThreads())
        _exit(3);
    bool created = task.Create("nothread", false, 0);
    bool reported = false;
    for (const harvo_test::LogLine& line : capture.Lines()) {
        FrameworkLine parsed;
        if (line.prio == DLOG_ERROR && harvo_test::ParseFrameworkText(line.text, &parsed) &&
            parsed.func == "m_NewThread" && parsed.file == "TCTask.cpp" &&
            parsed.text.rfind("Thread created fail,", 0) == 0 &&
            parsed.text.size() > std::string("Thread created fail,").size()) {
            reported = true;
        }
    }
    bool createFail = capture.CountFramework(DLOG_ERROR, "Create thread fail!") == 1;
    bool nothingRan = journal.Names().empty();
    // _exit: the sanitizers' exit-time work needs threads of its own.
    _exit(!created && reported && createFail && nothingRan ? 0 : 1);
}

// Tries the filter in a throw-away child: user-mode emulation (qemu-user,
// as in the armv7l test run) and some containers refuse seccomp filters.
bool CanForbidNewThreads() {
    pid_t child = fork();
    if (child < 0)
        return false;
    if (child == 0)
        _exit(ForbidNewThreads() ? 0 : 3);
    int status = 0;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

}  // namespace

TEST(TaskDeathTest, ThreadCreationFailureIsReportedTwice) {
    if (!CanForbidNewThreads())
        GTEST_SKIP() << "this kernel or emulator refuses seccomp filters, so thread creation "
                        "cannot be made to fail here";
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(CreateWithoutThreads(), testing::ExitedWithCode(0), "");
}
