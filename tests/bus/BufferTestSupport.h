/* SPDX-License-Identifier: Apache-2.0 */
// The old-format peer and the wire tap of the buffer format tests.
//
// RawPeer is a peer written against GDBus alone that knows only "a(y)"
// buffers, as the message format first had them: it exports the
// interface without the "ay" announcement and answers like a build of the
// framework from before it; as a client it sends whatever payload a test
// gives it. It has its own bus connection (its own unique name), served on
// its own thread and main context, so it answers while the test blocks.
//
// WireTap records what a connection sends and receives (member, signature,
// destination), as seen on the wire.
#ifndef HARVO_TEST_BUS_BUFFERTESTSUPPORT_H
#define HARVO_TEST_BUS_BUFFERTESTSUPPORT_H

#include <gio/gio.h>

#include <cstring>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "BusTestSupport.h"

namespace harvo_bus_test {

// The interface as an endpoint without the announcement exports it. A copy
// on purpose: it stands for what an older build exports, and must not
// follow later changes of the library's own description.
inline constexpr char kOldInterfaceXml[] =
    "<node>"
    "<interface name='%s'>"
    "<method name='SendMessage'>"
    "<arg type='s' name='from' direction='in'/>"
    "<arg type='u' name='code' direction='in'/>"
    "<arg type='s' name='type' direction='in'/>"
    "<arg type='s' name='message' direction='in'/>"
    "<arg type='s' name='from' direction='out'/>"
    "<arg type='u' name='code' direction='out'/>"
    "<arg type='s' name='type' direction='out'/>"
    "<arg type='s' name='message' direction='out'/>"
    "<arg type='a*' name='buffer' direction='out'/>"
    "</method>"
    "<method name='SendMessageWithBuffer'>"
    "<arg type='s' name='from' direction='in'/>"
    "<arg type='u' name='code' direction='in'/>"
    "<arg type='s' name='type' direction='in'/>"
    "<arg type='s' name='message' direction='in'/>"
    "<arg type='a*' name='buffer' direction='in'/>"
    "<arg type='s' name='from' direction='out'/>"
    "<arg type='u' name='code' direction='out'/>"
    "<arg type='s' name='type' direction='out'/>"
    "<arg type='s' name='message' direction='out'/>"
    "<arg type='a*' name='buffer' direction='out'/>"
    "</method>"
    "</interface>"
    "</node>";

// The bytes of the last field of a five-field payload ("a(y)" or "ay"),
// empty for any other payload.
inline std::vector<unsigned char> BufferBytes(GVariant* payload) {
    if (payload == nullptr || !g_variant_is_container(payload) ||
        g_variant_n_children(payload) != 5)
        return {};
    GVariant* array = g_variant_get_child_value(payload, 4);
    const auto* data = static_cast<const unsigned char*>(g_variant_get_data(array));
    std::vector<unsigned char> bytes(data, data + g_variant_get_size(array));
    g_variant_unref(array);
    return bytes;
}

// Byte i is (7 i + 1) mod 256, as bus_peer's "bsend" makes them.
inline std::vector<unsigned char> PatternBytes(size_t size) {
    std::vector<unsigned char> bytes(size);
    for (size_t i = 0; i < size; ++i)
        bytes[i] = static_cast<unsigned char>((7u * i + 1u) % 256u);
    return bytes;
}

inline unsigned long SumOf(const std::vector<unsigned char>& bytes) {
    unsigned long sum = 0;
    for (unsigned char byte : bytes)
        sum += byte;
    return sum;
}

// A floating "(sussa(y))" payload over a copy of |bytes|.
inline GVariant* StructuresPayload(const char* from, guint32 code, const char* type,
                                   const char* text, const std::vector<unsigned char>& bytes) {
    GBytes* copy = g_bytes_new(bytes.data(), bytes.size());
    GVariant* array = g_variant_new_from_bytes(G_VARIANT_TYPE("a(y)"), copy, TRUE);
    g_bytes_unref(copy);
    return g_variant_new("(suss@a(y))", from, code, type, text, array);
}

// A floating "(sussay)" payload over a copy of |bytes|.
inline GVariant* ByteArrayPayload(const char* from, guint32 code, const char* type,
                                  const char* text, const std::vector<unsigned char>& bytes) {
    GVariant* array = g_variant_new_fixed_array(G_VARIANT_TYPE_BYTE, bytes.data(), bytes.size(), 1);
    return g_variant_new("(suss@ay)", from, code, type, text, array);
}

class RawPeer {
public:
    // What arrived at the peer's object.
    struct Call {
        std::string method;
        std::string signature;  // the payload's type string
        std::string destination;
        std::vector<unsigned char> bytes;
    };

    // |answerIntrospect| false: Introspect calls are swallowed unanswered,
    // as by a peer that is stuck or slow to answer them.
    explicit RawPeer(bool answerIntrospect = true) {
        context_ = g_main_context_new();
        loop_ = g_main_loop_new(context_, FALSE);
        connection_ = NewSecondConnection();
        if (connection_ != nullptr && !answerIntrospect)
            filter_ =
                g_dbus_connection_add_filter(connection_, SwallowIntrospect, nullptr, nullptr);
    }

    ~RawPeer() {
        Release();
        if (thread_.joinable()) {
            g_main_loop_quit(loop_);
            thread_.join();
        }
        if (connection_ != nullptr) {
            if (filter_ != 0)
                g_dbus_connection_remove_filter(connection_, filter_);
            g_dbus_connection_close_sync(connection_, nullptr, nullptr);
            g_object_unref(connection_);
        }
        // Whatever the connection still had for our context runs now.
        while (g_main_context_iteration(context_, FALSE)) {
        }
        g_main_loop_unref(loop_);
        g_main_context_unref(context_);
    }
    RawPeer(const RawPeer&) = delete;
    RawPeer& operator=(const RawPeer&) = delete;

    bool Connected() const { return connection_ != nullptr; }
    std::string UniqueName() const { return g_dbus_connection_get_unique_name(connection_); }

    // Exports /ENDPOINT/message and owns ENDPOINT.message. Method calls
    // run on the peer's own thread. Once only.
    bool Serve(const std::string& endpoint) {
        endpoint_ = endpoint;
        busName_ = endpoint + ".message";
        const std::string path = "/" + endpoint + "/message";
        gchar* xml = g_strdup_printf(kOldInterfaceXml, busName_.c_str());
        node_ = g_dbus_node_info_new_for_xml(xml, nullptr);
        g_free(xml);
        if (node_ == nullptr)
            return false;
        static const GDBusInterfaceVTable vtable = {OnMethodCall, nullptr, nullptr, {nullptr}};
        g_main_context_push_thread_default(context_);
        registration_ = g_dbus_connection_register_object(
            connection_, path.c_str(), node_->interfaces[0], &vtable, this, nullptr, nullptr);
        g_main_context_pop_thread_default(context_);
        if (registration_ == 0)
            return false;
        // Calls are dispatched to |context_|, served from here on.
        thread_ = std::thread([this] {
            g_main_context_push_thread_default(context_);
            g_main_loop_run(loop_);
            g_main_context_pop_thread_default(context_);
        });
        // DBUS_NAME_FLAG_DO_NOT_QUEUE; 1: the primary owner.
        GVariant* answer = g_dbus_connection_call_sync(
            connection_, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
            "RequestName", g_variant_new("(su)", busName_.c_str(), 4u), G_VARIANT_TYPE("(u)"),
            G_DBUS_CALL_FLAGS_NONE, -1, nullptr, nullptr);
        if (answer == nullptr)
            return false;
        guint32 result = 0;
        g_variant_get(answer, "(u)", &result);
        g_variant_unref(answer);
        return result == 1;
    }

    // Gives the name up and removes the object.
    void Release() {
        if (registration_ != 0) {
            g_dbus_connection_unregister_object(connection_, registration_);
            registration_ = 0;
            GVariant* answer = g_dbus_connection_call_sync(
                connection_, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                "org.freedesktop.DBus", "ReleaseName", g_variant_new("(s)", busName_.c_str()),
                nullptr, G_DBUS_CALL_FLAGS_NONE, -1, nullptr, nullptr);
            if (answer != nullptr)
                g_variant_unref(answer);
        }
        if (node_ != nullptr) {
            g_dbus_node_info_unref(node_);
            node_ = nullptr;
        }
    }

    // Calls METHOD of |endpoint| with |payload| (floating, consumed); the
    // reply (the caller unrefs it), or null with |error| set.
    GVariant* CallEndpoint(const std::string& endpoint, const char* method, GVariant* payload,
                           std::string* error = nullptr) {
        const std::string busName = endpoint + ".message";
        const std::string path = "/" + endpoint + "/message";
        GError* failure = nullptr;
        GVariant* reply = g_dbus_connection_call_sync(
            connection_, busName.c_str(), path.c_str(), busName.c_str(), method, payload, nullptr,
            G_DBUS_CALL_FLAGS_NONE, 20000, nullptr, &failure);
        if (failure != nullptr) {
            if (error != nullptr)
                *error = failure->message;
            g_error_free(failure);
        }
        return reply;
    }

    std::vector<Call> Calls() const {
        std::lock_guard<std::mutex> guard(mutex_);
        return calls_;
    }

private:
    static void OnMethodCall(GDBusConnection*, const gchar*, const gchar*, const gchar*,
                             const gchar* method, GVariant* parameters,
                             GDBusMethodInvocation* invocation, gpointer data) {
        RawPeer* self = static_cast<RawPeer*>(data);
        Call call;
        call.method = method;
        call.signature = g_variant_get_type_string(parameters);
        GDBusMessage* message = g_dbus_method_invocation_get_message(invocation);
        const gchar* destination = g_dbus_message_get_destination(message);
        call.destination = destination != nullptr ? destination : "";
        call.bytes = BufferBytes(parameters);
        const gchar* from = "";
        guint32 code = 0;
        const gchar* type = "";
        const gchar* text = "";
        if (g_variant_n_children(parameters) >= 4) {
            g_variant_get_child(parameters, 0, "&s", &from);
            g_variant_get_child(parameters, 1, "u", &code);
            g_variant_get_child(parameters, 2, "&s", &type);
            g_variant_get_child(parameters, 3, "&s", &text);
        }
        // An old build's reply: the buffer echoed as "a(y)", or the single
        // zero byte for none.
        std::vector<unsigned char> echo = call.bytes;
        if (echo.empty())
            echo.push_back(0);
        const std::string replyType = std::string("re:") + type;
        GVariant* reply =
            StructuresPayload(self->endpoint_.c_str(), code + 1, replyType.c_str(), text, echo);
        // Recorded before the reply leaves: a caller that has its reply
        // finds its call among Calls().
        {
            std::lock_guard<std::mutex> guard(self->mutex_);
            self->calls_.push_back(std::move(call));
        }
        g_dbus_method_invocation_return_value(invocation, reply);
    }

    // Runs on GDBus's worker thread; owns |message|.
    static GDBusMessage* SwallowIntrospect(GDBusConnection*, GDBusMessage* message,
                                           gboolean incoming, gpointer) {
        const gchar* interfaceName = g_dbus_message_get_interface(message);
        if (incoming && interfaceName != nullptr &&
            std::strcmp(interfaceName, "org.freedesktop.DBus.Introspectable") == 0) {
            g_object_unref(message);
            return nullptr;
        }
        return message;
    }

    GMainContext* context_ = nullptr;
    GMainLoop* loop_ = nullptr;
    GDBusConnection* connection_ = nullptr;
    guint filter_ = 0;
    std::thread thread_;
    GDBusNodeInfo* node_ = nullptr;
    guint registration_ = 0;
    std::string endpoint_;
    std::string busName_;
    mutable std::mutex mutex_;
    std::vector<Call> calls_;
};

// Records the message traffic of |connection| as it goes on the wire: the
// calls of "SendMessage" and "SendMessageWithBuffer" in both directions,
// their replies, and the signals sent. Introspection and bus daemon traffic
// are left out.
class WireTap {
public:
    explicit WireTap(GDBusConnection* connection)
        : connection_(G_DBUS_CONNECTION(g_object_ref(connection))) {
        id_ = g_dbus_connection_add_filter(connection_, Filter, this, nullptr);
    }
    ~WireTap() {
        g_dbus_connection_remove_filter(connection_, id_);
        g_object_unref(connection_);
    }
    WireTap(const WireTap&) = delete;
    WireTap& operator=(const WireTap&) = delete;

    // One line per call or reply, in order:
    //   "send call MEMBER DESTINATION SIGNATURE", "recv call ...",
    //   "send reply SIGNATURE", "recv reply SIGNATURE".
    std::vector<std::string> Lines() const {
        std::lock_guard<std::mutex> guard(mutex_);
        return lines_;
    }
    // One line per signal sent: "send signal MEMBER SIGNATURE".
    std::vector<std::string> SignalLines() const {
        std::lock_guard<std::mutex> guard(mutex_);
        return signals_;
    }
    void Clear() {
        std::lock_guard<std::mutex> guard(mutex_);
        lines_.clear();
        signals_.clear();
    }

private:
    static std::string Text(const gchar* text) { return text != nullptr ? text : ""; }

    // Runs on GDBus's worker thread.
    static GDBusMessage* Filter(GDBusConnection*, GDBusMessage* message, gboolean incoming,
                                gpointer data) {
        WireTap* self = static_cast<WireTap*>(data);
        const GDBusMessageType kind = g_dbus_message_get_message_type(message);
        const std::string member = Text(g_dbus_message_get_member(message));
        const std::string signature = Text(g_dbus_message_get_signature(message));
        const std::string way = incoming ? "recv " : "send ";
        std::lock_guard<std::mutex> guard(self->mutex_);
        if (kind == G_DBUS_MESSAGE_TYPE_METHOD_CALL &&
            (member == "SendMessage" || member == "SendMessageWithBuffer")) {
            (incoming ? self->received_ : self->sent_)
                .push_back(g_dbus_message_get_serial(message));
            self->lines_.push_back(way + "call " + member + " " +
                                   Text(g_dbus_message_get_destination(message)) + " " + signature);
        } else if (kind == G_DBUS_MESSAGE_TYPE_METHOD_RETURN) {
            // A reply is ours when it answers one of the calls above that
            // went the other way.
            const guint32 replyTo = g_dbus_message_get_reply_serial(message);
            for (guint32 serial : incoming ? self->sent_ : self->received_) {
                if (serial == replyTo) {
                    self->lines_.push_back(way + "reply " + signature);
                    break;
                }
            }
        } else if (kind == G_DBUS_MESSAGE_TYPE_SIGNAL && !incoming) {
            self->signals_.push_back("send signal " + member + " " + signature);
        }
        return message;
    }

    GDBusConnection* connection_;
    guint id_ = 0;
    mutable std::mutex mutex_;
    std::vector<guint32> sent_;      // serials of the calls we made
    std::vector<guint32> received_;  // serials of the calls we were made
    std::vector<std::string> lines_;
    std::vector<std::string> signals_;
};

}  // namespace harvo_bus_test

#endif  // HARVO_TEST_BUS_BUFFERTESTSUPPORT_H
