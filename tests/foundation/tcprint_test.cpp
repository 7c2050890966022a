// SPDX-License-Identifier: Apache-2.0
// TCPrint's "WPERF" lines, core_hw_clock against the real kernel, the
// millisecond tick and the project name.
#include <gtest/gtest.h>

#include <dlog.h>
#include <glib.h>

#include <cerrno>
#include <cstdint>
#include <ctime>
#include <string>
#include <vector>

#include "LogCapture.h"
#include "Quelt.h"
#include "TCAlarm.h"
#include "TCLock.h"
#include "TCPrint.h"
#include "TextShape.h"

using harvo_test::LogCapture;
using harvo_test::LogLine;
using Quelt::TCAlarm;
using Quelt::TCPrint;

namespace {

uint32_t Tick() {
    return static_cast<uint32_t>(TCAlarm::GetTickCount());
}

// Lets at least |ms| milliseconds pass (an empty semaphore's timeout).
void LetTimePass(unsigned long ms) {
    Quelt::TCSemaphore never_given;
    ASSERT_TRUE(never_given.Create(0));
    ASSERT_FALSE(never_given.Try(ms * 1000));
    never_given.Destroy();
}

// The "WPERF" lines captured so far, checked for their fixed parts.
std::vector<std::string> PerfTexts(const LogCapture& capture) {
    std::vector<std::string> texts;
    for (const LogLine& line : capture.Lines()) {
        if (line.tag != "WPERF")
            continue;
        EXPECT_EQ(DLOG_ERROR, line.prio) << line.text;
        EXPECT_EQ(LOG_ID_MAIN, line.log_id) << line.text;
        texts.push_back(line.text);
    }
    return texts;
}

// Matches |text| against |shape| ('#' = digits) and returns the last
// digit run (or "").
std::string Match(const std::string& text, const std::string& shape) {
    std::vector<std::string> numbers;
    EXPECT_TRUE(harvo_test::MatchShape(text, shape, &numbers))
        << "text:  " << text << "\nshape: " << shape;
    return numbers.empty() ? std::string() : numbers.back();
}

}  // namespace

// ---------------------------------------------------------------------------
// TCPrint

TEST(TCPrint, EnableZeroWritesOnlyTheEntryLine) {
    LogCapture capture;
    {
        TCPrint trace(0, "MyFunction", 0);
        std::vector<std::string> texts = PerfTexts(capture);
        ASSERT_EQ(1u, texts.size()) << capture.Dump();
        Match(texts[0], "TCPrint.cpp: TCPrint(#) > [IN][MyFunction]!!");
    }
    EXPECT_EQ(1u, capture.Lines().size()) << capture.Dump();
}

TEST(TCPrint, EnableOneWritesEntryAndExitWithTheElapsedMilliseconds) {
    LogCapture capture;
    const unsigned long kWaitMs = 30;
    uint32_t outer_start = Tick();
    {
        TCPrint trace(1, "Traced", 0);
        LetTimePass(kWaitMs);
    }
    uint32_t outer_elapsed = Tick() - outer_start;

    std::vector<std::string> texts = PerfTexts(capture);
    ASSERT_EQ(2u, texts.size()) << capture.Dump();
    Match(texts[0], "TCPrint.cpp: TCPrint(#) > [IN][Traced]!!");
    std::string duration =
        Match(texts[1], "TCPrint.cpp: ~TCPrint(#) > [OUT][Traced]!! duration = #");
    ASSERT_FALSE(duration.empty());
    unsigned long ms = std::stoul(duration);
    EXPECT_GE(ms, kWaitMs);
    EXPECT_LE(ms, outer_elapsed);
}

TEST(TCPrint, OnlyEnableOneWritesTheExitLine) {
    for (int enable : {-1, 0, 2, 100}) {
        SCOPED_TRACE(enable);
        LogCapture capture;
        { TCPrint trace(enable, "Other", 0); }
        std::vector<std::string> texts = PerfTexts(capture);
        ASSERT_EQ(1u, texts.size()) << capture.Dump();
        Match(texts[0], "TCPrint.cpp: TCPrint(#) > [IN][Other]!!");
    }
}

TEST(TCPrint, TheThirdArgumentIsIgnored) {
    LogCapture capture;
    { TCPrint trace(1, "Same", 0); }
    { TCPrint trace(1, "Same", 12345); }
    std::vector<std::string> texts = PerfTexts(capture);
    ASSERT_EQ(4u, texts.size()) << capture.Dump();
    EXPECT_EQ(texts[0], texts[2]);
    Match(texts[1], "TCPrint.cpp: ~TCPrint(#) > [OUT][Same]!! duration = #");
    Match(texts[3], "TCPrint.cpp: ~TCPrint(#) > [OUT][Same]!! duration = #");
}

TEST(TCPrint, EntryAndExitLinesHaveNoColourAndNoNewline) {
    LogCapture capture;
    { TCPrint trace(1, "Plain", 0); }
    std::vector<std::string> texts = PerfTexts(capture);
    ASSERT_EQ(2u, texts.size());
    for (const std::string& text : texts) {
        EXPECT_EQ(std::string::npos, text.find('\033')) << text;
        EXPECT_EQ(std::string::npos, text.find('\n')) << text;
        EXPECT_EQ(std::string::npos, text.find("[nil]")) << text;
    }
}

TEST(TCPrint, StartAndEndMeasureASection) {
    const unsigned long kWaitMs = 20;
    TCPrint trace(0, "Sections", 0);
    LogCapture capture;
    uint32_t outer_start = Tick();
    trace.Start("phase", 77);
    LetTimePass(kWaitMs);
    trace.End("phase", 88);
    uint32_t outer_elapsed = Tick() - outer_start;

    std::vector<std::string> texts = PerfTexts(capture);
    ASSERT_EQ(2u, texts.size()) << capture.Dump();
    Match(texts[0], "TCPrint.cpp: Start(#) > [START][phase:77]!!");
    // The end line's format ends in a blank.
    std::string duration = Match(texts[1], "TCPrint.cpp: End(#) > [END][phase:88]!! duration = # ");
    ASSERT_FALSE(duration.empty());
    unsigned long ms = std::stoul(duration);
    EXPECT_GE(ms, kWaitMs);
    EXPECT_LE(ms, outer_elapsed);
}

TEST(TCPrint, SectionDurationRestartsWithEachStart) {
    TCPrint trace(0, "Again", 0);
    trace.Start("one", 1);
    LetTimePass(30);
    LogCapture capture;
    uint32_t outer_start = Tick();
    trace.Start("two", 2);
    trace.End("two", 3);
    uint32_t outer_elapsed = Tick() - outer_start;
    std::vector<std::string> texts = PerfTexts(capture);
    ASSERT_EQ(2u, texts.size());
    std::string duration = Match(texts[1], "TCPrint.cpp: End(#) > [END][two:3]!! duration = # ");
    ASSERT_FALSE(duration.empty());
    // Measured from the second Start: a duration counted from the first
    // would exceed the outer span by the 30 ms in between.
    EXPECT_LE(std::stoul(duration), outer_elapsed);
}

TEST(TCPrint, DefaultConstructedTraceIsSilent) {
    LogCapture capture;
    { TCPrint placeholder; }
    EXPECT_TRUE(capture.Lines().empty()) << capture.Dump();
}

TEST(TCPrint, NameIsNotCopied) {
    // The name must outlive the object: the exit line reads it again.
    char name[] = "Before";
    LogCapture capture;
    {
        TCPrint trace(1, name, 0);
        name[0] = 'Z';
    }
    std::vector<std::string> texts = PerfTexts(capture);
    ASSERT_EQ(2u, texts.size());
    Match(texts[0], "TCPrint.cpp: TCPrint(#) > [IN][Before]!!");
    Match(texts[1], "TCPrint.cpp: ~TCPrint(#) > [OUT][Zefore]!! duration = #");
}

// ---------------------------------------------------------------------------
// core_hw_clock on this host: the kernel refuses option 666.

TEST(CoreHwClock, ReturnsTheResultOfPrctlAndLogsNothing) {
    LogCapture capture;
    errno = 0;
    int result = core_hw_clock("func", 12, "marker %d", 3);
    int saved_errno = errno;
    EXPECT_EQ(-1, result);
    EXPECT_EQ(EINVAL, saved_errno);
    EXPECT_TRUE(capture.Lines().empty()) << capture.Dump();
}

// ---------------------------------------------------------------------------
// The tick

TEST(TickCount, IsCLOCK_MONOTONICInMillisecondsAs32Bits) {
    struct timespec before;
    struct timespec after;
    clock_gettime(CLOCK_MONOTONIC, &before);
    unsigned long tick = TCAlarm::GetTickCount();
    clock_gettime(CLOCK_MONOTONIC, &after);

    EXPECT_LE(tick, 0xFFFFFFFFUL);
    auto ms = [](const struct timespec& ts) {
        return static_cast<uint32_t>(static_cast<uint64_t>(ts.tv_sec) * 1000u +
                                     static_cast<uint64_t>(ts.tv_nsec) / 1000000u);
    };
    // before <= tick <= after, in wrapping 32-bit arithmetic.
    uint32_t span = ms(after) - ms(before);
    EXPECT_LE(static_cast<uint32_t>(tick - ms(before)), span);
}

TEST(TickCount, AgreesWithGLibMonotonicTime) {
    uint32_t before = static_cast<uint32_t>(g_get_monotonic_time() / 1000);
    uint32_t tick = Tick();
    uint32_t after = static_cast<uint32_t>(g_get_monotonic_time() / 1000);
    EXPECT_LE(static_cast<uint32_t>(tick - before), static_cast<uint32_t>(after - before));
}

TEST(TickCount, NeverGoesBackwards) {
    uint32_t previous = Tick();
    for (int i = 0; i < 100000; ++i) {
        uint32_t now = Tick();
        // A step back would show as a huge unsigned difference.
        ASSERT_LT(static_cast<uint32_t>(now - previous), 60000u);
        previous = now;
    }
}

TEST(TickCount, AdvancesWithTime) {
    uint32_t start = Tick();
    LetTimePass(25);
    EXPECT_GE(static_cast<uint32_t>(Tick() - start), 25u);
}

// ---------------------------------------------------------------------------
// Project name

TEST(ProjectName, IsNilWhileNoApplicationExists) {
    EXPECT_STREQ("nil", Quelt::GetProjectName());
    EXPECT_STREQ("nil", Quelt::GetAppName());
}
