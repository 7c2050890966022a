// SPDX-License-Identifier: Apache-2.0
#include "LogCapture.h"

#include <dlog-host.h>
#include <dlog.h>

#include <cstdlib>
#include <sstream>

namespace harvo_test {

namespace {
const char kReset[] = "\033[0m\n";
}

std::string ColourFor(int prio) {
    switch (prio) {
        case DLOG_ERROR:
            return "\033[31m";
        case DLOG_WARN:
            return "\033[33m";
        case DLOG_INFO:
            return "\033[37m";
        case DLOG_DEBUG:
            return "\033[32m";
        default:
            return "";
    }
}

std::string MakeFrameworkText(int prio, const std::string& file, const std::string& func, int line,
                              const std::string& project, const std::string& text) {
    return file + ": " + func + "(" + std::to_string(line) + ") > " + ColourFor(prio) + " [" +
           project + "]" + text + kReset;
}

bool ParseFrameworkText(const std::string& text, FrameworkLine* out) {
    // file ": " func "(" line ") > " colour " [" project "]" text reset
    size_t colon = text.find(": ");
    if (colon == std::string::npos)
        return false;
    size_t open = text.find('(', colon + 2);
    if (open == std::string::npos)
        return false;
    size_t close = text.find(") > ", open);
    if (close == std::string::npos)
        return false;
    size_t colour_begin = close + 4;
    size_t colour_end = text.find('m', colour_begin);
    if (colour_end == std::string::npos || text.compare(colour_begin, 2, "\033[") != 0)
        return false;
    if (text.compare(colour_end + 1, 2, " [") != 0)
        return false;
    size_t project_begin = colour_end + 3;
    size_t project_end = text.find(']', project_begin);
    if (project_end == std::string::npos)
        return false;
    const std::string reset = kReset;
    if (text.size() < reset.size() ||
        text.compare(text.size() - reset.size(), reset.size(), reset) != 0)
        return false;
    size_t text_begin = project_end + 1;
    if (text_begin > text.size() - reset.size())
        return false;
    FrameworkLine parsed;
    parsed.file = text.substr(0, colon);
    parsed.func = text.substr(colon + 2, open - colon - 2);
    parsed.line = std::atoi(text.substr(open + 1, close - open - 1).c_str());
    parsed.colour = text.substr(colour_begin, colour_end + 1 - colour_begin);
    parsed.project = text.substr(project_begin, project_end - project_begin);
    parsed.text = text.substr(text_begin, text.size() - reset.size() - text_begin);
    *out = parsed;
    return true;
}

LogCapture::LogCapture() {
    dlog_host_set_sink(&LogCapture::Sink, this);
}

LogCapture::~LogCapture() {
    dlog_host_set_sink(nullptr, nullptr);
}

void LogCapture::Sink(int log_id, int prio, const char* tag, const char* text, void* self) {
    auto* capture = static_cast<LogCapture*>(self);
    LogLine line;
    line.log_id = log_id;
    line.prio = prio;
    line.tag = tag;
    line.text = text;
    {
        std::lock_guard<std::mutex> guard(capture->mutex_);
        capture->lines_.push_back(std::move(line));
    }
    capture->changed_.notify_all();
}

std::vector<LogLine> LogCapture::Lines() const {
    std::lock_guard<std::mutex> guard(mutex_);
    return lines_;
}

void LogCapture::Clear() {
    std::lock_guard<std::mutex> guard(mutex_);
    lines_.clear();
}

std::vector<FrameworkLine> LogCapture::Framework(const std::string& text) const {
    std::vector<FrameworkLine> found;
    for (const LogLine& line : Lines()) {
        FrameworkLine parsed;
        if (line.tag == "HarvoFW" && ParseFrameworkText(line.text, &parsed) && parsed.text == text)
            found.push_back(parsed);
    }
    return found;
}

size_t LogCapture::CountFramework(int prio, const std::string& text) const {
    size_t count = 0;
    for (const LogLine& line : Lines()) {
        FrameworkLine parsed;
        if (line.tag == "HarvoFW" && line.prio == prio && ParseFrameworkText(line.text, &parsed) &&
            parsed.text == text && parsed.colour == ColourFor(prio))
            ++count;
    }
    return count;
}

size_t LogCapture::CountExact(int prio, const std::string& tag, const std::string& text) const {
    size_t count = 0;
    for (const LogLine& line : Lines()) {
        if (line.prio == prio && line.tag == tag && line.text == text)
            ++count;
    }
    return count;
}

bool LogCapture::WaitFor(const std::function<bool(const LogLine&)>& pred,
                         std::chrono::milliseconds timeout) const {
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, timeout, [&] {
        for (const LogLine& line : lines_) {
            if (pred(line))
                return true;
        }
        return false;
    });
}

bool LogCapture::WaitForFramework(int prio, const std::string& text,
                                  std::chrono::milliseconds timeout) const {
    return WaitFor(
        [&](const LogLine& line) {
            FrameworkLine parsed;
            return line.tag == "HarvoFW" && line.prio == prio &&
                   ParseFrameworkText(line.text, &parsed) && parsed.text == text;
        },
        timeout);
}

std::string LogCapture::Dump() const {
    std::ostringstream out;
    for (const LogLine& line : Lines()) {
        out << dlog_host_priority_letter(line.prio) << "/" << line.tag << ": " << line.text;
        if (line.text.empty() || line.text.back() != '\n')
            out << "\n";
    }
    return out.str();
}

}  // namespace harvo_test
