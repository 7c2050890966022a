// SPDX-License-Identifier: Apache-2.0
// TCEvent (the event record) and the TCIOBase interface.

#include "TCEvent.h"

namespace Quelt {

// ---------------------------------------------------------------------------
// TCEvent

TCEvent::TCEvent() : receiver(nullptr), type(0), deleted(false), sync(false) {
    param.p = nullptr;
}

// param.p is copied as a pointer: the pointee stays with whoever owns it for
// this event type (usually the clear step of the IO that runs the event).
TCEvent::TCEvent(const TCEvent& other)
    : receiver(other.receiver),
      type(other.type),
      deleted(other.deleted),
      data(other.data),
      message(other.message),
      sync(other.sync) {
    param.p = other.param.p;
}

TCEvent& TCEvent::operator=(const TCEvent& other) {
    if (this == &other)
        return *this;
    receiver = other.receiver;
    type = other.type;
    deleted = other.deleted;
    data = other.data;
    message = other.message;
    sync = other.sync;
    param.p = other.param.p;
    return *this;
}

// Never frees param.p: that is the business of OnClear.
TCEvent::~TCEvent() {}

// ---------------------------------------------------------------------------
// TCIOBase

TCIOBase::TCIOBase() : m_IOType(0) {}

TCIOBase::~TCIOBase() {}

}  // namespace Quelt
