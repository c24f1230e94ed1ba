// How the kest tool reads CAT.TYPE, addresses and endpoints.

#include "Names.h"

#include <kest/model/Forwarder.h>

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <vector>

namespace {

using KestTool::checkEndpoint;
using KestTool::formatAddress;
using KestTool::formatIdentifier;
using KestTool::parseAddress;
using KestTool::parseIdentifier;

TEST(KestToolNames, DecimalCategoryAndTypeMakeTheIdentifier) {
    const auto id = parseIdentifier("7.3");
    EXPECT_EQ(id.category(), 7);
    EXPECT_EQ(id.type(), 3);
    EXPECT_EQ(static_cast<unsigned long>(id), (7ul << 16) | 3);
}

TEST(KestToolNames, HexadecimalPartsWithZeroXAreRead) {
    const auto id = parseIdentifier("0x0100.0x2A");
    EXPECT_EQ(id.category(), 0x100);
    EXPECT_EQ(id.type(), 0x2a);
    EXPECT_EQ(parseIdentifier("65535.0").category(), 65535);
}

TEST(KestToolNames, AnythingButTwoNumbersUpTo65535IsRefused) {
    for (const char* bad : {"", "7", "7.", ".3", "7.3.1", "7.x", "x.3", "-1.3", "+7.3", " 7.3", "7.3 ", "65536.0",
                            "0.65536", "0x.1", "0x10000.1", "99999999999999999999.1", "7,3"}) {
        EXPECT_THROW(parseIdentifier(bad), std::invalid_argument) << "'" << bad << "'";
    }
}

TEST(KestToolNames, TheForwarderNotificationCategoryIsRefusedAsNeverBridged) {
    const std::string name = std::to_string(Kest::Msgs::Communications::Forwarder::Category) + ".9";
    try {
        parseIdentifier(name);
        FAIL() << "accepted " << name;
    } catch (const std::invalid_argument& e) {
        EXPECT_NE(std::string(e.what()).find("never bridged"), std::string::npos) << e.what();
    }
}

TEST(KestToolNames, IdentifierIsWrittenAsDecimalCategoryDotType) {
    EXPECT_EQ(formatIdentifier(Kest::Msgs::Identifier(0x100, 0x2a)), "256.42");
    EXPECT_EQ(formatIdentifier(parseIdentifier("7.3")), "7.3");
}

TEST(KestToolNames, AddressIsSplitAtSlashesAndEmptyTextIsTheEmptyAddress) {
    EXPECT_EQ(parseAddress("a/b/c"), (std::vector<std::string>{"a", "b", "c"}));
    EXPECT_EQ(parseAddress("plant"), (std::vector<std::string>{"plant"}));
    EXPECT_TRUE(parseAddress("").empty());
    EXPECT_EQ(formatAddress({"a", "b"}), "a/b");
    EXPECT_EQ(formatAddress({}), "");
}

TEST(KestToolNames, AddressWithAnEmptyPartIsRefused) {
    for (const char* bad : {"/", "a//b", "/a", "a/"}) {
        EXPECT_THROW(parseAddress(bad), std::invalid_argument) << "'" << bad << "'";
    }
}

TEST(KestToolNames, EndpointsOfTheThreeTransportsAreAccepted) {
    for (const char* good : {"tcp://127.0.0.1:7001", "tcp://127.0.0.1:*", "tcp://localhost:0", "tcp://[::1]:7001",
                             "ipc:///tmp/kest.sock", "inproc://bus"}) {
        EXPECT_NO_THROW(checkEndpoint(good, "--listen", false)) << good;
    }
    const std::string key(40, 'a');
    EXPECT_NO_THROW(checkEndpoint("tcp://127.0.0.1:7001?key=" + key, "--peer", true));
}

TEST(KestToolNames, MalformedEndpointsAreRefusedNamingTheOption) {
    for (const char* bad : {"", "foo", "udp://127.0.0.1:1", "tcp://", "tcp://127.0.0.1", "tcp://127.0.0.1:",
                            "tcp://127.0.0.1:x", "tcp://127.0.0.1:65536", "tcp://:7001", "tcp://::1:7001",
                            "tcp://[::1:7001", "ipc://", "inproc://"}) {
        try {
            checkEndpoint(bad, "--listen", false);
            ADD_FAILURE() << "accepted '" << bad << "'";
        } catch (const std::invalid_argument& e) {
            EXPECT_EQ(std::string(e.what()).rfind("--listen '", 0), 0u) << e.what();
        }
    }
}

TEST(KestToolNames, KeySuffixIsAcceptedOnlyWhereAllowedAndOnlyWholeKeys) {
    const std::string key(40, 'a');
    EXPECT_THROW(checkEndpoint("tcp://127.0.0.1:7001?key=" + key, "--listen", false), std::invalid_argument);
    EXPECT_THROW(checkEndpoint("tcp://127.0.0.1:7001?key=short", "--peer", true), std::invalid_argument);
    EXPECT_THROW(checkEndpoint("tcp://127.0.0.1:7001?other=" + key, "--peer", true), std::invalid_argument);
}

}  // namespace
