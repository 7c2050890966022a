// SPDX-License-Identifier: Apache-2.0
// Bus naming: legal bus names, object paths, the process name and the bus
// name of an endpoint (registered in this process or not).
#include <gtest/gtest.h>

#include <dlog.h>
#include <errno.h>
#include <unistd.h>

#include <map>
#include <string>

#include "LogCapture.h"
#include "TCServer.h"
#include "TCServerHelper.h"

using harvo_test::LogCapture;
using Quelt::TCServer;
using Quelt::TCServerHelper;

namespace Quelt {

// Reaches the private bus-name helper and the registry of created servers.
class TCServerTestPeer {
public:
    static std::string DBusName(TCServer& server, const std::string& name) {
        return server.m_GetDBusName(name);
    }
    static std::map<std::string, TCServer*>& Registry() { return TCServer::m_CreatedDbusServers; }
    static void SetBusName(TCServer& server, const std::string& busName) {
        server.m_busName = busName;
    }
};

}  // namespace Quelt

using Quelt::TCServerTestPeer;

// ---------------------------------------------------------------------------
// FormatDBusName

TEST(FormatDBusName, LegalNameIsUnchangedAndReportsFalse) {
    std::string name = "abc.DEF_9";
    EXPECT_FALSE(TCServerHelper::FormatDBusName(name));
    EXPECT_EQ("abc.DEF_9", name);
}

TEST(FormatDBusName, EveryDigitLetterUnderscoreAndDotIsLegal) {
    const std::string all = "0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz_.";
    std::string name = all;
    EXPECT_FALSE(TCServerHelper::FormatDBusName(name));
    EXPECT_EQ(all, name);
}

TEST(FormatDBusName, DashAndBlankBecomeUnderscores) {
    std::string name = "a-b c";
    EXPECT_TRUE(TCServerHelper::FormatDBusName(name));
    EXPECT_EQ("a_b_c", name);
}

TEST(FormatDBusName, SlashAtAndOtherPunctuationBecomeUnderscores) {
    std::string name = "x/y@z:w!";
    EXPECT_TRUE(TCServerHelper::FormatDBusName(name));
    EXPECT_EQ("x_y_z_w_", name);
}

TEST(FormatDBusName, TwoByteUtf8LetterBecomesTwoUnderscores) {
    std::string name = "caf\xC3\xA9.app";  // "café.app"
    const size_t length = name.size();
    EXPECT_TRUE(TCServerHelper::FormatDBusName(name));
    EXPECT_EQ("caf__.app", name);
    EXPECT_EQ(length, name.size());
}

TEST(FormatDBusName, ThreeByteUtf8CharacterBecomesThreeUnderscores) {
    std::string name = "a\xE2\x82\xAC";  // "a€"
    EXPECT_TRUE(TCServerHelper::FormatDBusName(name));
    EXPECT_EQ("a___", name);
}

TEST(FormatDBusName, NonUtf8BytesAreReplacedOneByOne) {
    std::string name = "n\xFF\xFE\x80m";
    EXPECT_TRUE(TCServerHelper::FormatDBusName(name));
    EXPECT_EQ("n___m", name);
}

TEST(FormatDBusName, ControlBytesAndEmbeddedNulAreReplaced) {
    std::string name("a\tb", 3);
    name.push_back('\0');
    name += "c";
    EXPECT_TRUE(TCServerHelper::FormatDBusName(name));
    EXPECT_EQ("a_b_c", name);
}

TEST(FormatDBusName, EmptyNameReportsFalse) {
    std::string name;
    EXPECT_FALSE(TCServerHelper::FormatDBusName(name));
    EXPECT_TRUE(name.empty());
}

TEST(FormatDBusName, OtherBusNameRulesAreNotChecked) {
    // A leading digit, empty elements and a single element pass as they are.
    std::string name = "9..x";
    EXPECT_FALSE(TCServerHelper::FormatDBusName(name));
    EXPECT_EQ("9..x", name);
}

TEST(FormatDBusName, LogsNothing) {
    LogCapture capture;
    std::string name = "a b";
    TCServerHelper::FormatDBusName(name);
    EXPECT_TRUE(capture.Lines().empty()) << capture.Dump();
}

// ---------------------------------------------------------------------------
// GetObjectPath

TEST(GetObjectPath, DotsBecomeSlashes) {
    EXPECT_EQ("/x/y/message", TCServerHelper::GetObjectPath("x.y.message"));
}

TEST(GetObjectPath, NameWithoutDotsGetsALeadingSlash) {
    EXPECT_EQ("/plain", TCServerHelper::GetObjectPath("plain"));
}

TEST(GetObjectPath, EmptyNameIsTheRootPath) {
    EXPECT_EQ("/", TCServerHelper::GetObjectPath(""));
}

TEST(GetObjectPath, DerivedFromTheBusNameOfAnEndpoint) {
    std::string busName = "my app-1.message";
    TCServerHelper::FormatDBusName(busName);
    EXPECT_EQ("my_app_1.message", busName);
    EXPECT_EQ("/my_app_1/message", TCServerHelper::GetObjectPath(busName));
}

TEST(GetObjectPath, LeadingAndRepeatedDotsEachBecomeASlash) {
    EXPECT_EQ("//a//b/", TCServerHelper::GetObjectPath(".a..b."));
}

// ---------------------------------------------------------------------------
// GetProcessName

TEST(GetProcessName, IsTheExecutableFileNameAndIsLogged) {
    char path[1024] = {0};
    ASSERT_GT(readlink("/proc/self/exe", path, sizeof(path) - 1), 0);
    const std::string fullPath = path;
    const std::string expected = fullPath.substr(fullPath.rfind('/') + 1);
    EXPECT_EQ(std::string(program_invocation_short_name), expected);

    LogCapture capture;
    std::string name = "previous";
    TCServerHelper::GetProcessName(name);
    EXPECT_EQ(expected, name);
    EXPECT_EQ(std::string::npos, name.find('/'));

    const std::string line = "process name : " + expected + ",process path : " + fullPath;
    ASSERT_EQ(1u, capture.CountFramework(DLOG_INFO, line)) << capture.Dump();
    EXPECT_EQ("TCServerHelper.cpp", capture.Framework(line)[0].file);
    EXPECT_EQ("GetProcessName", capture.Framework(line)[0].func);
}

// ---------------------------------------------------------------------------
// m_GetDBusName

TEST(GetDBusName, UnregisteredNameIsMadeLegalWithMessageAppended) {
    TCServer server("caller", Quelt::SERVER_TYPE_PROXY);
    EXPECT_EQ("my_app.message", TCServerTestPeer::DBusName(server, "my app"));
}

TEST(GetDBusName, UnregisteredNameWithUtf8LetterGetsTwoUnderscores) {
    TCServer server("caller", Quelt::SERVER_TYPE_PROXY);
    EXPECT_EQ("caf__.message", TCServerTestPeer::DBusName(server, "caf\xC3\xA9"));
}

TEST(GetDBusName, UnregisteredEmptyNameIsJustTheSuffix) {
    TCServer server("caller", Quelt::SERVER_TYPE_PROXY);
    EXPECT_EQ(".message", TCServerTestPeer::DBusName(server, ""));
}

TEST(GetDBusName, RegisteredServerAnswersItsBusNameAsRegistered) {
    // A gadget's bus name carries its application's name in front.
    TCServer gadget("my g1", Quelt::SERVER_TYPE_GADGET);
    TCServerTestPeer::SetBusName(gadget, "app.my_g1.message");
    TCServer caller("caller", Quelt::SERVER_TYPE_PROXY);

    auto& registry = TCServerTestPeer::Registry();
    ASSERT_EQ(0u, registry.count("my g1"));
    registry["my g1"] = &gadget;
    const std::string registered = TCServerTestPeer::DBusName(caller, "my g1");
    registry.erase("my g1");

    EXPECT_EQ("app.my_g1.message", registered);
    // Once gone from the registry, the name is derived again.
    EXPECT_EQ("my_g1.message", TCServerTestPeer::DBusName(caller, "my g1"));
}

TEST(GetDBusName, RegisteredBusNameIsNotFormattedAgain) {
    TCServer other("odd", Quelt::SERVER_TYPE_APP);
    TCServerTestPeer::SetBusName(other, "kept as-is.message");
    TCServer caller("caller", Quelt::SERVER_TYPE_PROXY);

    auto& registry = TCServerTestPeer::Registry();
    registry["odd"] = &other;
    const std::string registered = TCServerTestPeer::DBusName(caller, "odd");
    registry.erase("odd");

    EXPECT_EQ("kept as-is.message", registered);
}

// ---------------------------------------------------------------------------
// FormatDBusNameElements: elements that start with a digit

TEST(FormatDBusNameElements, ElementAfterADotThatStartsWithADigitGetsAnUnderscore) {
    std::string name = "python3.11.pyg.message";
    EXPECT_TRUE(TCServerHelper::FormatDBusNameElements(name));
    EXPECT_EQ("python3._11.pyg.message", name);
}

TEST(FormatDBusNameElements, FirstElementStartingWithADigitGetsAnUnderscore) {
    std::string name = "2048.message";
    EXPECT_TRUE(TCServerHelper::FormatDBusNameElements(name));
    EXPECT_EQ("_2048.message", name);
}

TEST(FormatDBusNameElements, EveryOffendingElementIsChanged) {
    std::string name = "3d.viewer.1st.message";
    EXPECT_TRUE(TCServerHelper::FormatDBusNameElements(name));
    EXPECT_EQ("_3d.viewer._1st.message", name);
}

TEST(FormatDBusNameElements, LegalNamesAreLeftAsTheyAre) {
    for (const char* legal :
         {"abc.DEF_9", "app.g1.message", "_7.message", "python3.message", "a.b_1.c", ""}) {
        std::string name = legal;
        EXPECT_FALSE(TCServerHelper::FormatDBusNameElements(name)) << legal;
        EXPECT_EQ(legal, name);
    }
}

TEST(FormatDBusNameElements, DigitsInsideAnElementAreLegal) {
    std::string name = "app42.x9y.message";
    EXPECT_FALSE(TCServerHelper::FormatDBusNameElements(name));
    EXPECT_EQ("app42.x9y.message", name);
}

TEST(FormatDBusNameElements, ResultIsAValidBusName) {
    for (const char* endpoint : {"python3.11", "7", "1.2.3", "my-app 2.0", "caf\xC3\xA9.9"}) {
        std::string name = std::string(endpoint) + ".message";
        TCServerHelper::FormatDBusName(name);
        TCServerHelper::FormatDBusNameElements(name);
        EXPECT_TRUE(g_dbus_is_name(name.c_str()) && !g_dbus_is_unique_name(name.c_str()))
            << endpoint << " -> " << name;
    }
}

TEST(FormatDBusNameElements, LogsNothing) {
    LogCapture capture;
    std::string name = "x.1";
    TCServerHelper::FormatDBusNameElements(name);
    EXPECT_TRUE(capture.Lines().empty()) << capture.Dump();
}

TEST(FormatDBusName, StillLeavesALeadingDigitAlone) {
    // The character rule alone: elements are FormatDBusNameElements' job.
    std::string name = "python3.11.message";
    EXPECT_FALSE(TCServerHelper::FormatDBusName(name));
    EXPECT_EQ("python3.11.message", name);
}

TEST(GetDBusName, ElementStartingWithADigitGetsAnUnderscore) {
    TCServer server("caller", Quelt::SERVER_TYPE_PROXY);
    EXPECT_EQ("python3._11.message", TCServerTestPeer::DBusName(server, "python3.11"));
    EXPECT_EQ("_2048.message", TCServerTestPeer::DBusName(server, "2048"));
    EXPECT_EQ("my_app.message", TCServerTestPeer::DBusName(server, "my app"));
}
