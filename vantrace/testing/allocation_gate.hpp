// What the host's allocation operators for namespaces and methods are asked for.
#pragma once

#include <cstddef>
#include <vector>

#include "zandor/runtime/class_system.hpp"

namespace vantrace_testing {

/// While it lives, allocations are noted, and yield nothing unless they are allowed.
class WatchedAllocation {
  public:
    enum class Outcome { allowed, nothing };

    explicit WatchedAllocation(Outcome outcome) {
        allowed_ = outcome == Outcome::allowed;
        sizes_.clear();
        previous_ = kobs::internal::setAllocationGate([](std::size_t size) noexcept {
            sizes_.push_back(size);
            return allowed_;
        });
    }
    ~WatchedAllocation() { kobs::internal::setAllocationGate(previous_); }
    WatchedAllocation(const WatchedAllocation&) = delete;
    WatchedAllocation& operator=(const WatchedAllocation&) = delete;

    /// Sizes in the order of the allocations.
    const std::vector<std::size_t>& sizes() const { return sizes_; }

  private:
    static inline bool allowed_ = true;
    static inline std::vector<std::size_t> sizes_;
    kobs::internal::AllocationGate previous_;
};

}  // namespace vantrace_testing
