#pragma once

// MessageTypes: the process-wide registry of message types by identifier,
// with which decode() recreates a received message as its concrete type.
//
// The four forwarder notification kinds (Communications::Forwarder::Category,
// types 5, 6, 9 and 10) are known from the start. Registering an identifier
// that is already known keeps the first registration and changes nothing,
// quietly: two parts of a program that both register a type they share do
// not fight over it, and a type once known never changes under a decoder.
//
// Thread safety: every operation may be called from any thread at any time.
// Readers (known, create, decode) share a lock; add takes it exclusively.
// Nothing here blocks for long: the lock is held only to look up or insert
// one entry, never while a message is made.

#include <kest/model/Identifier.h>
#include <kest/model/Message.h>
#include <kest/net/Api.h>

#include <memory>
#include <type_traits>

namespace Kest::Net {

class KEST_NET_API MessageTypes {
public:
    // Makes one default-constructed message of a registered type.
    using Factory = std::shared_ptr<Kest::Msgs::Message> (*)();

    MessageTypes() = delete;

    // Registers T for `id`, unless `id` is already known (then nothing
    // changes). T must derive from Kest::Msgs::Message and be default-
    // constructible; its copyFromMetaData must read a whole message (its
    // identifier, addresses and identity included) from a tree, as every
    // record does. Throws only std::bad_alloc.
    template <class T>
    static void add(Kest::Msgs::Identifier id) {
        static_assert(std::is_base_of_v<Kest::Msgs::Message, T>,
                      "Kest::Net::MessageTypes::add<T>: T must derive from Kest::Msgs::Message");
        static_assert(std::is_default_constructible_v<T>,
                      "Kest::Net::MessageTypes::add<T>: T must be default-constructible");
        addFactory(id, []() -> std::shared_ptr<Kest::Msgs::Message> { return std::make_shared<T>(); });
    }

    // Whether a type is registered for `id`.
    static bool known(Kest::Msgs::Identifier id);

    // A new, default-constructed message of the type registered for `id`, or
    // an empty pointer when none is. Exceptions of the type's constructor
    // pass through.
    static std::shared_ptr<Kest::Msgs::Message> create(Kest::Msgs::Identifier id);

private:
    // The non-template half of add(): stores `factory` unless `id` is known.
    static void addFactory(Kest::Msgs::Identifier id, Factory factory);
};

}  // namespace Kest::Net
