#include "TessarinEngine/platform/DynamicLibrary.h"

#include <dlfcn.h>
#include <utility>

std::optional<DynamicLibrary> DynamicLibrary::open(const std::filesystem::path& file) {
    // RTLD_LOCAL keeps the library's symbols from resolving anyone else's.
    if (void* handle = ::dlopen(file.c_str(), RTLD_NOW | RTLD_LOCAL)) {
        return DynamicLibrary(handle);
    }
    return std::nullopt;
}

DynamicLibrary::~DynamicLibrary() {
    if (handle_) {
        ::dlclose(handle_);
    }
}

DynamicLibrary::DynamicLibrary(DynamicLibrary&& other) noexcept
    : handle_(std::exchange(other.handle_, nullptr)) {}

DynamicLibrary& DynamicLibrary::operator=(DynamicLibrary&& other) noexcept {
    if (this != &other) {
        if (handle_) {
            ::dlclose(handle_);
        }
        handle_ = std::exchange(other.handle_, nullptr);
    }
    return *this;
}

void* DynamicLibrary::symbol(const std::string& name) const {
    return handle_ ? ::dlsym(handle_, name.c_str()) : nullptr;
}
