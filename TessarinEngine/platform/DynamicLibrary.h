#pragma once

#include <filesystem>
#include <optional>
#include <string>

// An open shared library, closed when its owner goes. Symbols looked up in it are valid only while
// it is open.
class DynamicLibrary {
public:
    // Opens the library with every symbol bound at once and none shared with later loads; nothing
    // if the loader refuses it.
    static std::optional<DynamicLibrary> open(const std::filesystem::path& file);

    ~DynamicLibrary();
    DynamicLibrary(const DynamicLibrary&) = delete;
    DynamicLibrary& operator=(const DynamicLibrary&) = delete;
    DynamicLibrary(DynamicLibrary&& other) noexcept;
    DynamicLibrary& operator=(DynamicLibrary&& other) noexcept;

    // The address of an exported symbol, or null when the library has none by that name.
    void* symbol(const std::string& name) const;

private:
    explicit DynamicLibrary(void* handle) : handle_(handle) {}
    void* handle_ = nullptr;
};
