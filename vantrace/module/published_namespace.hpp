// Namespaces that are published from tables.
#pragma once

#include <span>

#include "vantrace/bridge/method_table.hpp"
#include "zandor/runtime/class_system.hpp"

namespace vantrace {

/// Who may see the methods of a namespace.
enum class Audience {
    everyone,
    insiders,  ///< not listed, and reached only by those who know the way
};

/// Makes a namespace object for the host, or null when its allocation operator yields nothing.
using NamespaceMaker = kobs::COSNamespaceInfo* (*)();

template <typename Namespace>
kobs::COSNamespaceInfo* makeNamespace() {
    return new Namespace;
}

/// All that a namespace is, but its class.
struct NamespaceTable {
    const char* name;
    const char* description;
    std::span<const NamespaceMaker> children;
    const MethodTable* methods;  ///< null: none
    Audience audience = Audience::everyone;
};

/// Registers the children, then the methods, each in the order of its table.
void populate(kobs::COSPackage& package, const NamespaceTable& table);

/// What the classes of namespaces have in common: an object is only its type.
template <const NamespaceTable& table>
class PublishedNamespace : public kobs::COSNamespaceInfo {
  public:
    const char* getName() const override { return table.name; }
    const char* getDescription() const override { return table.description; }
    const char* getDetailedDescription() const override { return getDescription(); }
    void populatePackage(kobs::COSPackage& package) override { populate(package, table); }
};

}  // namespace vantrace
