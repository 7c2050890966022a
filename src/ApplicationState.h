/* SPDX-License-Identifier: Apache-2.0 */
// Which application object has been destroyed (internal to the library).
//
// g_pAppBase is never cleared, so it may outlive the object it points at,
// and the object's own destruction still writes log lines that ask for the
// project name. The destructor marks the object as gone first, so that
// GetProjectName answers "nil" (no application exists) instead of reading
// an object that is being, or has been, destroyed.
#ifndef HARVO_FW_SRC_APPLICATIONSTATE_H
#define HARVO_FW_SRC_APPLICATIONSTATE_H

namespace Quelt {

class TCApplication;

namespace detail {

/* Whether |app| is the last application object destroyed (and no new one
 * has been built at its address since). */
bool IsApplicationGone(const TCApplication* app);

}  // namespace detail
}  // namespace Quelt

#endif  // HARVO_FW_SRC_APPLICATIONSTATE_H
