// SPDX-License-Identifier: Apache-2.0
// Host implementation of the UI gadget library (ui-gadget-1): loads gadget
// modules with dlopen and drives them synchronously on the caller's thread.
// The order of every operation is documented in ui-gadget-host.h.

#include <dlfcn.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

#include "app_control-host.h"
#include "app_control.h"
#include "ui-gadget-host.h"
#include "ui-gadget-module.h"
#include "ui-gadget.h"

struct ui_gadget_s {
    void* library = nullptr;  // dlopen handle, closed by ug_destroy
    void (*exit_fn)(struct ug_module_ops*) = nullptr;
    struct ug_module_ops ops {};
    struct ug_cbs cbs {};
    enum ug_mode mode = UG_MODE_FULLVIEW;
    ui_gadget_h parent = nullptr;
    void* layout = nullptr;
    app_control_h service = nullptr;  // our own copy of the create service
    bool destroying = false;
};

namespace {

// The window object handed to gadgets; only its address matters on the host.
struct HostWindow {
    int unused = 0;
};
HostWindow g_window;

std::recursive_mutex g_lock;
std::vector<ui_gadget_h> g_gadgets;  // live gadgets, oldest first
bool g_pathSet = false;
std::string g_path;

bool IsLive(ui_gadget_h ug) {
    std::lock_guard<std::recursive_mutex> guard(g_lock);
    return ug != nullptr && std::find(g_gadgets.begin(), g_gadgets.end(), ug) != g_gadgets.end();
}

std::vector<ui_gadget_h> Snapshot() {
    std::lock_guard<std::recursive_mutex> guard(g_lock);
    return g_gadgets;
}

void Unregister(ui_gadget_h ug) {
    std::lock_guard<std::recursive_mutex> guard(g_lock);
    g_gadgets.erase(std::remove(g_gadgets.begin(), g_gadgets.end(), ug), g_gadgets.end());
}

std::vector<std::string> SearchDirs() {
    std::string list;
    {
        std::lock_guard<std::recursive_mutex> guard(g_lock);
        if (g_pathSet)
            list = g_path;
    }
    if (list.empty()) {
        const char* env = std::getenv("UG_MODULE_PATH");
        if (env != nullptr)
            list = env;
    }
    std::vector<std::string> dirs;
    size_t start = 0;
    while (start <= list.size()) {
        size_t end = list.find(':', start);
        if (end == std::string::npos)
            end = list.size();
        if (end > start)
            dirs.push_back(list.substr(start, end - start));
        start = end + 1;
    }
    return dirs;
}

void* OpenModule(const char* name) {
    std::string file = std::string("libug-") + name + ".so";
    std::vector<std::string> dirs = SearchDirs();
    if (dirs.empty())
        return dlopen(file.c_str(), RTLD_NOW | RTLD_LOCAL);
    for (const std::string& dir : dirs) {
        std::string path = dir + "/" + file;
        void* handle = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
        if (handle != nullptr)
            return handle;
    }
    return nullptr;
}

bool CopyExtra(const char* key, const char* value, void* user_data) {
    app_control_add_extra_data(static_cast<app_control_h>(user_data), key, value);
    return true;
}

app_control_h CopyService(app_control_h service) {
    app_control_h copy = nullptr;
    if (app_control_create(&copy) != APP_CONTROL_ERROR_NONE)
        return nullptr;
    if (service != nullptr)
        app_control_host_foreach_extra_data(service, CopyExtra, copy);
    return copy;
}

// Releases everything ug_create acquired once the module is done with.
void Release(ui_gadget_h ug) {
    if (ug->exit_fn != nullptr)
        ug->exit_fn(&ug->ops);
    if (ug->library != nullptr)
        dlclose(ug->library);
    if (ug->service != nullptr)
        app_control_destroy(ug->service);
    delete ug;
}

}  // namespace

extern "C" {

void ug_host_set_module_path(const char* dirs) {
    std::lock_guard<std::recursive_mutex> guard(g_lock);
    g_pathSet = dirs != nullptr;
    g_path = dirs != nullptr ? dirs : "";
}

int ug_host_gadget_count(void) {
    std::lock_guard<std::recursive_mutex> guard(g_lock);
    return static_cast<int>(g_gadgets.size());
}

ui_gadget_h ug_create(ui_gadget_h parent, const char* name, enum ug_mode mode,
                      app_control_h service, struct ug_cbs* cbs) {
    if (name == nullptr || name[0] == '\0')
        return nullptr;
    if (mode != UG_MODE_FULLVIEW && mode != UG_MODE_FRAMEVIEW)
        return nullptr;
    void* library = OpenModule(name);
    if (library == nullptr)
        return nullptr;
    auto init = reinterpret_cast<int (*)(struct ug_module_ops*)>(dlsym(library, "UG_MODULE_INIT"));
    auto fini = reinterpret_cast<void (*)(struct ug_module_ops*)>(dlsym(library, "UG_MODULE_EXIT"));
    if (init == nullptr || fini == nullptr) {
        dlclose(library);
        return nullptr;
    }
    auto* ug = new ui_gadget_s;
    ug->library = library;
    if (init(&ug->ops) != 0 || ug->ops.create == nullptr) {
        // INIT refused (or gave no create): the module never started, so
        // UG_MODULE_EXIT is not run.
        dlclose(library);
        delete ug;
        return nullptr;
    }
    ug->exit_fn = fini;
    ug->mode = mode;
    ug->parent = IsLive(parent) ? parent : nullptr;
    if (cbs != nullptr)
        ug->cbs = *cbs;
    ug->service = CopyService(service);
    {
        std::lock_guard<std::recursive_mutex> guard(g_lock);
        g_gadgets.push_back(ug);
    }
    ug->layout = ug->ops.create(ug, mode, ug->service, ug->ops.priv);
    if (ug->layout == nullptr) {
        Unregister(ug);
        Release(ug);
        return nullptr;
    }
    if (ug->ops.start != nullptr)
        ug->ops.start(ug, ug->service, ug->ops.priv);
    if (ug->cbs.layout_cb != nullptr)
        ug->cbs.layout_cb(ug, mode, ug->cbs.priv);
    return ug;
}

int ug_destroy(ui_gadget_h ug) {
    if (!IsLive(ug) || ug->destroying)
        return -1;
    ug->destroying = true;
    if (ug->ops.destroy != nullptr)
        ug->ops.destroy(ug, ug->service, ug->ops.priv);
    if (ug->cbs.end_cb != nullptr)
        ug->cbs.end_cb(ug, ug->cbs.priv);
    Unregister(ug);
    Release(ug);
    return 0;
}

int ug_destroy_all(void) {
    std::vector<ui_gadget_h> all = Snapshot();
    for (auto it = all.rbegin(); it != all.rend(); ++it)
        ug_destroy(*it);
    return 0;
}

int ug_pause(void) {
    for (ui_gadget_h ug : Snapshot()) {
        if (IsLive(ug) && ug->ops.pause != nullptr)
            ug->ops.pause(ug, ug->service, ug->ops.priv);
    }
    return 0;
}

int ug_resume(void) {
    for (ui_gadget_h ug : Snapshot()) {
        if (IsLive(ug) && ug->ops.resume != nullptr)
            ug->ops.resume(ug, ug->service, ug->ops.priv);
    }
    return 0;
}

int ug_send_event(enum ug_event event) {
    if (event <= UG_EVENT_NONE || event >= UG_EVENT_MAX)
        return -1;
    for (ui_gadget_h ug : Snapshot()) {
        if (IsLive(ug) && ug->ops.event != nullptr)
            ug->ops.event(ug, event, ug->service, ug->ops.priv);
    }
    return 0;
}

int ug_send_message(ui_gadget_h ug, app_control_h msg) {
    if (!IsLive(ug) || msg == nullptr)
        return -1;
    if (ug->ops.message != nullptr)
        ug->ops.message(ug, msg, ug->service, ug->ops.priv);
    return 0;
}

int ug_send_result(ui_gadget_h ug, app_control_h result) {
    if (!IsLive(ug) || result == nullptr)
        return -1;
    if (ug->cbs.result_cb != nullptr)
        ug->cbs.result_cb(ug, result, ug->cbs.priv);
    return 0;
}

int ug_destroy_me(ui_gadget_h ug) {
    if (!IsLive(ug) || ug->destroying)
        return -1;
    if (ug->cbs.destroy_cb != nullptr)
        ug->cbs.destroy_cb(ug, ug->cbs.priv);
    return 0;
}

void* ug_get_layout(ui_gadget_h ug) {
    return IsLive(ug) ? ug->layout : nullptr;
}

void* ug_get_parent_layout(ui_gadget_h ug) {
    if (!IsLive(ug) || !IsLive(ug->parent))
        return nullptr;
    return ug->parent->layout;
}

void* ug_get_window(void) {
    return &g_window;
}

enum ug_mode ug_get_mode(ui_gadget_h ug) {
    return IsLive(ug) ? ug->mode : UG_MODE_INVALID;
}

}  // extern "C"
