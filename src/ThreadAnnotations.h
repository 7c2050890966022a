/* SPDX-License-Identifier: Apache-2.0 */
// Hand-overs the race detector cannot see.
//
// GLib's own locks (its futex-based GMutex, the main context's lock) are
// built from atomics and system calls in a library that is not compiled
// for ThreadSanitizer, so a structure of ours that GLib hands from one
// thread to another (a source created on one thread and run by the loop of
// another) looks unsynchronised to it. These two calls state the hand-over:
// the thread that lets go of such a structure releases it, the thread that
// picks it up acquires it. They cost nothing outside ThreadSanitizer builds.
#ifndef HARVO_FW_SRC_THREADANNOTATIONS_H
#define HARVO_FW_SRC_THREADANNOTATIONS_H

#if defined(__SANITIZE_THREAD__)
#define QUELT_WITH_TSAN 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define QUELT_WITH_TSAN 1
#endif
#endif

#if defined(QUELT_WITH_TSAN)
#include <sanitizer/tsan_interface.h>
#endif

namespace Quelt {
namespace detail {

// The calling thread is done with |object| until it acquires it again.
inline void HandOver(const void* object) {
#if defined(QUELT_WITH_TSAN)
    __tsan_release(const_cast<void*>(object));
#else
    (void)object;
#endif
}

// The calling thread takes |object| over from whichever thread handed it over.
inline void TakeOver(const void* object) {
#if defined(QUELT_WITH_TSAN)
    __tsan_acquire(const_cast<void*>(object));
#else
    (void)object;
#endif
}

}  // namespace detail
}  // namespace Quelt

#endif  // HARVO_FW_SRC_THREADANNOTATIONS_H
