#pragma once

// Message: the base class of every message.
//
// A message is a reflective record with an identifier ("Id"), an optional
// sender address ("Sender"), an optional destination address ("Destination")
// and an identity string ("Identity") that names this one instance. Every
// constructor gives the message a fresh identity: a random per-process prefix
// and a per-process counter, made without a lock or a system call.
//
// Messages are immutable once posted and travel as
// std::shared_ptr<const Message>; they are shared, never copied, so copying is
// disabled. A posted message may be read from any thread.
//
// Memory: the constructors allocate the addresses (the identity fits a
// string's own buffer); if memory runs out they throw std::bad_alloc and
// make nothing. copyToMetaData gives the basic guarantee of MirroredObject;
// copyFromMetaData never throws: a field whose read runs out of memory falls
// back as a malformed one does (see Reflector.h). makeIdentity and id()
// allocate nothing.

#include <kest/metadata/MirroredObject.h>
#include <kest/model/Api.h>
#include <kest/model/Identifier.h>
#include <kest/model/Reflector.h>

#include <string>
#include <vector>

namespace Kest::Msgs {

class KEST_MESSAGES_API Message : public MetaData::MirroredObject {
public:
    // No sender, no destination: both addresses are unset.
    explicit Message(Identifier id);
    // A set sender (even when empty), no destination.
    Message(Identifier id, const std::vector<std::string>& sender);
    // A set sender and a set destination (even when empty).
    Message(Identifier id, const std::vector<std::string>& sender,
            const std::vector<std::string>& destination);
    ~Message() override;

    Message(const Message&) = delete;
    Message& operator=(const Message&) = delete;

    // The identifier; Identifier(0) when a tree copy left it unset.
    Identifier id() const noexcept;

    // Returns a fresh identity string, as each constructor assigns. Unique
    // within the process; the random prefix makes a clash with another process
    // unlikely.
    static std::string makeIdentity();

private:
    MetaData::Reflector<Identifier, false, true> id_;  // field "Id"

public:
    ReflectedAddress sender;                                 // field "Sender"
    ReflectedAddress destination;                            // field "Destination"
    MetaData::Reflector<std::string, false, true> identity;  // field "Identity"
};

}  // namespace Kest::Msgs
