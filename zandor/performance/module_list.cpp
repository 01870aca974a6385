#include "zandor/performance/module_list.hpp"

#include <link.h>
#include <sys/auxv.h>

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <new>
#include <sstream>

namespace Performance {

namespace {

struct Module {
    std::string name;
    std::uintptr_t start;  // of its first mapped segment
};

std::uintptr_t firstSegment(const dl_phdr_info& info) {
    for (int i = 0; i < info.dlpi_phnum; ++i)
        if (info.dlpi_phdr[i].p_type == PT_LOAD)
            return info.dlpi_addr + info.dlpi_phdr[i].p_vaddr;
    return info.dlpi_addr;
}

/// Nothing may be thrown through the loader: a number other than 0 ends its walk.
int note(dl_phdr_info* info, std::size_t, void* modules) noexcept {
    try {
        static_cast<std::vector<Module>*>(modules)->push_back(
            {info->dlpi_name ? info->dlpi_name : "", firstSegment(*info)});
        return 0;
    } catch (const std::bad_alloc&) {
        return 1;
    }
}

/// The file that the kernel mapped at `address`; empty when it is none.
std::string mappedFile(std::uintptr_t address) {
    std::ifstream maps("/proc/self/maps");
    for (std::string line; std::getline(maps, line);) {
        std::istringstream fields(line);
        std::uintptr_t begin = 0;
        std::uintptr_t end = 0;
        char dash = 0;
        std::string skipped;
        fields >> std::hex >> begin >> dash >> end >> skipped >> skipped >> skipped >> skipped;
        if (address < begin || address >= end)
            continue;
        std::string path;
        std::getline(fields >> std::ws, path);
        return path;
    }
    return {};
}

/// What was loaded by a relative name, and the executable, whose name the loader leaves empty.
std::string absolutePath(const Module& module) {
    if (!module.name.empty() && module.name.front() == '/')
        return module.name;
    std::string path = mappedFile(module.start);
    if (!path.empty() && path.front() == '/')
        return path;
    return module.name.empty() ? std::filesystem::read_symlink("/proc/self/exe").string() : path;
}

}  // namespace

std::vector<std::string> GetModuleListForCurrentProcess() {
    std::vector<Module> modules;
    if (dl_iterate_phdr(&note, &modules) != 0)
        throw std::bad_alloc();
    const std::uintptr_t kernelPage = getauxval(AT_SYSINFO_EHDR);
    std::vector<std::string> paths;
    for (const Module& module : modules) {
        if (module.start == kernelPage)
            continue;
        if (std::string path = absolutePath(module); !path.empty())
            paths.push_back(std::move(path));
    }
    return paths;
}

}  // namespace Performance
