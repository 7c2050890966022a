// SPDX-License-Identifier: Apache-2.0
// The framework log line: shape, colour per priority, base name of the
// source file, function, line, project name. The fatal assertion, whose
// helper the library does not export, is tested in internal/assert_test.cpp.
#include <gtest/gtest.h>

#include <dlog.h>

#include <string>
#include <vector>

#include "LogCapture.h"
#include "Quelt.h"
#include "QueltLog.h"
#include "TCLock.h"
#include "TCMessage.h"

using harvo_test::FrameworkLine;
using harvo_test::LogCapture;
using harvo_test::LogLine;

namespace {

// The one line captured, which must be a framework line.
FrameworkLine OnlyFrameworkLine(const LogCapture& capture, LogLine* raw) {
    std::vector<LogLine> lines = capture.Lines();
    FrameworkLine parsed;
    EXPECT_EQ(1u, lines.size()) << capture.Dump();
    if (lines.size() != 1)
        return parsed;
    *raw = lines[0];
    EXPECT_TRUE(harvo_test::ParseFrameworkText(lines[0].text, &parsed)) << lines[0].text;
    return parsed;
}

}  // namespace

TEST(FrameworkLogLine, ErrorLineHasTheExactShape) {
    LogCapture capture;
    Quelt::TCSemaphore never_created;
    EXPECT_FALSE(never_created.Try(0));

    std::vector<harvo_test::LogLine> lines = capture.Lines();
    ASSERT_EQ(1u, lines.size()) << capture.Dump();
    EXPECT_EQ(DLOG_ERROR, lines[0].prio);
    EXPECT_EQ("HarvoFW", lines[0].tag);
    EXPECT_EQ(LOG_ID_MAIN, lines[0].log_id);

    FrameworkLine parsed;
    ASSERT_TRUE(harvo_test::ParseFrameworkText(lines[0].text, &parsed)) << lines[0].text;
    EXPECT_EQ("TCHandler.cpp", parsed.file);
    EXPECT_EQ("Try", parsed.func);
    EXPECT_GT(parsed.line, 0);
    EXPECT_EQ("nil", parsed.project);
    EXPECT_EQ("m_EventMutex is NULL", parsed.text);
    EXPECT_EQ(harvo_test::MakeFrameworkText(DLOG_ERROR, "TCHandler.cpp", "Try", parsed.line, "nil",
                                            "m_EventMutex is NULL"),
              lines[0].text);
    EXPECT_EQ("TCHandler.cpp: Try(" + std::to_string(parsed.line) +
                  ") > \033[31m [nil]m_EventMutex is NULL\033[0m\n",
              lines[0].text);
}

TEST(FrameworkLogLine, ErrorLineWithEmptyTextIsALineOfItsOwn) {
    Quelt::TCSemaphore sem;
    ASSERT_TRUE(sem.Create(0));
    LogCapture capture;
    sem.Destroy();

    LogLine raw;
    FrameworkLine parsed = OnlyFrameworkLine(capture, &raw);
    EXPECT_EQ(DLOG_ERROR, raw.prio);
    EXPECT_EQ("HarvoFW", raw.tag);
    EXPECT_EQ(LOG_ID_MAIN, raw.log_id);
    EXPECT_EQ("Destroy", parsed.func);
    EXPECT_EQ(
        "TCHandler.cpp: Destroy(" + std::to_string(parsed.line) + ") > \033[31m [nil]\033[0m\n",
        raw.text);
}

TEST(FrameworkLogLine, InfoLineIsWhiteAndCarriesItsArgument) {
    LogCapture capture;
    Quelt::TCData body("plain words");

    LogLine raw;
    FrameworkLine parsed = OnlyFrameworkLine(capture, &raw);
    EXPECT_EQ(DLOG_INFO, raw.prio);
    EXPECT_EQ("HarvoFW", raw.tag);
    EXPECT_EQ("TCMessage.cpp", parsed.file);
    EXPECT_EQ("Parse", parsed.func);
    EXPECT_EQ("TCMessage.cpp: Parse(" + std::to_string(parsed.line) +
                  ") > \033[37m [nil]NOT JSON TYPE MESSAGE![plain words]\033[0m\n",
              raw.text);
}

// Warning and debug lines: no framework call of this layer writes one, so
// the macros every source uses are expanded here; the file and function
// are then this test's own.
TEST(FrameworkLogLine, EachPriorityHasItsColour) {
    LogCapture capture;
    const int error_line = __LINE__ + 1;
    QLOGE("error %d", 1);
    const int warn_line = __LINE__ + 1;
    QLOGW("warning %s", "two");
    const int info_line = __LINE__ + 1;
    QLOGI("info %c", '3');
    const int debug_line = __LINE__ + 1;
    QLOGD("debug %lu", 4UL);

    std::vector<LogLine> lines = capture.Lines();
    ASSERT_EQ(4u, lines.size()) << capture.Dump();
    const std::string func = "TestBody";
    const std::string file = "loglines_test.cpp";
    EXPECT_EQ(DLOG_ERROR, lines[0].prio);
    EXPECT_EQ(file + ": " + func + "(" + std::to_string(error_line) +
                  ") > \033[31m [nil]error 1\033[0m\n",
              lines[0].text);
    EXPECT_EQ(DLOG_WARN, lines[1].prio);
    EXPECT_EQ(file + ": " + func + "(" + std::to_string(warn_line) +
                  ") > \033[33m [nil]warning two\033[0m\n",
              lines[1].text);
    EXPECT_EQ(DLOG_INFO, lines[2].prio);
    EXPECT_EQ(
        file + ": " + func + "(" + std::to_string(info_line) + ") > \033[37m [nil]info 3\033[0m\n",
        lines[2].text);
    EXPECT_EQ(DLOG_DEBUG, lines[3].prio);
    EXPECT_EQ(file + ": " + func + "(" + std::to_string(debug_line) +
                  ") > \033[32m [nil]debug 4\033[0m\n",
              lines[3].text);
    for (const LogLine& line : lines) {
        EXPECT_EQ("HarvoFW", line.tag);
        EXPECT_EQ(LOG_ID_MAIN, line.log_id);
    }
    EXPECT_TRUE(capture.HasFramework(DLOG_ERROR, "error 1"));
    EXPECT_TRUE(capture.HasFramework(DLOG_WARN, "warning two"));
    EXPECT_TRUE(capture.HasFramework(DLOG_INFO, "info 3"));
    EXPECT_TRUE(capture.HasFramework(DLOG_DEBUG, "debug 4"));
}

TEST(FrameworkLogLine, EmptyTextAtEveryPriority) {
    LogCapture capture;
    QLOGE("");
    QLOGW("");
    QLOGI("");
    QLOGD("");
    EXPECT_EQ(1u, capture.CountFramework(DLOG_ERROR, ""));
    EXPECT_EQ(1u, capture.CountFramework(DLOG_WARN, ""));
    EXPECT_EQ(1u, capture.CountFramework(DLOG_INFO, ""));
    EXPECT_EQ(1u, capture.CountFramework(DLOG_DEBUG, ""));
}

TEST(FrameworkLogLine, ProjectNameIsNilWithoutApplication) {
    EXPECT_STREQ("nil", Quelt::GetProjectName());
    EXPECT_STREQ("nil", Quelt::GetAppName());
}

TEST(FrameworkLogLine, BaseNameDropsEveryDirectory) {
    EXPECT_STREQ("TCHandler.cpp", Quelt::detail::BaseName("/a/b/src/TCHandler.cpp"));
    EXPECT_STREQ("x.cpp", Quelt::detail::BaseName("x.cpp"));
    EXPECT_STREQ("", Quelt::detail::BaseName("dir/"));
}

TEST(FrameworkLogLine, LongTextIsLoggedWhole) {
    LogCapture capture;
    std::string words(5000, 'w');
    Quelt::TCData body(words);
    EXPECT_EQ(1u, capture.CountFramework(DLOG_INFO, "NOT JSON TYPE MESSAGE![" + words + "]"))
        << capture.Dump().substr(0, 300);
}
