/* SPDX-License-Identifier: Apache-2.0 */
/**
 * \file TCWrapperMessageOpr.h
 * Conversions between the framework's classes and the plain records of the
 * C interface (pelx.h), and two small owners that hold a record for the
 * length of one C callback.
 *
 * Every conversion into a record releases what the record held before, so
 * one record may be filled again and again. Texts are copied with strdup
 * (release with free), buffers with new[] (released by the library).
 */
#ifndef HARVO_FW_TCWRAPPERMESSAGEOPR_H
#define HARVO_FW_TCWRAPPERMESSAGEOPR_H

#include "harvo-fw-export.h"

#include "TCEvent.h"
#include "TCMessage.h"
#include "pelx.h"

namespace Quelt {

/** Zeroes every field. */
HARVO_FW_API void InitManagedMessage(pelx_message_s* message);
/** Releases info, type and buffer and zeroes them; the record stays. */
HARVO_FW_API void DestroyManagedMessage(pelx_message_s* message);
/** Zeroes every field. */
HARVO_FW_API void InitManagedEvent(pelx_event_s* event);
/** Releases data and reply and nulls them; nothing else is touched. */
HARVO_FW_API void DestroyManagedEvent(pelx_event_s* event);

/** Class to record. Empty texts become null members. */
///@{
HARVO_FW_API void ConvertToManagedMessage(const TCMessage* message, pelx_message_s* record);
HARVO_FW_API void CopyFromTCMessage(const TCMessage* message, pelx_message_s* record);
///@}
/** Record to class: the text is parsed, the buffer copied. */
///@{
HARVO_FW_API void ConvertToMessage(const pelx_message_s* record, TCMessage* message);
HARVO_FW_API void CopyFromManagedMessage(pelx_message_s* record, TCMessage* message);
///@}

/** Class to record: |gadget| receives the event's receiver unchanged. */
HARVO_FW_API void ConvertToManagedEvent(const TCEvent* event, pelx_event_s* record);
/** Record to class: the receiver becomes the handler part of the gadget
 * activity that |gadget| points to. A record without gadget leaves the
 * event untouched. */
HARVO_FW_API void ConvertToEvent(const pelx_event_s* record, TCEvent* event);

/** Holds a message record for one callback; the destructor releases the
 * record's members. */
class HARVO_FW_API TCWrapperMessage {
public:
    /** An empty record. */
    TCWrapperMessage();
    /** A record converted from \p message. */
    explicit TCWrapperMessage(const TCMessage* message);
    virtual ~TCWrapperMessage();
    TCWrapperMessage(const TCWrapperMessage&) = delete;
    TCWrapperMessage& operator=(const TCWrapperMessage&) = delete;

    /** The embedded record; valid as long as the wrapper. */
    pelx_message_s* GetMMessager() { return &m_message; }

private:
    pelx_message_s m_message;
};

/** Holds an event record for one callback; the destructor releases the
 * record's data and reply. */
class HARVO_FW_API TCWrapperEvent {
public:
    /** An empty record. */
    TCWrapperEvent();
    /** A record converted from \p event. */
    explicit TCWrapperEvent(const TCEvent* event);
    virtual ~TCWrapperEvent();
    TCWrapperEvent(const TCWrapperEvent&) = delete;
    TCWrapperEvent& operator=(const TCWrapperEvent&) = delete;

    /** The embedded record; valid as long as the wrapper. */
    pelx_event_s* GetMEvent() { return &m_event; }

private:
    pelx_event_s m_event;
};

}  // namespace Quelt

#endif  // HARVO_FW_TCWRAPPERMESSAGEOPR_H
