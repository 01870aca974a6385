#include "recorder_memory.hpp"

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <fstream>
#include <limits>
#include <string>
#include <string_view>

namespace instrument::detail {
namespace {

namespace fs = std::filesystem;

constexpr std::uint64_t unlimited = std::numeric_limits<std::uint64_t>::max();

void* mapAnonymous(std::size_t bytes) noexcept {
    void* pages = mmap(nullptr, bytes, PROT_READ | PROT_WRITE,
                       MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    return pages == MAP_FAILED ? nullptr : pages;
}

/// Maps more than asked for and gives back what lies around the aligned part.
void* mapAligned(std::size_t bytes, std::size_t alignment) noexcept {
    auto* pages = static_cast<std::byte*>(mapAnonymous(bytes + alignment));
    if (!pages)
        return nullptr;
    const auto address = reinterpret_cast<std::uintptr_t>(pages);
    const std::size_t before = roundUp(address, alignment) - address;
    if (before > 0)
        munmap(pages, before);
    munmap(pages + before + bytes, alignment - before);
    return pages + before;
}

void* mapPages(std::size_t bytes) noexcept {
    const bool huge = bytes >= hugePageBytes;
    void* pages = huge ? mapAligned(bytes, hugePageBytes) : mapAnonymous(bytes);
    if (!pages)
        return nullptr;
    madvise(pages, bytes, MADV_DONTFORK);
    if (huge)
        madvise(pages, bytes, MADV_HUGEPAGE);
    return pages;
}

void unmapPages(void* pages, std::size_t bytes) noexcept {
    munmap(pages, bytes);
}

std::uint64_t readLimit(const fs::path& file) {
    std::ifstream stream(file);
    std::string text;
    stream >> text;
    std::uint64_t limit = unlimited;
    std::from_chars(text.data(), text.data() + text.size(), limit);  // "max" stays unlimited
    return limit;
}

/// The least limit of a group and those that it is in. In a container the path may be the
/// outside's.
std::uint64_t leastLimit(const fs::path& mount, std::string_view group, const char* file) {
    std::uint64_t least = readLimit(mount / file);
    for (fs::path path = fs::path(group).relative_path(); !path.empty(); path = path.parent_path())
        least = std::min(least, readLimit(mount / path / file));
    return least;
}

/// Whether a comma-separated list has `name`.
bool hasController(std::string_view list, std::string_view name) {
    while (!list.empty()) {
        const std::size_t comma = std::min(list.find(','), list.size());
        if (list.substr(0, comma) == name)
            return true;
        list.remove_prefix(std::min(comma + 1, list.size()));
    }
    return false;
}

}  // namespace

constinit PageSource pageSource{mapPages, unmapPages};

std::uint64_t groupMemoryLimit(const fs::path& processGroups, const fs::path& mount) {
    std::uint64_t least = unlimited;
    std::ifstream stream(processGroups);
    for (std::string line; std::getline(stream, line);) {  // hierarchy:controllers:path
        const std::size_t first = line.find(':');
        const std::size_t second = line.find(':', first + 1);
        if (first == std::string::npos || second == std::string::npos)
            continue;
        const auto controllers = std::string_view(line).substr(first + 1, second - first - 1);
        const auto group = std::string_view(line).substr(second + 1);
        if (controllers.empty()) {
            least = std::min(least, leastLimit(mount, group, "memory.max"));
            least = std::min(least, leastLimit(mount / "unified", group, "memory.max"));
        } else if (hasController(controllers, "memory")) {
            least = std::min(least, leastLimit(mount / "memory", group, "memory.limit_in_bytes"));
        }
    }
    return least;
}

std::size_t defaultMaxBytes() {
    const auto pages = static_cast<std::uint64_t>(sysconf(_SC_PHYS_PAGES));
    const auto physical = pages * static_cast<std::uint64_t>(sysconf(_SC_PAGESIZE));
    const auto limit = groupMemoryLimit("/proc/self/cgroup", "/sys/fs/cgroup");
    return static_cast<std::size_t>(std::min(physical, limit) / 4);
}

}  // namespace instrument::detail
