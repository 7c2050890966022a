// SPDX-License-Identifier: Apache-2.0
// A door that test threads wait at until the test opens it.
#ifndef HARVO_TEST_GATE_H
#define HARVO_TEST_GATE_H

#include <chrono>
#include <condition_variable>
#include <mutex>

namespace harvo_test {

class Gate {
public:
    // Waits until the gate is opened.
    void Wait() {
        std::unique_lock<std::mutex> lock(mutex_);
        ++waiting_;
        changed_.notify_all();
        changed_.wait(lock, [this] { return open_; });
    }
    void Open() {
        std::lock_guard<std::mutex> guard(mutex_);
        open_ = true;
        changed_.notify_all();
    }
    // Whether a thread waits at the gate (or has passed it).
    bool Waiting() {
        std::lock_guard<std::mutex> guard(mutex_);
        return waiting_ > 0;
    }
    // Waits until |count| threads wait at the gate (or have passed it).
    bool WaitForWaiters(int count, std::chrono::milliseconds limit) {
        std::unique_lock<std::mutex> lock(mutex_);
        return changed_.wait_for(lock, limit, [&] { return waiting_ >= count; });
    }
    bool IsOpen() {
        std::lock_guard<std::mutex> guard(mutex_);
        return open_;
    }
    // Waits until the gate is opened.
    bool WaitUntilOpen(std::chrono::milliseconds limit) {
        std::unique_lock<std::mutex> lock(mutex_);
        return changed_.wait_for(lock, limit, [this] { return open_; });
    }

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    int waiting_ = 0;
    bool open_ = false;
};

}  // namespace harvo_test

#endif  // HARVO_TEST_GATE_H
