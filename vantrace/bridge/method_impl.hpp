// The binding of a plain function as a published method.
//
//   cells -> ArgumentPack (last to first) -> function -> storeResult -> first result cell
//
// There is one instantiation for each shape of function; the function itself is a run-time
// pointer. What does not depend on the shape is compiled once, in method_impl.cpp.
#pragma once

#include <array>
#include <cstdint>
#include <span>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "vantrace/bridge/arguments.hpp"
#include "vantrace/bridge/data_types.hpp"
#include "vantrace/bridge/results.hpp"
#include "zandor/runtime/factory.hpp"

namespace vantrace {

using DataTypes = std::vector<kobs::internal::InternedString>;

DataTypes internAll(std::span<const char* const> names);

/// Whether the attributes are those of a method whose first argument is its object; any other is
/// static from here on.
bool settleObjectArgument(kobs::factory::MethodAttributes& attributes);

}  // namespace vantrace

namespace kobs::factory::impl {

template <typename Function>
class MethodImpl;

template <typename Result, typename... Parameters>
class MethodImpl<Result(Parameters...)> : public KobsMethod {
  public:
    using Function = Result(Parameters...);

    /// `outputs` names the result's data type where the caller has it already; none: it is
    /// made here.
    MethodImpl(std::string name, const MethodAttributes& attributes, std::string description,
               Function* function, const std::string& text, vantrace::DataTypes outputs = {})
        : KobsMethod(std::move(name), attributes, std::move(description)),
          function_(function),
          objectArgument_(vantrace::settleObjectArgument(attributes_)) {
        if (outputs.empty())
            outputs.push_back(internal::makeInterned(vantrace::declaredTypeName<Result>()));
        constexpr std::array<const char*, sizeof...(Parameters)> inputs{
            vantrace::declaredTypeName<Parameters>()...};
        createSignatureImpl(signature_, objectArgument_, text, std::move(outputs),
                            vantrace::internAll(inputs));
    }

    void invoke(void* /*host*/, std::int32_t* resultCount, Cell* results,
                std::int32_t /*argumentCount*/, const Cell* cells) override {
        const vantrace::ArgumentPack<Parameters...> arguments(cells);
        if (objectArgument_)
            arguments.validateObject();
        arguments.validate();
        if constexpr (std::is_void_v<Result>)
            arguments.call(function_);
        else
            vantrace::storeResult(arguments.call(function_), *resultCount, results);
    }

  private:
    Function* function_;
    bool objectArgument_;
};

}  // namespace kobs::factory::impl
