/* SPDX-License-Identifier: Apache-2.0 */
/**
 * \file TCGadgetActivity.h
 * TCGadgetActivity: the module side of a UI gadget.
 *
 * A gadget author derives from it, overrides t_OnCreate .. t_OnEvent, and
 * in the module's init entry calls Quelt::InitUIGadget to point the UI
 * gadget library's operations at the activity. The activity is at once a
 * bus endpoint (TCServer, first base) and an event queue (TCEventIO).
 *
 * Host and gadget exchange small questions and answers over app-control
 * extra data ("__CORE_GADGET_MODE__" QUERY/REPLY, "__CORE_GADGET_TYPE__",
 * "__CORE_GADGET_INFO__"): GetHostInformation asks the host,
 * t_GadgetInformationRequested answers the host.
 *
 * Threads: every library callback arrives on the library's thread (the
 * host's main loop); the class takes no lock of its own.
 */
#ifndef HARVO_FW_TCGADGETACTIVITY_H
#define HARVO_FW_TCGADGETACTIVITY_H

#include "harvo-fw-export.h"

#include <app_control.h>
#include <ui-gadget-module.h>
#include <ui-gadget.h>

#include <string>

#include "TCEventIO.h"
#include "TCMessage.h"
#include "TCServer.h"

namespace Quelt {

/** The gadget side of a UI gadget: a module's activity, at once a bus
 *  endpoint (TCServer) and an event queue (TCEventIO), driven by the UI
 *  gadget library through the module operations that InitUIGadget fills. */
class HARVO_FW_API TCGadgetActivity : public TCServer, public TCEventIO {
public:
    /** Nothing is created on the bus and no event pipe is opened here; both
     * happen in the create callback. */
    TCGadgetActivity(std::string name, bool bCreateDBus);
    /** Finalises the event IO and closes the bus server, whether or not
     * destroy already ran. */
    virtual ~TCGadgetActivity();

    /** The gadget's hooks. t_OnCreate returns the layout object; null means
     * the gadget could not be created. */
    virtual void* t_OnCreate(ui_gadget_s* ug, ug_mode mode, app_control_s* service);
    /** The gadget starts (after t_OnCreate). Default nothing. */
    virtual void t_OnStart(ui_gadget_s* ug, app_control_s* service);
    /** The gadget is paused. Default nothing. */
    virtual void t_OnPause(ui_gadget_s* ug, app_control_s* service);
    /** The gadget is resumed. Default nothing. */
    virtual void t_OnResume(ui_gadget_s* ug, app_control_s* service);
    /** The gadget is destroyed; the event queue and the endpoint close
     *  after this returns. Default nothing. */
    virtual void t_OnDestroy(ui_gadget_s* ug, app_control_s* service);
    /** A user message from the host (one without the protocol's mode key). */
    virtual void t_OnMessage(ui_gadget_s* ug, app_control_s* msg, app_control_s* service);
    /** A system event from the library (rotation, language, ...). Default
     *  nothing. */
    virtual void t_OnEvent(ui_gadget_s* ug, ug_event event, app_control_s* service);
    /** The host's question; the default answers with an empty message. */
    virtual TCMessage t_GadgetInformationRequested(TCMessage& request);

    /** The event IO's own hook keeps its name next to the gadget event. */
    using TCEventIO::t_OnEvent;

    /** The library's callbacks; |priv| is the activity. */
    static void* OnCreate(ui_gadget_s* ug, ug_mode mode, app_control_s* service, void* priv);
    /** Runs t_OnStart. */
    static void OnStart(ui_gadget_s* ug, app_control_s* service, void* priv);
    /** Runs t_OnPause. */
    static void OnPause(ui_gadget_s* ug, app_control_s* service, void* priv);
    /** Runs t_OnResume. */
    static void OnResume(ui_gadget_s* ug, app_control_s* service, void* priv);
    /** Runs t_OnDestroy, then finalises the event queue and closes the
     *  endpoint. */
    static void OnDestroy(ui_gadget_s* ug, app_control_s* service, void* priv);
    /** Runs the protocol's message handling, or t_OnMessage. */
    static void OnMessage(ui_gadget_s* ug, app_control_s* msg, app_control_s* service, void* priv);
    /** Runs t_OnEvent. */
    static void OnEvent(ui_gadget_s* ug, ug_event event, app_control_s* service, void* priv);

    /** Asks the host and returns its answer, or an empty message when the
     * host did not answer. */
    TCMessage GetHostInformation(TCMessage& request);
    /** The library's window object. */
    void* GetWindow();
    /** The handle given to the create callback; null until then. */
    ui_gadget_s* GetGadgetHandle();

protected:
    /** Splits protocol messages from user messages. */
    void m_ProcessMessage(ui_gadget_s* ug, app_control_s* msg, app_control_s* service, void* priv);

    ui_gadget_s* m_pGadget;       ///< the handle given to the create callback
    bool m_bCreateDBus;           ///< whether creation also creates the bus endpoint
    bool m_bActivated;            ///< t_OnCreate ran and destroy has not
    TCMessage m_HostInformation;  ///< the host's last REPLY
};

/** Points |ops|'s create .. event slots at the activity's callbacks and its
 * private data at |activity|; -1 when |ops| is null. */
HARVO_FW_API int InitUIGadget(ug_module_ops* ops, TCGadgetActivity* activity, ug_option option);

}  // namespace Quelt

#endif  // HARVO_FW_TCGADGETACTIVITY_H
