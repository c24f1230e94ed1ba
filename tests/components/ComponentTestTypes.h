#pragma once

// Small component and factory types for the component tests.

#include <kest/components/ComponentFactory_Base.h>
#include <kest/components/Component_Base.h>

#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace KestComponentsTest {

// A component that remembers which creator made it and with what arguments.
class Widget : public Kest::Component_Base {
public:
    explicit Widget(std::string madeBy, std::vector<std::string> args = {})
        : madeBy(std::move(madeBy)), args(std::move(args)) {}
    std::string madeBy;
    std::vector<std::string> args;
};

// A creator that makes Widgets tagged with `tag`.
inline Kest::ComponentCreator makes(const std::string& tag) {
    return [tag](const std::vector<std::string>& args) -> std::shared_ptr<Kest::ComponentInterface> {
        return std::make_shared<Widget>(tag, args);
    };
}

// Who made the component (empty for an empty pointer).
inline std::string madeBy(const std::shared_ptr<Kest::ComponentInterface>& component) {
    auto widget = std::dynamic_pointer_cast<Widget>(component);
    return widget ? widget->madeBy : std::string();
}

// The factory base is meant to be derived from; this is the smallest such factory.
class TestFactory : public Kest::ComponentFactory_Base {
public:
    std::vector<std::string> names() const {
        std::vector<std::string> result;
        for (const auto& entry : supportedComponents()) result.push_back(entry.first);
        return result;
    }
};

}  // namespace KestComponentsTest
