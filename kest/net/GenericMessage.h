#pragma once

// GenericMessage: a message whose fields are a metadata tree rather than
// typed members. decode() makes one for an identifier that MessageTypes does
// not know, so a process can receive, inspect and pass on messages of types
// it was not built with; tools make them from JSON.
//
// Its payload (tree()) is an object holding every member of the message's
// tree other than the four fields of Message ("Id", "Sender", "Destination",
// "Identity"), which stay in the Message fields. copyToMetaData writes both;
// copyFromMetaData reads both, keeping every member of the tree.
//
// Like every message it is immutable once posted and may then be read from
// any thread.

#include <kest/metadata/Element.h>
#include <kest/model/Identifier.h>
#include <kest/model/Message.h>
#include <kest/net/Api.h>

#include <optional>
#include <string>
#include <vector>

namespace Kest::Net {

class KEST_NET_API GenericMessage final : public Kest::Msgs::Message {
public:
    // Identifier 0, sender and destination unset, an empty payload, a fresh
    // identity: what decode() fills through copyFromMetaData.
    GenericMessage();

    // A message with identifier `id`, the given addresses (std::nullopt for
    // an unset one; an empty list is set), `payload` as its payload and a
    // fresh identity. `payload` must be an object or empty (meaning no
    // members). Throws std::invalid_argument when it is of another kind or
    // has a member named "Id", "Sender", "Destination" or "Identity", which
    // would shadow the message's own fields.
    GenericMessage(Kest::Msgs::Identifier id, std::optional<std::vector<std::string>> sender,
                   std::optional<std::vector<std::string>> destination, Kest::MetaData::Element payload);

    ~GenericMessage() override;

    // The payload: always an object (with no members when there are none).
    const Kest::MetaData::Element& tree() const noexcept { return payload_; }

    // The Message fields (as Message writes them), then every payload member
    // under its name.
    void copyToMetaData(Kest::MetaData::Element& tree) const override;

    // The Message fields (as Message reads them), then the payload: every
    // other member of `tree`. Never throws for the tree's shape: a tree that
    // is not an object holds no member, so the payload becomes empty, and the
    // Message fields fall back as Message's reflectors do (scalars reset,
    // addresses kept with their diagnostic line).
    void copyFromMetaData(const Kest::MetaData::Element& tree) override;

private:
    Kest::MetaData::Element payload_;  // an object
};

}  // namespace Kest::Net
