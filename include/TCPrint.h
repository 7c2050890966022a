/*
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

/* Formats "[harvo-fw][func][line]" followed by the caller's text into a
 * 200-byte buffer and passes it to prctl(666, ...). Returns prctl's result. */
HARVO_FW_API int core_hw_clock(const char* func, int line, const char* fmt, ...)
    __attribute__((format(printf, 3, 4)));

namespace Quelt {

class HARVO_FW_API TCPrint {
public:
    /* A silent placeholder: logs nothing, now or on destruction. */
    TCPrint();
    /* |name| is not copied and must outlive the object; the third argument
     * is accepted and ignored. The "[IN]" line is written whatever |enable|
     * is; the "[OUT]" line only when |enable| == 1. */
    TCPrint(int enable, const char* name, int unused);
    ~TCPrint();

    void Start(const char* tag, int line);
    void End(const char* tag, int line);

private:
    unsigned int m_StartTick;
    unsigned int m_SectionTick;
    int m_Enable;
    const char* m_pName;  // not owned
};

}  // namespace Quelt

#endif  // HARVO_FW_TCPRINT_H
