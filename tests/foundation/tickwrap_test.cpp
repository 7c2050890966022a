// SPDX-License-Identifier: Apache-2.0
// The tick and TCPrint's durations at the 32-bit wrap. This program
// defines its own clock_gettime, which the library's call resolves to, so
// the monotonic clock can be set just below 2^32 milliseconds; until a
// test sets it, and for every other clock, the real clock answers.
#include <gtest/gtest.h>

#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <string>
#include <vector>

#include "LogCapture.h"
#include "TCAlarm.h"
#include "TCPrint.h"
#include "TextShape.h"

namespace {

std::atomic<bool> g_fake{false};
std::atomic<int64_t> g_fake_ns{0};

void SetFakeMilliseconds(uint64_t ms, long extra_ns = 0) {
    g_fake_ns = static_cast<int64_t>(ms) * 1000000 + extra_ns;
    g_fake = true;
}

class TickAtTheWrap : public testing::Test {
protected:
    void TearDown() override { g_fake = false; }
};

// The last digit run of |text|, which must have |shape| ('#' = digits).
unsigned long ParseDuration(const std::string& text, const std::string& shape) {
    std::vector<std::string> numbers;
    EXPECT_TRUE(harvo_test::MatchShape(text, shape, &numbers)) << text;
    return numbers.empty() ? 0 : std::stoul(numbers.back());
}

constexpr uint64_t kWrap = 1ull << 32;

}  // namespace

extern "C" int clock_gettime(clockid_t clock, struct timespec* ts) noexcept {
    if (g_fake && clock == CLOCK_MONOTONIC) {
        int64_t ns = g_fake_ns;
        ts->tv_sec = static_cast<time_t>(ns / 1000000000);
        ts->tv_nsec = static_cast<long>(ns % 1000000000);
        return 0;
    }
    return static_cast<int>(syscall(SYS_clock_gettime, clock, ts));
}

TEST_F(TickAtTheWrap, TickIsSecondsTimesThousandPlusWholeMilliseconds) {
    SetFakeMilliseconds(1234567, 999999);  // 0.999999 ms more: truncated
    EXPECT_EQ(1234567UL, Quelt::TCAlarm::GetTickCount());
}

TEST_F(TickAtTheWrap, TickKeepsOnlyThe32LowBits) {
    SetFakeMilliseconds(kWrap - 1);
    EXPECT_EQ(0xFFFFFFFFUL, Quelt::TCAlarm::GetTickCount());
    SetFakeMilliseconds(kWrap);
    EXPECT_EQ(0UL, Quelt::TCAlarm::GetTickCount());
    SetFakeMilliseconds(5000000000ull);  // about 58 days
    EXPECT_EQ(5000000000UL % kWrap, Quelt::TCAlarm::GetTickCount());
}

TEST_F(TickAtTheWrap, ExitDurationIsRightAcrossOneWrap) {
    harvo_test::LogCapture capture;
    SetFakeMilliseconds(kWrap - 50);
    {
        Quelt::TCPrint trace(1, "Wrapping", 0);
        SetFakeMilliseconds(kWrap + 70);
    }
    std::vector<harvo_test::LogLine> lines = capture.Lines();
    ASSERT_EQ(2u, lines.size()) << capture.Dump();
    EXPECT_EQ(120u, ParseDuration(lines[1].text,
                                  "TCPrint.cpp: ~TCPrint(#) > [OUT][Wrapping]!! duration = #"));
}

TEST_F(TickAtTheWrap, SectionDurationIsRightAcrossOneWrap) {
    harvo_test::LogCapture capture;
    Quelt::TCPrint trace(0, "Sections", 0);
    SetFakeMilliseconds(3 * kWrap - 1);
    trace.Start("s", 1);
    SetFakeMilliseconds(3 * kWrap + 999);
    trace.End("s", 2);
    std::vector<harvo_test::LogLine> lines = capture.Lines();
    ASSERT_EQ(3u, lines.size()) << capture.Dump();
    EXPECT_EQ(1000u,
              ParseDuration(lines[2].text, "TCPrint.cpp: End(#) > [END][s:2]!! duration = # "));
}
