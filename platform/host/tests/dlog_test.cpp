// SPDX-License-Identifier: Apache-2.0
// The host platform log: the capture sink, the dlogutil-shaped copy on
// standard error, refused arguments, long lines and concurrent writers.
#include <gtest/gtest.h>

#include <dlog-host.h>
#include <dlog.h>

#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

struct Captured {
    int log_id;
    int prio;
    std::string tag;
    std::string text;
};

// Collects every line handed to the sink while it is installed.
class SinkRecorder {
public:
    SinkRecorder() { dlog_host_set_sink(&SinkRecorder::Sink, this); }
    ~SinkRecorder() { dlog_host_set_sink(nullptr, nullptr); }

    std::vector<Captured> Lines() {
        std::lock_guard<std::mutex> guard(mutex_);
        return lines_;
    }

private:
    static void Sink(int log_id, int prio, const char* tag, const char* text, void* self) {
        auto* recorder = static_cast<SinkRecorder*>(self);
        std::lock_guard<std::mutex> guard(recorder->mutex_);
        recorder->lines_.push_back({log_id, prio, tag, text});
    }

    std::mutex mutex_;
    std::vector<Captured> lines_;
};

std::string Pid() {
    return std::to_string(static_cast<long>(getpid()));
}

std::vector<std::string> SplitLines(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    std::string line;
    while (std::getline(in, line))
        lines.push_back(line);
    return lines;
}

}  // namespace

TEST(HostDlog, SinkReceivesPriorityTagAndFormattedText) {
    SinkRecorder recorder;
    int written = __dlog_print(LOG_ID_MAIN, DLOG_WARN, "MyTag", "value %d of %s", 42, "x");
    EXPECT_EQ(static_cast<int>(std::string("value 42 of x").size()), written);

    std::vector<Captured> lines = recorder.Lines();
    ASSERT_EQ(1u, lines.size());
    EXPECT_EQ(LOG_ID_MAIN, lines[0].log_id);
    EXPECT_EQ(DLOG_WARN, lines[0].prio);
    EXPECT_EQ("MyTag", lines[0].tag);
    EXPECT_EQ("value 42 of x", lines[0].text);
}

TEST(HostDlog, SinkKeepsEscapesAndNewlineOfTheText) {
    SinkRecorder recorder;
    __dlog_print(LOG_ID_APPS, DLOG_ERROR, "T", "\033[31m [%s]boom\033[0m\n", "nil");
    std::vector<Captured> lines = recorder.Lines();
    ASSERT_EQ(1u, lines.size());
    EXPECT_EQ(LOG_ID_APPS, lines[0].log_id);
    EXPECT_EQ("\033[31m [nil]boom\033[0m\n", lines[0].text);
}

TEST(HostDlog, StderrLineHasTheDlogutilShape) {
    testing::internal::CaptureStderr();
    __dlog_print(LOG_ID_MAIN, DLOG_ERROR, "HarvoFW", "text %s", "here");
    __dlog_print(LOG_ID_MAIN, DLOG_INFO, "WPERF", "ends in newline\n");
    std::string err = testing::internal::GetCapturedStderr();
    // A text that already ends in a newline is not given a second one.
    EXPECT_EQ("E/HarvoFW(" + Pid() + "): text here\nI/WPERF(" + Pid() + "): ends in newline\n",
              err);
}

TEST(HostDlog, StderrLetterFollowsThePriority) {
    const int prios[] = {DLOG_VERBOSE, DLOG_DEBUG, DLOG_INFO,  DLOG_WARN,
                         DLOG_ERROR,   DLOG_FATAL, DLOG_SILENT};
    const char letters[] = {'V', 'D', 'I', 'W', 'E', 'F', 'S'};
    testing::internal::CaptureStderr();
    for (int prio : prios)
        __dlog_print(LOG_ID_MAIN, prio, "T", "x");
    std::vector<std::string> lines = SplitLines(testing::internal::GetCapturedStderr());
    ASSERT_EQ(7u, lines.size());
    for (size_t i = 0; i < lines.size(); ++i) {
        EXPECT_EQ(std::string(1, letters[i]) + "/T(" + Pid() + "): x", lines[i]);
        EXPECT_EQ(letters[i], dlog_host_priority_letter(prios[i]));
    }
    EXPECT_EQ('?', dlog_host_priority_letter(DLOG_UNKNOWN));
    EXPECT_EQ('?', dlog_host_priority_letter(DLOG_DEFAULT));
    EXPECT_EQ('?', dlog_host_priority_letter(1234));
}

TEST(HostDlog, StderrCopyCanBeSwitchedOff) {
    SinkRecorder recorder;
    dlog_host_set_stderr(0);
    testing::internal::CaptureStderr();
    __dlog_print(LOG_ID_MAIN, DLOG_INFO, "T", "quiet");
    std::string err = testing::internal::GetCapturedStderr();
    dlog_host_set_stderr(1);
    EXPECT_EQ("", err);
    // The sink still sees the line.
    ASSERT_EQ(1u, recorder.Lines().size());
    EXPECT_EQ("quiet", recorder.Lines()[0].text);

    testing::internal::CaptureStderr();
    __dlog_print(LOG_ID_MAIN, DLOG_INFO, "T", "loud");
    EXPECT_EQ("I/T(" + Pid() + "): loud\n", testing::internal::GetCapturedStderr());
}

TEST(HostDlog, NullTagOrFormatIsRefused) {
    SinkRecorder recorder;
    testing::internal::CaptureStderr();
    EXPECT_EQ(-EINVAL, __dlog_print(LOG_ID_MAIN, DLOG_ERROR, nullptr, "text"));
    const char* no_format = nullptr;
    EXPECT_EQ(-EINVAL, __dlog_print(LOG_ID_MAIN, DLOG_ERROR, "T", no_format));
    EXPECT_EQ("", testing::internal::GetCapturedStderr());
    EXPECT_TRUE(recorder.Lines().empty());
}

TEST(HostDlog, EmptyTextIsALineOfItsOwn) {
    SinkRecorder recorder;
    testing::internal::CaptureStderr();
    EXPECT_EQ(0, __dlog_print(LOG_ID_MAIN, DLOG_DEBUG, "T", "%s", ""));
    EXPECT_EQ("D/T(" + Pid() + "): \n", testing::internal::GetCapturedStderr());
    ASSERT_EQ(1u, recorder.Lines().size());
    EXPECT_EQ("", recorder.Lines()[0].text);
}

TEST(HostDlog, RemovedSinkSeesNothingMore) {
    std::vector<Captured> seen;
    {
        SinkRecorder recorder;
        __dlog_print(LOG_ID_MAIN, DLOG_INFO, "T", "one");
        seen = recorder.Lines();
    }
    testing::internal::CaptureStderr();
    EXPECT_EQ(3, __dlog_print(LOG_ID_MAIN, DLOG_INFO, "T", "two"));
    testing::internal::GetCapturedStderr();
    ASSERT_EQ(1u, seen.size());
    EXPECT_EQ("one", seen[0].text);
}

TEST(HostDlog, LongLinesAreFormattedWhole) {
    for (size_t size : {511u, 512u, 513u, 4096u, 100000u}) {
        SCOPED_TRACE(size);
        std::string payload(size, 'a');
        for (size_t i = 0; i < size; i += 7)
            payload[i] = static_cast<char>('b' + i % 20);
        SinkRecorder recorder;
        testing::internal::CaptureStderr();
        int written = __dlog_print(LOG_ID_MAIN, DLOG_INFO, "T", "<%s|%d>", payload.c_str(), 7);
        std::string err = testing::internal::GetCapturedStderr();
        std::string expected = "<" + payload + "|7>";
        EXPECT_EQ(static_cast<int>(expected.size()), written);
        ASSERT_EQ(1u, recorder.Lines().size());
        EXPECT_EQ(expected, recorder.Lines()[0].text);
        EXPECT_EQ("I/T(" + Pid() + "): " + expected + "\n", err);
    }
}

TEST(HostDlog, ShortLineAfterALongOneIsWhole) {
    // The thread formats into a buffer that keeps its largest size: nothing
    // of the long line may show in the short one.
    SinkRecorder recorder;
    testing::internal::CaptureStderr();
    std::string payload(70000, 'q');
    __dlog_print(LOG_ID_MAIN, DLOG_INFO, "T", "%s", payload.c_str());
    int written = __dlog_print(LOG_ID_MAIN, DLOG_WARN, "T", "short %d", 5);
    __dlog_print(LOG_ID_MAIN, DLOG_WARN, "T", "%s", "");
    std::string err = testing::internal::GetCapturedStderr();
    EXPECT_EQ(7, written);
    ASSERT_EQ(3u, recorder.Lines().size());
    EXPECT_EQ(payload, recorder.Lines()[0].text);
    EXPECT_EQ("short 5", recorder.Lines()[1].text);
    EXPECT_EQ("", recorder.Lines()[2].text);
    std::vector<std::string> lines = SplitLines(err);
    ASSERT_EQ(3u, lines.size());
    EXPECT_EQ("W/T(" + Pid() + "): short 5", lines[1]);
    EXPECT_EQ("W/T(" + Pid() + "): ", lines[2]);
}

namespace {

// Logs from its destructor, which runs at thread exit.
struct LogsWhenDestroyed {
    std::string text;
    ~LogsWhenDestroyed() { __dlog_print(LOG_ID_MAIN, DLOG_ERROR, "T", "bye %s", text.c_str()); }
};

}  // namespace

TEST(HostDlog, LinesFromThreadExitDestructorsAreWhole) {
    // The object is made before the thread's first line, so it is destroyed
    // after the thread's format buffer: its line is formatted elsewhere.
    SinkRecorder recorder;
    std::thread worker([] {
        thread_local LogsWhenDestroyed last;
        last.text = std::string(600, 'w');
        __dlog_print(LOG_ID_MAIN, DLOG_INFO, "T", "hello %d", 1);
    });
    worker.join();
    std::vector<Captured> lines = recorder.Lines();
    ASSERT_EQ(2u, lines.size());
    EXPECT_EQ("hello 1", lines[0].text);
    EXPECT_EQ(DLOG_ERROR, lines[1].prio);
    EXPECT_EQ("bye " + std::string(600, 'w'), lines[1].text);
}

TEST(HostDlog, ConcurrentWritersProduceWholeLines) {
    constexpr int kThreads = 4;
    constexpr int kLines = 300;
    // Long enough that a torn write would show.
    const std::string filler(700, 'z');
    SinkRecorder recorder;
    testing::internal::CaptureStderr();
    std::vector<std::thread> writers;
    for (int t = 0; t < kThreads; ++t) {
        writers.emplace_back([t, &filler] {
            for (int i = 0; i < kLines; ++i)
                __dlog_print(LOG_ID_MAIN, DLOG_INFO, "T", "w%d n%d %s end", t, i, filler.c_str());
        });
    }
    for (std::thread& writer : writers)
        writer.join();
    std::vector<std::string> err_lines = SplitLines(testing::internal::GetCapturedStderr());

    auto expected = [&filler](int t, int i) {
        return "w" + std::to_string(t) + " n" + std::to_string(i) + " " + filler + " end";
    };
    // The sink sees every line whole, and each writer's lines in its order.
    std::vector<Captured> lines = recorder.Lines();
    ASSERT_EQ(static_cast<size_t>(kThreads * kLines), lines.size());
    std::vector<int> next(kThreads, 0);
    for (const Captured& line : lines) {
        int t = line.text[1] - '0';
        ASSERT_GE(t, 0);
        ASSERT_LT(t, kThreads);
        ASSERT_EQ(expected(t, next[t]), line.text);
        ++next[t];
    }
    // So does standard error, line for line.
    ASSERT_EQ(static_cast<size_t>(kThreads * kLines), err_lines.size());
    const std::string prefix = "I/T(" + Pid() + "): ";
    std::vector<int> err_next(kThreads, 0);
    for (const std::string& line : err_lines) {
        ASSERT_EQ(0u, line.compare(0, prefix.size(), prefix)) << line;
        int t = line[prefix.size() + 1] - '0';
        ASSERT_GE(t, 0);
        ASSERT_LT(t, kThreads);
        ASSERT_EQ(prefix + expected(t, err_next[t]), line);
        ++err_next[t];
    }
}

namespace {

// What vsnprintf makes of |fmt| and its arguments: the reference for every
// line, however the log puts it together.
std::string Reference(const char* fmt, ...) {
    va_list args;
    va_start(args, fmt);
    va_list copy;
    va_copy(copy, args);
    const int needed = std::vsnprintf(nullptr, 0, fmt, copy);
    va_end(copy);
    std::string text(static_cast<size_t>(needed), '\0');
    std::vsnprintf(&text[0], text.size() + 1, fmt, args);
    va_end(args);
    return text;
}

}  // namespace

TEST(HostDlog, LinesAreTheBytesVsnprintfWrites) {
    // Read through a volatile so that the compiler, which warns about a
    // null %s argument it can see, does not see this one.
    static const char* volatile kNothing = nullptr;
    const char* nothing = kNothing;
    const std::string large(3000, 'z');
    SinkRecorder recorder;
    std::vector<std::string> expected;
    std::vector<int> written;
#define HARVO_CHECK_LINE(...)                                                      \
    do {                                                                           \
        expected.push_back(Reference(__VA_ARGS__));                                \
        written.push_back(__dlog_print(LOG_ID_MAIN, DLOG_INFO, "T", __VA_ARGS__)); \
    } while (0)
    // The framework's shapes: strings, signed and unsigned numbers.
    HARVO_CHECK_LINE("%s: %s(%d) > \033[37m [%s]sender(%s) object(%s)\033[0m\n", "F.cpp", "Fn", 123,
                     "nil", ":1.7", "/a/b");
    HARVO_CHECK_LINE("%d %d %d %d %d", 0, -1, 7, INT_MIN, INT_MAX);
    HARVO_CHECK_LINE("%u|%u|%u", 0u, 4000000000u, UINT_MAX);
    HARVO_CHECK_LINE("[%s]", nothing);
    HARVO_CHECK_LINE("100%% of %s%%", "it");
    HARVO_CHECK_LINE("%s%s%s", "", "a", "");
    HARVO_CHECK_LINE("%s", large.c_str());
    HARVO_CHECK_LINE("no conversion at all");
    HARVO_CHECK_LINE("%s", "");
    HARVO_CHECK_LINE("%s", "text with % and %d inside the argument");
    // Anything else goes through vsnprintf itself.
    HARVO_CHECK_LINE("%5d|%-4s|%.2s|%x|%lu|%zu|%c", 42, "ab", "xyz", 255u, 9ul, size_t{3}, 'q');
    HARVO_CHECK_LINE("%p", static_cast<void*>(nullptr));
    HARVO_CHECK_LINE("%s after a wide one: %d", "short", 1);
    // Plain conversions before one that is not: the whole line is vsnprintf's.
    // (The value fits an unsigned long of 32 bits as well: a larger literal
    // would be an unsigned long long there, which %lu does not read.)
    HARVO_CHECK_LINE("%s and %d, then %lu and %s", "first", -3, 4000000000ul, nothing);
#undef HARVO_CHECK_LINE
    std::vector<Captured> lines = recorder.Lines();
    ASSERT_EQ(expected.size(), lines.size());
    for (size_t i = 0; i < lines.size(); ++i) {
        EXPECT_EQ(expected[i], lines[i].text) << i;
        EXPECT_EQ(static_cast<int>(expected[i].size()), written[i]) << i;
    }
}
