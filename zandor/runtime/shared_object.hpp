// A library that the system's loader mapped.
#pragma once

#include <filesystem>
#include <string>

#include "zandor/runtime/zandor.hpp"

namespace zandor {

/// Owns one reference of the loader's.
class SharedObject {
  public:
    /// Throws PluginError with the loader's words.
    explicit SharedObject(const std::filesystem::path& file);
    ~SharedObject();
    SharedObject(SharedObject&& other) noexcept;
    SharedObject& operator=(SharedObject&&) = delete;

    /// Null when the library has no such symbol.
    void* symbol(const std::string& name) const noexcept;
    /// The same for all owners of the same library.
    const void* identity() const noexcept { return handle_; }
    /// All of the library's segments.
    LibraryRange range() const noexcept;

    /// Gives the reference back; PluginError when the library stays mapped.
    void unmap();

  private:
    void* handle_;
};

}  // namespace zandor
