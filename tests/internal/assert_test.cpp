// SPDX-License-Identifier: Apache-2.0
// The fatal assertion of the library's own code. Its helper is internal (the
// shared library does not export it), so this program links the library's
// internal archive instead of the shared library.
#include <gtest/gtest.h>

#include <cstddef>

#include "QueltLog.h"

TEST(FrameworkAssertDeathTest, FailedAssertionAbortsWithItsExpression) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const void* event = nullptr;
    EXPECT_DEATH(QUELT_ASSERT(event != NULL), "event != NULL");
}

TEST(FrameworkAssertDeathTest, FailedAssertionNamesFileAndFunction) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(QUELT_ASSERT(1 + 1 == 3),
                 "assert_test\\.cpp:[0-9]+: TestBody: Assertion `1 \\+ 1 == 3' failed\\.");
}

TEST(FrameworkAssertDeathTest, HoldingAssertionDoesNothing) {
    int reached = 0;
    QUELT_ASSERT(reached == 0);
    ++reached;
    EXPECT_EQ(1, reached);
}
