/* SPDX-License-Identifier: Apache-2.0 */
/**
 * \file TCWrapperGadgetActivity.h
 * TCWrapperGadgetActivity: a gadget activity whose hooks forward to the C
 * callbacks of a pelx_gadget_activity_ops record (made by
 * pelx_init_ui_gadget). A missing callback logs "null ops" and gives the
 * neutral result.
 */
#ifndef HARVO_FW_TCWRAPPERGADGETACTIVITY_H
#define HARVO_FW_TCWRAPPERGADGETACTIVITY_H

#include "harvo-fw-export.h"

#include <string>

#include "TCGadgetActivity.h"
#include "pelx.h"

namespace Quelt {

/** The gadget activity behind the plain-function interface: every hook
 *  calls the matching callback of a pelx_gadget_activity_ops record. */
class HARVO_FW_API TCWrapperGadgetActivity : public TCGadgetActivity {
public:
    /** |ops| is borrowed: the activity never frees it. */
    TCWrapperGadgetActivity(pelx_gadget_activity_ops* ops, std::string name, bool bCreateDBus);
    virtual ~TCWrapperGadgetActivity();

    bool IfMessageReceived(const char* from, const TCMessage* message, TCMessage* reply,
                           const char* signalName) override;
    bool IfMessageReplied(const char* from, const TCMessage* reply) override;
    void* t_OnCreate(ui_gadget_s* ug, ug_mode mode, app_control_s* service) override;
    void t_OnStart(ui_gadget_s* ug, app_control_s* service) override;
    void t_OnPause(ui_gadget_s* ug, app_control_s* service) override;
    void t_OnResume(ui_gadget_s* ug, app_control_s* service) override;
    void t_OnDestroy(ui_gadget_s* ug, app_control_s* service) override;
    void t_OnMessage(ui_gadget_s* ug, app_control_s* msg, app_control_s* service) override;
    void t_OnEvent(ui_gadget_s* ug, ug_event event, app_control_s* service) override;
    using TCGadgetActivity::t_OnEvent;
    bool t_OnMEvent(const TCEvent* event) override;
    void t_ClearMEvent(TCEvent* event) override;

    /** The callbacks record given at construction (borrowed). */
    pelx_gadget_activity_ops* GetOps() { return m_pOps; }

private:
    pelx_gadget_activity_ops* m_pOps;
};

}  // namespace Quelt

#endif  // HARVO_FW_TCWRAPPERGADGETACTIVITY_H
