// A context of literal texts, for events that happen often: what recordings have of its texts is
// looked up once, not at each event.
//
//   static constinit const instrument::LiteralContext direct{{"method", "lu"}, {"kind", "dense"}};
//   { instrument::Scope scope{solve, direct}; }
//   solve.instant(direct);
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <span>
#include <string_view>

#include "zandor/instrument/export.hpp"
#include "zandor/instrument/instrument.hpp"

namespace instrument {

struct LiteralEntry {
    std::string_view name;
    std::string_view value;
};

/// Outlives the events that it is given with. From any thread.
class LiteralContext {
  public:
    static constexpr std::size_t most = detail::KeptContext::fewEntries;

    /// Of one to `most` entries, names and values of which are known when the program is compiled.
    consteval LiteralContext(std::initializer_list<LiteralEntry> entries) : count_(entries.size()) {
        if (entries.size() == 0 || entries.size() > most)
            throw "a literal context has one to four entries";
        std::size_t place = 0;
        for (const LiteralEntry& entry : entries)
            args_[place++] = {entry.name, entry.value};
    }
    LiteralContext(const LiteralContext&) = delete;
    LiteralContext& operator=(const LiteralContext&) = delete;

    ContextArgs args() const noexcept { return {args_.data(), count_}; }

    /// Writes what records have of it to `out`, which has room for `most`, and gives how many words
    /// these are; 0 when the system gives no memory for a text. `texts` are the calling thread's.
    std::size_t words(std::uint64_t* out, detail::TextCache& texts) const noexcept {
        // Pairs with the release in find: with it come the words.
        if (!isKnown_.load(std::memory_order_acquire)) [[unlikely]]
            return find(out, texts);
        for (std::size_t i = 0; i < count_; ++i)
            out[i] = words_[i].load(std::memory_order_relaxed);
        return count_;
    }

  private:
    std::size_t find(std::uint64_t* out, detail::TextCache& texts) const noexcept;

    std::size_t count_;
    /// Threads that find the words at the same time store the same ones.
    mutable std::atomic<bool> isKnown_{false};
    mutable std::array<std::atomic<std::uint64_t>, most> words_{};
    std::array<ContextArg, most> args_{};
};

}  // namespace instrument
