#pragma once

// PayloadMessageHelper: a message of base class BaseT with type number N
// whose one own field is a payload record, reflected under the name "Data".
//
// Memory: the constructors copy the payload (and the addresses given); if
// memory runs out they throw std::bad_alloc and make nothing. The default
// constructor and payload() allocate nothing.

#include <kest/model/Api.h>
#include <kest/model/Reflector.h>

#include <string>
#include <vector>

namespace Kest::Msgs {

// Mixin giving read access to the payload of Derived; adds no data and no
// virtual operations.
template <class Derived, class Payload>
class PayloadAccessorIf {
public:
    // The payload; throws MetaDataException when it is not initialised (a
    // message read from a tree that had no valid "Data").
    const Payload& payload() const { return static_cast<const Derived&>(*this).data(); }

protected:
    PayloadAccessorIf() = default;
    ~PayloadAccessorIf() = default;
};

template <class BaseT, class Payload, unsigned short N>
class KEST_MESSAGES_API PayloadMessageHelper
    : public BaseT,
      public PayloadAccessorIf<PayloadMessageHelper<BaseT, Payload, N>, Payload> {
public:
    static constexpr unsigned short Type = N;

    // Empty sender and destination (both set), payload unset.
    PayloadMessageHelper() : BaseT(N, {}, {}), data(this, "Data", true) {}
    // Empty sender and destination (both set), the given payload.
    explicit PayloadMessageHelper(const Payload& payload) : PayloadMessageHelper() {
        data.assign(payload);
    }
    PayloadMessageHelper(const Payload& payload, const std::vector<std::string>& sender,
                         const std::vector<std::string>& destination)
        : BaseT(N, sender, destination), data(this, "Data", true) {
        data.assign(payload);
    }
    ~PayloadMessageHelper() override = default;

    MetaData::Reflector<Payload, true, true> data;  // field "Data", required
};

}  // namespace Kest::Msgs
