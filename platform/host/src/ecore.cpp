// SPDX-License-Identifier: Apache-2.0
// Host implementation of Ecore's main loop on GLib's default main context.
//
// The loop iterates the default context itself instead of running a
// GMainLoop: g_main_loop_run() forgets a g_main_loop_quit() that arrives
// before it starts, and a quit from another thread may well arrive then.
// Here a quit is a flag checked between iterations plus a wake-up of the
// context, so none is ever lost.

#include "Ecore.h"

#include <glib.h>

#include <mutex>

namespace {

// One running ecore_main_loop_begin; nested calls stack up.
struct LoopFrame {
    bool quit = false;
    LoopFrame* outer = nullptr;
};

struct EcoreState {
    std::mutex lock;
    int init_count = 0;
    LoopFrame* innermost = nullptr;  // the frame a quit ends
    bool quit_pending = false;       // a quit that came while no loop ran
};

EcoreState& State() {
    // Never destroyed: another thread may still quit while the process exits.
    static EcoreState* state = new EcoreState();
    return *state;
}

bool QuitRequested(LoopFrame& frame) {
    EcoreState& state = State();
    std::lock_guard<std::mutex> guard(state.lock);
    return frame.quit;
}

}  // namespace

extern "C" int ecore_init(void) {
    EcoreState& state = State();
    std::lock_guard<std::mutex> guard(state.lock);
    return ++state.init_count;
}

extern "C" int ecore_shutdown(void) {
    EcoreState& state = State();
    std::lock_guard<std::mutex> guard(state.lock);
    if (state.init_count > 0)
        --state.init_count;
    return state.init_count;
}

extern "C" void ecore_main_loop_begin(void) {
    EcoreState& state = State();
    LoopFrame frame;
    {
        std::lock_guard<std::mutex> guard(state.lock);
        if (state.quit_pending) {
            // Quit was asked for before the loop began: end at once.
            state.quit_pending = false;
            return;
        }
        frame.outer = state.innermost;
        state.innermost = &frame;
    }
    GMainContext* context = g_main_context_default();
    while (!QuitRequested(frame))
        g_main_context_iteration(context, TRUE);
    {
        std::lock_guard<std::mutex> guard(state.lock);
        state.innermost = frame.outer;
    }
}

extern "C" void ecore_main_loop_quit(void) {
    EcoreState& state = State();
    {
        std::lock_guard<std::mutex> guard(state.lock);
        if (state.innermost != nullptr) {
            state.innermost->quit = true;
        } else {
            state.quit_pending = true;
        }
    }
    // Interrupts a blocking iteration so the loop sees the flag; harmless
    // when the call comes from inside the loop itself.
    g_main_context_wakeup(g_main_context_default());
}
