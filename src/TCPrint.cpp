// SPDX-License-Identifier: Apache-2.0
// Scope tracing under the tag "WPERF", and the kernel timing marker.

#include "TCPrint.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <sys/prctl.h>

#include <dlog.h>

#include "QueltLog.h"
#include "TCAlarm.h"

#define WPERF_TAG "WPERF"
#define WPERF_LOG(fmt, ...)                                               \
    __dlog_print(LOG_ID_MAIN, DLOG_ERROR, WPERF_TAG, "%s: %s(%d) > " fmt, \
                 ::Quelt::detail::BaseName(__FILE__), __func__, __LINE__, ##__VA_ARGS__)

namespace {

// A platform-specific prctl option that takes a marker text.
constexpr int kPrctlTimingMarker = 666;
constexpr size_t kMarkerSize = 200;
constexpr size_t kMarkerPrefixBound = 190;

inline unsigned int Now() {
    return static_cast<unsigned int>(Quelt::TCAlarm::GetTickCount());
}

}  // namespace

int core_hw_clock(const char* func, int line, const char* fmt, ...) {
    char buffer[kMarkerSize];
    std::memset(buffer, 0, sizeof(buffer));
    std::snprintf(buffer, sizeof(buffer), "[harvo-fw][%s][%d]", func, line);
    size_t prefix = strnlen(buffer, kMarkerPrefixBound);
    va_list args;
    va_start(args, fmt);
    std::vsnprintf(buffer + prefix, sizeof(buffer) - prefix, fmt, args);
    va_end(args);
    return prctl(kPrctlTimingMarker, buffer, std::strlen(buffer));
}

namespace Quelt {

TCPrint::TCPrint() : m_StartTick(0), m_SectionTick(0), m_Enable(0), m_pName(nullptr) {}

TCPrint::TCPrint(int enable, const char* name, int /*unused*/)
    : m_StartTick(Now()), m_SectionTick(0), m_Enable(0), m_pName(nullptr) {
    // The entry line is written whatever |enable| is; only the exit line
    // depends on it.
    WPERF_LOG("[IN][%s]!!", name);
    m_Enable = enable;
    m_pName = name;
}

TCPrint::~TCPrint() {
    if (m_Enable != 1)
        return;
    unsigned int elapsed = Now() - m_StartTick;  // wraps correctly in 32 bits
    WPERF_LOG("[OUT][%s]!! duration = %lu", m_pName, static_cast<unsigned long>(elapsed));
}

void TCPrint::Start(const char* tag, int line) {
    m_SectionTick = Now();
    WPERF_LOG("[START][%s:%d]!!", tag, line);
}

void TCPrint::End(const char* tag, int line) {
    unsigned int elapsed = Now() - m_SectionTick;
    WPERF_LOG("[END][%s:%d]!! duration = %lu ", tag, line, static_cast<unsigned long>(elapsed));
}

}  // namespace Quelt
