// SPDX-License-Identifier: Apache-2.0
// The text a sender reads in place of a message copy is the copy's text,
// whatever state the body is in, and reading it leaves the body untouched.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "MessageText.h"
#include "TCMessage.h"

namespace {

using Quelt::TCMessage;

std::vector<TCMessage> Bodies() {
    std::vector<TCMessage> bodies(8);
    bodies[0].SetMessage("{ \"b\" : 2 , \"a\" : [1, 2.5, \"x\"] }");  // spaced JSON
    bodies[1].SetMessage("{\"k\":\"v\"}");                            // already compact
    bodies[2].SetMessage("{\"old\":1}");                              // tree changed later
    bodies[2].m_value["old"] = 2;
    bodies[2].m_value["u"] = "\xc3\xa9\t\"";
    bodies[3].m_value["only"] = true;  // a tree and no text
    bodies[4].SetMessage("not json");  // text only
    bodies[5].SetMessage("{ }");       // an empty tree: the text stays
    bodies[6].SetMessage("[]");
    // bodies[7]: empty
    return bodies;
}

TEST(CopiedText, IsTheTextOfACopy) {
    for (const TCMessage& body : Bodies()) {
        const std::string before = body.m_message;
        const TCMessage copy(body);
        TCMessage assigned;
        assigned = body;
        EXPECT_EQ(Quelt::detail::CopiedText(body), copy.m_message) << before;
        EXPECT_EQ(Quelt::detail::CopiedText(body), assigned.m_message) << before;
        EXPECT_EQ(body.m_message, before);
    }
}

}  // namespace
