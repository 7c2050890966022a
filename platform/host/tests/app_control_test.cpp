// SPDX-License-Identifier: Apache-2.0
// Host app control: create, add, replace, get, missing keys, refused
// arguments, destroy.
#include <gtest/gtest.h>

#include <app_control-host.h>
#include <app_control.h>

#include <cerrno>
#include <cstdlib>
#include <map>
#include <string>
#include <thread>
#include <vector>

namespace {

// Reads a value through the public API and frees the copy.
std::string Get(app_control_h bundle, const char* key) {
    char* value = nullptr;
    int result = app_control_get_extra_data(bundle, key, &value);
    EXPECT_EQ(APP_CONTROL_ERROR_NONE, result) << key;
    std::string text = value != nullptr ? value : "<null>";
    free(value);
    return text;
}

int Count(app_control_h bundle) {
    int count = -1;
    EXPECT_EQ(APP_CONTROL_ERROR_NONE, app_control_host_extra_data_count(bundle, &count));
    return count;
}

}  // namespace

TEST(HostAppControl, ErrorValuesAreDistinct) {
    EXPECT_EQ(0, APP_CONTROL_ERROR_NONE);
    EXPECT_EQ(-EINVAL, APP_CONTROL_ERROR_INVALID_PARAMETER);
    EXPECT_EQ(-ENOMEM, APP_CONTROL_ERROR_OUT_OF_MEMORY);
    EXPECT_LT(APP_CONTROL_ERROR_KEY_NOT_FOUND, 0);
    EXPECT_NE(APP_CONTROL_ERROR_KEY_NOT_FOUND, APP_CONTROL_ERROR_INVALID_PARAMETER);
    EXPECT_NE(APP_CONTROL_ERROR_KEY_NOT_FOUND, APP_CONTROL_ERROR_OUT_OF_MEMORY);
    EXPECT_NE(APP_CONTROL_ERROR_KEY_NOT_FOUND, -1);
}

TEST(HostAppControl, CreateGivesAnEmptyBundle) {
    app_control_h bundle = nullptr;
    ASSERT_EQ(APP_CONTROL_ERROR_NONE, app_control_create(&bundle));
    ASSERT_NE(nullptr, bundle);
    EXPECT_EQ(0, Count(bundle));
    EXPECT_EQ(APP_CONTROL_ERROR_NONE, app_control_destroy(bundle));
}

TEST(HostAppControl, AddedValuesAreReadBackAsFreshCopies) {
    app_control_h bundle = nullptr;
    ASSERT_EQ(APP_CONTROL_ERROR_NONE, app_control_create(&bundle));
    std::string key = "__CORE_GADGET_MODE__";
    std::string value = "1";
    ASSERT_EQ(APP_CONTROL_ERROR_NONE,
              app_control_add_extra_data(bundle, key.c_str(), value.c_str()));
    ASSERT_EQ(APP_CONTROL_ERROR_NONE, app_control_add_extra_data(bundle, "other", ""));
    // The bundle keeps its own copies of key and value.
    key.assign("xxxxxxxxxxxxxxxxxxxx");
    value.assign("2");

    char* first = nullptr;
    char* second = nullptr;
    ASSERT_EQ(APP_CONTROL_ERROR_NONE,
              app_control_get_extra_data(bundle, "__CORE_GADGET_MODE__", &first));
    ASSERT_EQ(APP_CONTROL_ERROR_NONE,
              app_control_get_extra_data(bundle, "__CORE_GADGET_MODE__", &second));
    ASSERT_NE(nullptr, first);
    ASSERT_NE(nullptr, second);
    EXPECT_STREQ("1", first);
    // Each get returns a new string that the caller owns.
    EXPECT_NE(first, second);
    first[0] = 'Z';
    EXPECT_EQ("1", Get(bundle, "__CORE_GADGET_MODE__"));
    free(first);
    free(second);

    EXPECT_EQ("", Get(bundle, "other"));
    EXPECT_EQ(2, Count(bundle));
    EXPECT_EQ(APP_CONTROL_ERROR_NONE, app_control_destroy(bundle));
}

TEST(HostAppControl, AddingAnExistingKeyReplacesItsValue) {
    app_control_h bundle = nullptr;
    ASSERT_EQ(APP_CONTROL_ERROR_NONE, app_control_create(&bundle));
    ASSERT_EQ(APP_CONTROL_ERROR_NONE, app_control_add_extra_data(bundle, "k", "old"));
    ASSERT_EQ(APP_CONTROL_ERROR_NONE, app_control_add_extra_data(bundle, "k", "new value"));
    EXPECT_EQ("new value", Get(bundle, "k"));
    EXPECT_EQ(1, Count(bundle));
    app_control_destroy(bundle);
}

TEST(HostAppControl, MissingKeyLeavesTheOutputUntouched) {
    app_control_h bundle = nullptr;
    ASSERT_EQ(APP_CONTROL_ERROR_NONE, app_control_create(&bundle));
    ASSERT_EQ(APP_CONTROL_ERROR_NONE, app_control_add_extra_data(bundle, "present", "v"));
    char sentinel = 0;
    char* value = &sentinel;
    EXPECT_EQ(APP_CONTROL_ERROR_KEY_NOT_FOUND,
              app_control_get_extra_data(bundle, "absent", &value));
    EXPECT_EQ(&sentinel, value);
    // Keys are compared whole and case-sensitively.
    EXPECT_EQ(APP_CONTROL_ERROR_KEY_NOT_FOUND,
              app_control_get_extra_data(bundle, "Present", &value));
    EXPECT_EQ(APP_CONTROL_ERROR_KEY_NOT_FOUND,
              app_control_get_extra_data(bundle, "presen", &value));
    EXPECT_EQ(&sentinel, value);
    app_control_destroy(bundle);
}

TEST(HostAppControl, InvalidParametersAreRefused) {
    EXPECT_EQ(APP_CONTROL_ERROR_INVALID_PARAMETER, app_control_create(nullptr));
    EXPECT_EQ(APP_CONTROL_ERROR_INVALID_PARAMETER, app_control_destroy(nullptr));
    EXPECT_EQ(APP_CONTROL_ERROR_INVALID_PARAMETER, app_control_add_extra_data(nullptr, "k", "v"));
    char* value = nullptr;
    EXPECT_EQ(APP_CONTROL_ERROR_INVALID_PARAMETER,
              app_control_get_extra_data(nullptr, "k", &value));

    app_control_h bundle = nullptr;
    ASSERT_EQ(APP_CONTROL_ERROR_NONE, app_control_create(&bundle));
    EXPECT_EQ(APP_CONTROL_ERROR_INVALID_PARAMETER,
              app_control_add_extra_data(bundle, nullptr, "v"));
    EXPECT_EQ(APP_CONTROL_ERROR_INVALID_PARAMETER,
              app_control_add_extra_data(bundle, "k", nullptr));
    EXPECT_EQ(APP_CONTROL_ERROR_INVALID_PARAMETER, app_control_add_extra_data(bundle, "", "v"));
    EXPECT_EQ(0, Count(bundle));

    ASSERT_EQ(APP_CONTROL_ERROR_NONE, app_control_add_extra_data(bundle, "k", "v"));
    EXPECT_EQ(APP_CONTROL_ERROR_INVALID_PARAMETER,
              app_control_get_extra_data(bundle, nullptr, &value));
    EXPECT_EQ(APP_CONTROL_ERROR_INVALID_PARAMETER, app_control_get_extra_data(bundle, "", &value));
    EXPECT_EQ(APP_CONTROL_ERROR_INVALID_PARAMETER,
              app_control_get_extra_data(bundle, "k", nullptr));
    EXPECT_EQ(nullptr, value);

    int count = 0;
    EXPECT_EQ(APP_CONTROL_ERROR_INVALID_PARAMETER,
              app_control_host_extra_data_count(nullptr, &count));
    EXPECT_EQ(APP_CONTROL_ERROR_INVALID_PARAMETER,
              app_control_host_extra_data_count(bundle, nullptr));
    EXPECT_EQ(APP_CONTROL_ERROR_INVALID_PARAMETER,
              app_control_host_foreach_extra_data(bundle, nullptr, nullptr));
    app_control_destroy(bundle);
}

TEST(HostAppControl, DestroyReleasesEveryEntry) {
    // Under AddressSanitizer a leaked key or value fails this test.
    app_control_h bundle = nullptr;
    ASSERT_EQ(APP_CONTROL_ERROR_NONE, app_control_create(&bundle));
    for (int i = 0; i < 100; ++i) {
        std::string key = "key" + std::to_string(i);
        std::string value(1000, static_cast<char>('a' + i % 26));
        ASSERT_EQ(APP_CONTROL_ERROR_NONE,
                  app_control_add_extra_data(bundle, key.c_str(), value.c_str()));
    }
    EXPECT_EQ(100, Count(bundle));
    EXPECT_EQ(std::string(1000, 'a' + 42 % 26), Get(bundle, "key42"));
    EXPECT_EQ(APP_CONTROL_ERROR_NONE, app_control_destroy(bundle));
}

TEST(HostAppControl, ForeachWalksEntriesInKeyOrderAndStopsOnFalse) {
    app_control_h bundle = nullptr;
    ASSERT_EQ(APP_CONTROL_ERROR_NONE, app_control_create(&bundle));
    app_control_add_extra_data(bundle, "b", "2");
    app_control_add_extra_data(bundle, "a", "1");
    app_control_add_extra_data(bundle, "c", "3");

    std::vector<std::pair<std::string, std::string>> all;
    auto collect = [](const char* key, const char* value, void* data) {
        static_cast<std::vector<std::pair<std::string, std::string>>*>(data)->emplace_back(key,
                                                                                           value);
        return true;
    };
    ASSERT_EQ(APP_CONTROL_ERROR_NONE, app_control_host_foreach_extra_data(bundle, collect, &all));
    std::vector<std::pair<std::string, std::string>> expected = {
        {"a", "1"}, {"b", "2"}, {"c", "3"}};
    EXPECT_EQ(expected, all);

    int calls = 0;
    auto first_only = [](const char*, const char*, void* data) {
        ++*static_cast<int*>(data);
        return false;
    };
    ASSERT_EQ(APP_CONTROL_ERROR_NONE,
              app_control_host_foreach_extra_data(bundle, first_only, &calls));
    EXPECT_EQ(1, calls);
    app_control_destroy(bundle);
}

TEST(HostAppControl, ConcurrentWritersAndReadersOfOneBundle) {
    app_control_h bundle = nullptr;
    ASSERT_EQ(APP_CONTROL_ERROR_NONE, app_control_create(&bundle));
    constexpr int kThreads = 4;
    constexpr int kKeys = 200;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([bundle, t] {
            for (int i = 0; i < kKeys; ++i) {
                std::string key = "t" + std::to_string(t) + "k" + std::to_string(i);
                app_control_add_extra_data(bundle, key.c_str(), key.c_str());
                app_control_add_extra_data(bundle, "shared", key.c_str());
                char* value = nullptr;
                if (app_control_get_extra_data(bundle, "shared", &value) == APP_CONTROL_ERROR_NONE)
                    free(value);
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(kThreads * kKeys + 1, Count(bundle));
    EXPECT_EQ("t3k199", Get(bundle, "t3k199"));
    app_control_destroy(bundle);
}
