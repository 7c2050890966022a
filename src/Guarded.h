/* SPDX-License-Identifier: Apache-2.0 */
// Calling application code from C frames (internal to the library).
//
// GLib, the UI gadget library and the platform's application loop call the
// framework through C function pointers. An exception that left the
// framework there would unwind through C frames and end the process, so
// every such entry runs the application's code through QUELT_CALL_GUARDED:
// an exception is caught, reported as one error line that names the
// function it was caught in, and the loop goes on.
#ifndef HARVO_FW_SRC_GUARDED_H
#define HARVO_FW_SRC_GUARDED_H

#include <exception>
#include <utility>

#include "QueltLog.h"

namespace Quelt {
namespace detail {

/* Runs |work| and returns true; when it throws, logs in red
 * "exception from <what>: <text>" (the exception's what(), or a fixed text
 * for other thrown values) under the caller's file, function and line and
 * returns false. Any thread. */
template <typename Work>
bool CallGuarded(const char* file, const char* func, int line, const char* what, Work&& work) {
    try {
        std::forward<Work>(work)();
        return true;
    } catch (const std::exception& e) {
        QUELT_LOG_AT(DLOG_ERROR, QUELT_COLOUR_RED, file, func, line, "exception from %s: %s", what,
                     e.what());
    } catch (...) {
        QUELT_LOG_AT(DLOG_ERROR, QUELT_COLOUR_RED, file, func, line, "exception from %s: %s", what,
                     "not a std::exception");
    }
    return false;
}

}  // namespace detail
}  // namespace Quelt

/* QUELT_CALL_GUARDED("IfMessageReceived", [&] { ... }): true when the
 * callable returned, false when it threw (already logged). */
#define QUELT_CALL_GUARDED(what, ...)                                                           \
    ::Quelt::detail::CallGuarded(::Quelt::detail::BaseName(__FILE__), __func__, __LINE__, what, \
                                 __VA_ARGS__)

#endif  // HARVO_FW_SRC_GUARDED_H
