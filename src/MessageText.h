/* SPDX-License-Identifier: Apache-2.0 */
// The text a message copy carries (internal to the library).
#ifndef HARVO_FW_SRC_MESSAGETEXT_H
#define HARVO_FW_SRC_MESSAGETEXT_H

#include <string>

#include "TCMessage.h"

namespace Quelt {
namespace detail {

/* The text that a copy of |data| (copy constructor or TCMessage
 * assignment) would hold, made without copying the tree: the tree's compact
 * text when the tree is not empty, else |data|'s text as it is. Senders
 * that only read a copy's text use it instead of making the copy. */
std::string CopiedText(const TCData& data);

}  // namespace detail
}  // namespace Quelt

#endif  // HARVO_FW_SRC_MESSAGETEXT_H
