// Text on its way to a sink, in pieces of fixed size.
#pragma once

#include <cstddef>
#include <cstring>
#include <memory>
#include <string_view>
#include <utility>

#include "zandor/instrument/exports.hpp"
#include "zandor/instrument/text_put.hpp"

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

    template <typename Number>
    void appendNumber(Number number) {
        char* const at = roomFor(longestNumber);
        writtenTo(putNumber(at, number));
    }

    /// A place to write up to so many bytes at, not above `longestRoom`; then `writtenTo` takes
    /// their end.
    char* roomFor(std::size_t bytes) {
        if (bytes > size - used_) [[unlikely]]
            flush();
        return bytes_.get() + used_;
    }
    void writtenTo(const char* end) noexcept {
        used_ = static_cast<std::size_t>(end - bytes_.get());
    }

    /// Hands on what is left. Nothing does so by itself.
    void flush() {
        if (used_ > 0)
            sink_.write({bytes_.get(), std::exchange(used_, 0)});
    }

    static constexpr std::size_t longestRoom = 4096;

  private:
    static constexpr std::size_t size = 64 * 1024;

    TextSink& sink_;
    std::size_t used_ = 0;
    std::unique_ptr<char[]> bytes_ = std::make_unique_for_overwrite<char[]>(size);
};

}  // namespace instrument::detail
