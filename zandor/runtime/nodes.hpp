// What the handles of the embedding interface point to.
//
// A node outlives the plug-in that it came from, and all that it says about itself is the host's
// own copy. Only `info` is the plug-in's object: it is touched inside the plug-in's gate, and by
// the unloading once the gate is closed and empty.
#pragma once

#include <atomic>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "zandor/runtime/call_gate.hpp"
#include "zandor/runtime/class_system.hpp"
#include "zandor/runtime/data_types.hpp"
#include "zandor/runtime/population.hpp"
#include "zandor/runtime/shared_object.hpp"
#include "zandor/runtime/zandor.hpp"

namespace zandor {

class Plugin::Node {
  public:
    enum class State : std::uint8_t { loading, loaded, unloading, unloaded };

    Node(std::filesystem::path file, SharedObject mapped);

    const std::filesystem::path path;
    const LibraryRange range;
    CallGate gate;
    /// Changed under registryLock by the one thread that loads or unloads; released with the
    /// change, acquired by those who look or wait; relaxed under it.
    std::atomic<State> state{State::loading};
    std::thread::id worker = std::this_thread::get_id();  ///< guarded by registryLock

    /// Calls the entry point. When that fails all is taken back, and PluginError says why.
    void start(const std::shared_ptr<Node>& self);
    /// Everything from the closed gate to the unmapped library.
    void unload();
    const void* libraryIdentity() const noexcept { return identity_; }

  private:
    void initialize();
    void markLoaded() noexcept;
    /// False when somebody unloaded it before.
    bool beginUnloading();
    void withdraw() noexcept;
    void callTerminate() noexcept;
    void unmap();
    void forget() noexcept;

    SharedObject library_;
    const void* const identity_;
};

class Method::Node {
  public:
    Node(std::unique_ptr<kobs::COSMethodInfo> published, std::string parentName, int minimumInputs,
         int flags, std::shared_ptr<Plugin::Node> owner);

    MethodDescription description;
    std::vector<kobs::factory::CellKind> inputs;
    kobs::factory::CellKind output = kobs::factory::CellKind::none;
    const std::shared_ptr<Plugin::Node> plugin;  ///< null: the host's own
    std::unique_ptr<kobs::COSMethodInfo> info;

    CallGate* gate() const noexcept { return plugin ? &plugin->gate : nullptr; }
};

class Namespace::Node {
  public:
    struct Contents {
        std::vector<std::shared_ptr<Node>> namespaces;
        std::vector<std::shared_ptr<Method::Node>> methods;
    };

    Node(std::unique_ptr<kobs::COSNamespaceInfo> published, const std::string& parentName,
         std::shared_ptr<Plugin::Node> owner);

    const std::shared_ptr<Plugin::Node> plugin;  ///< null: the host's own
    std::string name;
    std::string fullName;
    std::string description;
    std::string detailedDescription;

    CallGate* gate() const noexcept { return plugin ? &plugin->gate : nullptr; }
    /// Populates at the first need.
    const Contents& contents();
    /// Destroys the plug-in's objects of this namespace and all below it. No call may be running.
    void withdraw() noexcept;

  private:
    void populate();

    std::unique_ptr<kobs::COSNamespaceInfo> info_;
    PopulationGuard guard_;
    // Stored with release order once contents_ will change no more; readers acquire it. Relaxed in
    // a turn, which is ordered after those before.
    std::atomic<bool> populated_{false};
    Contents contents_;
};

}  // namespace zandor
