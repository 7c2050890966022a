/* SPDX-License-Identifier: Apache-2.0 */
// Captures every platform log line written while a LogCapture is alive,
// and helpers to build and take apart the framework's line shape:
//   "<file>: <func>(<line>) > <colour> [<project>]<text>\033[0m\n"
#ifndef HARVO_TEST_LOGCAPTURE_H
#define HARVO_TEST_LOGCAPTURE_H

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

namespace harvo_test {

struct LogLine {
    int log_id = 0;
    int prio = 0;
    std::string tag;
    std::string text;  // fully formatted, escapes and newline included
};

// The parts of a framework line ("HarvoFW" tag).
struct FrameworkLine {
    std::string file;
    std::string func;
    int line = 0;
    std::string colour;  // escape sequence, e.g. "\033[31m"
    std::string project;
    std::string text;  // the message proper
};

// The colour escape the framework uses for a dlog priority.
std::string ColourFor(int prio);

// Builds the exact text of a framework line.
std::string MakeFrameworkText(int prio, const std::string& file, const std::string& func, int line,
                              const std::string& project, const std::string& text);

// Splits a framework line; false when |text| does not have the shape.
bool ParseFrameworkText(const std::string& text, FrameworkLine* out);

class LogCapture {
public:
    // Installs the capture sink; only one capture may be alive at a time.
    LogCapture();
    ~LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    std::vector<LogLine> Lines() const;
    void Clear();

    // Framework lines ("HarvoFW") whose message proper equals |text|.
    std::vector<FrameworkLine> Framework(const std::string& text) const;
    // Framework lines with priority |prio| whose message proper is |text|.
    size_t CountFramework(int prio, const std::string& text) const;
    bool HasFramework(int prio, const std::string& text) const {
        return CountFramework(prio, text) > 0;
    }
    // Lines with this tag whose full text equals |text| exactly.
    size_t CountExact(int prio, const std::string& tag, const std::string& text) const;

    // Waits until a line matching |pred| has been captured, up to |timeout|.
    bool WaitFor(const std::function<bool(const LogLine&)>& pred,
                 std::chrono::milliseconds timeout) const;
    bool WaitForFramework(int prio, const std::string& text,
                          std::chrono::milliseconds timeout) const;

    // A readable dump of everything captured, for failure messages.
    std::string Dump() const;

private:
    static void Sink(int log_id, int prio, const char* tag, const char* text, void* self);

    mutable std::mutex mutex_;
    mutable std::condition_variable changed_;
    std::vector<LogLine> lines_;
};

}  // namespace harvo_test

#endif  // HARVO_TEST_LOGCAPTURE_H
