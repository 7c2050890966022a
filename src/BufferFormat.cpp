// SPDX-License-Identifier: Apache-2.0
// The format a byte buffer travels in. See BufferFormat.h.

#include "BufferFormat.h"

#include <condition_variable>
#include <cstring>
#include <deque>
#include <map>
#include <mutex>
#include <thread>

#include "NameOwners.h"
#include "QueltLog.h"

namespace Quelt {
namespace detail {

namespace {

// What is known of one destination (a connection and the endpoint's bus
// name on it).
struct Destination {
    bool probing = true;  // the Introspect call has not answered yet
    BufferFormat format = BufferFormat::kStructures;
    std::chrono::steady_clock::time_point probeStart;
};

// One Introspect call to make. Holds its own reference to the connection.
struct Probe {
    GDBusConnection* connection = nullptr;
    std::string owner;
    std::string busName;
    std::string objectPath;
    std::string key;
};

// Everything the senders of the process share, under one lock. Made once
// and never destroyed: the probing thread may still wait on it while the
// process runs its exit handlers.
struct Registry {
    std::mutex mutex;
    std::condition_variable answered;    // a probe has answered
    std::condition_variable probeReady;  // |probes| is not empty
    std::map<std::string, Destination> known;
    std::deque<std::string> order;  // the keys of |known|, oldest first
    std::deque<Probe> probes;
    bool threadStarted = false;
};

Registry& TheRegistry() {
    static Registry* registry = new Registry();
    return *registry;
}

// Unique names never contain a newline, so the key cannot be ambiguous.
std::string KeyOf(const std::string& owner, const std::string& busName) {
    return owner + '\n' + busName;
}

// Makes room for one more destination by forgetting the oldest answered
// one. False when every remembered destination is still being asked.
bool MakeRoomLocked(Registry& registry) {
    if (registry.known.size() < kFormatCacheLimit)
        return true;
    for (auto it = registry.order.begin(); it != registry.order.end(); ++it) {
        auto found = registry.known.find(*it);
        if (found != registry.known.end() && !found->second.probing) {
            registry.known.erase(found);
            registry.order.erase(it);
            return true;
        }
    }
    return false;
}

void EraseLocked(Registry& registry, const std::string& key) {
    registry.known.erase(key);
    for (auto it = registry.order.begin(); it != registry.order.end(); ++it) {
        if (*it == key) {
            registry.order.erase(it);
            break;
        }
    }
}

// Whether the interface |busName| in the introspection |xml| carries the
// announcement.
bool AnnouncesByteArrays(const gchar* xml, const std::string& busName) {
    GDBusNodeInfo* node = g_dbus_node_info_new_for_xml(xml, nullptr);
    if (node == nullptr)
        return false;
    bool announced = false;
    GDBusInterfaceInfo* interfaceInfo = g_dbus_node_info_lookup_interface(node, busName.c_str());
    if (interfaceInfo != nullptr) {
        const gchar* value =
            g_dbus_annotation_info_lookup(interfaceInfo->annotations, kByteArrayAnnotation);
        announced = value != nullptr && std::strcmp(value, "true") == 0;
    }
    g_dbus_node_info_unref(node);
    return announced;
}

// Asks the destination of |probe| for its introspection, on the probing
// thread. Any failure (no answer in time, the call refused by the bus
// policy, a peer without introspection) means "a(y)".
BufferFormat AskFormat(const Probe& probe) {
    GError* error = nullptr;
    GVariant* answer = g_dbus_connection_call_sync(
        probe.connection, probe.owner.c_str(), probe.objectPath.c_str(),
        "org.freedesktop.DBus.Introspectable", "Introspect", nullptr, G_VARIANT_TYPE("(s)"),
        G_DBUS_CALL_FLAGS_NO_AUTO_START, kFormatProbeTimeoutMs, nullptr, &error);
    if (answer == nullptr) {
        QLOGW("cannot learn the buffer format of %s at %s (%s): its buffers go as a(y)",
              probe.busName.c_str(), probe.owner.c_str(),
              error != nullptr ? error->message : "no answer");
        if (error != nullptr)
            g_error_free(error);
        return BufferFormat::kStructures;
    }
    const gchar* xml = nullptr;
    g_variant_get(answer, "(&s)", &xml);
    const bool announced = AnnouncesByteArrays(xml, probe.busName);
    g_variant_unref(answer);
    QLOGI("%s at %s takes buffers as %s", probe.busName.c_str(), probe.owner.c_str(),
          announced ? "ay" : "a(y)");
    return announced ? BufferFormat::kByteArray : BufferFormat::kStructures;
}

// The probing thread: one Introspect call at a time, for the life of the
// process. Senders never make the call themselves, so a sender whose wait
// ends leaves nothing behind.
[[noreturn]] void ProbeLoop() {
    Registry& registry = TheRegistry();
    for (;;) {
        Probe probe;
        {
            std::unique_lock<std::mutex> lock(registry.mutex);
            registry.probeReady.wait(lock, [&] { return !registry.probes.empty(); });
            probe = std::move(registry.probes.front());
            registry.probes.pop_front();
        }
        const BufferFormat format = AskFormat(probe);
        g_object_unref(probe.connection);
        {
            std::lock_guard<std::mutex> guard(registry.mutex);
            // Forgotten meanwhile: the answer is about a connection that no
            // longer serves the endpoint.
            auto found = registry.known.find(probe.key);
            if (found != registry.known.end() && found->second.probing) {
                found->second.probing = false;
                found->second.format = format;
            }
        }
        registry.answered.notify_all();
    }
}

// Enters |key| as being asked and queues its probe. False when there is no
// room.
bool StartProbeLocked(Registry& registry, GDBusConnection* connection, const std::string& owner,
                      const std::string& busName, const std::string& objectPath,
                      const std::string& key) {
    if (!MakeRoomLocked(registry))
        return false;
    Destination& entry = registry.known[key];
    entry.probing = true;
    entry.probeStart = std::chrono::steady_clock::now();
    registry.order.push_back(key);
    registry.probes.push_back(
        Probe{G_DBUS_CONNECTION(g_object_ref(connection)), owner, busName, objectPath, key});
    if (!registry.threadStarted) {
        registry.threadStarted = true;
        std::thread(ProbeLoop).detach();
    }
    registry.probeReady.notify_one();
    return true;
}

const unsigned char kNoBytes[1] = {0};

}  // namespace

Route ChooseRoute(GDBusConnection* connection, const std::string& busName,
                  const std::string& objectPath, bool withBuffer) {
    Route plain{busName, BufferFormat::kStructures};
    if (connection == nullptr)
        return plain;
    const std::string owner = NameOwner(connection, busName);
    if (owner.empty())
        return plain;  // nobody to ask; the bus answers the request itself
    const std::string key = KeyOf(owner, busName);

    Registry& registry = TheRegistry();
    std::unique_lock<std::mutex> lock(registry.mutex);
    auto found = registry.known.find(key);
    if (found == registry.known.end()) {
        if (!StartProbeLocked(registry, connection, owner, busName, objectPath, key))
            return plain;
        found = registry.known.find(key);
    }
    if (found->second.probing && withBuffer) {
        const auto deadline = found->second.probeStart + kFormatProbeWait;
        registry.answered.wait_until(lock, deadline, [&] {
            auto entry = registry.known.find(key);
            return entry == registry.known.end() || !entry->second.probing;
        });
        found = registry.known.find(key);
        if (found == registry.known.end())
            return plain;
    }
    if (!found->second.probing && found->second.format == BufferFormat::kByteArray)
        return Route{owner, BufferFormat::kByteArray};
    return plain;
}

void ForgetRoute(const Route& route, const std::string& busName) {
    if (!route.Negotiated())
        return;
    Registry& registry = TheRegistry();
    std::lock_guard<std::mutex> guard(registry.mutex);
    EraseLocked(registry, KeyOf(route.destination, busName));
}

bool EndpointMovedAway(const GError* error) {
    return error != nullptr &&
           (g_error_matches(error, G_DBUS_ERROR, G_DBUS_ERROR_SERVICE_UNKNOWN) ||
            g_error_matches(error, G_DBUS_ERROR, G_DBUS_ERROR_NAME_HAS_NO_OWNER) ||
            g_error_matches(error, G_DBUS_ERROR, G_DBUS_ERROR_UNKNOWN_METHOD) ||
            g_error_matches(error, G_DBUS_ERROR, G_DBUS_ERROR_UNKNOWN_OBJECT) ||
            g_error_matches(error, G_DBUS_ERROR, G_DBUS_ERROR_UNKNOWN_INTERFACE));
}

GVariant* NewBufferValue(BufferFormat format, const unsigned char* bytes, unsigned int size) {
    const GVariantType* type =
        format == BufferFormat::kByteArray ? G_VARIANT_TYPE_BYTESTRING : G_VARIANT_TYPE("a(y)");
    if (bytes == nullptr || size == 0) {
        bytes = kNoBytes;
        size = 0;
    }
    return g_variant_new_from_data(type, bytes, size, TRUE, nullptr, nullptr);
}

BufferFormat ReplyFormatFor(GDBusMethodInvocation* invocation) {
    if (invocation == nullptr ||
        !HasByteArrayBuffer(g_dbus_method_invocation_get_parameters(invocation)))
        return BufferFormat::kStructures;
    GDBusMessage* message = g_dbus_method_invocation_get_message(invocation);
    const gchar* destination =
        message != nullptr ? g_dbus_message_get_destination(message) : nullptr;
    // Only a sender that learned our announcement addresses our unique
    // name; stock tools address the bus name and keep getting "a(y)".
    return destination != nullptr && destination[0] == ':' ? BufferFormat::kByteArray
                                                           : BufferFormat::kStructures;
}

bool HasByteArrayBuffer(GVariant* payload) {
    return payload != nullptr && std::strcmp(g_variant_get_type_string(payload), "(sussay)") == 0;
}

void ForgetAllRoutes() {
    Registry& registry = TheRegistry();
    std::lock_guard<std::mutex> guard(registry.mutex);
    // Destinations being asked stay: their probe still answers into them.
    for (auto it = registry.known.begin(); it != registry.known.end();) {
        if (it->second.probing) {
            ++it;
        } else {
            it = registry.known.erase(it);
        }
    }
    std::deque<std::string> order;
    for (const std::string& key : registry.order) {
        if (registry.known.count(key) != 0)
            order.push_back(key);
    }
    registry.order.swap(order);
}

size_t RememberedRouteCount() {
    Registry& registry = TheRegistry();
    std::lock_guard<std::mutex> guard(registry.mutex);
    return registry.known.size();
}

}  // namespace detail
}  // namespace Quelt
