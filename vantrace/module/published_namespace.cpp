#include "vantrace/module/published_namespace.hpp"

namespace vantrace {

using kobs::factory::MethodAttributes;

namespace {

// The host's two numbers for each method.
constexpr int minimumInputs = 0;
constexpr int registrationFlags = 2;

MethodAttributes attributesFor(Audience audience) {
    MethodAttributes attributes;
    attributes |= MethodAttributes::Static();
    if (audience == Audience::insiders) {
        attributes |= MethodAttributes::Hidden();
        attributes |= MethodAttributes::Private();
    }
    return attributes;
}

}  // namespace

void populate(kobs::COSPackage& package, const NamespaceTable& table) {
    kobs::factory::detail::initStringDataTypes();
    const MethodAttributes attributes = attributesFor(table.audience);
    for (const NamespaceMaker makeChild : table.children)
        package.addChildNamespace(makeChild());
    if (!table.methods)
        return;
    for (const MethodRow& row : *table.methods)
        package.addMethod(createMethod(row, attributes), minimumInputs, registrationFlags);
}

}  // namespace vantrace
