// The sample plug-in in the hands of tests, and what they ask about libraries.
#pragma once

#include <dlfcn.h>

#include <bit>
#include <filesystem>
#include <functional>
#include <string>

#include "zandor/runtime/testing/journal.hpp"
#include "zandor/runtime/zandor.hpp"

namespace zandor::testing {

inline std::filesystem::path library(const std::string& name) {
    return std::filesystem::path(VANTRACE_TEST_PLUGIN_DIR) / (name + ".so");
}

inline bool isMapped(const std::filesystem::path& file) {
    void* handle = dlopen(file.c_str(), RTLD_LAZY | RTLD_NOLOAD);
    if (handle)
        dlclose(handle);
    return handle;
}

inline Value pointer(const void* to) {
    return Value::unsignedInteger(std::bit_cast<std::uint64_t>(to));
}

/// Runs `body` inside a call of the sample plug-in.
inline void runInside(const Method& run, std::function<void()> body) {
    const Inside inside{[](void* argument) { (*static_cast<std::function<void()>*>(argument))(); },
                        &body};
    run(pointer(&inside));
}

template <typename Error, typename Function>
std::string error(Function function) {
    try {
        function();
    } catch (const Error& caught) {
        return caught.what();
    }
    return "no error";
}

/// The sample plug-in, loaded while it lives.
class Sample {
  public:
    Sample() : plugin(Plugin::load(library("sample"))) {}
    ~Sample() { plugin.unload(); }
    Plugin plugin;
};

}  // namespace zandor::testing
