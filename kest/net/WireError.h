#pragma once

// WireError: what Kest::Net throws for bytes or JSON text it cannot accept,
// and for a message or tree it cannot write. The text says what was wrong
// and, where it is known, at which byte of the input.

#include <kest/net/Api.h>

#include <stdexcept>
#include <string>

namespace Kest::Net {

class KEST_NET_API WireError : public std::runtime_error {
public:
    explicit WireError(const std::string& what);
    ~WireError() override;

    WireError(const WireError&) = default;
    WireError& operator=(const WireError&) = default;
};

}  // namespace Kest::Net
