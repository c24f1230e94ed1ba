#pragma once

// The forwarder message family: the messages with which a dispatcher
// announces each change of its routing tables, so that a forwarding component
// can mirror subscriptions and services into other processes.

#include <kest/metadata/MirroredObject.h>
#include <kest/model/Api.h>
#include <kest/model/Message.h>
#include <kest/model/MessageKeyData.h>
#include <kest/model/Reflector.h>

#include <cstdint>
#include <string>
#include <vector>

namespace Kest::Msgs {

class MessageKey;

namespace Communications {

// Base of the messages exchanged between communicating components.
class KEST_MESSAGES_API CommunicationsMessage : public Message {
public:
    CommunicationsMessage(Identifier id, const std::vector<std::string>& sender,
                          const std::vector<std::string>& destination);
    ~CommunicationsMessage() override;
};

namespace Forwarder {

// The message category of the forwarder family.
inline constexpr std::uint16_t Category = 0x0F0D;

// Base of the forwarder messages: identifier (Category, type).
class KEST_MESSAGES_API Base : public CommunicationsMessage {
public:
    Base(unsigned short type, const std::vector<std::string>& sender,
         const std::vector<std::string>& destination);
    ~Base() override;
};

// The payload of a notification: the key that changed, a count and a rank.
class KEST_MESSAGES_API ServiceData : public MetaData::MirroredObject {
public:
    // All fields unset. Allocates nothing.
    ServiceData();
    // The key converted to a MessageKeyData; all fields initialised. These
    // two copy addresses: std::bad_alloc when memory runs out, nothing made.
    ServiceData(const MessageKey& key, unsigned long count, unsigned long rank);
    ServiceData(const ServiceData& other);
    // Copies every field. Strong guarantee: if memory runs out, this record
    // is unchanged.
    ServiceData& operator=(const ServiceData& other);
    ~ServiceData() override;

    // Exchanges the fields' names, flags and values with `other`; each field
    // stays registered with its own record. Never throws.
    void swap(ServiceData& other) noexcept {
        key.swap(other.key);
        count.swap(other.count);
        rank.swap(other.rank);
    }
    friend void swap(ServiceData& a, ServiceData& b) noexcept { a.swap(b); }

    MetaData::Reflector<Structs::MessageKeyData, true, true> key;  // field "Key", required
    MetaData::Reflector<unsigned long, false, true> count;         // field "Count"
    MetaData::Reflector<unsigned long, false, true> rank;          // field "Rank"
};

}  // namespace Forwarder
}  // namespace Communications
}  // namespace Kest::Msgs
