// SPDX-License-Identifier: Apache-2.0
// ThreadSanitizer cannot see GLib's lock primitives: on Linux GMutex,
// GRecMutex and GCond are built from atomics and futex calls inside libglib,
// which is not instrumented, so every section they protect (the count of a
// TCSemaphore, the fields of a TCAlarm, ...) would be reported as a race.
//
// In ThreadSanitizer builds the test programs therefore wrap the exported
// entry points that the library and the tests call and tell the race
// detector about each hand-over: release before an unlock or a wait,
// acquire after a lock or a wake-up. The locks themselves are still GLib's
// and behave exactly as before. GLib's calls to its own functions bind
// inside libglib and are not affected.
//
// The test support library forces this object into every test program in
// ThreadSanitizer builds (see tests/CMakeLists.txt); in other builds it only
// holds the anchor symbol.

#include <dlfcn.h>
#include <glib.h>

extern "C" {
// Referenced by the link options of Tsan builds so the linker keeps this
// object even though no test calls anything in it directly.
int harvo_tsan_glib_sync = 0;
}

#if defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define HARVO_TSAN_GLIB_SYNC 1
#endif
#endif
#if defined(__SANITIZE_THREAD__)
#define HARVO_TSAN_GLIB_SYNC 1
#endif

#if defined(HARVO_TSAN_GLIB_SYNC)

extern "C" {
void __tsan_acquire(void* addr);
void __tsan_release(void* addr);
}

namespace {

// The next definition of |name| after this program: libglib's own.
template <typename Function>
Function Real(const char* name) {
    void* symbol = dlsym(RTLD_NEXT, name);
    if (symbol == nullptr)
        g_error("TsanGlibSync: %s not found", name);
    return reinterpret_cast<Function>(symbol);
}

}  // namespace

extern "C" {

void g_mutex_lock(GMutex* mutex) {
    static auto real = Real<void (*)(GMutex*)>("g_mutex_lock");
    real(mutex);
    __tsan_acquire(mutex);
}

gboolean g_mutex_trylock(GMutex* mutex) {
    static auto real = Real<gboolean (*)(GMutex*)>("g_mutex_trylock");
    gboolean locked = real(mutex);
    if (locked)
        __tsan_acquire(mutex);
    return locked;
}

void g_mutex_unlock(GMutex* mutex) {
    static auto real = Real<void (*)(GMutex*)>("g_mutex_unlock");
    __tsan_release(mutex);
    real(mutex);
}

void g_rec_mutex_lock(GRecMutex* mutex) {
    static auto real = Real<void (*)(GRecMutex*)>("g_rec_mutex_lock");
    real(mutex);
    __tsan_acquire(mutex);
}

gboolean g_rec_mutex_trylock(GRecMutex* mutex) {
    static auto real = Real<gboolean (*)(GRecMutex*)>("g_rec_mutex_trylock");
    gboolean locked = real(mutex);
    if (locked)
        __tsan_acquire(mutex);
    return locked;
}

void g_rec_mutex_unlock(GRecMutex* mutex) {
    static auto real = Real<void (*)(GRecMutex*)>("g_rec_mutex_unlock");
    __tsan_release(mutex);
    real(mutex);
}

// A wait unlocks the mutex while it sleeps and takes it again on wake-up.
void g_cond_wait(GCond* cond, GMutex* mutex) {
    static auto real = Real<void (*)(GCond*, GMutex*)>("g_cond_wait");
    __tsan_release(mutex);
    real(cond, mutex);
    __tsan_acquire(mutex);
}

gboolean g_cond_wait_until(GCond* cond, GMutex* mutex, gint64 end_time) {
    static auto real = Real<gboolean (*)(GCond*, GMutex*, gint64)>("g_cond_wait_until");
    __tsan_release(mutex);
    gboolean signalled = real(cond, mutex, end_time);
    __tsan_acquire(mutex);
    return signalled;
}

}  // extern "C"

#endif  // HARVO_TSAN_GLIB_SYNC
