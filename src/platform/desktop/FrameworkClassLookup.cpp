#include "velmorand/desktop/FrameworkClassLookup.h"

#include <dlfcn.h>

#include <algorithm>
#include <string>
#include <vector>

namespace velmorand {
namespace {

bool isSharedLibrary(const std::filesystem::path& path) {
    const auto extension = path.extension();
    return extension == ".so" || extension == ".dylib" ||
           path.filename().string().find(".so.") != std::string::npos;
}

std::vector<std::filesystem::path> librariesIn(const std::filesystem::path& directory) {
    std::vector<std::filesystem::path> libraries;
    std::error_code error;
    for (const auto& entry : std::filesystem::directory_iterator(directory, error)) {
        if (entry.is_regular_file(error) && isSharedLibrary(entry.path())) {
            libraries.push_back(entry.path());
        }
    }
    std::sort(libraries.begin(), libraries.end());
    return libraries;
}

}  // namespace

bool FrameworkClassLookup::classExists(std::string_view name) const {
    const std::string symbol(name);
    for (const auto& library : librariesIn(frameworksDirectory_)) {
        if (void* handle = load(library); handle && dlsym(handle, symbol.c_str())) {
            return true;
        }
    }
    return false;
}

void* FrameworkClassLookup::load(const std::filesystem::path& library) const {
    std::lock_guard lock(mutex_);
    if (const auto it = loaded_.find(library); it != loaded_.end()) {
        return it->second;
    }
    // A library that fails to load is remembered as such, so a broken runtime is not retried on
    // every pairing.
    void* handle = dlopen(library.c_str(), RTLD_NOW | RTLD_LOCAL);
    loaded_.emplace(library, handle);
    return handle;
}

}  // namespace velmorand
