/* SPDX-License-Identifier: Apache-2.0 */
// The bus interface of every endpoint (internal to the library; the
// benchmarks read it too, to register a raw object with the very same
// description).
#ifndef HARVO_FW_SRC_BUSINTERFACE_H
#define HARVO_FW_SRC_BUSINTERFACE_H

#include <cstddef>

namespace Quelt {
namespace detail {

// The message interface; formatted with the bus name as interface name.
// The buffer is declared with the indefinite array type so that any array
// passes GDBus's argument check; it carries an array of one-byte structures,
// or a plain byte array between endpoints that both announce it: the
// annotation "harvo.fw.Buffer.ByteArray" = "true" (kByteArrayAnnotation,
// BufferFormat.h) on the interface, which introspection shows and which
// changes nothing else.
inline constexpr char kInterfaceXml[] =
    "<node>"
    "<interface name='%s'>"
    "<annotation name='harvo.fw.Buffer.ByteArray' value='true'/>"
    "<method name='SendMessage'>"
    "<arg type='s' name='from' direction='in'/>"
    "<arg type='u' name='code' direction='in'/>"
    "<arg type='s' name='type' direction='in'/>"
    "<arg type='s' name='message' direction='in'/>"
    "<arg type='s' name='from' direction='out'/>"
    "<arg type='u' name='code' direction='out'/>"
    "<arg type='s' name='type' direction='out'/>"
    "<arg type='s' name='message' direction='out'/>"
    "<arg type='a*' name='buffer' direction='out'/>"
    "</method>"
    "<method name='SendMessageWithBuffer'>"
    "<arg type='s' name='from' direction='in'/>"
    "<arg type='u' name='code' direction='in'/>"
    "<arg type='s' name='type' direction='in'/>"
    "<arg type='s' name='message' direction='in'/>"
    "<arg type='a*' name='buffer' direction='in'/>"
    "<arg type='s' name='from' direction='out'/>"
    "<arg type='u' name='code' direction='out'/>"
    "<arg type='s' name='type' direction='out'/>"
    "<arg type='s' name='message' direction='out'/>"
    "<arg type='a*' name='buffer' direction='out'/>"
    "</method>"
    "</interface>"
    "</node>";

inline constexpr size_t kInterfaceXmlSize = 2048;

}  // namespace detail
}  // namespace Quelt

#endif  // HARVO_FW_SRC_BUSINTERFACE_H
