#include <kest/components/ComponentInterface.h>

namespace Kest {

// The key function: the interface's vtable and type information live here,
// once, for every library and plug-in that uses it.
ComponentFactoryInterface::~ComponentFactoryInterface() = default;

}  // namespace Kest
