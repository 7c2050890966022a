// SPDX-License-Identifier: Apache-2.0
// Who owns a bus name, followed from the daemon's owner-changed signals.
// See NameOwners.h.
//
// State lives in one process-wide table under one mutex: per connection, the
// followed names and the daemon replies still awaited, and per signal
// message, the verdict on its sender. The connection's filter updates it on
// GDBus's worker thread, in the order messages arrive; askers wait on a
// condition for the first answer about a name.

#include "NameOwners.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

namespace Quelt {
namespace detail {

namespace {

const char kBusName[] = "org.freedesktop.DBus";
const char kBusPath[] = "/org/freedesktop/DBus";

// How long a first question waits for the daemon (GDBus's default timeout),
// and how often the waiting asker looks whether the connection closed.
constexpr auto kAnswerWait = std::chrono::seconds(25);
constexpr auto kClosedCheck = std::chrono::milliseconds(100);

// The answer to one GetNameOwner, shared by everyone who waits for it.
struct Answer {
    bool done = false;
    std::string owner;
};

struct Followed {
    std::string owner;               // current once |asking| is null
    std::shared_ptr<Answer> asking;  // the first answer, while it is awaited
    bool matchRefused = false;       // the daemon would not add the match
    uint64_t lastUse = 0;            // for letting go of the least recent
};

enum class ReplyKind { kAddMatch, kGetNameOwner };

struct AwaitedReply {
    ReplyKind kind;
    std::string name;
    std::shared_ptr<Answer> answer;  // kGetNameOwner only
};

// One connection's followed names. Never freed: once its connection is
// finalised the record is emptied and reused for the next connection, so
// a filter call that raced with the finalisation only ever finds a record
// that names another connection (or none) and leaves the message alone.
struct ConnectionOwners {
    std::atomic<GDBusConnection*> connection{nullptr};
    std::atomic<size_t> followedCount{0};  // names.size(), for the filter's fast path
    std::atomic<size_t> awaitedCount{0};   // awaited.size(), likewise
    // Ordered, with transparent look-ups: the filter finds a name by the
    // message's own text, without making a string of it.
    std::map<std::string, Followed, std::less<>> names;
    std::unordered_map<guint32, AwaitedReply> awaited;
    std::vector<std::string> matchesToRemove;  // let go of by the filter
    uint64_t clock = 0;
};

// Function-level statics, never destroyed: GDBus's worker may call the
// filter while the process exits.
std::mutex& Mutex() {
    static auto* mutex = new std::mutex();
    return *mutex;
}

std::condition_variable& Answered() {
    static auto* answered = new std::condition_variable();
    return *answered;
}

std::vector<ConnectionOwners*>& Records() {
    static auto* records = new std::vector<ConnectionOwners*>();
    return *records;
}

// Per signal body (the message keeps it alive): whether its sender owned
// the name it was emitted on.
std::unordered_map<const GVariant*, bool>& Verdicts() {
    static auto* verdicts = new std::unordered_map<const GVariant*, bool>();
    return *verdicts;
}

std::atomic<size_t> g_verdictCount{0};
std::atomic<size_t> g_daemonQuestions{0};

std::string MatchRule(const std::string& name) {
    return std::string("type='signal',sender='") + kBusName + "',path='" + kBusPath +
           "',interface='" + kBusName + "',member='NameOwnerChanged',arg0='" + name + "'";
}

// Sends a call to the daemon without waiting; |serial| receives its serial
// (0 when nothing was sent). Without |wantReply| the daemon sends none.
bool SendToDaemon(GDBusConnection* connection, const char* method, GVariant* arguments,
                  bool wantReply, guint32* serial) {
    GDBusMessage* message = g_dbus_message_new_method_call(kBusName, kBusPath, kBusName, method);
    g_dbus_message_set_body(message, arguments);
    if (!wantReply)
        g_dbus_message_set_flags(message, G_DBUS_MESSAGE_FLAGS_NO_REPLY_EXPECTED);
    guint32 sent = 0;
    const gboolean ok = g_dbus_connection_send_message(
        connection, message, G_DBUS_SEND_MESSAGE_FLAGS_NONE, &sent, nullptr);
    g_object_unref(message);
    if (serial != nullptr)
        *serial = ok ? sent : 0;
    return ok != FALSE;
}

void RemoveMatch(GDBusConnection* connection, const std::string& name) {
    SendToDaemon(connection, "RemoveMatch", g_variant_new("(s)", MatchRule(name).c_str()), false,
                 nullptr);
}

// Lets go of |found|; the caller holds Mutex() and is not the filter.
void Forget(GDBusConnection* connection, ConnectionOwners& owners,
            std::map<std::string, Followed, std::less<>>::iterator found) {
    if (!found->second.matchRefused)
        RemoveMatch(connection, found->first);
    owners.names.erase(found);
    owners.followedCount.store(owners.names.size());
}

// Sends the RemoveMatch calls the filter asked for; Mutex() held.
void FlushMatchRemovals(GDBusConnection* connection, ConnectionOwners& owners) {
    for (const std::string& name : owners.matchesToRemove)
        RemoveMatch(connection, name);
    owners.matchesToRemove.clear();
}

// ---------------------------------------------------------------------------
// The filter, on GDBus's worker thread

void ForgetVerdict(gpointer body, GObject* /*message*/) {
    std::lock_guard<std::mutex> guard(Mutex());
    if (Verdicts().erase(static_cast<const GVariant*>(body)) > 0)
        g_verdictCount.fetch_sub(1);
}

// A reply to one of our calls: taken, and not passed on (nobody else waits
// for it). Other replies pass.
GDBusMessage* TakeReply(GDBusConnection* connection, ConnectionOwners& owners,
                        GDBusMessage* message) {
    const guint32 serial = g_dbus_message_get_reply_serial(message);
    std::lock_guard<std::mutex> guard(Mutex());
    if (owners.connection.load() != connection)
        return message;
    auto awaited = owners.awaited.find(serial);
    if (awaited == owners.awaited.end())
        return message;
    AwaitedReply reply = std::move(awaited->second);
    owners.awaited.erase(awaited);
    owners.awaitedCount.store(owners.awaited.size());

    const bool failed = g_dbus_message_get_message_type(message) == G_DBUS_MESSAGE_TYPE_ERROR;
    auto found = owners.names.find(reply.name);
    if (reply.kind == ReplyKind::kAddMatch) {
        // Without the match the answer could not be kept current.
        if (failed && found != owners.names.end())
            found->second.matchRefused = true;
    } else {
        // NameHasNoOwner is the daemon's "nobody"; any other error leaves
        // the owner unknown, which is not worth keeping either.
        std::string owner;
        bool known = true;
        GVariant* body = g_dbus_message_get_body(message);
        if (!failed && body != nullptr && g_variant_is_of_type(body, G_VARIANT_TYPE("(s)"))) {
            const gchar* unique = nullptr;
            g_variant_get(body, "(&s)", &unique);
            owner = unique;
        } else if (failed) {
            const gchar* error = g_dbus_message_get_error_name(message);
            known = error != nullptr &&
                    std::strcmp(error, "org.freedesktop.DBus.Error.NameHasNoOwner") == 0;
        }
        reply.answer->done = true;
        reply.answer->owner = owner;
        if (found != owners.names.end() && found->second.asking == reply.answer) {
            if (!known || found->second.matchRefused) {
                if (!found->second.matchRefused)
                    owners.matchesToRemove.push_back(found->first);
                owners.names.erase(found);
                owners.followedCount.store(owners.names.size());
            } else {
                found->second.owner = owner;
                found->second.asking.reset();
            }
        }
        Answered().notify_all();
    }
    g_object_unref(message);
    return nullptr;
}

// NameOwnerChanged from the daemon (it alone can send as org.freedesktop.DBus).
void ApplyOwnerChange(GDBusConnection* connection, ConnectionOwners& owners,
                      GDBusMessage* message) {
    GVariant* body = g_dbus_message_get_body(message);
    if (body == nullptr || !g_variant_is_of_type(body, G_VARIANT_TYPE("(sss)")))
        return;
    const gchar* name = nullptr;
    const gchar* newOwner = nullptr;
    g_variant_get(body, "(&s&s&s)", &name, nullptr, &newOwner);
    std::lock_guard<std::mutex> guard(Mutex());
    if (owners.connection.load() != connection)
        return;
    auto found = owners.names.find(std::string_view(name));
    // Changes before the first answer are older than that answer.
    if (found != owners.names.end() && !found->second.asking)
        found->second.owner = newOwner;
}

// A signal on a followed name's interface: remember whether its sender owns
// the name now, as it arrives.
void JudgeSignal(GDBusConnection* connection, ConnectionOwners& owners, GDBusMessage* message,
                 const char* sender, const char* interfaceName) {
    GVariant* body = g_dbus_message_get_body(message);
    if (body == nullptr)
        return;
    {
        std::lock_guard<std::mutex> guard(Mutex());
        if (owners.connection.load() != connection)
            return;
        auto found = owners.names.find(std::string_view(interfaceName));
        if (found == owners.names.end() || found->second.asking)
            return;
        found->second.lastUse = ++owners.clock;
        auto inserted = Verdicts().emplace(body, found->second.owner == sender);
        if (!inserted.second)
            return;
        g_verdictCount.fetch_add(1);
    }
    // The verdict goes with the message: GDBus hands this very body to every
    // callback the message reaches, and keeps the message until the last one
    // has run.
    g_object_weak_ref(G_OBJECT(message), ForgetVerdict, body);
}

GDBusMessage* Filter(GDBusConnection* connection, GDBusMessage* message, gboolean incoming,
                     gpointer data) {
    if (!incoming)
        return message;
    ConnectionOwners& owners = *static_cast<ConnectionOwners*>(data);
    switch (g_dbus_message_get_message_type(message)) {
        case G_DBUS_MESSAGE_TYPE_METHOD_RETURN:
        case G_DBUS_MESSAGE_TYPE_ERROR:
            if (owners.awaitedCount.load() == 0)
                return message;
            return TakeReply(connection, owners, message);
        case G_DBUS_MESSAGE_TYPE_SIGNAL: {
            const char* sender = g_dbus_message_get_sender(message);
            const char* interfaceName = g_dbus_message_get_interface(message);
            if (sender == nullptr || interfaceName == nullptr)
                return message;
            if (std::strcmp(interfaceName, kBusName) == 0) {
                const char* member = g_dbus_message_get_member(message);
                if (std::strcmp(sender, kBusName) == 0 && member != nullptr &&
                    std::strcmp(member, "NameOwnerChanged") == 0) {
                    ApplyOwnerChange(connection, owners, message);
                }
                return message;
            }
            if (owners.followedCount.load() > 0)
                JudgeSignal(connection, owners, message, sender, interfaceName);
            return message;
        }
        default:
            return message;
    }
}

// ---------------------------------------------------------------------------
// Records per connection

void OnConnectionFinalised(gpointer data, GObject* /*connection*/) {
    std::lock_guard<std::mutex> guard(Mutex());
    ConnectionOwners& owners = *static_cast<ConnectionOwners*>(data);
    owners.connection.store(nullptr);
    owners.names.clear();
    owners.awaited.clear();
    owners.matchesToRemove.clear();
    owners.followedCount.store(0);
    owners.awaitedCount.store(0);
    // Askers still waiting find the record gone.
    Answered().notify_all();
}

// The record of |connection|, made (filter and all) on first use. Mutex()
// held.
ConnectionOwners& RecordOf(GDBusConnection* connection) {
    ConnectionOwners* unused = nullptr;
    for (ConnectionOwners* owners : Records()) {
        GDBusConnection* current = owners->connection.load();
        if (current == connection)
            return *owners;
        if (current == nullptr && unused == nullptr)
            unused = owners;
    }
    if (unused == nullptr) {
        unused = new ConnectionOwners();
        Records().push_back(unused);
    }
    unused->connection.store(connection);
    unused->clock = 0;
    // The filter is removed with the connection; so is the weak reference.
    g_dbus_connection_add_filter(connection, Filter, unused, nullptr);
    g_object_weak_ref(G_OBJECT(connection), OnConnectionFinalised, unused);
    return *unused;
}

// Makes room for one more name by letting go of the least recently used
// one whose answer is in; false when every name still waits for its first
// answer. Mutex() held.
bool MakeRoom(GDBusConnection* connection, ConnectionOwners& owners) {
    if (owners.names.size() < kFollowedNamesPerConnection)
        return true;
    auto oldest = owners.names.end();
    for (auto it = owners.names.begin(); it != owners.names.end(); ++it) {
        if (it->second.asking)
            continue;
        if (oldest == owners.names.end() || it->second.lastUse < oldest->second.lastUse)
            oldest = it;
    }
    if (oldest == owners.names.end())
        return false;
    Forget(connection, owners, oldest);
    return true;
}

// Starts following |name|: the match first, then the question, so that no
// change between the two is missed; the daemon handles both in order. The
// answer to wait for, or null when the name cannot be followed now.
// Mutex() held.
std::shared_ptr<Answer> StartFollowing(GDBusConnection* connection, ConnectionOwners& owners,
                                       const std::string& name) {
    FlushMatchRemovals(connection, owners);
    if (!MakeRoom(connection, owners))
        return nullptr;
    // The replies may reach the filter before the serials are recorded: the
    // count sends it past its fast path to wait for Mutex(), which we hold.
    owners.awaitedCount.store(owners.awaited.size() + 2);
    guint32 matchSerial = 0;
    if (!SendToDaemon(connection, "AddMatch", g_variant_new("(s)", MatchRule(name).c_str()), true,
                      &matchSerial)) {
        owners.awaitedCount.store(owners.awaited.size());
        return nullptr;
    }
    guint32 askSerial = 0;
    if (!SendToDaemon(connection, "GetNameOwner", g_variant_new("(s)", name.c_str()), true,
                      &askSerial)) {
        owners.awaited[matchSerial] = AwaitedReply{ReplyKind::kAddMatch, name, nullptr};
        owners.awaitedCount.store(owners.awaited.size());
        RemoveMatch(connection, name);
        return nullptr;
    }
    g_daemonQuestions.fetch_add(1);
    auto answer = std::make_shared<Answer>();
    Followed& followed = owners.names[name];
    followed.asking = answer;
    followed.lastUse = ++owners.clock;
    owners.followedCount.store(owners.names.size());
    owners.awaited[matchSerial] = AwaitedReply{ReplyKind::kAddMatch, name, nullptr};
    owners.awaited[askSerial] = AwaitedReply{ReplyKind::kGetNameOwner, name, answer};
    owners.awaitedCount.store(owners.awaited.size());
    return answer;
}

// One GetNameOwner, waited for, nothing kept: for unique names and when a
// name cannot be followed.
std::string AskOnce(GDBusConnection* connection, const std::string& busName) {
    g_daemonQuestions.fetch_add(1);
    GVariant* answer =
        g_dbus_connection_call_sync(connection, kBusName, kBusPath, kBusName, "GetNameOwner",
                                    g_variant_new("(s)", busName.c_str()), G_VARIANT_TYPE("(s)"),
                                    G_DBUS_CALL_FLAGS_NONE, -1, nullptr, nullptr);
    if (answer == nullptr)
        return std::string();  // NameHasNoOwner, or the bus is gone
    const gchar* owner = nullptr;
    g_variant_get(answer, "(&s)", &owner);
    std::string result = owner != nullptr ? owner : "";
    g_variant_unref(answer);
    return result;
}

bool IsBusConnection(GDBusConnection* connection) {
    return connection != nullptr && !g_dbus_connection_is_closed(connection) &&
           g_dbus_connection_get_unique_name(connection) != nullptr;
}

}  // namespace

std::string NameOwner(GDBusConnection* connection, const std::string& busName) {
    if (!IsBusConnection(connection) || !g_dbus_is_name(busName.c_str()))
        return std::string();
    if (g_dbus_is_unique_name(busName.c_str()) || busName == kBusName)
        return AskOnce(connection, busName);

    std::unique_lock<std::mutex> lock(Mutex());
    ConnectionOwners& owners = RecordOf(connection);
    std::shared_ptr<Answer> answer;
    auto found = owners.names.find(busName);
    if (found != owners.names.end()) {
        found->second.lastUse = ++owners.clock;
        if (!found->second.asking)
            return found->second.owner;
        answer = found->second.asking;  // another asker's question is on its way
    } else {
        answer = StartFollowing(connection, owners, busName);
        if (!answer) {
            lock.unlock();
            return AskOnce(connection, busName);
        }
    }

    const auto deadline = std::chrono::steady_clock::now() + kAnswerWait;
    while (!answer->done && owners.connection.load() == connection &&
           !g_dbus_connection_is_closed(connection) &&
           std::chrono::steady_clock::now() < deadline) {
        Answered().wait_for(lock, kClosedCheck);
    }
    if (answer->done)
        return answer->owner;
    // No answer: forget the name, so that the next question asks again,
    // and the replies that may never come.
    if (owners.connection.load() == connection) {
        found = owners.names.find(busName);
        if (found != owners.names.end() && found->second.asking == answer) {
            Forget(connection, owners, found);
            for (auto it = owners.awaited.begin(); it != owners.awaited.end();) {
                if (it->second.name == busName)
                    it = owners.awaited.erase(it);
                else
                    ++it;
            }
            owners.awaitedCount.store(owners.awaited.size());
        }
    }
    return std::string();
}

void FollowNameOwner(GDBusConnection* connection, const std::string& busName) {
    if (!IsBusConnection(connection) || !g_dbus_is_name(busName.c_str()) ||
        g_dbus_is_unique_name(busName.c_str()) || busName == kBusName) {
        return;
    }
    std::lock_guard<std::mutex> guard(Mutex());
    ConnectionOwners& owners = RecordOf(connection);
    auto found = owners.names.find(busName);
    if (found != owners.names.end()) {
        found->second.lastUse = ++owners.clock;
        return;
    }
    StartFollowing(connection, owners, busName);
}

SignalSender JudgedSignalSender(GVariant* body) {
    if (body == nullptr || g_verdictCount.load() == 0)
        return SignalSender::kUnjudged;
    std::lock_guard<std::mutex> guard(Mutex());
    auto found = Verdicts().find(body);
    if (found == Verdicts().end())
        return SignalSender::kUnjudged;
    return found->second ? SignalSender::kOwner : SignalSender::kNotOwner;
}

NameOwnerCounts NameOwnerCountsFor(GDBusConnection* connection) {
    NameOwnerCounts counts;
    counts.daemonQuestions = g_daemonQuestions.load();
    std::lock_guard<std::mutex> guard(Mutex());
    for (ConnectionOwners* owners : Records()) {
        GDBusConnection* current = owners->connection.load();
        if (current == nullptr)
            continue;
        ++counts.connections;
        if (current == connection)
            counts.followedNames = owners->names.size();
    }
    return counts;
}

}  // namespace detail
}  // namespace Quelt
