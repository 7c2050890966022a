// SPDX-License-Identifier: Apache-2.0
// Coalesced warnings about refused peers. See RefusalLog.h.

#include "RefusalLog.h"

#include <glib.h>

#include <map>
#include <mutex>

#include "QueltLog.h"

namespace Quelt {
namespace detail {

namespace {

constexpr gint64 kWindowUs = G_USEC_PER_SEC;

// One sender's current second: there is one from its first refusal until a
// second passes without any.
struct Window {
    gint64 lineAt = 0;         // when its last line was written
    unsigned suppressed = 0;   // refused since then
    std::string lastText;      // the last of them
    GSource* timer = nullptr;  // ends the second
};

std::mutex& Mutex() {
    static auto* mutex = new std::mutex();
    return *mutex;
}

std::map<std::string, Window>& Windows() {
    static auto* windows = new std::map<std::string, Window>();
    return *windows;
}

void WriteLine(const std::string& sender, const std::string& text, unsigned count) {
    QLOGW("%s (%u refused from %s since its last line)", text.c_str(), count, sender.c_str());
}

struct TimerData {
    std::string sender;
    GSource* source = nullptr;
};

gboolean OnWindowEnd(gpointer data);

// Arms the timer that ends |window|'s second; Mutex() held.
void ArmTimer(const std::string& sender, Window& window, gint64 now) {
    const gint64 left = window.lineAt + kWindowUs - now;
    GSource* source = g_timeout_source_new(left > 0 ? static_cast<guint>((left + 999) / 1000) : 0);
    auto* data = new TimerData{sender, source};
    g_source_set_callback(source, OnWindowEnd, data, [](gpointer done) {
        auto* finished = static_cast<TimerData*>(done);
        {
            // A timer whose context went away without running it: the next
            // refusal starts a new second (and reports what was counted).
            std::lock_guard<std::mutex> guard(Mutex());
            auto found = Windows().find(finished->sender);
            if (found != Windows().end() && found->second.timer == finished->source)
                found->second.timer = nullptr;
        }
        delete finished;
    });
    window.timer = source;
    GMainContext* context = g_main_context_ref_thread_default();
    g_source_attach(source, context);
    g_main_context_unref(context);
    g_source_unref(source);  // the context holds it until it is done
}

gboolean OnWindowEnd(gpointer data) {
    const TimerData& timer = *static_cast<TimerData*>(data);
    std::string text;
    unsigned count = 0;
    {
        std::lock_guard<std::mutex> guard(Mutex());
        auto found = Windows().find(timer.sender);
        if (found == Windows().end() || found->second.timer != timer.source)
            return G_SOURCE_REMOVE;
        Window& window = found->second;
        window.timer = nullptr;
        if (window.suppressed == 0) {
            Windows().erase(found);  // a quiet second: the sender is forgotten
            return G_SOURCE_REMOVE;
        }
        text.swap(window.lastText);
        count = window.suppressed;
        window.suppressed = 0;
        window.lineAt = g_get_monotonic_time();
        ArmTimer(timer.sender, window, window.lineAt);
    }
    WriteLine(timer.sender, text, count);
    return G_SOURCE_REMOVE;
}

}  // namespace

void WarnRefused(const std::string& sender, const std::string& text) {
    const gint64 now = g_get_monotonic_time();
    unsigned count = 0;
    {
        std::lock_guard<std::mutex> guard(Mutex());
        Window& window = Windows()[sender];
        if (window.timer != nullptr || (window.lineAt != 0 && now - window.lineAt < kWindowUs)) {
            // Within the second: counted, reported when it ends.
            ++window.suppressed;
            window.lastText = text;
            if (window.timer == nullptr)
                ArmTimer(sender, window, now);
            return;
        }
        count = window.suppressed + 1;
        window.suppressed = 0;
        window.lastText.clear();
        window.lineAt = now;
        ArmTimer(sender, window, now);
    }
    WriteLine(sender, text, count);
}

}  // namespace detail
}  // namespace Quelt
