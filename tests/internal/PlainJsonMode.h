// Which way this build reads and writes message bodies, for the tests that
// compare the plain reader and writer with JsonCpp's: they run in both
// modes and say in which one they ran.
#ifndef HARVO_TESTS_INTERNAL_PLAINJSONMODE_H
#define HARVO_TESTS_INTERNAL_PLAINJSONMODE_H

#include <gtest/gtest.h>

#include <json/version.h>

#include <cstdio>

#include "PlainJson.h"

namespace harvo_test {

// "on": plain bodies go through the plain reader and writer, which the
// tests compare with JsonCpp. "off": JsonCpp reads and writes every body,
// the comparisons hold trivially, and the tests check that the plain
// reader and writer take nothing.
inline const char* JsonMode() {
    return Quelt::detail::kPlainJsonEnabled ? "on" : "off";
}

// Prints the mode into the test's output and records it in its XML result.
class PlainJsonTest : public ::testing::Test {
protected:
    void SetUp() override {
        RecordProperty("json_fast_paths", JsonMode());
        std::printf("JSON fast paths %s (JsonCpp %s)\n", JsonMode(), JSONCPP_VERSION_STRING);
    }
};

}  // namespace harvo_test

#endif  // HARVO_TESTS_INTERNAL_PLAINJSONMODE_H
