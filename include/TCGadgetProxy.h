/* SPDX-License-Identifier: Apache-2.0 */
/**
 * \file TCGadgetProxy.h
 * TCGadgetProxy: the host side of a UI gadget.
 *
 * A host application creates one proxy per gadget it shows and asks it to
 * create the gadget (ug_create); the library's layout, result, destroy and
 * end callbacks arrive as the virtual hooks. The proxy also runs the host
 * half of the host/gadget information exchange: it answers the gadget's
 * questions (t_HostInformationRequested), asks the gadget
 * (GetGadgetInformation), and can order the gadget to close itself.
 *
 * Every proxy of the process is kept in a static registry keyed by gadget
 * name; the library's callbacks carry only the name, so a callback for a
 * proxy that is gone is logged and dropped.
 *
 * Threads: proxies are created, destroyed and called back only on the
 * thread that runs the UI gadget library (the host's main loop); the
 * registry takes no lock.
 */
#ifndef HARVO_FW_TCGADGETPROXY_H
#define HARVO_FW_TCGADGETPROXY_H

#include "harvo-fw-export.h"

#include <app_control.h>
#include <ui-gadget.h>

#include <map>
#include <string>
#include <vector>

#include "TCMessage.h"

namespace Quelt {

/** The host's handle on one UI gadget: creates it, receives the library's
 *  callbacks as hooks, and runs the host half of the information exchange.
 *  Only on the UI gadget library's thread. */
class HARVO_FW_API TCGadgetProxy {
public:
    /** A proxy without gadget: call CreateGadget. */
    TCGadgetProxy();
    /** Destroys a live gadget, then erases this proxy's name from the
     * registry (by name, whatever proxy the entry points to). */
    virtual ~TCGadgetProxy();

    /** The library's callbacks, as hooks. */
    virtual void t_OnLayoutReady(ui_gadget_s* ug, ug_mode mode);
    /** A user result from the gadget (one without the protocol's mode key).
     *  Default nothing. */
    virtual void t_OnResult(ui_gadget_s* ug, app_control_s* result);
    /** The library destroys the gadget; the registry and the handle stay.
     *  Default nothing. */
    virtual void t_OnDestroy(ui_gadget_s* ug);
    /** The gadget has ended; the proxy is erased from the registry after
     *  this returns, so the hook may delete the proxy. Default nothing. */
    virtual void t_OnEnd();
    /** The gadget's question; the default answers with an empty message. */
    virtual TCMessage t_HostInformationRequested(TCMessage& request);

    /** Registers the proxy under |name| and creates the gadget. The proxy
     * must not move while the gadget lives: the library's callbacks point
     * at the proxy's copy of the name. */
    bool CreateGadget(ui_gadget_s* parent, const char* name, ug_mode mode, app_control_s* service);
    /** Ends the live gadget: ug_destroy when the flag is true, else a
     * REQUEST/DESTROY query that the gadget acts on itself. */
    bool Destroy();
    ///@{
    /** Pause and resume act on every gadget of the process (ug_pause,
     *  ug_resume). \return false, with a log line, when the library fails. */
    bool Pause();
    bool Resume();
    ///@}
    /** How Destroy ends the gadget: true (the default) with ug_destroy,
     *  false with the destroy request that the gadget acts on itself. */
    void t_SetFlagDestroyUG(bool flag);
    /** Asks the gadget and returns its answer, or an empty message. */
    TCMessage GetGadgetInformation(TCMessage& request);
    /** The gadget's layout object, asked from the library anew. */
    void* GetLayout();
    /** The layout object of the gadget's parent. */
    void* GetParentLayout();
    /** The gadget's mode (full view or frame view). */
    ug_mode GetGadgetMode();
    /** The library's handle of the gadget; null when there is none. */
    ui_gadget_s* GetGadgetHandle();

    /** The library's callbacks; |priv| is the gadget's name text. */
    static void OnLayoutReady(ui_gadget_s* ug, ug_mode mode, void* priv);
    /** Runs the protocol's result handling, or t_OnResult. */
    static void OnResult(ui_gadget_s* ug, app_control_s* result, void* priv);
    /** Runs t_OnDestroy. */
    static void OnDestroy(ui_gadget_s* ug, void* priv);
    /** Runs t_OnEnd, then erases the gadget's name from the registry. */
    static void OnEnd(ui_gadget_s* ug, void* priv);

protected:
    /** Splits protocol results from user results. */
    void m_ProcessResult(ui_gadget_s* ug, app_control_s* result);

    void* m_reserved1;              ///< not used by this class
    void* m_layout;                 ///< cached when the library reports the layout ready
    ui_gadget_s* m_gadgetHandle;    ///< the live gadget, or null
    std::string m_gadgetName;       ///< the registry key; the callbacks' private data
    int m_reserved2;                ///< not used by this class
    bool t_bFlagDestroyUG;          ///< see t_SetFlagDestroyUG
    TCMessage m_GadgetInformation;  ///< the gadget's last REPLY

    /** Live proxies by gadget name. */
    static std::map<std::string, TCGadgetProxy*> m_CreatedGadgetProxys;
    /** Every name that was ever registered; only grows. */
    static std::vector<std::string> m_CreatedGadgetNames;
};

}  // namespace Quelt

#endif  // HARVO_FW_TCGADGETPROXY_H
