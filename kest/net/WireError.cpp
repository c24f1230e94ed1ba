#include <kest/net/WireError.h>

namespace Kest::Net {

WireError::WireError(const std::string& what) : std::runtime_error(what) {}

// Out of line, so that the class has one home for its vtable and type
// information: a WireError thrown here is caught by its type in any program.
WireError::~WireError() = default;

}  // namespace Kest::Net
