#pragma once

// Identifier: the kind of a message, a 16-bit category and a 16-bit type
// packed into one number (category << 16 | type). A small value type; copy it.

#include <kest/model/Api.h>

#include <cstdint>

namespace Kest::MetaData {
class Element;
}

namespace Kest::Msgs {

class KEST_MESSAGES_API Identifier {
public:
    constexpr Identifier() noexcept : packed_(0) {}
    // Keeps `packed` as it is: converting back yields the same number.
    constexpr explicit Identifier(unsigned long packed) noexcept : packed_(packed) {}
    constexpr Identifier(std::uint16_t category, std::uint16_t type) noexcept
        : packed_((static_cast<unsigned long>(category) << 16) | type) {}

    constexpr std::uint16_t category() const noexcept {
        return static_cast<std::uint16_t>(packed_ >> 16);
    }
    constexpr std::uint16_t type() const noexcept { return static_cast<std::uint16_t>(packed_); }
    constexpr operator unsigned long() const noexcept { return packed_; }

    // Writes the packed number into `tree` (SetAs<unsigned long>). Allocates
    // nothing.
    void copyToMetaData(MetaData::Element& tree) const;
    // Reads the packed number from `tree` (GetAs<unsigned long>, so any number
    // that is a whole value from 0 to ULONG_MAX); throws MetaDataException
    // when `tree` holds anything else, leaving the identifier unchanged
    // (std::bad_alloc instead if memory runs out while the error's text is
    // built). Allocates nothing on success.
    void copyFromMetaData(const MetaData::Element& tree);

private:
    unsigned long packed_;
};

}  // namespace Kest::Msgs
