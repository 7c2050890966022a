// SPDX-License-Identifier: Apache-2.0
// Host implementation of the platform log.
//
// Every line is formatted once, handed to the capture sink (if any) and
// copied to standard error as "P/TAG(PID): text". One process-wide lock
// keeps lines whole and in order across threads.

#include "dlog.h"
#include "dlog-host.h"

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
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

// A formatted line: |size| bytes at |text|, followed by a NUL byte.
struct Line {
    const char* text;
    size_t size;
};

// The thread's format buffer. It keeps its largest size, so a line that fits
// is formatted in one pass: a too-small first pass costs as much as the
// formatting itself, which shows with long message bodies. A line logged
// after the buffer is gone (from a destructor that runs later at thread
// exit) is formatted into a buffer of its own.
struct FormatBuffer {
    std::string text = std::string(512, '\0');
    ~FormatBuffer();
};
thread_local bool t_bufferGone = false;  // trivially destructible: always readable
FormatBuffer::~FormatBuffer() {
    t_bufferGone = true;
}

// Room for |more| bytes after the first |used| of |buffer|, whose whole
// size is working space.
char* Reserve(std::string& buffer, size_t used, size_t more) {
    if (used + more > buffer.size())
        buffer.resize(std::max(buffer.size() * 2, used + more));
    return &buffer[used];
}

size_t PutDecimal(std::string& buffer, size_t used, unsigned long long value, bool negative) {
    char digits[24];
    char* end = digits + sizeof(digits);
    char* p = end;
    do {
        *--p = static_cast<char>('0' + value % 10);
        value /= 10;
    } while (value != 0);
    if (negative)
        *--p = '-';
    const size_t length = static_cast<size_t>(end - p);
    std::memcpy(Reserve(buffer, used, length), p, length);
    return used + length;
}

// Puts together a line whose format holds no conversions but "%s", "%d",
// "%u" and "%%" (no flags, widths, precisions or lengths: the framework's
// own lines), with the bytes vsnprintf writes, a null string as "(null)".
// vsnprintf's generic machinery costs a few thousand instructions per line.
// Returns false at the first other conversion; |args| is never read.
bool FormatPlain(std::string& buffer, const char* fmt, va_list args, Line* line) {
    va_list values;
    va_copy(values, args);
    size_t used = 0;
    const char* p = fmt;
    for (;;) {
        const char* percent = std::strchr(p, '%');
        const size_t run = percent != nullptr ? static_cast<size_t>(percent - p) : std::strlen(p);
        std::memcpy(Reserve(buffer, used, run), p, run);
        used += run;
        if (percent == nullptr)
            break;
        p = percent;
        switch (p[1]) {
            case 's': {
                const char* text = va_arg(values, const char*);
                if (text == nullptr)
                    text = "(null)";
                const size_t length = std::strlen(text);
                std::memcpy(Reserve(buffer, used, length), text, length);
                used += length;
                break;
            }
            case 'd': {
                const long long value = va_arg(values, int);
                used = PutDecimal(buffer, used,
                                  static_cast<unsigned long long>(value < 0 ? -value : value),
                                  value < 0);
                break;
            }
            case 'u':
                used = PutDecimal(buffer, used, va_arg(values, unsigned int), false);
                break;
            case '%':
                *Reserve(buffer, used, 1) = '%';
                ++used;
                break;
            default:
                // Not one of ours (a flag, width, precision, length or
                // another conversion): the values read so far came from a
                // copy, so vsnprintf gets them all.
                va_end(values);
                return false;
        }
        p += 2;
    }
    va_end(values);
    // The terminator: buffer[size()] is the string's own.
    buffer[used] = '\0';
    *line = {buffer.data(), used};
    return true;
}

// Formats into |buffer|, whose whole size is working space. The line stays
// valid until |buffer| changes.
Line FormatInto(std::string& buffer, const char* fmt, va_list args) {
    Line line{"", 0};
    if (FormatPlain(buffer, fmt, args, &line))
        return line;
    va_list copy;
    va_copy(copy, args);
    int needed = std::vsnprintf(&buffer[0], buffer.size() + 1, fmt, copy);
    va_end(copy);
    if (needed < 0)
        return {"", 0};
    if (static_cast<size_t>(needed) > buffer.size()) {
        buffer.resize(static_cast<size_t>(needed));
        std::vsnprintf(&buffer[0], buffer.size() + 1, fmt, args);
    }
    return {buffer.data(), static_cast<size_t>(needed)};
}

void WriteStderr(int prio, const char* tag, const Line& text) {
    std::string line;
    line.reserve(text.size + 32);
    line += dlog_host_priority_letter(prio);
    line += '/';
    line += tag;
    line += '(';
    line += std::to_string(static_cast<long>(getpid()));
    line += "): ";
    line.append(text.text, text.size);
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
    std::string ownBuffer;  // grows to the line's size when used
    std::string* buffer = &ownBuffer;
    if (!t_bufferGone) {
        thread_local FormatBuffer threadBuffer;
        buffer = &threadBuffer.text;
    }
    va_list args;
    va_start(args, fmt);
    Line text = FormatInto(*buffer, fmt, args);
    va_end(args);

    LogState& state = State();
    std::lock_guard<std::mutex> guard(state.lock);
    if (state.sink != nullptr)
        state.sink(log_id, prio, tag, text.text, state.sink_data);
    if (state.to_stderr)
        WriteStderr(prio, tag, text);
    return static_cast<int>(text.size);
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
