// SPDX-License-Identifier: Apache-2.0
// A sender takes its server's close lock for a moment before every send or
// emission. Only a create or a close holds that lock for long, and a sender
// gives up on those at once ("Server is going to be closed!"); any other
// holder is waited for, however long the system keeps it off the processor.
// A loaded machine used to turn such a moment into a refused send from a
// server that was neither being created nor closed.
#include <dlog.h>
#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <thread>
#include <vector>

#include "EndpointGuard.h"
#include "LifetimeSupport.h"
#include "LogCapture.h"
#include "TCServer.h"

using harvo_test::LogCapture;
using lifetime_test::Gate;
using lifetime_test::HookedServer;
using lifetime_test::Watched;
using Quelt::TCMessage;
using Quelt::TCServerTestPeer;

namespace {

using harvo_bus_test::kLimit;
using std::chrono::milliseconds;

// In-process endpoints: found by name, no bus name, no object.
const auto kInProcess = static_cast<Quelt::TCServerType>(7);

const char kRefused[] = "Server is going to be closed!";

// Holds |server|'s close lock on another thread with the server marked as
// being created, the way CreateDBusServer holds it, until Release.
class CreateHoldingTheLock {
public:
    explicit CreateHoldingTheLock(Quelt::TCServer& server)
        : thread_("the create", [this, &server] {
              TCServerTestPeer::CloseLock(server).Lock();
              {
                  const Quelt::detail::CreateInProgress creating(&server);
                  held_.Open();
                  release_.Wait();
              }
              TCServerTestPeer::CloseLock(server).Unlock();
          }) {
        EXPECT_TRUE(held_.WaitUntilOpen());
    }
    ~CreateHoldingTheLock() { Release(); }
    void Release() {
        release_.Open();
        thread_.Join();
    }

private:
    Gate held_;
    Gate release_;
    Watched thread_;
};

TEST(SenderLock, SendsAndEmissionsDuringACreateOnAnotherThreadAreRefusedAtOnce) {
    HookedServer server("creating", kInProcess);
    ASSERT_TRUE(server.CreateDBusServer());
    LogCapture capture;
    {
        CreateHoldingTheLock create(server);
        TCMessage message;
        TCMessage reply;
        EXPECT_FALSE(server.SendMessage("creating", &message, true, &reply, -1));
        EXPECT_FALSE(server.SendMessage("creating", &message, false, nullptr, -1));
        EXPECT_FALSE(server.SendSignal("tick", &message));
        EXPECT_EQ(capture.CountFramework(DLOG_ERROR, kRefused), 3u) << capture.Dump();
        EXPECT_EQ(TCServerTestPeer::SendCount(server), 0);
        EXPECT_EQ(server.Received(), 0);
    }
    // Once the create is over, the same sends go.
    TCMessage message;
    TCMessage reply;
    EXPECT_TRUE(server.SendMessage("creating", &message, true, &reply, -1));
    EXPECT_EQ(server.Received(), 1);
    EXPECT_EQ(capture.CountFramework(DLOG_ERROR, kRefused), 3u);
    server.CloseDBusServer();
}

TEST(SenderLock, ACreateOfAnotherServerDoesNotCount) {
    HookedServer server("sending", kInProcess);
    HookedServer other("other", kInProcess);
    ASSERT_TRUE(server.CreateDBusServer());
    ASSERT_TRUE(other.CreateDBusServer());
    LogCapture capture;
    // |other| is being created while a moment's holder has |server|'s lock.
    CreateHoldingTheLock create(other);
    Gate held;
    Gate release;
    Watched holder("the moment's holder", [&] {
        TCServerTestPeer::CloseLock(server).Lock();
        held.Open();
        release.Wait();
        TCServerTestPeer::CloseLock(server).Unlock();
    });
    ASSERT_TRUE(held.WaitUntilOpen());
    std::atomic<int> sent{-1};
    Watched sending("the send", [&] {
        TCMessage message;
        TCMessage reply;
        sent = server.SendMessage("sending", &message, true, &reply, -1) ? 1 : 0;
    });
    ASSERT_TRUE(capture.WaitForFramework(DLOG_INFO, "", kLimit));
    // Well beyond the sender's first try.
    std::this_thread::sleep_for(milliseconds(30));
    EXPECT_EQ(sent.load(), -1);
    release.Open();
    holder.Join();
    sending.Join();
    EXPECT_EQ(sent.load(), 1);
    EXPECT_EQ(capture.CountFramework(DLOG_ERROR, kRefused), 0u) << capture.Dump();
    create.Release();
    other.CloseDBusServer();
    server.CloseDBusServer();
}

// Threads that each hold the lock for 2 ms at a time, the way a sender or a
// subscription taken off the processor does, against threads sending and
// emitting without pause: nothing is refused, everything arrives.
TEST(SenderLock, SendersAgainstHoldersTakenOffTheProcessorAreNeverRefused) {
    // With a bus name and an object, so that its emissions go out.
    HookedServer server("busy", Quelt::SERVER_TYPE_APP);
    ASSERT_TRUE(server.CreateDBusServer());
    LogCapture capture;
    std::atomic<bool> stop{false};
    std::vector<std::unique_ptr<Watched>> holders;
    for (int h = 0; h < 2; ++h) {
        holders.push_back(std::make_unique<Watched>("a holder", [&] {
            while (!stop.load()) {
                TCServerTestPeer::CloseLock(server).Lock();
                std::this_thread::sleep_for(milliseconds(2));
                TCServerTestPeer::CloseLock(server).Unlock();
                std::this_thread::sleep_for(milliseconds(1));
            }
        }));
    }
    constexpr int kSenders = 3;
    constexpr int kRounds = 40;
    std::atomic<int> refused{0};
    std::vector<std::unique_ptr<Watched>> senders;
    for (int s = 0; s < kSenders; ++s) {
        senders.push_back(std::make_unique<Watched>("a sender", [&] {
            for (int i = 0; i < kRounds; ++i) {
                TCMessage message;
                TCMessage reply;
                if (!server.SendMessage("busy", &message, true, &reply, -1))
                    refused.fetch_add(1);
                if (!server.SendSignal("tick", &message))
                    refused.fetch_add(1);
            }
        }));
    }
    for (auto& sender : senders)
        sender->Join();
    stop = true;
    for (auto& holder : holders)
        holder->Join();
    EXPECT_EQ(refused.load(), 0);
    EXPECT_EQ(server.Received(), kSenders * kRounds);
    EXPECT_EQ(capture.CountFramework(DLOG_ERROR, kRefused), 0u);
    EXPECT_EQ(TCServerTestPeer::SendCount(server), 0);
    server.CloseDBusServer();
}

}  // namespace
