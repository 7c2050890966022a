// TCServer: construction, the hooks' defaults and the process-wide
// registry of created servers. Creating and closing on the bus follow.

#include "TCServer.h"

#include "QueltLog.h"

namespace Quelt {

std::map<std::string, TCServer*> TCServer::m_CreatedDbusServers;

TCServer::TCServer(std::string name, TCServerType type)
    : m_type(type),
      m_created(false),
      m_name(name),
      m_busName(name + ".message"),
      m_mainLoop(nullptr),
      m_connection(nullptr),
      m_ownerId(0),
      m_registrationId(0),
      m_nodeInfo(nullptr),
      m_sendCount(0) {
    m_signalManager.Init();
    m_closeLock.Create();
}

TCServer::~TCServer() { m_closeLock.Destroy(); }

bool TCServer::IfHandleInEventIO(const char* /*from*/, const TCMessage* /*message*/,
                                 TCEventIO** /*eventIO*/) {
    return false;
}

bool TCServer::IfMessageReceived(const char* /*from*/, const TCMessage* /*message*/,
                                 TCMessage* /*reply*/, const char* /*signalName*/) {
    return false;
}

bool TCServer::IfMessageReplied(const char* /*from*/, const TCMessage* /*reply*/) { return false; }

TCServer* TCServer::m_GetDbusServer(const char* name) {
    if (name == nullptr) {
        QLOGW("%s is null", "source");
        return nullptr;
    }
    auto found = m_CreatedDbusServers.find(name);
    if (found == m_CreatedDbusServers.end()) {
        // The same words whatever the caller.
        QLOGE("Couldn't find %s dbus server, subscribe fail", name);
        return nullptr;
    }
    return found->second;
}

}  // namespace Quelt
