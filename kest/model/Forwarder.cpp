#include <kest/model/Forwarder.h>
#include <kest/model/MessageKey.h>

namespace Kest::Msgs::Communications {

CommunicationsMessage::CommunicationsMessage(Identifier id, const std::vector<std::string>& sender,
                                             const std::vector<std::string>& destination)
    : Message(id, sender, destination) {}

CommunicationsMessage::~CommunicationsMessage() = default;

namespace Forwarder {

Base::Base(unsigned short type, const std::vector<std::string>& sender,
           const std::vector<std::string>& destination)
    : CommunicationsMessage(Identifier(Category, type), sender, destination) {}

Base::~Base() = default;

ServiceData::ServiceData() : key(this, "Key", true), count(this, "Count", false), rank(this, "Rank", false) {}

ServiceData::ServiceData(const MessageKey& messageKey, unsigned long countValue,
                         unsigned long rankValue)
    : ServiceData() {
    key.assign(Structs::MessageKeyData(Identifier(messageKey.id()), messageKey.sender(),
                                       messageKey.destination()));
    count.assign(countValue);
    rank.assign(rankValue);
}

ServiceData::ServiceData(const ServiceData& other)
    : MirroredObject(other),
      key(this, other.key),
      count(this, other.count),
      rank(this, other.rank) {}

ServiceData& ServiceData::operator=(const ServiceData& other) {
    // Only the key allocates (the names of count and rank fit a string's
    // own buffer), and each field's assignment changes it whole or not at all.
    key = other.key;
    count = other.count;
    rank = other.rank;
    return *this;
}

ServiceData::~ServiceData() = default;

}  // namespace Forwarder
}  // namespace Kest::Msgs::Communications
