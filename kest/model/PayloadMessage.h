#pragma once

// PayloadMessage<Category, Type, Payload>: a message of identifier
// (Category, Type) whose one own field is a payload record, reflected under
// the name "Data". The short way to send a record you also use elsewhere:
//
//   using CalibrationRequest = Kest::Msgs::PayloadMessage<0x0100, 2, Calibration>;
//   auto request = std::make_shared<CalibrationRequest>(calibration, sender, destination);
//   ...
//   if (auto r = std::dynamic_pointer_cast<const CalibrationRequest>(message))
//       use(r->payload().offset());
//
// Sender only or with a destination: the two-argument constructor leaves the
// destination unset, so a post goes to subscribers only and postMessage
// returns true (unless the message is empty or a repeat). The three-argument
// constructor sets the destination, even an empty one, which makes every
// post a service request: postMessage returns false when no registered
// service covers the destination, although subscribers still receive it.
// (PayloadMessageHelper, the form of the routing notifications, always sets a
// destination; use this template for messages that are not requests.)
//
// Payload: a record (a MirroredObject) with a default constructor and a copy
// assignment that assigns each field. Its copy constructor must rebind, that
// is construct each field as `field(this, other.field)`, as every record's
// must. The message itself is never copied.
//
// A message is immutable once posted and may then be read from any thread;
// building one is not thread-safe.
//
// Memory: the constructors copy the addresses and the payload; if memory
// runs out they throw std::bad_alloc and make nothing (the default one
// allocates nothing). payload() allocates nothing.

#include <kest/metadata/MirroredObject.h>
#include <kest/model/Identifier.h>
#include <kest/model/Message.h>
#include <kest/model/PayloadMessageHelper.h>
#include <kest/model/Reflector.h>

#include <cstdint>
#include <string>
#include <type_traits>
#include <vector>

namespace Kest::Msgs {

template <std::uint16_t Category, std::uint16_t Type, class Payload>
class PayloadMessage
    : public Message,
      public PayloadAccessorIf<PayloadMessage<Category, Type, Payload>, Payload> {
    static_assert(std::is_base_of_v<MetaData::MirroredObject, Payload>,
                  "Kest::Msgs::PayloadMessage<Category, Type, Payload>: Payload must be a record "
                  "(derived from Kest::MetaData::MirroredObject); for single values declare "
                  "Reflector fields in a Message subclass of your own");
    static_assert(!std::is_base_of_v<Message, Payload>,
                  "Kest::Msgs::PayloadMessage<Category, Type, Payload>: Payload must be a record, "
                  "not a message");

public:
    // The identifier of every message of this type: subscribe and register
    // services with it.
    static constexpr Identifier Id{Category, Type};

    // Both addresses and the payload unset: the form a receiving process
    // creates before reading the message's fields from a metadata tree.
    PayloadMessage() : Message(Id) {}

    // A set sender (even when empty), no destination, a copy of `payload`.
    PayloadMessage(const Payload& payload, const std::vector<std::string>& sender)
        : Message(Id, sender) {
        data.assign(payload);
    }

    // A set sender and a set destination (even when empty): a service request.
    PayloadMessage(const Payload& payload, const std::vector<std::string>& sender,
                   const std::vector<std::string>& destination)
        : Message(Id, sender, destination) {
        data.assign(payload);
    }

    ~PayloadMessage() override = default;

    // payload() (from PayloadAccessorIf) returns data(): the record, or throws
    // Kest::MetaData::MetaDataException when the field is unset (a message
    // made by the default constructor and not read from a tree holding a
    // "Data" record).

    MetaData::Reflector<Payload, true, true> data{this, "Data", true};  // field "Data", required
};

}  // namespace Kest::Msgs
