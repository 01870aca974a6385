// Method descriptors of the factory.
#include "zandor/runtime/factory.hpp"

#include <utility>

namespace kobs::factory {

namespace {

constexpr std::uint32_t staticBit = 1;
constexpr std::uint32_t hiddenBit = 2;
constexpr std::uint32_t privateBit = 4;

}  // namespace

MethodAttributes::~MethodAttributes() = default;
MethodAttributes MethodAttributes::Static() noexcept {
    return MethodAttributes(staticBit);
}
MethodAttributes MethodAttributes::Hidden() noexcept {
    return MethodAttributes(hiddenBit);
}
MethodAttributes MethodAttributes::Private() noexcept {
    return MethodAttributes(privateBit);
}

KobsMethod::KobsMethod(std::string name, MethodAttributes attributes, std::string description)
    : attributes_(attributes), name_(std::move(name)), description_(std::move(description)) {}
KobsMethod::~KobsMethod() = default;

const std::string& KobsMethod::getName() const {
    return name_;
}
const std::string& KobsMethod::getDescription() const {
    return description_;
}
bool KobsMethod::isLookupScope() const {
    return false;
}
const std::string& KobsMethod::getDetailedDescription() const {
    return getDescription();
}
MemberAccess KobsMethod::getMemberAccess() const {
    return attributes_.bits() & privateBit ? MemberAccess::privateAccess
                                           : MemberAccess::publicAccess;
}
std::int32_t KobsMethod::getExtendedAccess() const {
    return 0;
}
COSMethodSignaturePtr KobsMethod::getMethodSignature() const {
    return signature_;
}
bool KobsMethod::isFirstArgDispatch() const {
    return attributes_.bits() & MethodAttributes::objectArgumentBit;
}
bool KobsMethod::isStatic() const {
    return attributes_.bits() & staticBit;
}
bool KobsMethod::isAbstract() const {
    return false;
}
bool KobsMethod::isSealed() const {
    return false;
}
bool KobsMethod::isVisible() const {
    return !(attributes_.bits() & hiddenBit);
}
bool KobsMethod::isDestructible() const {
    return true;
}
bool KobsMethod::isLocked() const {
    return false;
}
bool KobsMethod::isExplicit() const {
    return false;
}
bool KobsMethod::doesMethodOverrideAllSignatures() const {
    return false;
}

void KobsMethod::createSignatureImpl(COSMethodSignaturePtr& slot, bool objectArgument,
                                     const std::string& text,
                                     std::vector<internal::InternedString> outputs,
                                     std::vector<internal::InternedString> inputs) {
    slot = std::make_shared<const MethodSignature>(
        MethodSignature{objectArgument, text, std::move(outputs), std::move(inputs)});
}

}  // namespace kobs::factory
