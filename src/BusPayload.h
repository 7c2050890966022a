// Reading bus payloads into messages (internal to the library).
#ifndef HARVO_FW_SRC_BUSPAYLOAD_H
#define HARVO_FW_SRC_BUSPAYLOAD_H

#include <glib.h>

#include "TCMessage.h"

namespace Quelt {
namespace detail {

/* Whether |payload| has one of the shapes a message, reply or signal may
 * arrive in: "(suss)", "(sussa(y))", or "(sussay)", the plain byte array
 * that stock tools (dbus-send, gdbus) send for a buffer. Any other shape
 * (and null) must not reach application code. */
bool IsMessagePayload(GVariant* payload);

/* A new reference to |payload| in the framework's own shapes: "(sussay)"
 * becomes "(sussa(y))" over the same bytes (a byte array and an array of
 * one-byte structures are laid out alike); every other value is returned
 * as it is, with a new reference. The caller unrefs the result. */
GVariant* ToFrameworkPayload(GVariant* payload);

/* Unpacks a reply or signal payload ("(suss)", "(sussa(y))" or "(sussay)") into
 * |message| and frees the unpacked copies. When |from| is not null it
 * receives the sender's endpoint name as a new[] array (null when the
 * payload has another shape); the caller frees it with delete[]. */
void UnpackIntoMessage(GVariant* payload, char** from, TCMessage* message);

}  // namespace detail
}  // namespace Quelt

#endif  // HARVO_FW_SRC_BUSPAYLOAD_H
