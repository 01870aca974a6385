#include "zandor/performance/module_list.hpp"

#include <dlfcn.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

namespace Performance {
namespace {

TEST(ModuleList, BeginsWithTheExecutable) {
    const auto modules = GetModuleListForCurrentProcess();
    ASSERT_FALSE(modules.empty());
    EXPECT_EQ(modules.front(), std::filesystem::read_symlink("/proc/self/exe"));
}

TEST(ModuleList, HoldsAbsolutePathsOfFilesThatAreThere) {
    for (const auto& path : GetModuleListForCurrentProcess()) {
        EXPECT_EQ(path.front(), '/') << path;
        EXPECT_TRUE(std::filesystem::exists(path)) << path;
    }
}

TEST(ModuleList, NamesALibraryThatWasLoadedByARelativePathAbsolutely) {
    const auto system = [] {
        void* libm = dlopen("libm.so.6", RTLD_NOW);
        Dl_info info{};
        dladdr(dlsym(libm, "cos"), &info);
        return std::filesystem::canonical(info.dli_fname);
    }();
    const auto folder =
        std::filesystem::temp_directory_path() / ("modules " + std::to_string(::getpid()));
    std::filesystem::create_directory(folder);
    std::filesystem::copy_file(system, folder / "libmodülе.so");
    const auto before = std::filesystem::current_path();
    std::filesystem::current_path(folder);
    void* library = dlopen("./libmodülе.so", RTLD_NOW);
    std::filesystem::current_path(before);
    ASSERT_NE(library, nullptr) << dlerror();
    EXPECT_THAT(GetModuleListForCurrentProcess(),
                ::testing::Contains((folder / "libmodülе.so").string()));
    dlclose(library);
    std::filesystem::remove_all(folder);
}

}  // namespace
}  // namespace Performance
