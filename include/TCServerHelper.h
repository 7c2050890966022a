/* SPDX-License-Identifier: Apache-2.0 */
/**
 * \file TCServerHelper.h
 * Bus naming and payload packing. Stateless; every function is static.
 *
 * Names: for an endpoint N the bus name is N + ".message" made legal
 * (FormatDBusName, then FormatDBusNameElements), the interface name is the
 * bus name, the object path is "/" + the bus name with its dots turned into
 * slashes.
 * Payloads: "(suss)" = from, code, type, message; "(suss@a*)" adds the
 * buffer as an array of one-byte structures, "a(y)".
 */
#ifndef HARVO_FW_TCSERVERHELPER_H
#define HARVO_FW_TCSERVERHELPER_H

#include "harvo-fw-export.h"

#include <glib.h>

#include <string>

#include "TCMessage.h"

namespace Quelt {

/** The bus naming rules and the payload packing shared by every endpoint.
 *  Stateless: every function is static. */
class HARVO_FW_API TCServerHelper {
public:
    /** The file name of the running executable, or "nil". */
    static void GetProcessName(std::string& name);
    /** Replaces every byte that is not [0-9A-Za-z_.] with "_", in place;
     * true when anything was replaced. */
    static bool FormatDBusName(std::string& name);
    /** Puts "_" in front of every element of \p name (the parts between
     *  dots) that starts with a digit, which the bus does not accept:
     *  "python3.11.pyg.message" becomes "python3._11.pyg.message". Names
     *  whose elements all start otherwise are left as they are. Every bus
     *  name the framework composes goes through FormatDBusName, then this.
     *  \return true when anything was inserted. */
    static bool FormatDBusNameElements(std::string& name);
    /** "/" + |busName| with every "." turned into "/". */
    static std::string GetObjectPath(std::string busName);
    /** Unpacks a request or reply. Outputs may be null when not wanted
     * (|code| must not be); strings and the buffer come back as new[]
     * arrays that the caller frees with delete[]. A payload of another
     * shape writes nothing and still answers true; only a null |msg|
     * fails. */
    static bool AnalyseServerMsg(GVariant* msg, char** from, unsigned int* code, char** type,
                                 char** message, unsigned char** buffer, unsigned int* size);
    /** Fills |target| from unpacked fields; null texts and a zero size
     * leave the corresponding member as it was. */
    static void SetTCMessage(TCMessage* target, char* message, unsigned int code, char* type,
                             unsigned char* buffer, unsigned int size);
};

}  // namespace Quelt

#endif  // HARVO_FW_TCSERVERHELPER_H
