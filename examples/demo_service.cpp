// SPDX-License-Identifier: Apache-2.0
// The demo's service: a background daemon named "weather" that answers
// messages on the bus and broadcasts a "forecast" signal.
//
// What it shows:
//   - a TCDaemonService run by Quelt::AppMain (a GLib main loop);
//   - IfHandleInEventIO moving the handling of every bus message, reply
//     included, from the main thread to a worker TCTask;
//   - IfMessageReceived reading a JSON body and a byte buffer and filling a
//     reply with a type, a code, a JSON body and a buffer of its own;
//   - a TCAlarm ticking on the worker's loop that broadcasts a signal with
//     SendSignal a few times;
//   - a clean end: the "quit" message quits the loop that AppMain stored,
//     and the terminate path stops the alarm and the worker.
//
// The narration goes to standard output, prefixed with "[service]"; the
// framework's own log lines go to standard error.

#include <cstdio>
#include <string>
#include <thread>

#include <harvo-fw/harvo-fw.h>

using Quelt::TCAlarm;
using Quelt::TCEventIO;
using Quelt::TCMessage;
using Quelt::TCTask;

namespace {

std::thread::id g_mainThread;

// Every line says on which thread it was printed.
void Say(const std::string& text) {
    bool onMain = std::this_thread::get_id() == g_mainThread;
    std::printf("[service] (%s) %s\n", onMain ? "main  " : "worker", text.c_str());
}

std::string Bytes(const unsigned char* data, unsigned int size) {
    std::string text = "[";
    for (unsigned int i = 0; i < size; ++i)
        text += (i ? " " : "") + std::to_string(data[i]);
    return text + "]";
}

class WeatherService : public Quelt::TCDaemonService {
public:
    WeatherService() : TCDaemonService("weather"), m_worker("weather-worker") {}

    // Runs once the bus name is owned and the main event queue is up.
    bool t_OnStart() override {
        // true: the worker's loop is built here, so the alarm can be bound to
        // it right away.
        if (!m_worker.Create("weather-worker", true, 0))
            return false;
        Say("started: endpoint \"weather\" on the bus, worker task running");
        return true;
    }

    // Every bus message arrives on the main thread first; answering true
    // with the worker moves IfMessageReceived and the reply to its thread.
    bool IfHandleInEventIO(const char*, const TCMessage*, TCEventIO** eventIO) override {
        *eventIO = &m_worker;
        return true;
    }

    // Runs on the worker. Whatever is put into |reply| goes back to the sender.
    bool IfMessageReceived(const char* from, const TCMessage* message, TCMessage* reply,
                           const char*) override {
        unsigned char* data = nullptr;
        unsigned int size = message->GetBuffer(data);  // borrowed
        Say("message \"" + message->m_type + "\" from " + from + ": " + message->m_message +
            ", buffer " + Bytes(data, size));
        reply->m_type = "re:" + message->m_type;
        reply->m_code = message->m_code + 1;

        if (message->m_type == "sum") {
            // Sum the bytes and send them back reversed.
            unsigned int sum = 0;
            std::string reversed;
            for (unsigned int i = 0; i < size; ++i) {
                sum += data[i];
                reversed.insert(reversed.begin(), static_cast<char>(data[i]));
            }
            reply->m_value["city"] = message->m_value["city"];
            reply->m_value["sum"] = sum;
            reply->SetBuffer(reinterpret_cast<const unsigned char*>(reversed.data()), size);
        } else if (message->m_type == "start_forecast") {
            // Broadcast "forecast" every interval, |days| times, from the
            // worker's loop.
            unsigned long days = message->m_value.get("days", 3).asUInt();
            unsigned long interval = message->m_value.get("interval_ms", 200).asUInt();
            m_alarm.Create(&m_worker, interval, days);
            m_alarm.SetAlarmCallback(&WeatherService::OnAlarm, this);
            reply->m_value["started"] = true;
            reply->m_value["days"] = static_cast<Json::UInt>(days);
        } else if (message->m_type == "quit") {
            // Quitting the loop ends AppMain through the terminate path; the
            // reply is still sent when this function returns.
            reply->m_value["bye"] = from;
            g_main_loop_quit(GetMainLoop());
        } else {
            reply->m_value["dbus_result"] = "fail";  // the sender's sync send fails
            reply->m_value["errmsg"] = "unknown request";
        }
        return true;
    }

    // First step of terminating, on the main thread.
    void t_OnTerminate() override {
        m_alarm.Destroy();
        m_worker.Destroy();  // waits for the worker's thread to end
        // Push the last reply (to "quit") out before the process ends.
        g_dbus_connection_flush_sync(m_connection, nullptr, nullptr);
        Say("terminating: alarm and worker stopped");
    }

private:
    // The alarm's callback, on the worker: true keeps the alarm going.
    static bool OnAlarm(void* data) {
        auto* self = static_cast<WeatherService*>(data);
        static const char* kSkies[] = {"sunny", "cloudy", "rain", "snow"};
        int day = ++self->m_day;
        TCMessage forecast;
        forecast.m_value["day"] = day;
        forecast.m_value["sky"] = kSkies[(day - 1) % 4];
        forecast.m_value["celsius"] = 18 + day;
        forecast.Generate();
        Say("alarm tick " + std::to_string(day) + ": broadcasting signal \"forecast\" " +
            forecast.GetMessage());
        self->SendSignal("forecast", &forecast);
        return true;
    }

    TCTask m_worker;
    TCAlarm m_alarm;
    int m_day = 0;
};

}  // namespace

int main(int argc, char** argv) {
    setvbuf(stdout, nullptr, _IOLBF, 0);  // keeps lines whole when piped
    g_mainThread = std::this_thread::get_id();
    WeatherService service;
    int result = Quelt::AppMain(argc, argv, &service);  // returns once the loop has quit
    Say("AppMain returned " + std::to_string(result));
    return result == 0 ? 0 : 1;
}
