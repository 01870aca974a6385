// The factory's data types, by name.
#pragma once

#include <array>
#include <cstdint>
#include <string_view>

namespace kobs::factory {

/// How a value of a data type stands in a cell.
enum class CellKind : std::uint8_t { none, logical, int32, uint64, real, array };

struct DataType {
    std::string_view name;
    CellKind kind;
};

inline constexpr std::array<DataType, 9> dataTypes{{
    {"void", CellKind::none},
    {"logical scalar", CellKind::logical},
    {"int32 scalar", CellKind::int32},
    {"uint64 scalar", CellKind::uint64},
    {"double scalar", CellKind::real},
    {"char", CellKind::array},
    {"KobsFactoryString scalar", CellKind::array},
    {"KobsFactoryString vector", CellKind::array},
    {"any", CellKind::array},
}};

/// What the factory does not know is handed over as an array.
constexpr CellKind cellKindOf(std::string_view name) noexcept {
    for (const DataType& type : dataTypes) {
        if (type.name == name)
            return type.kind;
    }
    return CellKind::array;
}

}  // namespace kobs::factory
