// Loads the plug-in by its path, as a component framework does, and checks
// that its two dependencies came from the plug-in's own directory. This
// program links none of the libraries: with no LD_LIBRARY_PATH, only the
// plug-in's RUNPATH ($ORIGIN) can lead the loader to them.
//
//   plugin_loader <path of libKestMessageDispatcher.so.0>

#include <kest/components/ComponentInterface.h>

#include "LoadedFrom.h"

#include <dlfcn.h>

#include <cstdio>
#include <memory>
#include <string>

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: plugin_loader <plugin path>\n");
        return 2;
    }
    const std::string path = argv[1];

    void* plugin = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (plugin == nullptr) {
        std::fprintf(stderr, "plugin_loader: dlopen failed: %s\n", dlerror());
        return 1;
    }
    using GetComponentFactory = void (*)(std::shared_ptr<Kest::ComponentFactoryInterface>&);
    auto entry = reinterpret_cast<GetComponentFactory>(dlsym(plugin, "getComponentFactory"));
    if (entry == nullptr) {
        std::fprintf(stderr, "plugin_loader: no getComponentFactory: %s\n", dlerror());
        return 1;
    }

    bool ok = true;
    {
        std::shared_ptr<Kest::ComponentFactoryInterface> factory;
        entry(factory);
        if (!factory) {
            std::fprintf(stderr, "plugin_loader: getComponentFactory gave no factory\n");
            ok = false;
        } else if (!factory->supportedComponents().empty()) {
            std::fprintf(stderr, "plugin_loader: a new factory already has creators\n");
            ok = false;
        }
    }

    const std::string directory = path.substr(0, path.rfind('/'));
    ok = librariesLoadedFrom(directory, "plugin_loader") && ok;

    if (!ok) return 1;
    std::printf("plugin_loader: plug-in and its dependencies loaded from %s\n", canonical(directory).c_str());
    return 0;
}
