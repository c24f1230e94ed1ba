// The component factory of libKestNet, reached through the library's own
// plain getComponentFactory, as a framework reaches every plug-in: it loads
// the library by its path with dlopen and looks the name up in that handle
// with dlsym. libKestMessageDispatcher exports the same name for its own
// factory; each lookup through a library's own handle finds that library's
// definition first. A program that links both libraries and calls the name
// directly gets whichever the dynamic linker finds first: load them by path.

#include <kest/components/ComponentFactory_Base.h>
#include <kest/components/ComponentInterface.h>
#include <kest/components/Component_Base.h>
#include <kest/net/Api.h>
#include <kest/net/Bridge.h>

#include <memory>
#include <string>
#include <vector>

namespace Kest::Net {

namespace {

// startLifeCycle registers the creator of kBridgeComponentType; the bridge it
// makes has its options from the arguments and no dispatcher yet.
class NetFactory final : public Kest::Component_Base,
                         public Kest::ComponentFactory_Base,
                         public Kest::LifeCycle::PassiveInterface {
public:
    void startLifeCycle() override {
        addComponentCreator(kBridgeComponentType, [](const std::vector<std::string>& args) {
            return std::shared_ptr<Kest::ComponentInterface>(std::make_shared<Bridge>(args));
        });
    }
    void endLifeCycle() override { removeAllComponentCreators(); }
};

}  // namespace

}  // namespace Kest::Net

// Stores a new, unstarted factory of Kest::Net in `factory`.
extern "C" KEST_NET_API void getComponentFactory(std::shared_ptr<Kest::ComponentFactoryInterface>& factory) {
    factory = std::make_shared<Kest::Net::NetFactory>();
}
