// Free functions of namespace Quelt.

#include "Quelt.h"

#include <cstdio>
#include <cstdlib>

#include "QueltLog.h"

namespace Quelt {

const char* GetProjectName() {
    // No application object exists yet in this build of the library.
    return "nil";
}

const char* GetAppName() { return GetProjectName(); }

namespace detail {

void AssertFail(const char* expr, const char* file, const char* func, int line) {
    __dlog_print(LOG_ID_MAIN, DLOG_FATAL, QUELT_LOG_TAG,
                 "%s: %s(%d) > " QUELT_COLOUR_RED " [%s]assertion failed: %s" QUELT_COLOUR_RESET
                 "\n",
                 file, func, line, GetProjectName(), expr);
    std::fprintf(stderr, "%s:%d: %s: Assertion `%s' failed.\n", file, line, func, expr);
    std::fflush(stderr);
    std::abort();
}

}  // namespace detail
}  // namespace Quelt
