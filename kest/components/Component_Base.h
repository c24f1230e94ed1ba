#pragma once

// Component_Base: the instance identifier every component carries.
// Not synchronised: set the identifier before the component is shared.
//
// Built into libKestMessageDispatcher, which every component of ours lives
// in: libKestCore provides only the interface.

#include <kest/components/ComponentInterface.h>
#include <kest/msgs/Api.h>

#include <string>

namespace Kest {

class KEST_DISPATCHER_API Component_Base : public virtual ComponentInterface {
public:
    // The identifier, empty until set.
    const std::string& instanceId() const override;
    // Any string is accepted, the empty one included. Strong guarantee: if
    // memory runs out the identifier is unchanged.
    void setInstanceId(const std::string& id) override;

protected:
    Component_Base() = default;
    Component_Base(const Component_Base&) = default;
    Component_Base& operator=(const Component_Base&) = default;
    ~Component_Base() = default;

private:
    std::string instanceIdentifier_;
};

}  // namespace Kest
