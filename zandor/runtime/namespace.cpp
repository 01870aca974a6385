// Namespace and method nodes: population, description, lookup.
#include <algorithm>
#include <utility>

#include "zandor/runtime/call_errors.hpp"
#include "zandor/runtime/nodes.hpp"
#include "zandor/runtime/package.hpp"

namespace zandor {

namespace {

std::string textOrEmpty(const char* text) {
    return text ? text : "";
}

std::string joined(const std::string& parent, const std::string& name) {
    return parent.empty() ? name : parent + "." + name;
}

std::vector<std::string> texts(const std::vector<kobs::internal::InternedString>& names) {
    std::vector<std::string> result;
    result.reserve(names.size());
    for (const auto& name : names)
        result.emplace_back(name.text());
    return result;
}

template <typename Nodes, typename NameOf>
auto findByName(const Nodes& nodes, std::string_view name, NameOf nameOf) {
    const auto found = std::ranges::find(nodes, name, nameOf);
    return found == nodes.end() ? nullptr : *found;
}

template <typename Handle, typename Nodes>
std::vector<Handle> handles(const Nodes& nodes) {
    std::vector<Handle> result;
    result.reserve(nodes.size());
    for (const auto& node : nodes)
        result.emplace_back(node);
    return result;
}

}  // namespace

Method::Node::Node(std::unique_ptr<kobs::COSMethodInfo> published, std::string parentName,
                   int minimumInputs, int flags, std::shared_ptr<Plugin::Node> owner)
    : plugin(std::move(owner)), info(std::move(published)) {
    const kobs::COSMethodSignaturePtr signature = info->getMethodSignature();
    description.name = info->getName();
    description.fullName = joined(parentName, description.name);
    description.inputs = texts(signature->inputs);
    description.outputs = texts(signature->outputs);
    description.isStatic = info->isStatic();
    description.isHidden = !info->isVisible();
    description.isPrivate = info->getMemberAccess() == kobs::MemberAccess::privateAccess;
    description.minimumInputs = minimumInputs;
    description.flags = flags;
    for (const std::string& type : description.inputs) {
        inputs.push_back(kobs::factory::cellKindOf(type));
    }
    if (!description.outputs.empty()) {
        output = kobs::factory::cellKindOf(description.outputs.front());
    }
}

const MethodDescription& Method::description() const noexcept {
    return node_->description;
}

bool Method::isLoaded() const noexcept {
    const CallGate* gate = node_->gate();
    return !gate || gate->isOpen();
}

Namespace::Node::Node(std::unique_ptr<kobs::COSNamespaceInfo> published,
                      const std::string& parentName, std::shared_ptr<Plugin::Node> owner)
    : plugin(std::move(owner)),
      name(textOrEmpty(published->getName())),
      fullName(joined(parentName, name)),
      description(textOrEmpty(published->getDescription())),
      detailedDescription(textOrEmpty(published->getDetailedDescription())),
      info_(std::move(published)) {}

const Namespace::Node::Contents& Namespace::Node::contents() {
    const CallScope scope(gate());
    if (populated_.load(std::memory_order_acquire)) {
        return contents_;
    }
    try {
        populate();
    } catch (...) {
        rethrowForCaller(fullName, plugin.get());
    }
    return contents_;
}

void Namespace::Node::populate() {
    const PopulationGuard::Turn turn(guard_, fullName);
    if (populated_.load(std::memory_order_relaxed))
        return;  // the turn orders populations

    kobs::COSPackage::Impl registered(*info_);
    kobs::COSPackage package(registered);
    info_->initializePackage(package);

    Contents contents;
    for (auto& child : registered.namespaces) {
        contents.namespaces.push_back(std::make_shared<Node>(std::move(child), fullName, plugin));
    }
    for (auto& method : registered.methods) {
        contents.methods.push_back(std::make_shared<Method::Node>(
            std::move(method.info), fullName, method.minimumInputs, method.flags, plugin));
    }
    contents_ = std::move(contents);
    populated_.store(true, std::memory_order_release);
}

void Namespace::Node::withdraw() noexcept {
    for (const auto& method : contents_.methods)
        method->info.reset();
    for (const auto& child : contents_.namespaces)
        child->withdraw();
    info_.reset();
}

const std::string& Namespace::name() const noexcept {
    return node_->name;
}
const std::string& Namespace::fullName() const noexcept {
    return node_->fullName;
}
const std::string& Namespace::description() const noexcept {
    return node_->description;
}
const std::string& Namespace::detailedDescription() const noexcept {
    return node_->detailedDescription;
}

bool Namespace::isLoaded() const noexcept {
    const CallGate* gate = node_->gate();
    return !gate || gate->isOpen();
}

std::vector<Namespace> Namespace::namespaces() const {
    return handles<Namespace>(node_->contents().namespaces);
}

std::vector<Method> Namespace::methods() const {
    return handles<Method>(node_->contents().methods);
}

Namespace Namespace::findNamespace(std::string_view name) const {
    auto node = findByName(node_->contents().namespaces, name, &Node::name);
    if (node)
        return Namespace(std::move(node));
    throw NameNotFoundError("\"" + fullName() + "\" has no namespace \"" + std::string(name) +
                            "\"");
}

Method Namespace::findMethod(std::string_view name) const {
    const auto nameOf = [](const auto& node) -> const std::string& {
        return node->description.name;
    };
    auto node = findByName(node_->contents().methods, name, nameOf);
    if (node)
        return Method(std::move(node));
    throw NameNotFoundError("\"" + fullName() + "\" has no method \"" + std::string(name) + "\"");
}

}  // namespace zandor
