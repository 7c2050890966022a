/* SPDX-License-Identifier: Apache-2.0 */
// A private dbus-daemon for tests that need a real bus.
//
// PrivateBus starts `dbus-daemon --config-file=CONFIG --nofork
// --print-address=FD --address=unix:dir=TMPDIR` in a fresh temporary
// directory (/tmp/harvo-bus-PID-XXXXXX, removed by Stop, or by a later
// start once process PID is gone), reads the address it listens on and
// exports it as DBUS_SYSTEM_BUS_ADDRESS for this process and every child
// started later.
// The daemon dies with the process that started it (PR_SET_PDEATHSIG), so a
// crashing test leaves no daemon behind; Stop() ends it normally.
//
// GLib caches the system bus connection per process: start the bus before
// the first g_bus_get of the process (PrivateBusEnvironment does that for a
// whole test program).
#ifndef HARVO_TEST_PRIVATEBUS_H
#define HARVO_TEST_PRIVATEBUS_H

#include <gtest/gtest.h>
#include <sys/types.h>

#include <string>

namespace harvo_test {

class PrivateBus {
public:
    PrivateBus() = default;
    ~PrivateBus();
    PrivateBus(const PrivateBus&) = delete;
    PrivateBus& operator=(const PrivateBus&) = delete;

    // Starts the daemon with |configFile| and exports its address. False
    // (with |error| filled) when the daemon could not be started or did not
    // print its address within a generous limit.
    bool Start(const std::string& configFile, std::string* error);
    // Terminates the daemon, waits for it and removes the directory.
    void Stop();

    const std::string& Address() const { return address_; }
    pid_t Pid() const { return pid_; }

private:
    pid_t pid_ = -1;
    std::string address_;
    std::string directory_;
};

// Starts one private bus for the whole test program and stops it at the
// end. Register it before RUN_ALL_TESTS, e.g. at namespace scope:
//   static auto* const kBus = ::testing::AddGlobalTestEnvironment(
//       new harvo_test::PrivateBusEnvironment(HARVO_BUS_CONFIG));
class PrivateBusEnvironment : public ::testing::Environment {
public:
    explicit PrivateBusEnvironment(std::string configFile) : config_(std::move(configFile)) {}
    void SetUp() override;
    void TearDown() override;

    const PrivateBus& Bus() const { return bus_; }

private:
    std::string config_;
    PrivateBus bus_;
};

}  // namespace harvo_test

#endif  // HARVO_TEST_PRIVATEBUS_H
