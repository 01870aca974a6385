// The bases of what plug-ins publish: their allocation and their default answers.
#include "zandor/runtime/class_system.hpp"

#include <atomic>
#include <cstdlib>

namespace kobs {

namespace {

// Installing releases what the gate reads; each allocation acquires it.
constinit std::atomic<internal::AllocationGate> allocationGate{nullptr};

void* allocate(std::size_t size) noexcept {
    const internal::AllocationGate gate = allocationGate.load(std::memory_order_acquire);
    return gate && !gate(size) ? nullptr : std::malloc(size);
}

}  // namespace

internal::AllocationGate internal::setAllocationGate(AllocationGate gate) noexcept {
    return allocationGate.exchange(gate, std::memory_order_acq_rel);
}

void* COSNamespaceInfo::operator new(std::size_t size) noexcept {
    return allocate(size);
}
void COSNamespaceInfo::operator delete(void* object) noexcept {
    std::free(object);
}

COSNamespaceInfo::COSNamespaceInfo() noexcept = default;
COSNamespaceInfo::~COSNamespaceInfo() = default;
bool COSNamespaceInfo::attemptToLoadInnerNamespace(COSPackage&, std::string_view) {
    return false;
}
bool COSNamespaceInfo::attemptToLoadSubPackage(COSPackage&, std::string_view) {
    return false;
}
void COSNamespaceInfo::throwErrorForDefinitionOfExistingName(std::string_view name) {
    throw NameExistsError("\"" + std::string(name) + "\" exists already in namespace \"" +
                          getName() + "\"");
}
bool COSNamespaceInfo::attemptToLoadClass(COSPackage&, std::string_view) {
    return false;
}
bool COSNamespaceInfo::attemptToLoadFunction(COSPackage&, std::string_view) {
    return false;
}
bool COSNamespaceInfo::attemptToLoadType(COSPackage&, std::string_view) {
    return false;
}
const COSMethodInfo* COSNamespaceInfo::getMethodSelector() const {
    return nullptr;
}
void COSNamespaceInfo::initializePackage(COSPackage& package) {
    populatePackage(package);
}
bool COSNamespaceInfo::isDestructible() const {
    return true;
}
bool COSNamespaceInfo::isLocked() const {
    return false;
}
bool COSNamespaceInfo::canLoadDynamicContent() const {
    return false;
}

void* COSMethodInfo::operator new(std::size_t size) noexcept {
    return allocate(size);
}
void COSMethodInfo::operator delete(void* object) noexcept {
    std::free(object);
}

COSMethodInfo::COSMethodInfo() noexcept = default;
COSMethodInfo::~COSMethodInfo() = default;
bool COSMethodInfo::isLookupScope() const {
    return false;
}
MemberAccess COSMethodInfo::getMemberAccess() const {
    return MemberAccess::publicAccess;
}
std::int32_t COSMethodInfo::getExtendedAccess() const {
    return 0;
}
bool COSMethodInfo::isFirstArgDispatch() const {
    return false;
}
bool COSMethodInfo::isStatic() const {
    return false;
}
bool COSMethodInfo::isAbstract() const {
    return false;
}
bool COSMethodInfo::isSealed() const {
    return false;
}
bool COSMethodInfo::isVisible() const {
    return true;
}
bool COSMethodInfo::isDestructible() const {
    return true;
}
bool COSMethodInfo::isLocked() const {
    return false;
}
bool COSMethodInfo::isExplicit() const {
    return false;
}
bool COSMethodInfo::doesMethodOverrideAllSignatures() const {
    return false;
}

}  // namespace kobs
