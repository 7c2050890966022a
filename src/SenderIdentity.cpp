// SPDX-License-Identifier: Apache-2.0
// Who speaks for an endpoint. See SenderIdentity.h.

#include "SenderIdentity.h"

#include "NameOwners.h"
#include "RefusalLog.h"

namespace Quelt {
namespace detail {

namespace {

const char* OrNobody(const std::string& owner) {
    return owner.empty() ? "nobody" : owner.c_str();
}

}  // namespace

bool RequestSenderIsHonest(GDBusConnection* connection, const char* caller,
                           const std::string& endpoint, const char* from,
                           const std::string& claimedBusName) {
    // Without a bus there are no names to own.
    if (caller == nullptr || from == nullptr)
        return true;
    const std::string owner = NameOwner(connection, claimedBusName);
    if (owner.empty() || owner == caller)
        return true;
    WarnRefused(caller, "request for " + endpoint + " refused: " + caller + " claims to be " +
                            from + ", whose bus name " + claimedBusName + " is owned by " + owner);
    return false;
}

bool SignalIsFromNameOwner(GDBusConnection* connection, const char* sender,
                           const char* interfaceName, const char* signalName, GVariant* body) {
    bool fromOwner = false;
    switch (JudgedSignalSender(body)) {
        case SignalSender::kOwner:
            return true;
        case SignalSender::kNotOwner:
            break;
        case SignalSender::kUnjudged:
            fromOwner = sender != nullptr && NameOwner(connection, interfaceName) == sender;
            break;
    }
    if (fromOwner)
        return true;
    const std::string who = sender != nullptr ? sender : "(null)";
    WarnRefused(who, std::string("signal ") + interfaceName + "." + signalName + " from " + who +
                         " not delivered as " + interfaceName + "'s: the name is owned by " +
                         OrNobody(NameOwner(connection, interfaceName)));
    return false;
}

}  // namespace detail
}  // namespace Quelt
