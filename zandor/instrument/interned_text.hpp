// Texts that stay for the life of the process: each distinct one once, with a dense number.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

#include "zandor/instrument/export.hpp"

namespace instrument::detail {

struct ThreadState;

/// The characters follow the head, and a NUL them.
struct InternedText {
    std::uint32_t id;
    std::uint32_t length;

    const char* text() const noexcept { return reinterpret_cast<const char*>(this + 1); }
    std::string_view view() const noexcept { return {text(), length}; }
    std::string_view key() const noexcept { return view(); }

    /// Without a call for the short texts that most names are.
    [[gnu::always_inline]] bool isSame(std::string_view other) const noexcept {
        const std::size_t size = other.size();
        if (size != length)
            return false;
        if (size > 16)
            return view() == other;
        // Two words that overlap where the text is shorter than both.
        if (size >= 8)
            return isSameWord<std::uint64_t>(other, 0) &&
                   isSameWord<std::uint64_t>(other, size - 8);
        if (size >= 4)
            return isSameWord<std::uint32_t>(other, 0) &&
                   isSameWord<std::uint32_t>(other, size - 4);
        return size == 0 || (text()[0] == other[0] && text()[size / 2] == other[size / 2] &&
                             text()[size - 1] == other[size - 1]);
    }
    /// The text whose characters a view from view() shows.
    static const InternedText& of(std::string_view view) noexcept {
        return reinterpret_cast<const InternedText*>(view.data())[-1];
    }
    /// The text of this id, which intern gave.
    ZANDOR_INSTRUMENT_API static const InternedText& fromId(std::uint32_t id) noexcept;

  private:
    template <class Word>
    bool isSameWord(std::string_view other, std::size_t at) const noexcept {
        Word own;
        Word others;
        std::memcpy(&own, text() + at, sizeof(Word));
        std::memcpy(&others, other.data() + at, sizeof(Word));
        return own == others;
    }
};

/// The one copy of a text; null when the system gives no memory. A known one is found without a
/// lock. Safe in signal handlers.
ZANDOR_INSTRUMENT_API const InternedText* intern(std::string_view text) noexcept;
/// Texts have the numbers below it.
std::uint32_t internedTextCount() noexcept;
/// The known copy, or null.
const InternedText* findInterned(std::string_view text) noexcept;

/// What a thread looked up lately. Found by address, verified by content: right for strings that
/// change and for those of unloaded libraries.
class TextCache {
  public:
    [[gnu::always_inline]] const InternedText* intern(std::string_view text) noexcept {
        Entry& entry = entries_[place(text)];
        if (entry.address == text.data() && entry.text && entry.text->isSame(text)) [[likely]]
            return entry.text;
        return lookUp(text, entry);
    }

  private:
    // A signal handler may come between the two stores of an entry: the check of the content covers
    // that, too.
    struct Entry {
        const char* address;
        const InternedText* text;
    };
    static constexpr unsigned placeBits = 8;
    static constexpr std::size_t entryCount = std::size_t{1} << placeBits;

    /// Literals stand side by side and strings at equal distances: the factor spreads both.
    static std::size_t place(std::string_view text) noexcept {
        return reinterpret_cast<std::uintptr_t>(text.data()) * 0x9e37'79b9'7f4a'7c15 >>
               (64 - placeBits);
    }
    [[gnu::noinline]] static const InternedText* lookUp(std::string_view text,
                                                        Entry& entry) noexcept;

    Entry entries_[entryCount];
};

/// Said once on the console when distinct texts or names pass this number.
inline constexpr std::uint32_t manyTexts = 1'000'000;
void sayManyTexts(const char* what, std::uint32_t count) noexcept;

}  // namespace instrument::detail
