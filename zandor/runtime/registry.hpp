// What the process has published: roots, plug-ins, and what was refused.
#pragma once

#include <memory>
#include <string_view>
#include <vector>

#include "zandor/runtime/class_system.hpp"
#include "zandor/runtime/zandor.hpp"

namespace zandor {

/// Publishes a root of the plug-in whose entry point runs on this thread, else one of nobody's.
void publishRoot(std::unique_ptr<kobs::COSNamespaceInfo> root);

/// Takes the roots of `plugin` out of the registry.
std::vector<std::shared_ptr<Namespace::Node>> withdrawRoots(const Plugin::Node& plugin);

/// Keeps `text` for lastError(); gives up silently when memory ran out.
void setLastError(std::string_view text) noexcept;

/// While it lives, roots published by this thread belong to `plugin`.
class PublishingPlugin {
  public:
    explicit PublishingPlugin(std::shared_ptr<Plugin::Node> plugin) noexcept;
    ~PublishingPlugin();
    PublishingPlugin(const PublishingPlugin&) = delete;
    PublishingPlugin& operator=(const PublishingPlugin&) = delete;

  private:
    std::shared_ptr<Plugin::Node> plugin_;
    const std::shared_ptr<Plugin::Node>* outer_;
};

}  // namespace zandor
