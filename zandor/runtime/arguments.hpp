// The cells of one call's arguments.
#pragma once

#include <cstddef>
#include <span>
#include <vector>

#include "zandor/runtime/nodes.hpp"

namespace zandor {

/// Checks the arguments against a method's signature and holds them as cells for the time of the
/// call. Arrays stay the Values' own; those made here from scalars live as long as this.
class ArgumentCells {
  public:
    /// Throws ArgumentError for the count or a kind, ArgumentRangeError for a number out of range.
    ArgumentCells(const Method::Node& method, std::span<const Value> arguments);
    ArgumentCells(const ArgumentCells&) = delete;
    ArgumentCells& operator=(const ArgumentCells&) = delete;

    const kobs::Cell* data() const noexcept { return cells_; }

  private:
    kobs::Cell arrayCell(const Value& argument);

    kobs::Cell few_[6];
    std::vector<kobs::Cell> many_;  ///< in place of few_ when that is too small
    kobs::Cell* cells_;
    std::vector<matrix::Array> made_;
};

}  // namespace zandor
