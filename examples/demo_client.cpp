// SPDX-License-Identifier: Apache-2.0
// The demo's client: a UI application that talks to the "weather" service
// (examples/demo_service.cpp) over the bus.
//
// What it shows, in order:
//   1. waiting for the service without sleeping: subscribe to the
//      framework's "service_start_default" announcement, then ask
//      IsServiceAvailable (an announcement after the question still counts);
//   2. a synchronous message with a JSON body and a byte buffer, and its
//      reply (type, code, JSON, buffer);
//   3. an asynchronous message: SendMessage returns at once and the reply
//      arrives later in IfMessageReplied;
//   4. a signal subscription: every "forecast" the service broadcasts runs
//      OnForecast on this application's main loop;
//   5. a clean end: "quit" to the service, then ui_app_exit, which ends
//      ui_app_main through the terminate path.
//
// The narration goes to standard output, prefixed with "[client]"; the
// framework's own log lines go to standard error.

#include <cstdio>
#include <string>

#include <app.h>
#include <harvo-fw/harvo-fw.h>

using Quelt::TCMessage;

namespace {

const char* kService = "weather";
const int kForecastsWanted = 3;

void Say(const std::string& text) {
    std::printf("[client]  %s\n", text.c_str());
}

std::string Describe(TCMessage& reply) {
    unsigned char* data = nullptr;
    unsigned int size = reply.GetBuffer(data);  // borrowed
    std::string bytes;
    for (unsigned int i = 0; i < size; ++i)
        bytes += (i ? " " : "") + std::to_string(data[i]);
    return "type \"" + reply.m_type + "\", code " + std::to_string(reply.m_code) + ", json " +
           reply.GetMessage() + ", buffer [" + bytes + "]";
}

class WeatherClient : public Quelt::TCEFLApplication {
public:
    WeatherClient() : TCEFLApplication("weather_client") {}
    bool ok = false;  // set once the whole conversation went through

    // Runs during creation, before the UI loop; the bus endpoint is up.
    bool t_OnStart() override {
        Say("started");
        // Subscribe first, then ask: a service that comes up in between is
        // not missed.
        SubscribeSignal(kService, "service_start_default", &WeatherClient::OnServiceStarted, this);
        if (IsServiceAvailable(kService)) {
            Say("IsServiceAvailable(\"weather\"): yes, already running");
            g_idle_add(&WeatherClient::TalkOnce, this);  // talk once the loop runs
        } else {
            Say("IsServiceAvailable(\"weather\"): not yet, waiting for its announcement");
        }
        return true;
    }

    void t_OnTerminate() override { Say("terminating"); }

    // The reply of an asynchronous send, on the main loop.
    bool IfMessageReplied(const char* from, const TCMessage* reply) override {
        TCMessage copy(*reply);
        Say(std::string("async reply from ") + from + ": " + Describe(copy));
        return true;
    }

private:
    // The service announced itself: talk, unless IsServiceAvailable already
    // found it (the announcement can arrive on both paths).
    static void OnServiceStarted(const char*, const char*, TCMessage* message, void* data) {
        if (!static_cast<WeatherClient*>(data)->m_talking) {
            Say("signal \"service_start_default\": " + message->GetMessage());
            TalkOnce(data);
        }
    }

    static gboolean TalkOnce(gpointer data) {
        auto* self = static_cast<WeatherClient*>(data);
        if (!self->m_talking) {
            self->m_talking = true;
            self->Talk();
        }
        return G_SOURCE_REMOVE;
    }

    void Talk() {
        // 2. Synchronous: the call returns with the reply filled in.
        TCMessage request, reply;
        request.m_type = "sum";
        request.m_code = 41;
        request.SetMessage(R"({"city":"Seoul","note":"sum these bytes"})");
        const unsigned char bytes[] = {1, 2, 3, 4, 5};
        request.SetBuffer(bytes, sizeof bytes);
        Say("sync send \"sum\" with " + request.GetMessage() + " and buffer [1 2 3 4 5]");
        if (!SendMessage(kService, &request, true, &reply, -1)) {
            Say("sync send failed");
            ui_app_exit();
            return;
        }
        Say("sync reply: " + Describe(reply));

        // 4. Subscribe before asking for the broadcasts, so none is missed.
        SubscribeSignal(kService, "forecast", &WeatherClient::OnForecast, this);
        Say("subscribed to signal \"forecast\" of \"weather\"");

        // 3. Asynchronous: giving a reply object asks for IfMessageReplied;
        // |pending| itself is not filled.
        TCMessage start, pending;
        start.m_type = "start_forecast";
        start.m_code = 7;
        start.SetMessage(R"({"days":3,"interval_ms":200})");
        bool sent = SendMessage(kService, &start, false, &pending, -1);
        Say(std::string("async send \"start_forecast\" ") + start.GetMessage() + ": " +
            (sent ? "sent, the reply comes later" : "failed"));
        if (!sent)
            ui_app_exit();
    }

    // A "forecast" signal, on the main loop.
    static void OnForecast(const char* from, const char* signal, TCMessage* message, void* data) {
        auto* self = static_cast<WeatherClient*>(data);
        ++self->m_forecasts;
        Say("signal \"" + std::string(signal) + "\" from " + from + " (" +
            std::to_string(self->m_forecasts) + "/" + std::to_string(kForecastsWanted) +
            "): " + message->GetMessage());
        if (self->m_forecasts == kForecastsWanted)
            self->Finish();
    }

    // 5. Tell the service to quit, then leave the UI loop.
    void Finish() {
        TCMessage quit, reply;
        quit.m_type = "quit";
        quit.SetMessage("{}");
        bool sent = SendMessage(kService, &quit, true, &reply, -1);
        Say("sync send \"quit\": " + (sent ? Describe(reply) : std::string("failed")));
        ok = sent;
        ui_app_exit();  // ui_app_main returns after OnTerminate
    }

    bool m_talking = false;
    int m_forecasts = 0;
};

}  // namespace

int main(int argc, char** argv) {
    setvbuf(stdout, nullptr, _IOLBF, 0);  // keeps lines whole when piped
    WeatherClient client;
    int result = Quelt::AppMain(argc, argv, &client);
    Say("AppMain returned " + std::to_string(result) +
        (client.ok ? ", conversation complete" : ", conversation INCOMPLETE"));
    return result == 0 && client.ok ? 0 : 1;
}
