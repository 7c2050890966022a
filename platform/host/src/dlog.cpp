// SPDX-License-Identifier: Apache-2.0
// Host implementation of the platform log.
//
// Every line is formatted once, handed to the capture sink (if any) and
// copied to standard error as "P/TAG(PID): text", unless the filter (set by
// HARVO_LOG or the dlog_host_set_* functions) holds it back; colour escapes
// reach standard error only when it is a terminal. One process-wide lock
// keeps lines whole and in order across threads.

#include "dlog.h"
#include "dlog-host.h"

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <cctype>
#include <cstdlib>
#include <string>
#include <unistd.h>
#include <utility>
#include <vector>

namespace {

// Which lines are copied to standard error: a minimum priority for every
// tag, and per-tag ones that override it.
struct Filter {
    int minimum = DLOG_VERBOSE;
    std::vector<std::pair<std::string, int>> tags;

    bool Passes(int prio, const char* tag) const {
        int floor = minimum;
        for (const auto& entry : tags) {
            if (entry.first == tag) {
                floor = entry.second;
                break;
            }
        }
        return floor < DLOG_SILENT && prio >= floor;
    }
};

int PriorityOfLetter(char letter) {
    switch (std::toupper(static_cast<unsigned char>(letter))) {
        case 'V':
            return DLOG_VERBOSE;
        case 'D':
            return DLOG_DEBUG;
        case 'I':
            return DLOG_INFO;
        case 'W':
            return DLOG_WARN;
        case 'E':
            return DLOG_ERROR;
        case 'F':
            return DLOG_FATAL;
        case 'S':
            return DLOG_SILENT;
        default:
            return -1;
    }
}

// Parses "W", "HarvoFW:I,WPERF:S", "*:E" (rules separated by commas or
// blanks). False, with |why| set, when a rule does not parse.
bool ParseFilter(const char* rules, Filter* filter, std::string* why) {
    Filter parsed;
    const std::string text = rules != nullptr ? rules : "";
    size_t at = 0;
    while (at < text.size()) {
        const size_t end = text.find_first_of(", \t", at);
        const std::string item = text.substr(at, end == std::string::npos ? end : end - at);
        at = end == std::string::npos ? text.size() : end + 1;
        if (item.empty())
            continue;
        const size_t colon = item.rfind(':');
        const std::string tag = colon == std::string::npos ? "*" : item.substr(0, colon);
        const std::string letter = colon == std::string::npos ? item : item.substr(colon + 1);
        const int prio = letter.size() == 1 ? PriorityOfLetter(letter[0]) : -1;
        if (prio < 0 || tag.empty()) {
            *why = "\"" + item + "\" is not P or TAG:P with P one of V D I W E F S";
            return false;
        }
        if (tag == "*")
            parsed.minimum = prio;
        else
            parsed.tags.emplace_back(tag, prio);
    }
    *filter = std::move(parsed);
    return true;
}

struct LogState {
    LogState() {
        // A device's log filter is set outside the program; here, by the
        // environment of the process, once.
        const char* rules = std::getenv("HARVO_LOG");
        std::string why;
        if (rules != nullptr && !ParseFilter(rules, &filter, &why)) {
            const std::string line = "harvo-host-platform: HARVO_LOG=\"" + std::string(rules) +
                                     "\" ignored: " + why + "\n";
            ssize_t ignored = write(STDERR_FILENO, line.data(), line.size());
            (void)ignored;
        }
    }
    std::mutex lock;
    dlog_host_sink_cb sink = nullptr;
    void* sink_data = nullptr;
    bool to_stderr = true;
    Filter filter;
    int colour_mode = DLOG_HOST_COLOUR_AUTO;
    int colour = -1;  // -1: not decided yet; else whether escapes are kept
};

LogState& State() {
    // Never destroyed: threads may still log while the process exits.
    static LogState* state = new LogState();
    return *state;
}

// Whether the copy on standard error keeps colour escapes. Called with the
// state's lock held.
bool KeepsColour(LogState& state) {
    if (state.colour < 0) {
        state.colour = state.colour_mode == DLOG_HOST_COLOUR_AUTO
                           ? (isatty(STDERR_FILENO) != 0 ? 1 : 0)
                           : (state.colour_mode == DLOG_HOST_COLOUR_ALWAYS ? 1 : 0);
    }
    return state.colour != 0;
}

// Appends |size| bytes of |text| to |out| without the terminal escapes
// "ESC [ digits-and-semicolons m" (the framework's colours).
void AppendWithoutEscapes(std::string& out, const char* text, size_t size) {
    size_t i = 0;
    while (i < size) {
        if (text[i] == '\033' && i + 1 < size && text[i + 1] == '[') {
            size_t j = i + 2;
            while (j < size &&
                   (std::isdigit(static_cast<unsigned char>(text[j])) || text[j] == ';'))
                ++j;
            if (j < size && text[j] == 'm') {
                i = j + 1;
                continue;
            }
        }
        out += text[i];
        ++i;
    }
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

void WriteStderr(int prio, const char* tag, const Line& text, bool colour) {
    std::string line;
    line.reserve(text.size + 32);
    line += dlog_host_priority_letter(prio);
    line += '/';
    line += tag;
    line += '(';
    line += std::to_string(static_cast<long>(getpid()));
    line += "): ";
    if (colour)
        line.append(text.text, text.size);
    else
        AppendWithoutEscapes(line, text.text, text.size);
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
    LogState& state = State();
    {
        // A line that nobody will see is not even formatted.
        std::lock_guard<std::mutex> guard(state.lock);
        if (state.sink == nullptr && !(state.to_stderr && state.filter.Passes(prio, tag)))
            return 0;
    }
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

    std::lock_guard<std::mutex> guard(state.lock);
    if (state.sink != nullptr)
        state.sink(log_id, prio, tag, text.text, state.sink_data);
    if (state.to_stderr && state.filter.Passes(prio, tag))
        WriteStderr(prio, tag, text, KeepsColour(state));
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

extern "C" void dlog_host_set_min_priority(int prio) {
    LogState& state = State();
    std::lock_guard<std::mutex> guard(state.lock);
    state.filter.minimum = prio;
}

extern "C" int dlog_host_set_filter(const char* rules) {
    Filter filter;
    std::string why;
    if (!ParseFilter(rules, &filter, &why))
        return -EINVAL;
    LogState& state = State();
    std::lock_guard<std::mutex> guard(state.lock);
    state.filter = std::move(filter);
    return 0;
}

extern "C" void dlog_host_set_colour(int mode) {
    LogState& state = State();
    std::lock_guard<std::mutex> guard(state.lock);
    state.colour_mode = mode;
    state.colour = -1;
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
