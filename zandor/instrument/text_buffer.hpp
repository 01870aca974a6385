// Text on its way to a sink, in pieces of fixed size.
#pragma once

#include <charconv>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string_view>
#include <utility>

#include "zandor/instrument/exports.hpp"

namespace instrument::detail {

class TextBuffer {
  public:
    explicit TextBuffer(TextSink& sink) : sink_(sink) {}
    TextBuffer(const TextBuffer&) = delete;
    TextBuffer& operator=(const TextBuffer&) = delete;

    void append(std::string_view text) {
        if (text.size() > size - used_) [[unlikely]] {
            flush();
            if (text.size() > size) {
                sink_.write(text);
                return;
            }
        }
        std::memcpy(bytes_.get() + used_, text.data(), text.size());
        used_ += text.size();
    }

    void append(char character) { append(std::string_view(&character, 1)); }

    /// Shortest decimal text.
    template <typename Number>
    requires std::integral<Number> || std::floating_point<Number>
    void appendNumber(Number number) {
        makeRoom(longestNumber);
        char* const begin = bytes_.get() + used_;
        used_ += std::to_chars(begin, begin + longestNumber, number).ptr - begin;
    }

    void appendHexadecimal(std::uint64_t number) {
        makeRoom(longestNumber);
        char* const begin = bytes_.get() + used_;
        used_ += std::to_chars(begin, begin + longestNumber, number, 16).ptr - begin;
    }

    /// Nanoseconds as microseconds with three decimals.
    void appendMicroseconds(std::int64_t nanoseconds) {
        std::uint64_t magnitude = static_cast<std::uint64_t>(nanoseconds);
        if (nanoseconds < 0) {
            append('-');
            magnitude = 0 - magnitude;
        }
        appendNumber(magnitude / 1000);
        const auto rest = static_cast<unsigned>(magnitude % 1000);
        const char decimals[] = {'.', static_cast<char>('0' + rest / 100),
                                 static_cast<char>('0' + rest / 10 % 10),
                                 static_cast<char>('0' + rest % 10)};
        append({decimals, sizeof decimals});
    }

    /// Hands on what is left. Nothing does so by itself.
    void flush() {
        if (used_ > 0)
            sink_.write({bytes_.get(), std::exchange(used_, 0)});
    }

  private:
    static constexpr std::size_t size = 64 * 1024;
    static constexpr std::size_t longestNumber = 32;

    void makeRoom(std::size_t wanted) {
        if (wanted > size - used_) [[unlikely]]
            flush();
    }

    TextSink& sink_;
    std::size_t used_ = 0;
    std::unique_ptr<char[]> bytes_ = std::make_unique_for_overwrite<char[]>(size);
};

}  // namespace instrument::detail
