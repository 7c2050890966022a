// SPDX-License-Identifier: Apache-2.0
// The older include spelling, <harvo-fw.h> and single headers by their
// bare names, still compiles against the installed files: programs written
// before <harvo-fw/harvo-fw.h> build unchanged.

#include <TCMessage.h>
#include <harvo-fw.h>

#include <string>

// The type of a message made through the older spelling's headers.
std::string LegacyIncludeType() {
    Quelt::TCMessage message;
    message.m_type = "legacy";
    return message.m_type;
}
