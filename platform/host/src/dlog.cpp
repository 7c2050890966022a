// Host implementation of the platform log.
//
// Every line is formatted once, handed to the capture sink (if any) and
// copied to standard error as "P/TAG(PID): text". One process-wide lock
// keeps lines whole and in order across threads.

#include "dlog.h"
#include "dlog-host.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <mutex>
#include <string>
#include <unistd.h>

namespace {

struct LogState {
    std::mutex lock;
    dlog_host_sink_cb sink = nullptr;
    void* sink_data = nullptr;
    bool to_stderr = true;
};

LogState& State() {
    // Never destroyed: threads may still log while the process exits.
    static LogState* state = new LogState();
    return *state;
}

std::string FormatV(const char* fmt, va_list args) {
    va_list copy;
    va_copy(copy, args);
    char small[512];
    int needed = std::vsnprintf(small, sizeof(small), fmt, copy);
    va_end(copy);
    if (needed < 0)
        return std::string();
    if (static_cast<size_t>(needed) < sizeof(small))
        return std::string(small, needed);
    std::string text(static_cast<size_t>(needed), '\0');
    std::vsnprintf(&text[0], text.size() + 1, fmt, args);
    return text;
}

void WriteStderr(int prio, const char* tag, const std::string& text) {
    std::string line;
    line.reserve(text.size() + 32);
    line += dlog_host_priority_letter(prio);
    line += '/';
    line += tag;
    line += '(';
    line += std::to_string(static_cast<long>(getpid()));
    line += "): ";
    line += text;
    if (line.empty() || line.back() != '\n')
        line += '\n';
    // One write per line so concurrent processes sharing stderr stay readable.
    ssize_t ignored = write(STDERR_FILENO, line.data(), line.size());
    (void)ignored;
}

}  // namespace

extern "C" int __dlog_print(log_id_t log_id, int prio, const char* tag, const char* fmt, ...) {
    if (tag == nullptr || fmt == nullptr)
        return -EINVAL;
    va_list args;
    va_start(args, fmt);
    std::string text = FormatV(fmt, args);
    va_end(args);

    LogState& state = State();
    std::lock_guard<std::mutex> guard(state.lock);
    if (state.sink != nullptr)
        state.sink(log_id, prio, tag, text.c_str(), state.sink_data);
    if (state.to_stderr)
        WriteStderr(prio, tag, text);
    return static_cast<int>(text.size());
}

extern "C" void dlog_host_set_sink(dlog_host_sink_cb sink, void* user_data) {
    LogState& state = State();
    std::lock_guard<std::mutex> guard(state.lock);
    state.sink = sink;
    state.sink_data = user_data;
}

extern "C" void dlog_host_set_stderr(int enabled) {
    LogState& state = State();
    std::lock_guard<std::mutex> guard(state.lock);
    state.to_stderr = enabled != 0;
}

extern "C" char dlog_host_priority_letter(int prio) {
    switch (prio) {
        case DLOG_VERBOSE:
            return 'V';
        case DLOG_DEBUG:
            return 'D';
        case DLOG_INFO:
            return 'I';
        case DLOG_WARN:
            return 'W';
        case DLOG_ERROR:
            return 'E';
        case DLOG_FATAL:
            return 'F';
        case DLOG_SILENT:
            return 'S';
        default:
            return '?';
    }
}
