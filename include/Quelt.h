/*
 * Free functions of the framework namespace.
 */
#ifndef HARVO_FW_QUELT_H
#define HARVO_FW_QUELT_H

namespace Quelt {

/* The running application's name, or "nil" while no application object
 * exists. Every framework log line carries it. */
const char* GetProjectName();
const char* GetAppName();

}  // namespace Quelt

#endif  // HARVO_FW_QUELT_H
