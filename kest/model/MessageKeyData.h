#pragma once

// Structs::MessageKeyData: a routing key as a reflective record, the form in
// which forwarder notifications carry the key that changed.

#include <kest/metadata/MirroredObject.h>
#include <kest/model/Api.h>
#include <kest/model/Identifier.h>
#include <kest/model/Reflector.h>

#include <string>
#include <vector>

namespace Kest::Msgs::Structs {

class KEST_MESSAGES_API MessageKeyData : public MetaData::MirroredObject {
public:
    // Identifier 0, both addresses unset. Allocates nothing.
    MessageKeyData();
    // Copy the addresses: std::bad_alloc when memory runs out, and nothing made.
    MessageKeyData(const Identifier& id, const std::vector<std::string>& sender,
                   const std::vector<std::string>& destination);
    MessageKeyData(const MessageKeyData& other);
    ~MessageKeyData() override;

    // An initialised source identifier is copied and marked initialised; an
    // unset one becomes Identifier(0), initialised exactly when this record's
    // identifier field is required. Both addresses are copied whole. Strong
    // guarantee: if memory runs out, this record is unchanged.
    MessageKeyData& operator=(const MessageKeyData& other);

    // Exchanges the fields' names, flags and values with `other`; each field
    // stays registered with its own record. Never throws.
    void swap(MessageKeyData& other) noexcept {
        id.swap(other.id);
        sender.swap(other.sender);
        destination.swap(other.destination);
    }
    friend void swap(MessageKeyData& a, MessageKeyData& b) noexcept { a.swap(b); }

    MetaData::Reflector<Identifier, false, true> id;  // field "Id", required
    ReflectedAddress sender;                          // field "Sender"
    ReflectedAddress destination;                     // field "Destination"
};

}  // namespace Kest::Msgs::Structs
