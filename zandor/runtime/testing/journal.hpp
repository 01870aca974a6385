// What happened to a test plug-in, in order. The journal is the test program's own, so that it can
// be read after the plug-in is gone.
#pragma once

#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

namespace zandor::testing {

struct Journal {
    std::mutex lock;
    std::vector<std::string> lines;

    void add(const char* line) {
        const std::lock_guard guard(lock);
        lines.emplace_back(line);
    }
};

/// What the plug-in's method "run" calls: code of the test, inside a call of the plug-in.
struct Inside {
    void (*function)(void* argument);
    void* argument;
};

}  // namespace zandor::testing
