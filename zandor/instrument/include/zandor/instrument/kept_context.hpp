// For those who write listeners: contexts kept beyond the event, in words that compare.
//
// Two contexts that were given alike have equal words; contexts that read the same may differ in
// words, and are equal as sets. The texts stay for the life of the process.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>
#include <vector>

#include "zandor/instrument/context.hpp"
#include "zandor/instrument/event_context.hpp"
#include "zandor/instrument/export.hpp"

namespace instrument {

using ContextWords = std::span<const std::uint64_t>;

/// How many words the context takes. Inside callbacks.
ZANDOR_INSTRUMENT_API std::size_t keptContextWords(const EventContext& context) noexcept;
/// Writes them. False when the system gives no memory for a text. Inside callbacks; takes no lock
/// that a signal handler could meet.
ZANDOR_INSTRUMENT_API bool keepContext(const EventContext& context, std::uint64_t* words) noexcept;

/// The context as a set, whose names end with a NUL and stay.
ZANDOR_INSTRUMENT_API ContextSet readContext(ContextWords words);

/// The text where it stays for the life of the process; as given where there is no memory for that.
ZANDOR_INSTRUMENT_API std::string_view lastingText(std::string_view text) noexcept;
/// The entries as a set, whose names stay.
ZANDOR_INSTRUMENT_API ContextSet lastingSet(const std::vector<ContextEntry>& entries);

/// What grouped results are ordered by: name, then context, entry by entry.
struct NamedContext {
    std::string_view name;
    ContextSet context;
    ZANDOR_INSTRUMENT_API bool operator<(const NamedContext& other) const;
};

}  // namespace instrument
