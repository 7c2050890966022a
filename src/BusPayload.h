/* SPDX-License-Identifier: Apache-2.0 */
// Reading bus payloads into messages (internal to the library).
#ifndef HARVO_FW_SRC_BUSPAYLOAD_H
#define HARVO_FW_SRC_BUSPAYLOAD_H

#include <glib.h>

#include "TCMessage.h"

namespace Quelt {
namespace detail {

/* The fields of a "(suss)" or "(sussa(y))" payload, borrowed from it: the
 * strings and bytes point into the payload and are valid while it lives.
 * The view holds its own reference to the buffer's array. */
struct PayloadView {
    PayloadView() = default;
    PayloadView(const PayloadView&) = delete;
    PayloadView& operator=(const PayloadView&) = delete;
    ~PayloadView();

    bool known = false;  // one of the two shapes; otherwise nothing below is set
    const gchar* from = nullptr;
    guint32 code = 0;
    const gchar* type = nullptr;
    const gchar* text = nullptr;
    // The buffer, when the payload has one: more than one byte, or one
    // byte that is not 0. Null and 0 otherwise.
    const guchar* bytes = nullptr;
    unsigned int size = 0;
    GVariant* array = nullptr;  // owned reference to the "a(y)" child, or null
};

/* Reads |msg| into |view| with the log lines of
 * TCServerHelper::AnalyseServerMsg (the type string; "get data of %s" for a
 * buffer). False only for a null |msg|; a payload of another shape leaves
 * |view| unknown and answers true. */
bool AnalyseServerMsg(GVariant* msg, PayloadView* view);

/* AnalyseServerMsg for every shape a message may arrive in: a plain byte
 * array ("(sussay)") is read as the buffer too, in place, with the lines
 * AnalyseServerMsg writes for "(sussa(y))". */
bool ReadMessagePayload(GVariant* msg, PayloadView* view);

/* Fills |message| from |view| as TCServerHelper::SetTCMessage fills it
 * from unpacked copies: the text (parsed), the code, the type and the
 * buffer; missing texts and a zero size leave those members as they were.
 * A null |message| only logs "null reply", as SetTCMessage does. */
void FillMessage(TCMessage* message, const PayloadView& view);

/* A floating "(suss)" payload of (from, code, type, text), or, when
 * |bytes| is not null and |size| not 0, "(sussa(y))" with the bytes as
 * the last field: borrowed, not copied, so they must outlive the
 * payload's serialisation. The value g_variant_new gives for the formats
 * "(suss)" and "(suss@a*)", built from its fields, which skips the format
 * string's parsing and checks. */
GVariant* BuildPayload(const char* from, guint32 code, const char* type, const char* text,
                       const unsigned char* bytes, unsigned int size);

/* Whether |payload| has one of the shapes a message, reply or signal may
 * arrive in: "(suss)", "(sussa(y))", or "(sussay)", the plain byte array
 * that stock tools (dbus-send, gdbus) send for a buffer. Any other shape
 * (and null) must not reach application code. */
bool IsMessagePayload(GVariant* payload);

/* Unpacks a reply or signal payload ("(suss)", "(sussa(y))" or "(sussay)") into
 * |message| and frees the unpacked copies. When |from| is not null it
 * receives the sender's endpoint name as a new[] array (null when the
 * payload has another shape); the caller frees it with delete[]. */
void UnpackIntoMessage(GVariant* payload, char** from, TCMessage* message);

}  // namespace detail
}  // namespace Quelt

#endif  // HARVO_FW_SRC_BUSPAYLOAD_H
