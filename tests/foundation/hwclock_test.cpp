// SPDX-License-Identifier: Apache-2.0
// core_hw_clock's marker text: prefix, 200-byte bound, length argument and
// result. This program defines its own prctl, which the library's call
// resolves to (the executable comes first in symbol lookup), so the marker
// can be read; every other prctl option goes on to the kernel.
#include <gtest/gtest.h>

#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdarg>
#include <cstring>
#include <string>

#include "LogCapture.h"
#include "TCPrint.h"

namespace {

constexpr int kMarkerOption = 666;
constexpr size_t kMarkerSize = 200;

struct Recorded {
    int calls = 0;
    unsigned long length = 0;
    std::string text;       // up to the first NUL
    char raw[kMarkerSize];  // the whole buffer handed over
    int result = 0;         // what the fake prctl answers
};

Recorded g_recorded;

std::string MarkerPrefix(const std::string& func, int line) {
    return "[harvo-fw][" + func + "][" + std::to_string(line) + "]";
}

}  // namespace

extern "C" int prctl(int option, ...) noexcept {
    va_list args;
    va_start(args, option);
    unsigned long arg2 = va_arg(args, unsigned long);
    unsigned long arg3 = va_arg(args, unsigned long);
    unsigned long arg4 = va_arg(args, unsigned long);
    unsigned long arg5 = va_arg(args, unsigned long);
    va_end(args);
    if (option != kMarkerOption) {
        return static_cast<int>(syscall(SYS_prctl, option, arg2, arg3, arg4, arg5));
    }
    const char* buffer = reinterpret_cast<const char*>(arg2);
    g_recorded.calls += 1;
    g_recorded.length = arg3;
    g_recorded.text = buffer;
    // The marker buffer is exactly kMarkerSize bytes.
    std::memcpy(g_recorded.raw, buffer, kMarkerSize);
    return g_recorded.result;
}

class CoreHwClock : public testing::Test {
protected:
    void SetUp() override { g_recorded = Recorded(); }
};

TEST_F(CoreHwClock, MarkerIsThePrefixFollowedByTheFormattedText) {
    harvo_test::LogCapture capture;
    g_recorded.result = 0;
    EXPECT_EQ(0, core_hw_clock("LoadImage", 42, "value %d of %s", 7, "x"));
    ASSERT_EQ(1, g_recorded.calls);
    EXPECT_EQ("[harvo-fw][LoadImage][42]value 7 of x", g_recorded.text);
    EXPECT_EQ(g_recorded.text.size(), g_recorded.length);
    // The rest of the buffer was zeroed first.
    for (size_t i = g_recorded.text.size(); i < kMarkerSize; ++i)
        ASSERT_EQ('\0', g_recorded.raw[i]) << "byte " << i;
    // The marker is not logged.
    EXPECT_TRUE(capture.Lines().empty()) << capture.Dump();
}

TEST_F(CoreHwClock, ReturnsWhateverPrctlReturns) {
    g_recorded.result = 4242;
    EXPECT_EQ(4242, core_hw_clock("f", 1, "%s", "a"));
    g_recorded.result = -7;
    EXPECT_EQ(-7, core_hw_clock("f", 1, "%s", "a"));
    EXPECT_EQ(2, g_recorded.calls);
}

TEST_F(CoreHwClock, EmptyTextLeavesThePrefixAlone) {
    core_hw_clock("Empty", -3, "%s", "");
    EXPECT_EQ("[harvo-fw][Empty][-3]", g_recorded.text);
    EXPECT_EQ(g_recorded.text.size(), g_recorded.length);
}

TEST_F(CoreHwClock, TextThatFitsExactlyIsKeptWhole) {
    const std::string prefix = MarkerPrefix("Fit", 5);
    const std::string text(kMarkerSize - 1 - prefix.size(), 't');
    core_hw_clock("Fit", 5, "%s", text.c_str());
    EXPECT_EQ(prefix + text, g_recorded.text);
    EXPECT_EQ(kMarkerSize - 1, g_recorded.length);
}

TEST_F(CoreHwClock, LongTextIsTruncatedToFitTheBuffer) {
    const std::string prefix = MarkerPrefix("Long", 99);
    const std::string text(1000, 'a');
    core_hw_clock("Long", 99, "%s|%d", text.c_str(), 5);
    ASSERT_EQ(1, g_recorded.calls);
    // 199 characters and the terminator: 200 bytes.
    EXPECT_EQ(kMarkerSize - 1, g_recorded.text.size());
    EXPECT_EQ(prefix + text.substr(0, kMarkerSize - 1 - prefix.size()), g_recorded.text);
    EXPECT_EQ('\0', g_recorded.raw[kMarkerSize - 1]);
    EXPECT_EQ(kMarkerSize - 1, g_recorded.length);
}

TEST_F(CoreHwClock, OneCharacterTooLongLosesItsLastCharacter) {
    const std::string prefix = MarkerPrefix("Edge", 1);
    std::string text(kMarkerSize - prefix.size(), 'e');
    text.back() = 'X';
    core_hw_clock("Edge", 1, "%s", text.c_str());
    EXPECT_EQ(prefix + text.substr(0, text.size() - 1), g_recorded.text);
    EXPECT_EQ(kMarkerSize - 1, g_recorded.length);
}

TEST_F(CoreHwClock, OverlongPrefixIsCutAt190AndTheTextFollowsThere) {
    // A function name that fills the buffer: the prefix counts as at most
    // 190 characters and the text is written from there, bounded by the
    // remaining 10 bytes.
    const std::string func(300, 'f');
    const std::string prefix = MarkerPrefix(func, 7);
    core_hw_clock(func.c_str(), 7, "%s", "0123456789abc");
    EXPECT_EQ(prefix.substr(0, 190) + "012345678", g_recorded.text);
    EXPECT_EQ(kMarkerSize - 1, g_recorded.length);
}

TEST_F(CoreHwClock, OtherOptionsStillReachTheKernel) {
    // Sanity check of this program's own prctl: it must not swallow the
    // options GLib and the runtime use.
    EXPECT_EQ(0, prctl(PR_SET_NAME, "hwclock-test", 0, 0, 0));
    char name[32] = {};
    EXPECT_EQ(0, prctl(PR_GET_NAME, name, 0, 0, 0));
    EXPECT_STREQ("hwclock-test", name);
    EXPECT_EQ(0, g_recorded.calls);
}
