/* SPDX-License-Identifier: Apache-2.0 */
// Reports from the test gadget modules to the test program, which exports
// gadget_test_trace(); looked up at run time so that a module has no
// link-time tie to a particular test program.
#ifndef HARVO_TEST_GADGET_TRACE_H
#define HARVO_TEST_GADGET_TRACE_H

#include <dlfcn.h>

static inline void gadget_trace(const char* text) {
    void (*fn)(const char*) = (void (*)(const char*))dlsym(RTLD_DEFAULT, "gadget_test_trace");
    if (fn != NULL)
        fn(text);
}

#endif
