// SPDX-License-Identifier: Apache-2.0
// Host implementation of app control: a bundle of string key/value pairs.
//
// Each bundle has its own lock, so one bundle may be filled and read from
// several threads; destroying it while another thread still uses it is the
// caller's error, as on the device.

#include "app_control.h"
#include "app_control-host.h"

#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <new>
#include <string>

struct app_control_s {
    std::mutex lock;
    std::map<std::string, std::string> extras;
};

extern "C" int app_control_create(app_control_h* app_control) {
    if (app_control == nullptr)
        return APP_CONTROL_ERROR_INVALID_PARAMETER;
    app_control_h created = new (std::nothrow) app_control_s();
    if (created == nullptr)
        return APP_CONTROL_ERROR_OUT_OF_MEMORY;
    *app_control = created;
    return APP_CONTROL_ERROR_NONE;
}

extern "C" int app_control_destroy(app_control_h app_control) {
    if (app_control == nullptr)
        return APP_CONTROL_ERROR_INVALID_PARAMETER;
    delete app_control;
    return APP_CONTROL_ERROR_NONE;
}

extern "C" int app_control_add_extra_data(app_control_h app_control, const char* key,
                                          const char* value) {
    if (app_control == nullptr || key == nullptr || key[0] == '\0' || value == nullptr)
        return APP_CONTROL_ERROR_INVALID_PARAMETER;
    try {
        std::string new_value(value);
        std::lock_guard<std::mutex> guard(app_control->lock);
        // An existing key takes the new value.
        app_control->extras[key] = std::move(new_value);
    } catch (const std::bad_alloc&) {
        return APP_CONTROL_ERROR_OUT_OF_MEMORY;
    }
    return APP_CONTROL_ERROR_NONE;
}

extern "C" int app_control_get_extra_data(app_control_h app_control, const char* key,
                                          char** value) {
    if (app_control == nullptr || key == nullptr || key[0] == '\0' || value == nullptr)
        return APP_CONTROL_ERROR_INVALID_PARAMETER;
    std::lock_guard<std::mutex> guard(app_control->lock);
    auto found = app_control->extras.find(key);
    if (found == app_control->extras.end())
        return APP_CONTROL_ERROR_KEY_NOT_FOUND;
    // The caller releases the copy with free().
    char* copy = static_cast<char*>(std::malloc(found->second.size() + 1));
    if (copy == nullptr)
        return APP_CONTROL_ERROR_OUT_OF_MEMORY;
    std::memcpy(copy, found->second.c_str(), found->second.size() + 1);
    *value = copy;
    return APP_CONTROL_ERROR_NONE;
}

extern "C" int app_control_host_extra_data_count(app_control_h app_control, int* count) {
    if (app_control == nullptr || count == nullptr)
        return APP_CONTROL_ERROR_INVALID_PARAMETER;
    std::lock_guard<std::mutex> guard(app_control->lock);
    *count = static_cast<int>(app_control->extras.size());
    return APP_CONTROL_ERROR_NONE;
}

extern "C" int app_control_host_foreach_extra_data(app_control_h app_control,
                                                   app_control_host_extra_data_cb callback,
                                                   void* user_data) {
    if (app_control == nullptr || callback == nullptr)
        return APP_CONTROL_ERROR_INVALID_PARAMETER;
    std::lock_guard<std::mutex> guard(app_control->lock);
    for (const auto& entry : app_control->extras) {
        if (!callback(entry.first.c_str(), entry.second.c_str(), user_data))
            break;
    }
    return APP_CONTROL_ERROR_NONE;
}
