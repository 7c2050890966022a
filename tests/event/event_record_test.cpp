// SPDX-License-Identifier: Apache-2.0
// The event record, the handler interface's defaults and the IO base.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "EventTestSupport.h"
#include "LogCapture.h"
#include "TCEvent.h"
#include "TCEventIO.h"

using Quelt::TCEvent;
using Quelt::TCHandler;

namespace {

// A handler that records the order of its hooks; whether t_OnEvent and
// t_OnMEvent consume is chosen by the test.
class OrderHandler : public TCHandler {
public:
    bool t_OnEvent(const TCEvent*) override {
        calls.push_back("t_OnEvent");
        return consume;
    }
    void t_Clear(TCEvent*) override { calls.push_back("t_Clear"); }
    bool t_OnMEvent(const TCEvent*) override {
        calls.push_back("t_OnMEvent");
        return secondChance;
    }
    void t_ClearMEvent(TCEvent*) override { calls.push_back("t_ClearMEvent"); }

    bool consume = false;
    bool secondChance = false;
    std::vector<std::string> calls;
};

// A handler that keeps the interface's own second-chance defaults.
class DefaultHooksHandler : public TCHandler {
public:
    bool t_OnEvent(const TCEvent*) override { return false; }
    void t_Clear(TCEvent*) override { ++clears; }
    int clears = 0;
};

// Reads the IO base's value, which nothing in the framework reads.
class IOTypeProbe : public Quelt::TCEventIO {
public:
    IOTypeProbe() : Quelt::TCEventIO("probe") {}
    int IOType() const { return m_IOType; }
};

TCEvent FilledEvent(TCHandler* receiver, void* p) {
    TCEvent event;
    event.receiver = receiver;
    event.type = 42;
    event.deleted = true;
    event.data.SetMessage("{\"from\":\"a\",\"dest\":\"b\"}");
    event.message.SetMessage("{\"n\":7}");
    event.sync = true;
    event.param.p = p;
    return event;
}

void ExpectSameFields(const TCEvent& expected, const TCEvent& actual) {
    EXPECT_EQ(expected.receiver, actual.receiver);
    EXPECT_EQ(expected.type, actual.type);
    EXPECT_EQ(expected.deleted, actual.deleted);
    EXPECT_EQ(expected.data.m_value, actual.data.m_value);
    EXPECT_EQ(expected.message.m_value, actual.message.m_value);
    EXPECT_EQ(expected.sync, actual.sync);
    EXPECT_EQ(expected.param.p, actual.param.p);
}

}  // namespace

TEST(EventRecord, NewEventIsEmpty) {
    TCEvent event;
    EXPECT_EQ(nullptr, event.receiver);
    EXPECT_EQ(0, event.type);
    EXPECT_FALSE(event.deleted);
    EXPECT_FALSE(event.sync);
    EXPECT_EQ(nullptr, event.param.p);
    EXPECT_TRUE(event.data.m_value.isNull());
    EXPECT_TRUE(event.message.m_value.isNull());
}

TEST(EventRecord, TypeCodesAreTheFrameworksOwn) {
    EXPECT_EQ(1, Quelt::EVENT_EXIT_TASK);
    EXPECT_EQ(2, Quelt::EVENT_RESERVED);
    EXPECT_EQ(3, Quelt::EVENT_INTERNAL_MESSAGE);
    EXPECT_EQ(4, Quelt::EVENT_PING);
    EXPECT_EQ(5, Quelt::EVENT_CLEAR_ALL);
    EXPECT_EQ(6, Quelt::EVENT_EXECUTE);
}

TEST(EventRecord, CopyConstructorCopiesEveryFieldAndSharesParam) {
    OrderHandler handler;
    int* pointee = new int(5);
    TCEvent original = FilledEvent(&handler, pointee);

    TCEvent* copy = new TCEvent(original);
    ExpectSameFields(original, *copy);
    EXPECT_EQ("b", copy->data.m_value["dest"].asString());

    // Destroying the copy leaves the shared pointee alone.
    delete copy;
    EXPECT_EQ(5, *pointee);
    EXPECT_EQ(pointee, original.param.p);
    delete pointee;
}

TEST(EventRecord, AssignmentCopiesEveryFieldAndSharesParam) {
    OrderHandler handler;
    int pointee = 9;
    TCEvent original = FilledEvent(&handler, &pointee);
    TCEvent target;
    target = original;
    ExpectSameFields(original, target);
    EXPECT_EQ(&pointee, target.param.p);
}

TEST(EventRecord, SelfAssignmentChangesNothing) {
    OrderHandler handler;
    int pointee = 1;
    TCEvent event = FilledEvent(&handler, &pointee);
    const TCEvent before(event);
    TCEvent& alias = event;
    event = alias;
    ExpectSameFields(before, event);
    EXPECT_EQ("{\"n\":7}", event.message.m_message);
}

TEST(HandlerDefaults, ConsumedEventSkipsTheSecondChance) {
    OrderHandler handler;
    handler.consume = true;
    TCEvent event;
    EXPECT_TRUE(handler.OnEvent(&event));
    EXPECT_EQ(std::vector<std::string>({"t_OnEvent"}), handler.calls);
}

TEST(HandlerDefaults, UnconsumedEventGetsTheSecondChanceAndItsResult) {
    OrderHandler handler;
    TCEvent event;
    EXPECT_FALSE(handler.OnEvent(&event));
    handler.secondChance = true;
    EXPECT_TRUE(handler.OnEvent(&event));
    EXPECT_EQ(std::vector<std::string>({"t_OnEvent", "t_OnMEvent", "t_OnEvent", "t_OnMEvent"}),
              handler.calls);
}

TEST(HandlerDefaults, ClearRunsBothReleaseStepsInOrder) {
    OrderHandler handler;
    TCEvent event;
    handler.OnClear(&event);
    EXPECT_EQ(std::vector<std::string>({"t_Clear", "t_ClearMEvent"}), handler.calls);
}

TEST(HandlerDefaults, DefaultSecondChanceDeclinesAndDefaultClearDoesNothing) {
    harvo_test::LogCapture capture;
    DefaultHooksHandler handler;
    TCEvent event = event_test::UserEvent(&handler, 1000, 77);
    EXPECT_FALSE(handler.OnEvent(&event));
    EXPECT_FALSE(handler.t_OnMEvent(&event));
    handler.OnClear(&event);
    EXPECT_EQ(1, handler.clears);
    EXPECT_EQ(77, reinterpret_cast<intptr_t>(event.param.p));
    EXPECT_TRUE(capture.Lines().empty()) << capture.Dump();
}

TEST(HandlerDefaults, BareHandlerServesNoQueue) {
    DefaultHooksHandler handler;
    EXPECT_EQ(nullptr, handler.GetEventIO());
}

TEST(IOBase, EventIOIsItsOwnHandlerAndSetsTheValueTen) {
    IOTypeProbe io;
    EXPECT_EQ(&io, io.GetEventIO());
    EXPECT_EQ(10, io.IOType());
    EXPECT_EQ("probe", io.GetName());
    EXPECT_EQ(nullptr, io.GetMainLoop());
    EXPECT_EQ(0u, io.CountEvent());
}

TEST(HandlerDeathTest, NullEventToOnEventIsFatal) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    OrderHandler handler;
    EXPECT_DEATH(handler.OnEvent(nullptr), "Assertion `event' failed");
}

TEST(HandlerDeathTest, NullEventToOnClearIsFatal) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    OrderHandler handler;
    EXPECT_DEATH(handler.OnClear(nullptr), "Assertion `event' failed");
}
