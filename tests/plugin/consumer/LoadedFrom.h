#pragma once

// Where the dynamic loader found a shared object of this process.

#include <link.h>

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

// The canonical directory of the loaded object whose file name is `fileName`
// (for example "libKestCore.so.0"), or "" when no such object is loaded.
inline std::string loadedFrom(const std::string& fileName) {
    struct Search {
        const std::string* fileName;
        std::string directory;
    } search{&fileName, {}};
    dl_iterate_phdr(
        [](dl_phdr_info* info, std::size_t, void* data) {
            auto* s = static_cast<Search*>(data);
            const std::string path = info->dlpi_name != nullptr ? info->dlpi_name : "";
            const auto slash = path.rfind('/');
            if (slash == std::string::npos || path.compare(slash + 1, std::string::npos, *s->fileName) != 0) {
                return 0;
            }
            char resolved[PATH_MAX];
            const std::string directory = path.substr(0, slash);
            s->directory = realpath(directory.c_str(), resolved) != nullptr ? resolved : directory;
            return 1;
        },
        &search);
    return search.directory;
}

// The canonical form of `directory`, or the text itself when it cannot be resolved.
inline std::string canonical(const std::string& directory) {
    char resolved[PATH_MAX];
    return realpath(directory.c_str(), resolved) != nullptr ? std::string(resolved) : directory;
}

// True when each of the three libraries was loaded from `directory`; reports
// the ones that were not to standard error.
inline bool librariesLoadedFrom(const std::string& directory, const char* program) {
    bool ok = true;
    const std::string expected = canonical(directory);
    for (const char* library : {"libKestMessageDispatcher.so.0", "libKestMessages.so.0", "libKestCore.so.0"}) {
        const std::string actual = loadedFrom(library);
        if (actual != expected) {
            std::fprintf(stderr, "%s: %s loaded from '%s', expected '%s'\n", program, library, actual.c_str(),
                         expected.c_str());
            ok = false;
        }
    }
    return ok;
}
