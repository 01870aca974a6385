#include "zandor/runtime/registry.hpp"

#include <algorithm>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <utility>

#include "zandor/runtime/fork_locks.hpp"
#include "zandor/runtime/immortal.hpp"
#include "zandor/runtime/nodes.hpp"

namespace zandor {

namespace {

struct Registry {
    std::vector<std::shared_ptr<Namespace::Node>> roots;
    std::optional<std::string> lastError;
};

constinit Immortal<Registry> registry;  ///< guarded by registryLock

constinit thread_local const std::shared_ptr<Plugin::Node>* publishing = nullptr;

bool isPublished(std::string_view name) {
    return std::ranges::any_of(registry.value.roots,
                               [&](const auto& root) { return root->name == name; });
}

std::string inQuotes(std::string_view name) {
    return "\"" + std::string(name) + "\"";
}

}  // namespace

void publishRoot(std::unique_ptr<kobs::COSNamespaceInfo> root) {
    const char* name = root ? root->getName() : nullptr;
    if (!name || !*name) {
        throw std::invalid_argument(root ? "a root namespace has no name"
                                         : "no root namespace object was handed over");
    }
    auto node =
        std::make_shared<Namespace::Node>(std::move(root), "", publishing ? *publishing : nullptr);
    {
        const std::lock_guard lock(registryLock);
        if (!isPublished(node->name)) {
            registry.value.roots.push_back(std::move(node));
            return;
        }
    }
    throw kobs::NameExistsError("a root namespace " + inQuotes(node->name) +
                                " is published already");
}

std::vector<std::shared_ptr<Namespace::Node>> withdrawRoots(const Plugin::Node& plugin) {
    const std::lock_guard lock(registryLock);
    auto& all = registry.value.roots;
    const auto own = std::stable_partition(
        all.begin(), all.end(), [&](const auto& root) { return root->plugin.get() != &plugin; });
    std::vector<std::shared_ptr<Namespace::Node>> withdrawn(own, all.end());
    all.erase(own, all.end());
    return withdrawn;
}

void setLastError(std::string_view text) noexcept {
    try {
        const std::lock_guard lock(registryLock);
        registry.value.lastError.emplace(text);
    } catch (const std::bad_alloc&) {
        return;
    }
}

std::string lastError() {
    const std::lock_guard lock(registryLock);
    return registry.value.lastError.value_or("");
}

void clearLastError() {
    const std::lock_guard lock(registryLock);
    registry.value.lastError.reset();
}

PublishingPlugin::PublishingPlugin(std::shared_ptr<Plugin::Node> plugin) noexcept
    : plugin_(std::move(plugin)), outer_(std::exchange(publishing, &plugin_)) {}
PublishingPlugin::~PublishingPlugin() {
    publishing = outer_;
}

std::vector<Namespace> roots() {
    const std::lock_guard lock(registryLock);
    std::vector<Namespace> result;
    for (const auto& root : registry.value.roots)
        result.emplace_back(root);
    return result;
}

Namespace findRoot(std::string_view name) {
    const std::lock_guard lock(registryLock);
    for (const auto& root : registry.value.roots) {
        if (root->name == name)
            return Namespace(root);
    }
    throw NameNotFoundError("no namespace " + inQuotes(name) + " is published");
}

Method resolve(std::string_view fullName, Door door) {
    const std::size_t last = fullName.rfind('.');
    if (last == std::string_view::npos) {
        throw NameNotFoundError(inQuotes(fullName) + " is not the full name of a method");
    }
    std::size_t end = fullName.find('.');
    Namespace parent = findRoot(fullName.substr(0, end));
    while (end != last) {
        const std::size_t begin = end + 1;
        end = fullName.find('.', begin);
        parent = parent.findNamespace(fullName.substr(begin, end - begin));
    }
    Method method = parent.findMethod(fullName.substr(last + 1));
    if (method.description().isPrivate && door == Door::publicOnly) {
        throw NameNotFoundError(inQuotes(fullName) + " is private");
    }
    return method;
}

}  // namespace zandor
