#include <kest/model/MessageKeyData.h>

namespace Kest::Msgs::Structs {

MessageKeyData::MessageKeyData()
    : id(this, "Id", true), sender(this, "Sender"), destination(this, "Destination") {}

MessageKeyData::MessageKeyData(const Identifier& identifier,
                               const std::vector<std::string>& senderAddress,
                               const std::vector<std::string>& destinationAddress)
    : MessageKeyData() {
    id.assign(identifier);
    sender.assign(senderAddress);
    destination.assign(destinationAddress);
}

MessageKeyData::MessageKeyData(const MessageKeyData& other)
    : MirroredObject(other),
      id(this, other.id),
      sender(this, other.sender),
      destination(this, other.destination) {}

MessageKeyData::~MessageKeyData() = default;

MessageKeyData& MessageKeyData::operator=(const MessageKeyData& other) {
    if (this == &other) return *this;
    // The addresses are the only parts that allocate: copy them aside first,
    // so that running out of memory leaves this record as it was.
    ReflectedAddress newSender(nullptr, other.sender);
    ReflectedAddress newDestination(nullptr, other.destination);
    if (other.id.initialized()) {
        id.assign(other.id());
    } else {
        id.reset();
        if (id.isRequired()) id.init();
    }
    sender.swap(newSender);
    destination.swap(newDestination);
    return *this;
}

}  // namespace Kest::Msgs::Structs
