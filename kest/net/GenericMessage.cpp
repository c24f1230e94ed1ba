#include <kest/net/GenericMessage.h>

#include <stdexcept>
#include <utility>

namespace Kest::Net {

namespace {

using Kest::MetaData::Element;
using Kest::MetaData::Object;

// The members of a message's tree that are Message's own fields.
bool isMessageField(const std::string& name) {
    return name == "Id" || name == "Sender" || name == "Destination" || name == "Identity";
}

Element emptyObject() { return Element(Object()); }

}  // namespace

GenericMessage::GenericMessage() : Message(Kest::Msgs::Identifier(0)), payload_(emptyObject()) {}

GenericMessage::GenericMessage(Kest::Msgs::Identifier id, std::optional<std::vector<std::string>> sender,
                               std::optional<std::vector<std::string>> destination, Element payload)
    : Message(id) {
    switch (payload.GetElementType()) {
        case Element::EmptyType:
            payload_ = emptyObject();
            break;
        case Element::ObjectType:
            for (const auto& member : static_cast<const Object&>(payload)) {
                if (isMessageField(member.first)) {
                    throw std::invalid_argument("Kest::Net::GenericMessage: the payload has a member named '" +
                                                member.first + "', which is a field of every message");
                }
            }
            payload_ = std::move(payload);
            break;
        default:
            throw std::invalid_argument("Kest::Net::GenericMessage: the payload must be an object or empty");
    }
    if (sender) this->sender.assign(*sender);
    if (destination) this->destination.assign(*destination);
}

GenericMessage::~GenericMessage() = default;

void GenericMessage::copyToMetaData(Element& tree) const {
    Message::copyToMetaData(tree);
    for (const auto& member : static_cast<const Object&>(payload_)) tree[member.first] = member.second;
}

void GenericMessage::copyFromMetaData(const Element& tree) {
    // The new payload is made first, so that a failed allocation leaves the old one.
    Element payload = emptyObject();
    if (tree.GetElementType() == Element::ObjectType) {
        for (const auto& member : static_cast<const Object&>(tree)) {
            if (!isMessageField(member.first)) payload[member.first] = member.second;
        }
    }
    Message::copyFromMetaData(tree);
    payload_ = std::move(payload);
}

}  // namespace Kest::Net
