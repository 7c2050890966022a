/* SPDX-License-Identifier: Apache-2.0 */
/*
 * The framework log line (internal to the library).
 *
 * Every line is one __dlog_print call under the tag "HarvoFW" with the
 * shape
 *     "<file>: <function>(<line>) > <colour> [<project>]<text>\033[0m\n"
 * where <file> is the base name of the calling source file and the colour
 * follows the priority: error red, warning yellow, info white, debug green.
 * The text may hold further printf conversions; their arguments follow.
 */
#ifndef HARVO_FW_SRC_QUELTLOG_H
#define HARVO_FW_SRC_QUELTLOG_H

#include <dlog.h>

#include "Quelt.h"

namespace Quelt {
namespace detail {

constexpr const char* BaseName(const char* path) {
    const char* base = path;
    for (const char* p = path; *p != '\0'; ++p) {
        if (*p == '/')
            base = p + 1;
    }
    return base;
}

}  // namespace detail
}  // namespace Quelt

#define QUELT_LOG_TAG "HarvoFW"

#define QUELT_COLOUR_RED "\033[31m"
#define QUELT_COLOUR_YELLOW "\033[33m"
#define QUELT_COLOUR_WHITE "\033[37m"
#define QUELT_COLOUR_GREEN "\033[32m"
#define QUELT_COLOUR_RESET "\033[0m"

#define QUELT_LOG(prio, colour, fmt, ...)                                    \
    __dlog_print(LOG_ID_MAIN, prio, QUELT_LOG_TAG,                           \
                 "%s: %s(%d) > " colour " [%s]" fmt QUELT_COLOUR_RESET "\n", \
                 ::Quelt::detail::BaseName(__FILE__), __func__, __LINE__,    \
                 ::Quelt::GetProjectName(), ##__VA_ARGS__)

/* The same line for a caller named explicitly: helpers that log on behalf
 * of their caller pass the caller's file base name, function and line. */
#define QUELT_LOG_AT(prio, colour, file, func, line, fmt, ...)                                 \
    __dlog_print(LOG_ID_MAIN, prio, QUELT_LOG_TAG,                                             \
                 "%s: %s(%d) > " colour " [%s]" fmt QUELT_COLOUR_RESET "\n", file, func, line, \
                 ::Quelt::GetProjectName(), ##__VA_ARGS__)

#define QLOGE(fmt, ...) QUELT_LOG(DLOG_ERROR, QUELT_COLOUR_RED, fmt, ##__VA_ARGS__)
#define QLOGW(fmt, ...) QUELT_LOG(DLOG_WARN, QUELT_COLOUR_YELLOW, fmt, ##__VA_ARGS__)
#define QLOGI(fmt, ...) QUELT_LOG(DLOG_INFO, QUELT_COLOUR_WHITE, fmt, ##__VA_ARGS__)
#define QLOGD(fmt, ...) QUELT_LOG(DLOG_DEBUG, QUELT_COLOUR_GREEN, fmt, ##__VA_ARGS__)

/* Fatal assertion: logs the failed expression and aborts, in every build
 * type (it does not depend on NDEBUG). */
#define QUELT_ASSERT(expr)                                                                    \
    do {                                                                                      \
        if (!(expr))                                                                          \
            ::Quelt::detail::AssertFail(#expr, ::Quelt::detail::BaseName(__FILE__), __func__, \
                                        __LINE__);                                            \
    } while (0)

namespace Quelt {
namespace detail {
[[noreturn]] void AssertFail(const char* expr, const char* file, const char* func, int line);
}  // namespace detail
}  // namespace Quelt

#endif  // HARVO_FW_SRC_QUELTLOG_H
