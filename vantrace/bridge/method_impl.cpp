#include "vantrace/bridge/method_impl.hpp"

namespace vantrace {

using kobs::factory::MethodAttributes;

DataTypes internAll(std::span<const char* const> names) {
    DataTypes interned;
    interned.reserve(names.size());
    for (const char* name : names)
        interned.push_back(kobs::internal::makeInterned(name));
    return interned;
}

bool settleObjectArgument(MethodAttributes& attributes) {
    if ((attributes.bits() & MethodAttributes::objectArgumentBit) != 0)
        return true;
    attributes |= MethodAttributes::Static();
    return false;
}

}  // namespace vantrace
