// Global objects that are there before any constructor ran and after every destructor ran.
#pragma once

namespace zandor {

/// Constructed at compile time, never destroyed: exit handlers and threads may outlast static
/// objects.
template <typename T>
union Immortal {
    constexpr Immortal() noexcept : value{} {}
    constexpr ~Immortal() {}
    Immortal(const Immortal&) = delete;
    Immortal& operator=(const Immortal&) = delete;

    T value;
};

}  // namespace zandor
