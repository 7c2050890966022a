// The framework log line: shape, colour per priority, base name of the
// source file, function, project name.
#include <gtest/gtest.h>

#include <dlog.h>

#include "LogCapture.h"
#include "TCLock.h"

using harvo_test::FrameworkLine;
using harvo_test::LogCapture;

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
