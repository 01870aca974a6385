#include "zandor/runtime/field_table.hpp"

#include <array>
#include <cstring>
#include <stdexcept>
#include <unordered_set>

#include "zandor/runtime/per_thread.hpp"

namespace matrix::detail {

namespace {

/// From here on a hash lookup is faster than comparing one name after the other.
constexpr std::size_t manyFields = 9;

std::vector<std::string> makeUnique(std::span<const char* const> names) {
    std::unordered_set<std::string> given;
    for (const char* name : names) {
        if (!name)
            throw std::invalid_argument("a struct array's field name is missing");
        given.insert(name);
    }
    std::vector<std::string> result;
    std::unordered_set<std::string> used;
    for (const char* name : names) {
        std::string unique = name;
        if (!used.insert(unique).second) {
            int number = 2;
            do {
                unique = std::string(name) + "_" + std::to_string(number++);
            } while (given.contains(unique) || !used.insert(unique).second);
        }
        result.push_back(std::move(unique));
    }
    return result;
}

/// Records with contexts of a few kinds make one small struct each: a thread keeps the tables of
/// the kinds that it made last.
struct LatestTables {
    std::array<std::shared_ptr<const FieldTable>, 4> tables;
    std::size_t oldest = 0;
};

}  // namespace

FieldTable::FieldTable(std::span<const char* const> names) {
    const std::vector<std::string> unique = makeUnique(names);
    offsets_.reserve(unique.size());
    for (const std::string& each : unique)
        append(each);
    if (size() < manyFields)
        return;
    for (std::size_t field = 0; field < size(); ++field) {
        byName_.emplace(name(field), static_cast<FieldNumber>(field));
    }
}

void FieldTable::append(std::string_view name) {
    const auto number = static_cast<FieldNumber>(offsets_.size());
    text_.append(reinterpret_cast<const char*>(&number), sizeof number);
    offsets_.push_back(text_.size());
    text_.append(name).push_back('\0');
}

std::size_t FieldTable::find(const char* name) const noexcept {
    const auto offset =
        reinterpret_cast<std::uintptr_t>(name) - reinterpret_cast<std::uintptr_t>(text_.data());
    if (offset >= sizeof(FieldNumber) && offset < text_.size()) {
        // Inside our text, and if it is the beginning of a name then its number stands before it.
        FieldNumber number;
        std::memcpy(&number, name - sizeof number, sizeof number);
        if (number < size() && offsets_[number] == offset)
            return number;
    }
    return find(std::string_view(name));
}

std::size_t FieldTable::find(std::string_view name) const noexcept {
    if (size() >= manyFields) {
        const auto found = byName_.find(name);
        return found == byName_.end() ? npos : found->second;
    }
    for (std::size_t field = 0; field < size(); ++field) {
        if (name == this->name(field))
            return field;
    }
    return npos;
}

bool FieldTable::matches(std::span<const char* const> names) const noexcept {
    if (names.size() != size())
        return false;
    for (std::size_t field = 0; field < size(); ++field) {
        if (!names[field] || std::strcmp(names[field], name(field)) != 0)
            return false;
    }
    return true;
}

std::shared_ptr<const FieldTable> shareFieldTable(std::span<const char* const> names) {
    LatestTables* latest = zandor::PerThread<LatestTables>::get();
    if (!latest)
        return std::make_shared<const FieldTable>(names);
    for (const auto& table : latest->tables) {
        if (table && table->matches(names))
            return table;
    }
    auto table = std::make_shared<const FieldTable>(names);
    latest->tables[latest->oldest++ % latest->tables.size()] = table;
    return table;
}

}  // namespace matrix::detail
