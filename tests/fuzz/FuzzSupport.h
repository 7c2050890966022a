/* SPDX-License-Identifier: Apache-2.0 */
// Helpers shared by the fuzz harnesses.
#ifndef HARVO_FUZZ_FUZZSUPPORT_H
#define HARVO_FUZZ_FUZZSUPPORT_H

#include <dlog-host.h>

#include <cstdio>
#include <cstdlib>
#include <string>

namespace harvo_fuzz {

// The framework logs a line for most inputs (e.g. every body that is not
// JSON); on standard error that would drown libFuzzer's own output and
// slow every run down.
inline void SilenceLog() {
    dlog_host_set_stderr(0);
}

// A broken invariant is a finding: say which, show the input, and abort so
// that libFuzzer saves the input as a crash.
inline void Require(bool holds, const char* what, const std::string& input) {
    if (holds)
        return;
    std::fprintf(stderr, "harvo fuzz finding: %s\n  input (%zu bytes): ", what, input.size());
    for (unsigned char c : input) {
        if (c >= 0x20 && c < 0x7f && c != '\\')
            std::fputc(c, stderr);
        else
            std::fprintf(stderr, "\\x%02x", c);
    }
    std::fputc('\n', stderr);
    std::abort();
}

}  // namespace harvo_fuzz

#endif  // HARVO_FUZZ_FUZZSUPPORT_H
