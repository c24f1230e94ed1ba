#pragma once

// ComponentFactory_Base: a factory that keeps a table of named creators.
//
// Threads: adding, removing and creating serialise on one mutex, and a
// creator runs while it is held, so a creator must not call back into the
// same factory (that deadlocks). supportedComponents() hands out the table
// without a lock: read it only while nothing changes it.
//
// Memory: every operation gives the strong guarantee. If memory runs out
// (a node and a name for a new creator, the component a creator makes), it
// throws std::bad_alloc with the table unchanged and the lock released.
//
// Built into libKestMessageDispatcher: libKestCore provides only the
// interface, ComponentFactoryInterface.

#include <kest/components/ComponentInterface.h>
#include <kest/msgs/Api.h>

#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace Kest {

class KEST_DISPATCHER_API ComponentFactory_Base : public ComponentFactoryInterface {
public:
    ComponentFactory_Base();

    // Runs the creator of `name` with `args` under the factory's lock and
    // returns its result. Unknown name: an empty pointer. A registered but
    // empty creator: throws std::bad_function_call. A creator's exception
    // passes through; the lock is released. Strong guarantee: a failure,
    // the creator's std::bad_alloc included, changes nothing.
    std::shared_ptr<ComponentInterface> createComponent(
        std::string name, const std::vector<std::string>& args) override;
    // The table itself, read without the lock.
    const std::map<std::string, ComponentCreator>& supportedComponents() const override;
    ~ComponentFactory_Base() override;

    // Registers `creator` under `name` unless the name is taken; a second
    // registration is dropped without a word, and the dropped creator is
    // destroyed after the factory's lock is released. Strong guarantee: if
    // memory runs out the table is unchanged.
    virtual void addComponentCreator(const std::string& name, ComponentCreator creator);
    // Forgets the creator of `name`, if any. Allocates nothing.
    virtual void removeComponentCreator(const std::string& name);
    // Forgets every creator. Allocates nothing.
    virtual void removeAllComponentCreators();

    ComponentFactory_Base(const ComponentFactory_Base&) = delete;
    ComponentFactory_Base& operator=(const ComponentFactory_Base&) = delete;

private:
    std::map<std::string, ComponentCreator> creators_;  // guarded by creatorsMutex_
    std::mutex creatorsMutex_;
};

}  // namespace Kest
