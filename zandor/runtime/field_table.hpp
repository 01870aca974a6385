// The field names of struct arrays. Arrays of the same names share one table.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace matrix::detail {

/// Immutable, so any number of threads may share one.
class FieldTable {
  public:
    static constexpr std::size_t npos = static_cast<std::size_t>(-1);

    /// Copies the names and makes repeated ones unique.
    explicit FieldTable(std::span<const char* const> names);
    FieldTable(const FieldTable&) = delete;
    FieldTable& operator=(const FieldTable&) = delete;

    std::size_t size() const noexcept { return offsets_.size(); }
    const char* name(std::size_t field) const noexcept { return text_.data() + offsets_[field]; }

    /// The number of the field of that name, or npos. A pointer that name() gave is found without
    /// looking at the text.
    std::size_t find(const char* name) const noexcept;
    std::size_t find(std::string_view name) const noexcept;

    /// Whether this table's names are exactly `names`.
    bool matches(std::span<const char* const> names) const noexcept;

  private:
    using FieldNumber = std::uint32_t;
    void append(std::string_view name);

    std::string text_;  ///< each name behind its field number, NUL-terminated
    std::vector<std::size_t> offsets_;
    std::unordered_map<std::string_view, FieldNumber> byName_;  ///< only of tables with many fields
};

/// The table of these names: one that the calling thread used lately when there is one.
std::shared_ptr<const FieldTable> shareFieldTable(std::span<const char* const> names);

}  // namespace matrix::detail
