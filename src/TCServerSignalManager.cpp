// TCServerSignalManager: the per-server table of signal subscriptions.

#include "TCServerSignalManager.h"

#include "QueltLog.h"

namespace Quelt {

void TCServerSignalManager::Init() {
    // The records are not freed here: Init runs once, on empty tables.
    m_NativeSignals.clear();
    m_ManagedSignals.clear();
}

}  // namespace Quelt
