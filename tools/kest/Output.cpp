#include "Output.h"

#include "Names.h"

#include <kest/metadata/Element.h>
#include <kest/net/GenericMessage.h>
#include <kest/net/Json.h>

namespace KestTool {

namespace {

using Kest::MetaData::Element;

Element addressElement(const std::vector<std::string>& address) {
    Element array{Kest::MetaData::Array()};
    auto& items = static_cast<Kest::MetaData::Array&>(array);
    for (const std::string& part : address) items.push_back(Element(part));
    return array;
}

// The payload: a GenericMessage keeps it apart already; any other type
// writes its whole tree, from which the Message fields are left out.
Element payloadOf(const Kest::Msgs::Message& message) {
    if (const auto* generic = dynamic_cast<const Kest::Net::GenericMessage*>(&message)) return generic->tree();
    Element whole;
    message.copyToMetaData(whole);
    Element payload{Kest::MetaData::Object()};
    if (whole.GetElementType() != Element::ObjectType) return payload;
    for (const auto& [name, value] : static_cast<const Kest::MetaData::Object&>(whole)) {
        if (name == "Id" || name == "Sender" || name == "Destination" || name == "Identity") continue;
        payload[name] = value;
    }
    return payload;
}

}  // namespace

std::string messageLine(const Kest::Msgs::Message& message) {
    std::string line = "{\"id\":\"" + formatIdentifier(message.id()) + "\"";
    line += ",\"identity\":" + Kest::Net::toJson(Element(message.identity.initialized() ? message.identity()
                                                                                          : std::string()));
    line += ",\"sender\":" + Kest::Net::toJson(addressElement(message.sender.values()));
    line += ",\"destination\":" + Kest::Net::toJson(addressElement(message.destination.values()));
    line += ",\"data\":" + Kest::Net::toJson(payloadOf(message));
    line += "}";
    return line;
}

}  // namespace KestTool
