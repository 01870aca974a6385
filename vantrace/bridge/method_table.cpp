#include "vantrace/bridge/method_table.hpp"

#include "vantrace/bridge/method_impl.hpp"

namespace vantrace {

namespace {

using kobs::factory::MethodAttributes;
using kobs::factory::impl::MethodImpl;

/// The shapes whose binding is given its output list by whoever makes it.
template <typename Result, typename... Parameters>
constexpr bool makerNamesOutput = sizeof...(Parameters) >= 2 &&
                                  (std::is_void_v<Result> ||
                                   std::is_same_v<Result, kobs::factory::hxArrayProxy>);

template <typename Result, typename... Parameters>
DataTypes outputsGivenFor(Result (*)(Parameters...)) {
    if constexpr (makerNamesOutput<Result, Parameters...>)
        return {kobs::internal::makeInterned(declaredTypeName<Result>())};
    else
        return {};
}

}  // namespace

kobs::COSMethodInfo* createMethod(const MethodRow& row, const MethodAttributes& attributes) {
    return std::visit(
        [&](auto* function) -> kobs::COSMethodInfo* {
            using Method = MethodImpl<std::remove_pointer_t<decltype(function)>>;
            return new Method(row.name, attributes, "", function, "", outputsGivenFor(function));
        },
        row.function);
}

}  // namespace vantrace
