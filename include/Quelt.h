/* SPDX-License-Identifier: Apache-2.0 */
/**
 * \file Quelt.h
 * Free functions of the framework namespace.
 */
#ifndef HARVO_FW_QUELT_H
#define HARVO_FW_QUELT_H

#include "harvo-fw-export.h"

namespace Quelt {

class TCApplication;
class TCMessage;

/** The running application's name, or "nil" while no application object
 * exists. Every framework log line carries it. */
///@{
HARVO_FW_API const char* GetProjectName();
HARVO_FW_API const char* GetAppName();
///@}

/** Runs the process: stores |app| in g_pAppBase and runs the main loop that
 * fits its type (the UI application loop, the Ecore loop or a GLib main
 * loop on the default context), driving the application's lifecycle on the
 * calling thread. Returns 0 after a normal end, -1 on failure (a null
 * application, a refused creation, a loop error). */
HARVO_FW_API int AppMain(int argc, char** argv, TCApplication* app);

/** The static operations of TCServer, as free functions: |source| names one
 * of this process's servers, the rest is TCServer's (same results). */
///@{
HARVO_FW_API bool SendMessage(const char* source, const char* dest, const TCMessage* message,
                              bool sync, TCMessage* reply);
HARVO_FW_API bool SendSignal(const char* source, const char* signalName, const TCMessage* message);
HARVO_FW_API bool SubscribeSignal(const char* source, const char* from, const char* signalName,
                                  void (*handler)(const char* from, const char* signalName,
                                                  TCMessage* message, void* userData),
                                  void* userData);
HARVO_FW_API bool SubscribeKeySignal(const char* source, const char* from, const char* signalName,
                                     void (*handler)(const char* from, const char* signalName,
                                                     TCMessage* message, void* userData),
                                     void* userData);
HARVO_FW_API bool UnSubscribeSignal(const char* source, const char* from, const char* signalName);
HARVO_FW_API bool UnSubscribeKeySignal(const char* source, const char* from,
                                       const char* signalName);
///@}

}  // namespace Quelt

#endif  // HARVO_FW_QUELT_H
