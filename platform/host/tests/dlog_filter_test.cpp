// SPDX-License-Identifier: Apache-2.0
// The host platform log's controls: the minimum priority and the per-tag
// filter (set by function and by HARVO_LOG), and colour escapes on
// standard error only when it is a terminal. The capture sink sees every
// line unchanged, whatever the filter.
#include <gtest/gtest.h>

#include <dlog-host.h>
#include <dlog.h>

#include <fcntl.h>
#include <poll.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <mutex>
#include <sstream>
#include <string>
#include <vector>

namespace {

struct Captured {
    int prio;
    std::string tag;
    std::string text;
};

class SinkRecorder {
public:
    SinkRecorder() { dlog_host_set_sink(&SinkRecorder::Sink, this); }
    ~SinkRecorder() { dlog_host_set_sink(nullptr, nullptr); }
    std::vector<Captured> Lines() {
        std::lock_guard<std::mutex> guard(mutex_);
        return lines_;
    }

private:
    static void Sink(int, int prio, const char* tag, const char* text, void* self) {
        auto* recorder = static_cast<SinkRecorder*>(self);
        std::lock_guard<std::mutex> guard(recorder->mutex_);
        recorder->lines_.push_back({prio, tag, text});
    }
    std::mutex mutex_;
    std::vector<Captured> lines_;
};

// Restores the default filter and colour at the end of a test.
struct ResetAtExit {
    ~ResetAtExit() {
        dlog_host_set_filter(nullptr);
        dlog_host_set_colour(DLOG_HOST_COLOUR_AUTO);
    }
};

std::string Pid() {
    return std::to_string(static_cast<long>(getpid()));
}

// The four lines written below, as standard error shows them without colour.
void WriteFour() {
    __dlog_print(LOG_ID_MAIN, DLOG_ERROR, "HarvoFW", "error");
    __dlog_print(LOG_ID_MAIN, DLOG_INFO, "HarvoFW", "info");
    __dlog_print(LOG_ID_MAIN, DLOG_ERROR, "WPERF", "perf");
    __dlog_print(LOG_ID_MAIN, DLOG_DEBUG, "Other", "debug");
}

std::string Shown(const std::vector<std::string>& which) {
    std::string out;
    for (const auto& line : which) {
        const std::string tag = line.substr(2, line.find(' ') - 2);
        out +=
            line.substr(0, 2) + tag + "(" + Pid() + "): " + line.substr(line.find(' ') + 1) + "\n";
    }
    return out;
}

TEST(HostDlogFilter, MinimumPriorityHoldsBackLowerLinesFromStderrOnly) {
    ResetAtExit reset;
    SinkRecorder recorder;
    dlog_host_set_min_priority(DLOG_WARN);
    testing::internal::CaptureStderr();
    WriteFour();
    const std::string err = testing::internal::GetCapturedStderr();
    EXPECT_EQ(Shown({"E/HarvoFW error", "E/WPERF perf"}), err);
    // The sink sees every line.
    EXPECT_EQ(4u, recorder.Lines().size());
}

TEST(HostDlogFilter, PerTagFiltersOverrideTheMinimum) {
    ResetAtExit reset;
    ASSERT_EQ(0, dlog_host_set_filter("HarvoFW:I,WPERF:S"));
    testing::internal::CaptureStderr();
    WriteFour();
    EXPECT_EQ(Shown({"E/HarvoFW error", "I/HarvoFW info", "D/Other debug"}),
              testing::internal::GetCapturedStderr());
}

TEST(HostDlogFilter, SpecsMaySeparateWithBlanksUseLowerCaseLettersAndAStar) {
    ResetAtExit reset;
    ASSERT_EQ(0, dlog_host_set_filter("*:e  Other:d"));
    testing::internal::CaptureStderr();
    WriteFour();
    EXPECT_EQ(Shown({"E/HarvoFW error", "E/WPERF perf", "D/Other debug"}),
              testing::internal::GetCapturedStderr());
}

TEST(HostDlogFilter, SilentEverywhereWritesNothing) {
    ResetAtExit reset;
    ASSERT_EQ(0, dlog_host_set_filter("S"));
    SinkRecorder recorder;
    testing::internal::CaptureStderr();
    WriteFour();
    EXPECT_EQ("", testing::internal::GetCapturedStderr());
    EXPECT_EQ(4u, recorder.Lines().size());
}

TEST(HostDlogFilter, AFilteredLineWithoutSinkIsNotFormattedAndCountsNoBytes) {
    ResetAtExit reset;
    dlog_host_set_min_priority(DLOG_ERROR);
    testing::internal::CaptureStderr();
    EXPECT_EQ(0, __dlog_print(LOG_ID_MAIN, DLOG_INFO, "T", "held back %d", 1));
    EXPECT_EQ(5, __dlog_print(LOG_ID_MAIN, DLOG_ERROR, "T", "shown"));
    EXPECT_EQ("E/T(" + Pid() + "): shown\n", testing::internal::GetCapturedStderr());
}

TEST(HostDlogFilter, ABadSpecIsRefusedAndChangesNothing) {
    ResetAtExit reset;
    ASSERT_EQ(0, dlog_host_set_filter("W"));
    for (const char* bad : {"X", "HarvoFW:", ":W", "HarvoFW:Info", "W,,Q"}) {
        EXPECT_EQ(-EINVAL, dlog_host_set_filter(bad)) << bad;
    }
    testing::internal::CaptureStderr();
    WriteFour();
    EXPECT_EQ(Shown({"E/HarvoFW error", "E/WPERF perf"}), testing::internal::GetCapturedStderr());
}

TEST(HostDlogFilter, ANullOrEmptySpecShowsEverythingAgain) {
    ResetAtExit reset;
    ASSERT_EQ(0, dlog_host_set_filter("S"));
    ASSERT_EQ(0, dlog_host_set_filter(""));
    testing::internal::CaptureStderr();
    WriteFour();
    EXPECT_EQ(Shown({"E/HarvoFW error", "I/HarvoFW info", "E/WPERF perf", "D/Other debug"}),
              testing::internal::GetCapturedStderr());
}

TEST(HostDlogColour, EscapesAreStrippedFromStderrButNotFromTheSink) {
    ResetAtExit reset;
    SinkRecorder recorder;
    dlog_host_set_colour(DLOG_HOST_COLOUR_NEVER);
    testing::internal::CaptureStderr();
    __dlog_print(LOG_ID_MAIN, DLOG_ERROR, "HarvoFW", "a: b(1) > \033[31m [%s]boom\033[0m\n", "nil");
    __dlog_print(LOG_ID_MAIN, DLOG_ERROR, "T", "not \033[1;32ma colour\033[m, \033[ nor \033");
    EXPECT_EQ("E/HarvoFW(" + Pid() + "): a: b(1) >  [nil]boom\nE/T(" + Pid() +
                  "): not a colour, \033[ nor \033\n",
              testing::internal::GetCapturedStderr());
    ASSERT_EQ(2u, recorder.Lines().size());
    EXPECT_EQ("a: b(1) > \033[31m [nil]boom\033[0m\n", recorder.Lines()[0].text);
}

TEST(HostDlogColour, AlwaysKeepsTheEscapes) {
    ResetAtExit reset;
    dlog_host_set_colour(DLOG_HOST_COLOUR_ALWAYS);
    testing::internal::CaptureStderr();
    __dlog_print(LOG_ID_MAIN, DLOG_ERROR, "T", "\033[31mred\033[0m");
    EXPECT_EQ("E/T(" + Pid() + "): \033[31mred\033[0m\n", testing::internal::GetCapturedStderr());
}

// ---------------------------------------------------------------------------
// HARVO_LOG and the terminal, in a program of their own

struct ProbeRun {
    std::string err;
    int status = -1;
};

// Runs the probe with HARVO_LOG set to |rules| (unset when null); its
// standard error goes to a pipe, or to a terminal when |terminal|.
ProbeRun RunProbe(const char* rules, bool terminal) {
    ProbeRun run;
    int readEnd = -1, writeEnd = -1;
    if (terminal) {
        readEnd = posix_openpt(O_RDWR | O_NOCTTY);
        if (readEnd < 0 || grantpt(readEnd) != 0 || unlockpt(readEnd) != 0)
            return run;
        writeEnd = open(ptsname(readEnd), O_RDWR | O_NOCTTY);
    } else {
        int ends[2];
        if (pipe(ends) != 0)
            return run;
        readEnd = ends[0];
        writeEnd = ends[1];
    }
    if (writeEnd < 0)
        return run;
    const pid_t child = fork();
    if (child == 0) {
        dup2(writeEnd, STDERR_FILENO);
        if (rules != nullptr)
            setenv("HARVO_LOG", rules, 1);
        else
            unsetenv("HARVO_LOG");
        execl(DLOG_PROBE_PATH, DLOG_PROBE_PATH, static_cast<char*>(nullptr));
        _exit(127);
    }
    close(writeEnd);
    // A terminal's reading end reports an error, not an end, once the
    // child has gone: read until the child has ended and nothing is left.
    bool exited = false;
    for (int rounds = 0; rounds < 4000; ++rounds) {
        struct pollfd wait = {readEnd, POLLIN, 0};
        if (poll(&wait, 1, 5) > 0 && (wait.revents & POLLIN) != 0) {
            char chunk[4096];
            const ssize_t got = read(readEnd, chunk, sizeof(chunk));
            if (got > 0) {
                run.err.append(chunk, static_cast<size_t>(got));
                continue;
            }
        }
        if (exited)
            break;
        exited = waitpid(child, &run.status, WNOHANG) == child;
    }
    if (!exited) {
        kill(child, SIGKILL);
        waitpid(child, &run.status, 0);
    }
    close(readEnd);
    return run;
}

// The probe's lines as standard error shows them, "\r\n" made "\n".
std::vector<std::string> ProbeLines(std::string err) {
    std::string plain;
    for (char c : err) {
        if (c != '\r')
            plain += c;
    }
    std::vector<std::string> lines;
    std::istringstream in(plain);
    std::string line;
    while (std::getline(in, line)) {
        // Without the pid: "E/HarvoFW(123): x" -> "E/HarvoFW: x".
        const size_t open = line.find('(');
        const size_t close = line.find("): ");
        if (open != std::string::npos && close != std::string::npos && open < close)
            line.erase(open, close + 1 - open);
        lines.push_back(line);
    }
    return lines;
}

const std::string kRed = "E/HarvoFW: probe.c: main(1) >  [nil]red error";
const std::string kWhite = "I/HarvoFW: probe.c: main(2) >  [nil]white info";
const std::string kPerf = "E/WPERF: perf trace";
const std::string kOther = "D/Other: other debug";

TEST(HostDlogEnvironment, WithoutHarvoLogEveryLineIsShownWithoutColourOnAPipe) {
    const ProbeRun run = RunProbe(nullptr, false);
    ASSERT_TRUE(WIFEXITED(run.status) && WEXITSTATUS(run.status) == 0);
    EXPECT_EQ((std::vector<std::string>{kRed, kWhite, kPerf, kOther}), ProbeLines(run.err));
}

TEST(HostDlogEnvironment, HarvoLogSetsTheMinimum) {
    const ProbeRun run = RunProbe("W", false);
    EXPECT_EQ((std::vector<std::string>{kRed, kPerf}), ProbeLines(run.err));
}

TEST(HostDlogEnvironment, HarvoLogSetsPerTagFilters) {
    const ProbeRun run = RunProbe("HarvoFW:E,WPERF:S", false);
    EXPECT_EQ((std::vector<std::string>{kRed, kOther}), ProbeLines(run.err));
}

TEST(HostDlogEnvironment, ABadHarvoLogIsIgnoredWithOneLine) {
    const ProbeRun run = RunProbe("loud", false);
    EXPECT_EQ((std::vector<std::string>{"harvo-host-platform: HARVO_LOG=\"loud\" ignored: \"loud\" "
                                        "is not P or TAG:P with P one of V D I W E F S",
                                        kRed, kWhite, kPerf, kOther}),
              ProbeLines(run.err));
}

TEST(HostDlogEnvironment, OnATerminalTheColoursStay) {
    const ProbeRun run = RunProbe("HarvoFW:I,WPERF:S,Other:S", true);
    EXPECT_EQ(
        (std::vector<std::string>{"E/HarvoFW: probe.c: main(1) > \033[31m [nil]red error\033[0m",
                                  "I/HarvoFW: probe.c: main(2) > \033[37m [nil]white info\033[0m"}),
        ProbeLines(run.err));
}

}  // namespace
