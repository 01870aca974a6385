// Texts that a bound function gets as a pointer to characters.
#pragma once

#include "zandor/runtime/array.hpp"

namespace kobs::factory {

/// Texts as NUL-terminated UTF-8 in memory of the host array library's.
struct CharPtrPolicy {
    static char* make(const hxArray* array) { return matrix::hx::hxArrayToString_UTF8(array); }
    static void free(char* text) noexcept { matrix::hx::hxFreeEx(text); }
};

/// Conversions out of host arrays ("from M") by a policy, which makes and frees what they hold.
template <typename Policy>
struct Marshaler {
    template <typename T>
    class FromM {
      public:
        explicit FromM(const hxArray* array) : value_(Policy::make(array)) {}
        virtual ~FromM() { Policy::free(value_); }
        FromM(const FromM&) = delete;
        FromM& operator=(const FromM&) = delete;

        /// The text as long as the holder lives; null when the array yielded none.
        T get() const noexcept { return value_; }

      private:
        T value_;
    };
};

using CharHolder = Marshaler<CharPtrPolicy>::FromM<char*>;

}  // namespace kobs::factory
