// The line `kest echo` prints for a message.

#include "Output.h"

#include <kest/metadata/Element.h>
#include <kest/model/Message.h>
#include <kest/net/GenericMessage.h>
#include <kest/net/Json.h>
#include <kest/net/WireError.h>

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <string>
#include <vector>

namespace {

using Kest::MetaData::Element;
using Kest::Msgs::Identifier;

TEST(KestToolOutput, GenericMessageIsOneObjectWithIdIdentityAddressesAndItsPayloadAsData) {
    const std::string data = R"({"list":[1,-2,3.5,true,null,"x"],"nested":{"deep":{}},"text":"a\"b\\c\n"})";
    Kest::Net::GenericMessage message(Identifier(7, 3), std::vector<std::string>{"a", "b"},
                                      std::vector<std::string>{"x"}, Kest::Net::fromJson(data));
    EXPECT_EQ(KestTool::messageLine(message), "{\"id\":\"7.3\",\"identity\":\"" + message.identity() +
                                                  "\",\"sender\":[\"a\",\"b\"],\"destination\":[\"x\"],\"data\":" +
                                                  data + "}");
}

TEST(KestToolOutput, UnsetAddressesPrintAsEmptyArraysAndNoPayloadAsEmptyObject) {
    Kest::Msgs::Message message(Identifier(1, 2));
    EXPECT_EQ(KestTool::messageLine(message),
              "{\"id\":\"1.2\",\"identity\":\"" + message.identity() +
                  "\",\"sender\":[],\"destination\":[],\"data\":{}}");
}

TEST(KestToolOutput, IdentityWithQuotesIsEscaped) {
    Kest::Msgs::Message message(Identifier(1, 2));
    message.identity.assign(std::string("a\"b"));
    EXPECT_NE(KestTool::messageLine(message).find("\"identity\":\"a\\\"b\""), std::string::npos)
        << KestTool::messageLine(message);
}

struct Reading : Kest::Msgs::Message {
    Reading() : Message(Identifier(100, 1), std::vector<std::string>{"s"}) {}
    Kest::MetaData::Reflector<double, false, true> value{this, "Value", true};
};

TEST(KestToolOutput, TypedMessageShowsItsOwnFieldsButNotTheMessageFields) {
    Reading message;
    message.value.assign(2.5);
    EXPECT_EQ(KestTool::messageLine(message), "{\"id\":\"100.1\",\"identity\":\"" + message.identity() +
                                                  "\",\"sender\":[\"s\"],\"destination\":[],\"data\":{\"Value\":2.5}}");
}

TEST(KestToolOutput, PayloadJsonCannotHoldIsAWireError) {
    Element payload{Kest::MetaData::Object()};
    payload["bad"] = Element(std::numeric_limits<double>::quiet_NaN());
    Kest::Net::GenericMessage message(Identifier(1, 2), std::nullopt, std::nullopt, payload);
    EXPECT_THROW(KestTool::messageLine(message), Kest::Net::WireError);
}

}  // namespace
