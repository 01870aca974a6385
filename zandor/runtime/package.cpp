#include "zandor/runtime/package.hpp"

#include <utility>

#include "zandor/runtime/registry.hpp"

namespace kobs {

COSPackage::Impl::~Impl() {
    while (!methods.empty())
        methods.pop_back();
    while (!namespaces.empty())
        namespaces.pop_back();
}

void COSPackage::Impl::refuse(const char* what) {
    zandor::setLastError(std::string("namespace \"") + owner_.getName() + "\" registered " + what);
}

void COSPackage::Impl::define(std::string_view name) {
    if (names_.emplace(name).second)
        return;
    owner_.throwErrorForDefinitionOfExistingName(name);
}

void COSPackage::Impl::add(std::unique_ptr<COSNamespaceInfo> child) {
    if (!child)
        return refuse("no namespace object");
    const char* name = child->getName();
    if (!name || !*name)
        return refuse("a namespace without a name");
    define(name);
    namespaces.push_back(std::move(child));
}

void COSPackage::Impl::add(MethodEntry method) {
    if (!method.info)
        return refuse("no method object");
    if (method.info->getName().empty())
        return refuse("a method without a name");
    if (!method.info->getMethodSignature())
        return refuse("a method without a signature");
    define(method.info->getName());
    methods.push_back(std::move(method));
}

void COSPackage::addNamespace(COSNamespaceInfo* root) noexcept {
    std::unique_ptr<COSNamespaceInfo> owned(root);
    try {
        zandor::publishRoot(std::move(owned));
    } catch (const std::exception& error) {
        zandor::setLastError(error.what());
    } catch (...) {
        zandor::setLastError("a root namespace could not be published");
    }
}

void COSPackage::addChildNamespace(COSNamespaceInfo* child) {
    impl_.add(std::unique_ptr<COSNamespaceInfo>(child));
}

void COSPackage::addMethod(COSMethodInfo* method, int minimumInputs, int flags) {
    impl_.add({std::unique_ptr<COSMethodInfo>(method), minimumInputs, flags});
}

}  // namespace kobs
