#include "zandor/runtime/shared_object.hpp"

#include <dlfcn.h>
#include <link.h>

#include <algorithm>
#include <utility>

namespace zandor {

namespace {

[[noreturn]] void throwLoaderError() {
    const char* words = dlerror();
    throw PluginError(words ? words : "the loader gave no reason");
}

const link_map* linkMap(void* handle) noexcept {
    link_map* map = nullptr;
    return dlinfo(handle, RTLD_DI_LINKMAP, &map) == 0 ? map : nullptr;
}

bool isMapped(const std::string& file) noexcept {
    void* handle = dlopen(file.c_str(), RTLD_LAZY | RTLD_NOLOAD);
    if (handle)
        dlclose(handle);
    return handle;
}

struct RangeQuery {
    const link_map* library;
    std::uintptr_t begin;
    std::uintptr_t end;
};

int collectRange(dl_phdr_info* info, std::size_t, void* argument) noexcept {
    auto& query = *static_cast<RangeQuery*>(argument);
    // One library is mapped at one address.
    if (info->dlpi_addr != query.library->l_addr ||
        info->dlpi_name != std::string_view(query.library->l_name)) {
        return 0;
    }
    for (int i = 0; i < info->dlpi_phnum; ++i) {
        const auto& segment = info->dlpi_phdr[i];
        if (segment.p_type != PT_LOAD)
            continue;
        const std::uintptr_t begin = info->dlpi_addr + segment.p_vaddr;
        query.begin = std::min(query.begin, begin);
        query.end = std::max(query.end, begin + segment.p_memsz);
    }
    return 1;
}

}  // namespace

SharedObject::SharedObject(const std::filesystem::path& file) {
    const std::string& name = file.native();
    if (name.empty() || name.find('\0') != std::string::npos) {
        throw PluginError("\"" + name + "\" is not the path of a library");
    }
    handle_ = dlopen(name.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (!handle_)
        throwLoaderError();
}

SharedObject::~SharedObject() {
    if (handle_)
        dlclose(handle_);
}

SharedObject::SharedObject(SharedObject&& other) noexcept
    : handle_(std::exchange(other.handle_, nullptr)) {}

void* SharedObject::symbol(const std::string& name) const noexcept {
    return dlsym(handle_, name.c_str());
}

LibraryRange SharedObject::range() const noexcept {
    RangeQuery query{linkMap(handle_), UINTPTR_MAX, 0};
    if (!query.library || !dl_iterate_phdr(collectRange, &query))
        return {nullptr, nullptr};
    return {reinterpret_cast<const void*>(query.begin), reinterpret_cast<const void*>(query.end)};
}

void SharedObject::unmap() {
    const link_map* map = linkMap(handle_);
    const std::string file = map ? map->l_name : "";
    if (dlclose(std::exchange(handle_, nullptr)) != 0)
        throwLoaderError();
    if (isMapped(file)) {
        throw PluginError(file + " stays mapped: something else in the process still holds it");
    }
}

}  // namespace zandor
