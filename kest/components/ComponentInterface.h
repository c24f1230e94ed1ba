#pragma once

// Components: objects a factory creates by type name and that carry an
// instance identifier.
//
// Components are owned through a std::shared_ptr made from their concrete
// type. None of these interfaces has a virtual destructor; their protected
// destructors keep a component from being deleted through them. The order of
// the virtual operations is binary interface.

#include <kest/metadata/Api.h>

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace Kest {

class KEST_CORE_API ComponentInterface {
public:
    virtual const std::string& instanceId() const = 0;
    virtual void setInstanceId(const std::string& id) = 0;

protected:
    ComponentInterface() = default;
    ComponentInterface(const ComponentInterface&) = default;
    ComponentInterface& operator=(const ComponentInterface&) = default;
    ~ComponentInterface() = default;
};

// Makes a component from creation arguments; may return an empty pointer.
using ComponentCreator =
    std::function<std::shared_ptr<ComponentInterface>(const std::vector<std::string>&)>;

class KEST_CORE_API ComponentFactoryInterface {
public:
    // The component of type `name`, or an empty pointer for an unknown name.
    virtual std::shared_ptr<ComponentInterface> createComponent(
        std::string name, const std::vector<std::string>& args) = 0;
    // The registered creators by type name.
    virtual const std::map<std::string, ComponentCreator>& supportedComponents() const = 0;
    virtual ~ComponentFactoryInterface();
};

namespace LifeCycle {

// A life cycle driven from outside: the owner starts and ends it.
class KEST_CORE_API PassiveInterface {
public:
    virtual void startLifeCycle() = 0;
    virtual void endLifeCycle() = 0;

protected:
    PassiveInterface() = default;
    PassiveInterface(const PassiveInterface&) = default;
    PassiveInterface& operator=(const PassiveInterface&) = default;
    ~PassiveInterface() = default;
};

}  // namespace LifeCycle
}  // namespace Kest
