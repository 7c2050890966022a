// SPDX-License-Identifier: Apache-2.0
// A program built only from harvo-fw's installed headers and library: it
// makes a message from JSON text, copies it, and makes the framework write
// an error line to the platform log (a semaphore that was never created
// refuses Try). Prints what it saw; exits non-zero on any surprise. It
// includes the headers as every program should, <harvo-fw/harvo-fw.h>;
// legacy_include.cpp uses the older spelling.

#include <cstdio>
#include <string>

#include <harvo-fw/harvo-fw.h>

std::string LegacyIncludeType();  // legacy_include.cpp

int main() {
    int failures = 0;
    if (LegacyIncludeType() != "legacy") {
        std::printf("FAIL: the older spelling's message lost its type\n");
        ++failures;
    }

    Quelt::TCMessage message;
    message.m_code = 42;
    message.m_type = "consumer";
    if (!message.SetMessage("{ \"hello\" : \"world\", \"n\" : 1 }")) {
        std::printf("FAIL: the JSON text was not parsed: %s\n", message.GetError().c_str());
        ++failures;
    }
    const unsigned char bytes[] = {1, 2, 3};
    message.SetBuffer(bytes, sizeof(bytes));

    Quelt::TCMessage copy(message);
    const std::string text = copy.GetMessage();
    std::printf("copy: %s\n", text.c_str());
    if (text != "{\"hello\":\"world\",\"n\":1}") {
        std::printf("FAIL: unexpected text of the copy\n");
        ++failures;
    }
    unsigned char* copied = nullptr;
    if (copy.CopyBuffer(&copied) != sizeof(bytes) || copied == nullptr || copied[2] != 3) {
        std::printf("FAIL: the copy lost the buffer\n");
        ++failures;
    }
    delete[] copied;
    if (copy.m_code != 42 || copy.m_type != "consumer") {
        std::printf("FAIL: the copy lost code or type\n");
        ++failures;
    }

    // Writes "m_EventMutex is NULL" through the framework's log line.
    Quelt::TCSemaphore never_created;
    if (never_created.Try(0)) {
        std::printf("FAIL: Try on a semaphore that was never created succeeded\n");
        ++failures;
    }

    std::printf("application name: %s\n", Quelt::GetProjectName());
    std::printf("%s\n", failures == 0 ? "consumer: OK" : "consumer: FAILED");
    return failures == 0 ? 0 : 1;
}
