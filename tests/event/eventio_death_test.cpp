// SPDX-License-Identifier: Apache-2.0
// Programming errors around the event IO end the process through fatal
// assertions; each is proven in a death test.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include "EventTestSupport.h"
#include "TCEventIO.h"

using event_test::DispatchOne;
using event_test::LocalLoop;
using event_test::RecordingIO;
using event_test::UserEvent;
using Quelt::TCEvent;
using Quelt::TCEventIO;
using Quelt::TCEventIOTestPeer;

namespace {

const int kUser = 100;

class EventIODeathTest : public ::testing::Test {
protected:
    void SetUp() override {
        GTEST_FLAG_SET(death_test_style, "threadsafe");
        ASSERT_TRUE(io.Init(local.loop));
    }
    void TearDown() override { io.Final(); }

    LocalLoop local;
    RecordingIO io{"doomed"};
};

// A channel whose reads succeed with nothing read, which no pipe does.
GIOStatus ReadNothing(GIOChannel*, gchar*, gsize, gsize* bytesRead, GError**) {
    *bytesRead = 0;
    return G_IO_STATUS_NORMAL;
}
GIOStatus WriteNothing(GIOChannel*, const gchar*, gsize, gsize* bytesWritten, GError**) {
    *bytesWritten = 0;
    return G_IO_STATUS_NORMAL;
}
GIOStatus SeekNowhere(GIOChannel*, gint64, GSeekType, GError**) {
    return G_IO_STATUS_NORMAL;
}
GIOStatus CloseNothing(GIOChannel*, GError**) {
    return G_IO_STATUS_NORMAL;
}
GSource* NoWatch(GIOChannel*, GIOCondition) {
    return nullptr;
}
void FreeChannel(GIOChannel* channel) {
    g_free(channel);
}
GIOStatus SetNoFlags(GIOChannel*, GIOFlags, GError**) {
    return G_IO_STATUS_NORMAL;
}
GIOFlags ReadableFlags(GIOChannel*) {
    return G_IO_FLAG_IS_READABLE;
}

GIOFuncs g_emptyReadFuncs = {ReadNothing, WriteNothing, SeekNowhere, CloseNothing,
                             NoWatch,     FreeChannel,  SetNoFlags,  ReadableFlags};

GIOChannel* NewEmptyReadChannel() {
    GIOChannel* channel = g_new0(GIOChannel, 1);
    g_io_channel_init(channel);
    channel->funcs = &g_emptyReadFuncs;
    channel->is_readable = TRUE;
    g_io_channel_set_encoding(channel, nullptr, nullptr);
    g_io_channel_set_buffered(channel, FALSE);
    return channel;
}

}  // namespace

TEST_F(EventIODeathTest, SendingANullEventIsFatal) {
    EXPECT_DEATH(TCEventIO::SendEvent(nullptr), "event != NULL");
    EXPECT_DEATH(TCEventIO::SendUrgentEvent(nullptr), "event != NULL");
    EXPECT_DEATH(TCEventIO::SendSyncEvent(nullptr), "event != NULL");
    EXPECT_DEATH(Quelt::SendEvent(nullptr), "event != NULL");
}

TEST_F(EventIODeathTest, QueueingANullEventIsFatal) {
    EXPECT_DEATH(TCEventIOTestPeer::Put(&io, nullptr), "Assertion `event != NULL' failed");
}

TEST_F(EventIODeathTest, TakingIntoANullEventIsFatal) {
    TCEvent* syncEvent = nullptr;
    EXPECT_DEATH(TCEventIOTestPeer::Get(&io, nullptr, &syncEvent, 1000),
                 "Assertion `event != NULL' failed");
}

TEST_F(EventIODeathTest, CreatedIoWithoutAWriteEndIsFatal) {
    RecordingIO bare("bare");
    TCEventIOTestPeer::SetFlagCreate(&bare, true);
    TCEvent event = UserEvent(&bare, kUser);
    EXPECT_DEATH(TCEventIO::SendEvent(&event), "Assertion `m_PipeFileDes\\[1\\] != -1' failed");
    EXPECT_DEATH(TCEventIO::SendUrgentEvent(&event),
                 "Assertion `m_PipeFileDes\\[1\\] != -1' failed");
    TCEventIOTestPeer::SetFlagCreate(&bare, false);
}

TEST_F(EventIODeathTest, FailedWakeByteWriteIsFatal) {
    const int writeEnd = TCEventIOTestPeer::WriteEnd(&io);
    // Writing to the read end of a pipe fails (EBADF).
    TCEventIOTestPeer::SetWriteEnd(&io, TCEventIOTestPeer::ReadEnd(&io));
    TCEvent event = UserEvent(&io, kUser);
    EXPECT_DEATH(TCEventIO::SendEvent(&event),
                 "Assertion `-1 != write\\(m_PipeFileDes\\[1\\], \"O\", 1\\)' failed");
    EXPECT_DEATH(TCEventIO::SendUrgentEvent(&event),
                 "Assertion `-1 != write\\(m_PipeFileDes\\[1\\], \"O\", 1\\)' failed");
    TCEventIOTestPeer::SetWriteEnd(&io, writeEnd);
}

TEST_F(EventIODeathTest, WatchWithoutItsIoIsFatal) {
    EXPECT_DEATH(TCEventIOTestPeer::CallWatch(nullptr, nullptr),
                 "Assertion `pThis != NULL' failed");
}

TEST_F(EventIODeathTest, WakeWhoseEventWasClearedAwayIsFatal) {
    TCEvent clearAll = UserEvent(&io, Quelt::EVENT_CLEAR_ALL);
    TCEvent user = UserEvent(&io, kUser, 1);
    ASSERT_TRUE(TCEventIO::SendEvent(&clearAll));
    ASSERT_TRUE(TCEventIO::SendEvent(&user));
    ASSERT_TRUE(DispatchOne(local.context));
    ASSERT_EQ(0u, io.CountEvent());
    ASSERT_EQ(1u, io.log.Count("event"));  // the clear-all event itself
    ASSERT_EQ(2u, io.log.Count("clear"));

    // The cleared event's wake byte is still there: the next wake finds an
    // empty queue and an event without receiver.
    EXPECT_DEATH(DispatchOne(local.context), "Assertion `event.receiver != NULL' failed");
}

TEST_F(EventIODeathTest, ReadErrorWithAnErrorObjectIsFatal) {
    // Reading a directory fails (EISDIR) with an error object.
    const int directory = open("/", O_RDONLY | O_DIRECTORY);
    ASSERT_GE(directory, 0);
    GIOChannel* broken = g_io_channel_unix_new(directory);
    g_io_channel_set_encoding(broken, nullptr, nullptr);
    EXPECT_DEATH(TCEventIOTestPeer::CallWatch(broken, TCEventIOTestPeer::WatchData(&io)),
                 "Read char from pipe fail,Is a directory.*Assertion `gErr == NULL' failed");
    g_io_channel_unref(broken);
    close(directory);
}

TEST_F(EventIODeathTest, NormalReadOfNothingIsFatal) {
    GIOChannel* empty = NewEmptyReadChannel();
    EXPECT_DEATH(TCEventIOTestPeer::CallWatch(empty, TCEventIOTestPeer::WatchData(&io)),
                 "Assertion `len > 0' failed");
    g_io_channel_unref(empty);
}
