// Contexts in records: two interned texts a word, numbers as they were given.
//
//   text entry      key 32 | value 32                   ids of interned texts
//   number entry    key 32 | numberMark + kind 32, then the number's bits
#pragma once

#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "context_arena.hpp"
#include "interned_text.hpp"
#include "recorder_record.hpp"
#include "recording.hpp"
#include "zandor/instrument/context.hpp"
#include "zandor/instrument/instrument.hpp"

namespace instrument::detail {

/// A context as it is delivered: a set, or arguments.
struct NewContext {
    const ContextSet* set = nullptr;  ///< where there are no arguments
    ContextArgs args;
    bool argsAreInterned = false;
};

/// Words that the context takes.
std::size_t contextWords(const NewContext& context) noexcept;
/// Writes them to `out`. False when the system gives no memory for a text.
bool encodeContext(const NewContext& context, TextCache& texts, Word* out) noexcept;

/// What the numbers in records stand for.
class ZANDOR_INSTRUMENT_API RecordNames {
  public:
    virtual ~RecordNames();
    virtual std::string_view text(std::uint32_t number) const noexcept = 0;
    virtual const Opaque* instrument(std::uint32_t number) const noexcept = 0;
    /// Of records of this process.
    static const RecordNames& ofThisProcess() noexcept;
};

/// The arguments that words stand for, at `out`, which has room for as many as there are words;
/// gives their end.
ContextArg* decodeContext(std::span<const Word> words, const RecordNames& names,
                          ContextArg* out) noexcept;

/// A kept context as arguments, as long as that is there.
class KeptArgs {
  public:
    explicit KeptArgs(const KeptContext& kept) noexcept : KeptArgs(kept.few()) {
        if (kept.isMany())
            args_ = kept.many();
    }
    /// Of no more words than such a context has where its entries are few.
    explicit KeptArgs(std::span<const Word> words) noexcept
        : args_(few_.data(), decodeContext(words, RecordNames::ofThisProcess(), few_.data())) {}
    KeptArgs(const KeptArgs&) = delete;
    KeptArgs& operator=(const KeptArgs&) = delete;

    ContextArgs args() const noexcept { return args_; }

  private:
    std::array<ContextArg, KeptContext::fewWords> few_;
    ContextArgs args_;
};

/// Writes a context whose texts are interned, and gives its end.
Word* encodeInterned(ContextArgs args, Word* out) noexcept;
/// The same for texts as they were given. Null when the system gives no memory for one.
Word* encodeGiven(ContextArgs args, TextCache& texts, Word* out) noexcept;

/// Marks the first word of a number entry, together with the value's kind.
inline constexpr std::uint32_t numberMark = 0xffff'fff0;

// The two words of a number entry.

inline Word numberHead(const InternedText& name, const ContextValue& value) noexcept {
    return Word{name.id} << 32 | (numberMark + static_cast<std::uint32_t>(value.kind()));
}
inline Word bitsOf(const ContextValue& value) noexcept {
    return value.kind() == ContextValue::Kind::real ? std::bit_cast<Word>(value.real())
                                                    : value.unsignedInteger();
}

/// The same as a set. The names are distinct, and must outlive it.
ContextSet makeContextSet(ContextArgs args);

/// Contexts read back, each distinct one once. The entries' names are distinct and sorted; of equal
/// names the first counts. Texts stay as long as the names do.
class ContextTable {
  public:
    explicit ContextTable(const RecordNames& names = RecordNames::ofThisProcess());

    /// The place of a context; 0 is the empty one. `words` must be there as long as contexts are
    /// added.
    std::uint32_t placeOf(std::span<const Word> words) {
        return words.empty() ? 0 : placeOfWords(words);
    }
    std::size_t size() const noexcept { return contexts_.size(); }
    /// Where they are, they stay: also when the arena is taken.
    ContextArgs argsOf(std::uint32_t place) const noexcept { return contexts_[place].args; }
    ContextArena takeArgs() noexcept { return std::move(args_); }

  private:
    struct Context {
        std::span<const Word> words;
        std::uint64_t hash;
        ContextArgs args;
    };

    std::uint32_t placeOfWords(std::span<const Word> words);
    std::uint32_t add(std::span<const Word> words, std::uint64_t hash);
    ContextArgs decode(std::span<const Word> words);
    void grow();

    const RecordNames& names_;
    std::vector<Context> contexts_;
    std::vector<std::uint32_t> slots_;  // places, 0 is free; a power of two of them
    ContextArena args_;
};

}  // namespace instrument::detail
