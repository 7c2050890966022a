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

// True when |fmt| holds no conversions but "%s", "%d", "%u" and "%%" (no
// flags, widths, precisions or lengths): the framework's own lines.
bool IsPlainFormat(const char* fmt) {
    for (const char* p = std::strchr(fmt, '%'); p != nullptr; p = std::strchr(p + 1, '%')) {
        ++p;
        if (*p != 's' && *p != 'd' && *p != 'u' && *p != '%')
            return false;
    }
    return true;
}

void AppendDecimal(std::string& out, unsigned long long value, bool negative) {
    char digits[24];
    char* end = digits + sizeof(digits);
    char* p = end;
    do {
        *--p = static_cast<char>('0' + value % 10);
        value /= 10;
    } while (value != 0);
    if (negative)
        *--p = '-';
    out.append(p, static_cast<size_t>(end - p));
}

// Puts together a line of a plain format (see IsPlainFormat): the bytes
// vsnprintf writes, null strings included ("(null)"), without its generic
// machinery, which costs a few thousand instructions per line.
Line FormatPlain(std::string& buffer, const char* fmt, va_list args) {
    buffer.clear();  // keeps the capacity
    const char* p = fmt;
    for (const char* percent = std::strchr(p, '%'); percent != nullptr;
         percent = std::strchr(p, '%')) {
        buffer.append(p, static_cast<size_t>(percent - p));
        switch (percent[1]) {
            case 's': {
                const char* text = va_arg(args, const char*);
                buffer.append(text != nullptr ? text : "(null)");
                break;
            }
            case 'd': {
                const int value = va_arg(args, int);
                const long long wide = value;
                AppendDecimal(buffer, static_cast<unsigned long long>(wide < 0 ? -wide : wide),
                              wide < 0);
                break;
            }
            case 'u':
                AppendDecimal(buffer, va_arg(args, unsigned int), false);
                break;
            default:  // '%'
                buffer += '%';
                break;
        }
        p = percent + 2;
    }
    buffer.append(p);
    return {buffer.data(), buffer.size()};
}

// Formats into |buffer|. The line stays valid until |buffer| changes.
Line FormatInto(std::string& buffer, const char* fmt, va_list args) {
    if (IsPlainFormat(fmt))
        return FormatPlain(buffer, fmt, args);
    // The whole capacity is room for the line.
    buffer.resize(buffer.capacity());
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
