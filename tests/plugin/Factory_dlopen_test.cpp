// The factory cases against the plug-in loaded at run time, the way a
// component framework loads it: this executable links only the interface
// libraries, opens the dispatcher library by its path (KEST_PLUGIN_PATH) with
// dlopen and finds getComponentFactory with dlsym.

#include "PluginFixture.h"

#include <gtest/gtest.h>

#include <dlfcn.h>
#include <link.h>

#include <cstddef>
#include <cstring>
#include <iostream>
#include <string>

#ifndef KEST_PLUGIN_PATH
#error "KEST_PLUGIN_PATH must name the built dispatcher library"
#endif

namespace KestPluginTest {
namespace {

constexpr const char* kPluginPath = KEST_PLUGIN_PATH;
constexpr const char* kPluginSoname = "libKestMessageDispatcher.so.0";

// True when a loaded object's file name starts with "libKestMessageDispatcher".
bool dispatcherLibraryLoaded() {
    bool found = false;
    dl_iterate_phdr(
        [](dl_phdr_info* info, std::size_t, void* data) {
            const char* name = info->dlpi_name != nullptr ? info->dlpi_name : "";
            const char* slash = std::strrchr(name, '/');
            const char* file = slash != nullptr ? slash + 1 : name;
            if (std::strncmp(file, "libKestMessageDispatcher", 24) == 0) *static_cast<bool*>(data) = true;
            return 0;
        },
        &found);
    return found;
}

// Taken before main, after the dynamic loader has mapped every library the
// executable needs: the plug-in must not be one of them.
const bool pluginLoadedAtStartup = dispatcherLibraryLoaded();

// The plug-in's handle, opened once for the whole process and never closed:
// components and factories made by it must not outlive its code.
void* pluginHandle() {
    static void* const handle = [] {
        void* opened = dlopen(kPluginPath, RTLD_NOW | RTLD_LOCAL);
        if (opened == nullptr) std::cerr << "dlopen(" << kPluginPath << ") failed: " << dlerror() << '\n';
        return opened;
    }();
    return handle;
}

GetComponentFactoryFn loadedEntryPoint() {
    void* handle = pluginHandle();
    if (handle == nullptr) return nullptr;
    dlerror();
    void* symbol = dlsym(handle, "getComponentFactory");
    if (symbol == nullptr) {
        const char* error = dlerror();
        std::cerr << "dlsym(getComponentFactory) failed: " << (error != nullptr ? error : "null symbol") << '\n';
        return nullptr;
    }
    return reinterpret_cast<GetComponentFactoryFn>(symbol);
}

INSTANTIATE_TEST_SUITE_P(Dlopen, PluginFactory, ::testing::Values(EntryPoint{"dlopen", &loadedEntryPoint}));

TEST(PluginLoading, ExecutableDoesNotLinkThePlugin) {
    EXPECT_FALSE(pluginLoadedAtStartup)
        << "libKestMessageDispatcher was loaded before dlopen: the test links it";
}

TEST(PluginLoading, EntryPointIsFoundByItsPlainNameInThePlugin) {
    void* handle = pluginHandle();
    ASSERT_NE(handle, nullptr);
    EXPECT_TRUE(dispatcherLibraryLoaded());

    void* symbol = dlsym(handle, "getComponentFactory");
    ASSERT_NE(symbol, nullptr) << dlerror();
    Dl_info where{};
    ASSERT_NE(dladdr(symbol, &where), 0);
    ASSERT_NE(where.dli_fname, nullptr);
    EXPECT_NE(std::string(where.dli_fname).find("libKestMessageDispatcher"), std::string::npos)
        << "getComponentFactory resolved in " << where.dli_fname;
    ASSERT_NE(where.dli_sname, nullptr);
    EXPECT_STREQ(where.dli_sname, "getComponentFactory");

    // Opening the plug-in again by its SONAME finds the same, already loaded library.
    void* again = dlopen(kPluginSoname, RTLD_NOW | RTLD_NOLOAD);
    EXPECT_EQ(again, handle);
    if (again != nullptr) dlclose(again);
}

}  // namespace
}  // namespace KestPluginTest
