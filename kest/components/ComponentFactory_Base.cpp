#include <kest/components/ComponentFactory_Base.h>
#include <kest/internal/Schedule.h>

#include <functional>

namespace Kest {

ComponentFactory_Base::ComponentFactory_Base() = default;

ComponentFactory_Base::~ComponentFactory_Base() = default;

std::shared_ptr<ComponentInterface> ComponentFactory_Base::createComponent(
    std::string name, const std::vector<std::string>& args) {
    Kest::detail::LockGuard lock(creatorsMutex_);
    auto it = creators_.find(name);
    if (it == creators_.end()) return {};
    return it->second(args);  // an empty creator throws std::bad_function_call
}

const std::map<std::string, ComponentCreator>& ComponentFactory_Base::supportedComponents() const {
    return creators_;
}

void ComponentFactory_Base::addComponentCreator(const std::string& name, ComponentCreator creator) {
    Kest::detail::LockGuard lock(creatorsMutex_);
    // try_emplace keeps an existing entry without building a node: a refused
    // creator stays in `creator` and is destroyed after the unlock.
    creators_.try_emplace(name, std::move(creator));
}

void ComponentFactory_Base::removeComponentCreator(const std::string& name) {
    Kest::detail::LockGuard lock(creatorsMutex_);
    creators_.erase(name);
}

void ComponentFactory_Base::removeAllComponentCreators() {
    Kest::detail::LockGuard lock(creatorsMutex_);
    creators_.clear();
}

}  // namespace Kest
