// SPDX-License-Identifier: Apache-2.0
// A tour of harvo-fw's foundation: log lines, locks and the message record.
//
// The narration goes to standard output; the framework's own log lines go
// to the platform log. On a desktop machine the host platform layer prints
// them to standard error in the shape dlogutil shows on a device:
//
//     E/HarvoFW(1234): TCHandler.cpp: Try(63) >  [nil]m_EventMutex is NULL
//
// (priority letter, tag, process id, then the framework's text: source
// file, function, line, the application name -- "nil" while no
// application object exists -- and the message, coloured by priority).

#include <cstdio>
#include <string>
#include <thread>

#include <harvo-fw/harvo-fw.h>

using Quelt::TCMessage;
using Quelt::TCMutex;
using Quelt::TCPrint;
using Quelt::TCSemaphore;

namespace {

int g_step = 0;

// Narration is flushed before every framework call so that it and the log
// lines on standard error appear in the order they happen.
void Step(const char* title) {
    std::printf("\n--- Step %d: %s\n", ++g_step, title);
    std::fflush(stdout);
}

void Say(const char* fmt, const std::string& arg = std::string()) {
    std::printf("    ");
    std::printf(fmt, arg.c_str());
    std::printf("\n");
    std::fflush(stdout);
}

std::string Hex(const unsigned char* bytes, unsigned int size) {
    std::string out;
    char part[4];
    for (unsigned int i = 0; i < size; ++i) {
        std::snprintf(part, sizeof(part), i == 0 ? "%02x" : " %02x", bytes[i]);
        out += part;
    }
    return out;
}

void ShowLogLines() {
    Step("framework log lines");
    Say("A failing operation writes one log line. A semaphore that was never");
    Say("created cannot be taken, so Try() returns false and logs an error:");
    TCSemaphore never_created;
    bool taken = never_created.Try(1000);
    Say("Try() returned %s", taken ? "true" : "false");

    Say("TCPrint traces a scope under the tag WPERF: [IN] now, [OUT] with the");
    Say("elapsed milliseconds when the object goes out of scope.");
    {
        TCPrint trace(1, "ShowLogLines", 0);
        trace.Start("section", __LINE__);
        trace.End("section", __LINE__);
    }
}

void ShowRecursiveLock() {
    Step("a recursive lock");
    TCMutex mutex;
    mutex.Create();
    Say("TCMutex is recursive: the thread that holds it may lock it again.");
    mutex.Lock();
    mutex.Lock();
    Say("Locked twice by the main thread without blocking.");

    bool other_got_it = true;
    std::thread other([&] { other_got_it = mutex.Try(0); });
    other.join();
    Say("Another thread's Try(0) while we hold it: %s",
        other_got_it ? "acquired (unexpected!)" : "refused, as it should be");

    mutex.Unlock();
    mutex.Unlock();
    std::thread again([&] {
        other_got_it = mutex.Try(0);
        if (other_got_it)
            mutex.Unlock();
    });
    again.join();
    Say("After two Unlock() calls the other thread's Try(0): %s",
        other_got_it ? "acquired" : "refused (unexpected!)");

    Say("Locks release their GLib objects only in Destroy(), which logs its entry:");
    mutex.Destroy();
}

void ShowMessage() {
    Step("a message with a JSON body");
    TCMessage message;
    message.m_code = 7;
    message.m_type = "greeting";
    message.SetMessage("{ \"to\" : \"world\", \"count\" : 3 }");
    Say("Body as written (the text is kept as given): %s", message.GetMessage());
    Say("Parsed member \"to\": %s", message.m_value["to"].asString());

    Step("copying the message");
    TCMessage copy(message);
    Say("A copy regenerates its text from the parsed tree, compact: %s", copy.GetMessage());
    copy.m_value["to"] = "harvo-fw";
    copy.Generate();
    Say("The copy, changed and regenerated: %s", copy.GetMessage());
    Say("The original is untouched:          %s", message.GetMessage());
    Say("Code and type travel with it: %s", std::to_string(copy.m_code) + " / " + copy.m_type);

    Step("a body that is not JSON");
    Say("The text is kept; the framework logs that it is not JSON:");
    TCMessage plain;
    bool parsed = plain.SetMessage("hello, not json");
    Say("SetMessage() returned %s", parsed ? "true" : "false");
    Say("GetError() gives the reader's explanation:");
    std::string error = plain.GetError();
    size_t begin = 0;
    while (begin < error.size()) {
        size_t end = error.find('\n', begin);
        if (end == std::string::npos)
            end = error.size();
        if (end > begin)
            Say("  %s", error.substr(begin, end - begin));
        begin = end + 1;
    }
}

void ShowBuffer() {
    Step("a message with a byte buffer");
    const unsigned char bytes[] = {0xde, 0xad, 0xbe, 0xef, 0x2a};
    TCMessage message;
    message.SetMessage("{\"kind\":\"blob\"}");
    message.SetBuffer(bytes, sizeof(bytes));
    Say("SetBuffer() stores its own copy of the bytes.");

    unsigned char* borrowed = nullptr;
    unsigned int size = message.GetBuffer(borrowed);
    Say("GetBuffer() lends the message's bytes: %s", Hex(borrowed, size));

    unsigned char* copied = nullptr;
    size = message.CopyBuffer(&copied);
    Say("CopyBuffer() hands out a new array the caller frees with delete[]: %s", Hex(copied, size));
    delete[] copied;

    TCMessage copy(message);
    unsigned char* copy_bytes = nullptr;
    copy.GetBuffer(copy_bytes);
    Say("A copied message owns a separate buffer: %s",
        copy_bytes != borrowed ? "yes" : "no (unexpected!)");

    TCMessage empty;
    unsigned char* none = nullptr;
    Say("CopyBuffer() on a message without a buffer returns %s",
        std::to_string(empty.CopyBuffer(&none)) + (none == nullptr ? " and writes nothing" : ""));
}

}  // namespace

int main() {
    std::printf("harvo-fw foundation demo (application name: %s)\n", Quelt::GetProjectName());
    std::printf("Narration on standard output; framework log lines on standard error.\n");
    std::printf("A log line reads  P/TAG(pid): file: function(line) > [application]text\n");
    std::printf(
        "where P is E (error, red), W (warning, yellow), I (info, white) or D (debug, green).\n");
    ShowLogLines();
    ShowRecursiveLock();
    ShowMessage();
    ShowBuffer();
    std::printf("\nDone.\n");
    return 0;
}
