// Code objects as a thread sees them that has neither the interpreter's lock nor a share in them:
// each may be freed at any instant, and another one stand where it stood.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <unordered_map>
#include <vector>

#include "../frames/frame.hpp"
#include "../frames/selection.hpp"

namespace vantrace {

/// What is known of a code object.
struct KnownCode {
    std::string file;
    std::string function;
    bool isSkipped = false;  ///< its time is its callers'
    int firstLine = 0;
    std::vector<std::byte> lineTable;

    int lineAt(std::size_t offset) const noexcept;
};

/// Where a frame is.
struct Place {
    const KnownCode* code = nullptr;  ///< null: what was read makes no sense
    std::size_t offset = 0;           ///< of the instruction, in bytes
    std::uint64_t number = 0;         ///< of the code, never used again
};

/// For one thread.
class CodeTable {
  public:
    explicit CodeTable(Selection selection) : selection_(std::move(selection)) {}

    /// What it gives holds until the next call.
    Place placeOf(const Frame& copy);

  private:
    // What tells a code object from another one that stands in its place.
    struct Marks {
        const void* file;
        const void* function;
        const void* lineTable;
        int firstLine;
        Py_ssize_t size;
        bool operator==(const Marks&) const = default;
    };
    struct Entry {
        Marks marks;
        std::uint64_t number;
        KnownCode code;
    };

    const Entry* entryOf(const PyCodeObject* address, const PyCodeObject& copy);
    bool learn(const PyCodeObject& copy, KnownCode& code) const;

    Selection selection_;
    std::unordered_map<const PyCodeObject*, Entry> entries_;
    std::uint64_t next_ = 0;
};

}  // namespace vantrace
