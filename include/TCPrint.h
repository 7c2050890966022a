/* SPDX-License-Identifier: Apache-2.0 */
/**
 * \file TCPrint.h
 * TCPrint: a scope tracer for client code. Logs "[IN]" on construction and,
 * when enabled, "[OUT]" with the elapsed milliseconds on destruction, under
 * the tag "WPERF". core_hw_clock hands a tagged text to the kernel as a
 * timing marker.
 *
 * Thread-affinity: one object belongs to the thread that created it.
 */
#ifndef HARVO_FW_TCPRINT_H
#define HARVO_FW_TCPRINT_H

#include "harvo-fw-export.h"

/** Hands a timing marker to the kernel: formats "[harvo-fw][func][line]"
 *  followed by the caller's printf-style text into a 200-byte buffer and
 *  passes it to prctl(666, ...). \return prctl's result. */
HARVO_FW_API int core_hw_clock(const char* func, int line, const char* fmt, ...)
    __attribute__((format(printf, 3, 4)));

namespace Quelt {

/** A scope tracer: "[IN]" when made, "[OUT]" with the elapsed
 *  milliseconds when it goes out of scope, and timed sections in between,
 *  all under the log tag "WPERF". */
class HARVO_FW_API TCPrint {
public:
    /** A silent placeholder: logs nothing, now or on destruction. */
    TCPrint();
    /** Logs "[IN][name]!!". \p name is not copied and must outlive the
     *  object; the third argument is accepted and ignored. The "[OUT]" line
     *  is written on destruction only when \p enable is 1. */
    TCPrint(int enable, const char* name, int unused);
    /** Logs "[OUT][name]!! duration = N" (milliseconds since construction)
     *  when enabled. */
    ~TCPrint();

    /** Starts a timed section: logs "[START][tag:line]!!". */
    void Start(const char* tag, int line);
    /** Ends the section: logs "[END][tag:line]!! duration = N", the
     *  milliseconds since the last Start(). */
    void End(const char* tag, int line);

private:
    unsigned int m_StartTick;
    unsigned int m_SectionTick;
    int m_Enable;
    const char* m_pName;  // not owned
};

}  // namespace Quelt

#endif  // HARVO_FW_TCPRINT_H
