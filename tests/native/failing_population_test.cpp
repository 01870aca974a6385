// Populating the published tree with each of its requests for memory refused in turn: a namespace
// is populated whole or tried again, and what the host's own operators could not make is missing
// alone.
#include <gtest/gtest.h>

#include <cstdint>
#include <new>
#include <set>
#include <string>

#include "tests/native/failing_memory.hpp"
#include "zandor/runtime/array.hpp"
#include "zandor/runtime/zandor.hpp"

namespace {

using failing_memory::Failure;

/// The names of all namespaces and methods below.
void addAll(const zandor::Namespace& space, std::set<std::string>& names) {
    names.insert(space.fullName());
    for (const zandor::Method& method : space.methods())
        names.insert(method.description().fullName);
    for (const zandor::Namespace& inner : space.namespaces())
        addAll(inner, names);
}

std::set<std::string> published() {
    std::set<std::string> names;
    for (const zandor::Namespace& root : zandor::roots())
        addAll(root, names);
    return names;
}

/// The plug-in, loaded while it lives.
struct Loaded {
    zandor::Plugin plugin = zandor::Plugin::load(VANTRACE_PLUGIN_PATH);
    ~Loaded() { plugin.unload(); }
};

constexpr std::size_t namespaces = 12;
constexpr std::size_t methods = 86;

TEST(FailingPopulation, IsTriedAgainAfterARefusedRequest) {
    for (const bool onlyThatOne : {true, false})
        for (std::uint64_t first = 1; !HasFailure(); ++first) {
            SCOPED_TRACE("request " + std::to_string(first));
            const Loaded loaded;
            const zandor::Namespace root = zandor::findRoot("performance");
            zandor::clearLastError();
            bool failed = false;
            bool came = false;
            std::set<std::string> names;
            {
                const Failure failure({first, onlyThatOne});
                try {
                    addAll(root, names);
                } catch (const std::bad_alloc&) {
                    failed = true;
                }
                came = failure.came();
            }
            if (failed || !came) {
                EXPECT_EQ(published().size(), namespaces + methods);
            } else {
                EXPECT_LT(published().size(), namespaces + methods);
                EXPECT_FALSE(zandor::lastError().empty());
            }
            if (!came)
                break;
        }
}

TEST(FailingPopulation, LacksWhatTheHostsOperatorsDidNotMake) {
    for (std::uint64_t first = 1; !HasFailure(); ++first) {
        SCOPED_TRACE("object " + std::to_string(first));
        const Loaded loaded;
        zandor::clearLastError();
        bool came = false;
        std::set<std::string> names;
        {
            const Failure failure({first, true}, Failure::Of::hostsOperators);
            names = published();
            came = failure.came();
        }
        if (!came) {
            // The root was made when the plug-in was loaded.
            EXPECT_EQ(first, namespaces - 1 + methods + 1);
            EXPECT_EQ(names.size(), namespaces + methods);
            break;
        }
        EXPECT_LT(names.size(), namespaces + methods);
        EXPECT_FALSE(zandor::lastError().empty());
        EXPECT_EQ(published(), names) << "what is published changed";
    }
}

}  // namespace
