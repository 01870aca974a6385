// Loading and unloading plug-ins.
#include <algorithm>
#include <mutex>
#include <utility>

#include "zandor/runtime/fork_locks.hpp"
#include "zandor/runtime/immortal.hpp"
#include "zandor/runtime/nodes.hpp"
#include "zandor/runtime/plugins.hpp"
#include "zandor/runtime/registry.hpp"

namespace zandor {

namespace {

using EntryPoint = void (*)();

struct Plugins {
    std::vector<std::shared_ptr<Plugin::Node>> present;
    std::vector<UnloadObserver> observers;
};

constinit Immortal<Plugins> plugins;  ///< guarded by registryLock

/// "vantrace" of "/usr/lib/libvantrace.so.1".
std::string stemOf(const std::filesystem::path& file) {
    std::string name = file.filename().string();
    if (name.starts_with("lib"))
        name.erase(0, 3);
    return name.substr(0, name.find(".so"));
}

EntryPoint entryPoint(const SharedObject& library, const std::string& name) noexcept {
    return reinterpret_cast<EntryPoint>(library.symbol(name));
}

void tellObservers(const LibraryRange& range) noexcept {
    // Observers only ever join, so that a place in the list stays good without the lock.
    for (std::size_t i = 0;; ++i) {
        UnloadObserver observer = nullptr;
        {
            const std::lock_guard lock(registryLock);
            if (i == plugins.value.observers.size())
                return;
            observer = plugins.value.observers[i];
        }
        observer(range);
    }
}

/// The plug-in of a library that is mapped already, or null.
std::shared_ptr<Plugin::Node> findPresent(const SharedObject& library) {
    const auto& present = plugins.value.present;
    const auto found =
        std::ranges::find(present, library.identity(), &Plugin::Node::libraryIdentity);
    return found == present.end() ? nullptr : *found;
}

struct Opened {
    std::shared_ptr<Plugin::Node> node;
    bool isNew;
    bool isOwn;  ///< this thread is loading or unloading it
};

Opened openLibrary(const std::filesystem::path& file) {
    // Between an unloading's dlclose and its look at whether that unmapped the library, nobody may
    // take another reference.
    const std::lock_guard loader(loaderLock);
    SharedObject library(file);
    const std::lock_guard lock(registryLock);
    if (auto node = findPresent(library)) {
        return {node, false, node->worker == std::this_thread::get_id()};
    }
    auto node = std::make_shared<Plugin::Node>(file, std::move(library));
    plugins.value.present.push_back(node);
    return {std::move(node), true, true};
}

}  // namespace

void recountCallsAfterFork() noexcept {
    for (const auto& node : plugins.value.present)
        node->gate.recountAfterFork();
}

void addUnloadObserver(UnloadObserver observer) {
    const std::lock_guard lock(registryLock);
    plugins.value.observers.push_back(observer);
}

Plugin::Node::Node(std::filesystem::path file, SharedObject mapped)
    : path(std::move(file)),
      range(mapped.range()),
      library_(std::move(mapped)),
      identity_(library_.identity()) {}

void Plugin::Node::initialize() {
    const std::string name = "ZDInitialize_" + stemOf(path);
    const EntryPoint entry = entryPoint(library_, name);
    if (!entry)
        throw PluginError("there is no entry point " + name);
    gate.open();
    const CallScope scope(&gate);
    entry();
}

void Plugin::Node::markLoaded() noexcept {
    const std::lock_guard lock(registryLock);
    state.store(State::loaded, std::memory_order_release);
    state.notify_all();
}

bool Plugin::Node::beginUnloading() {
    std::unique_lock lock(registryLock);
    for (;;) {
        const State now = state.load(std::memory_order_relaxed);
        if (now == State::unloaded)
            return false;
        if (now == State::loaded)
            break;
        if (worker == std::this_thread::get_id()) {
            throw PluginError(path.string() + " cannot be unloaded while it is loaded or unloaded");
        }
        lock.unlock();
        state.wait(now, std::memory_order_acquire);
        lock.lock();
    }
    worker = std::this_thread::get_id();
    state.store(State::unloading, std::memory_order_release);
    return true;
}

void Plugin::Node::withdraw() noexcept {
    gate.close();
    gate.waitUntilIdle();
    for (const auto& root : withdrawRoots(*this))
        root->withdraw();
    tellObservers(range);
}

void Plugin::Node::callTerminate() noexcept {
    const EntryPoint terminate = entryPoint(library_, "ZDTerminate_" + stemOf(path));
    if (!terminate)
        return;
    try {
        terminate();
    } catch (...) {
        setLastError("the terminate entry of " + path.string() + " threw an exception");
    }
}

void Plugin::Node::forget() noexcept {
    const std::lock_guard lock(registryLock);
    std::erase_if(plugins.value.present, [this](const auto& node) { return node.get() == this; });
    state.store(State::unloaded, std::memory_order_release);
    state.notify_all();
}

void Plugin::Node::unmap() {
    const std::lock_guard loader(loaderLock);
    try {
        library_.unmap();
    } catch (...) {
        forget();
        throw;
    }
    forget();
}

void Plugin::Node::unload() {
    if (CallScope::depth(gate)) {
        throw PluginError(path.string() + " cannot be unloaded from inside one of its calls");
    }
    if (!beginUnloading())
        return;
    withdraw();
    callTerminate();
    unmap();
}

void Plugin::Node::start(const std::shared_ptr<Node>& self) {
    std::string failure;
    try {
        const PublishingPlugin publishing(self);
        initialize();
    } catch (const std::exception& error) {
        failure = path.string() + ": " + error.what();
    } catch (...) {
        failure = path.string() + ": the entry point threw an exception";
    }
    if (!failure.empty()) {
        withdraw();
        unmap();
        throw PluginError(failure);
    }
    markLoaded();
}

Plugin Plugin::load(const std::filesystem::path& file) {
    for (;;) {
        Opened opened = openLibrary(file);
        if (opened.isNew) {
            opened.node->start(opened.node);
            return Plugin(std::move(opened.node));
        }
        const Node::State now = opened.node->state.load(std::memory_order_acquire);
        if (now == Node::State::loaded)
            return Plugin(std::move(opened.node));
        if (opened.isOwn) {
            throw PluginError(file.string() + " cannot be loaded while it is loaded or unloaded");
        }
        opened.node->state.wait(now, std::memory_order_acquire);
    }
}

bool Plugin::isLoaded() const noexcept {
    return node_->state.load(std::memory_order_acquire) == Node::State::loaded;
}

const std::filesystem::path& Plugin::path() const noexcept {
    return node_->path;
}

void Plugin::unload() {
    const std::shared_ptr<Node> node = node_;  // the list's owner may be the last but this
    node->unload();
}

}  // namespace zandor
