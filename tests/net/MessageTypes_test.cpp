#include <kest/model/ForwarderNotifications.h>
#include <kest/model/Message.h>
#include <kest/net/GenericMessage.h>
#include <kest/net/MessageTypes.h>
#include <kest/net/Wire.h>

#include <gtest/gtest.h>

#include <memory>
#include <string>

namespace {

using Kest::Msgs::Identifier;
using Kest::Msgs::Message;
using Kest::Net::GenericMessage;
using Kest::Net::MessageTypes;
namespace Forwarder = Kest::Msgs::Communications::Forwarder;

class First : public Message {
public:
    First() : Message(Identifier(0x0C00, 1)) {}
};

class Second : public Message {
public:
    Second() : Message(Identifier(0x0C00, 1)) {}
};

class Counted : public Message {
public:
    static inline int made = 0;
    Counted() : Message(Identifier(0x0C00, 3)) { ++made; }
};

TEST(MessageTypes, TheFourForwarderNotificationsAreKnownFromTheStart) {
    for (unsigned short type : {5, 6, 9, 10}) {
        EXPECT_TRUE(MessageTypes::known(Identifier(Forwarder::Category, type))) << type;
    }
    EXPECT_FALSE(MessageTypes::known(Identifier(Forwarder::Category, 7)));
    auto made = MessageTypes::create(Identifier(Forwarder::Category, 6));
    EXPECT_TRUE(std::dynamic_pointer_cast<Forwarder::ServiceChangeNotification>(made));
}

TEST(MessageTypes, UnknownIdentifierIsNotKnownAndCreatesNothing) {
    EXPECT_FALSE(MessageTypes::known(Identifier(0x0C00, 99)));
    EXPECT_EQ(MessageTypes::create(Identifier(0x0C00, 99)), nullptr);
}

TEST(MessageTypes, AddedTypeIsKnownAndCreatedDefaultConstructed) {
    const Identifier id(0x0C00, 3);
    ASSERT_FALSE(MessageTypes::known(id));
    MessageTypes::add<Counted>(id);
    EXPECT_TRUE(MessageTypes::known(id));
    const int before = Counted::made;
    auto made = MessageTypes::create(id);
    EXPECT_TRUE(std::dynamic_pointer_cast<Counted>(made));
    EXPECT_EQ(Counted::made, before + 1);
}

TEST(MessageTypes, AddingAKnownIdentifierAgainKeepsTheFirstType) {
    const Identifier id(0x0C00, 1);
    MessageTypes::add<First>(id);
    MessageTypes::add<Second>(id);
    EXPECT_TRUE(std::dynamic_pointer_cast<First>(MessageTypes::create(id)));
    // Nor does a later registration replace a notification kind.
    MessageTypes::add<Second>(Identifier(Forwarder::Category, 5));
    EXPECT_TRUE(std::dynamic_pointer_cast<Forwarder::ServiceRankNotification>(
        MessageTypes::create(Identifier(Forwarder::Category, 5))));
}

TEST(MessageTypes, DecodeUsesTheTypeRegisteredForTheIdentifier) {
    const Identifier id(0x0C00, 4);
    class Late : public Message {
    public:
        Late() : Message(Identifier(0x0C00, 4)) {}
    };
    const Late sent;
    const std::string bytes = Kest::Net::encode(sent);
    EXPECT_TRUE(std::dynamic_pointer_cast<const GenericMessage>(Kest::Net::decode(bytes)));
    MessageTypes::add<Late>(id);
    EXPECT_TRUE(std::dynamic_pointer_cast<const Late>(Kest::Net::decode(bytes)));
}

}  // namespace
