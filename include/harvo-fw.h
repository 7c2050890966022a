/* SPDX-License-Identifier: Apache-2.0 */
/**
 * \file harvo-fw.h
 * Umbrella header: everything the framework offers to C++ clients.
 */
#ifndef HARVO_FW_H
#define HARVO_FW_H

#include "Quelt.h"
#include "TCAlarm.h"
#include "TCApplication.h"
#include "TCEvent.h"
#include "TCEventIO.h"
#include "TCLock.h"
#include "TCMessage.h"
#include "TCPrint.h"
#include "TCServer.h"
#include "TCTask.h"

#endif  // HARVO_FW_H
