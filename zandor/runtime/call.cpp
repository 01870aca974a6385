// Calling a published method.
#include <bit>

#include "zandor/runtime/arguments.hpp"
#include "zandor/runtime/call_errors.hpp"
#include "zandor/runtime/nodes.hpp"

namespace zandor {

using kobs::Cell;
using kobs::factory::CellKind;

namespace {

/// The cell that takes a call's result. An array in it that nobody took is destroyed.
class ResultCell {
  public:
    explicit ResultCell(CellKind kind) noexcept : kind_(kind) {}
    ~ResultCell() {
        if (kind_ == CellKind::array && cell_)
            matrix::destroyArray(array());
    }
    ResultCell(const ResultCell&) = delete;
    ResultCell& operator=(const ResultCell&) = delete;

    Cell* data() noexcept { return &cell_; }
    Value take() noexcept {
        switch (kind_) {
            case CellKind::none:
                return Value();
            case CellKind::logical:
                return Value::logical(cell_ != 0);
            case CellKind::int32:
                return Value::integer(static_cast<std::int32_t>(cell_));
            case CellKind::uint64:
                return Value::unsignedInteger(cell_);
            case CellKind::real:
                return Value::real(std::bit_cast<double>(cell_));
            case CellKind::array:
                break;
        }
        if (!cell_)
            return Value();
        matrix::Array owned(array());
        cell_ = 0;
        return Value::array(std::move(owned));
    }

  private:
    hxArray* array() const noexcept { return std::bit_cast<hxArray*>(cell_); }

    const CellKind kind_;
    Cell cell_ = 0;
};

Value invoke(const Method::Node& method, std::size_t argumentCount, const Cell* arguments) {
    ResultCell result(method.output);
    std::int32_t resultCount = method.output == CellKind::none ? 0 : 1;
    try {
        method.info->invoke(nullptr, &resultCount, result.data(),
                            static_cast<std::int32_t>(argumentCount), arguments);
    } catch (...) {
        rethrowForCaller(method.description.fullName, method.plugin.get());
    }
    return result.take();
}

}  // namespace

Value Method::call(std::span<Value> arguments) const {
    const Node& method = *node_;
    const CallScope scope(method.gate());
    if (arguments.empty() && method.inputs.empty())
        return invoke(method, 0, nullptr);
    const ArgumentCells cells(method, arguments);
    return invoke(method, arguments.size(), cells.data());
}

}  // namespace zandor
