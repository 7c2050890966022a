// Reading bus payloads into messages (internal to the library).
#ifndef HARVO_FW_SRC_BUSPAYLOAD_H
#define HARVO_FW_SRC_BUSPAYLOAD_H

#include <glib.h>

#include "TCMessage.h"

namespace Quelt {
namespace detail {

/* Unpacks a reply or signal payload ("(suss)" or "(sussa(y))") into
 * |message| and frees the unpacked copies. When |from| is not null it
 * receives the sender's endpoint name as a new[] array (null when the
 * payload has another shape); the caller frees it with delete[]. */
void UnpackIntoMessage(GVariant* payload, char** from, TCMessage* message);

}  // namespace detail
}  // namespace Quelt

#endif  // HARVO_FW_SRC_BUSPAYLOAD_H
