#include <kest/components/Component_Base.h>

namespace Kest {

const std::string& Component_Base::instanceId() const { return instanceIdentifier_; }

void Component_Base::setInstanceId(const std::string& id) { instanceIdentifier_ = id; }

}  // namespace Kest
