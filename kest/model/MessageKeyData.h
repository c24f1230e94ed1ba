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
    // Identifier 0, both addresses unset.
    MessageKeyData();
    MessageKeyData(const Identifier& id, const std::vector<std::string>& sender,
                   const std::vector<std::string>& destination);
    MessageKeyData(const MessageKeyData& other);
    ~MessageKeyData() override;

    // An initialised source identifier is copied and marked initialised; an
    // unset one becomes Identifier(0), initialised exactly when this record's
    // identifier field is required. Both addresses are copied whole.
    MessageKeyData& operator=(const MessageKeyData& other);

    MetaData::Reflector<Identifier, false, true> id;  // field "Id", required
    ReflectedAddress sender;                          // field "Sender"
    ReflectedAddress destination;                     // field "Destination"
};

}  // namespace Kest::Msgs::Structs
