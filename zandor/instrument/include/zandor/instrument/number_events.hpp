// For bindings of other languages: edges of the calling thread's events whose context is a few
// numbers, under names that were looked up once. The caller has looked at the flags and asked the
// rules; stops are told as those of other contexts (see decided_events.hpp).
#pragma once

#include <string_view>

#include "zandor/instrument/event_id.hpp"
#include "zandor/instrument/export.hpp"
#include "zandor/instrument/instrument.hpp"

namespace instrument {

/// The name as it is to be given below; it stays for the life of the process. Throws
/// std::bad_alloc.
ZANDOR_INSTRUMENT_API std::string_view lastingName(std::string_view name);

/// A context has from one to so many numbers here.
inline constexpr std::size_t mostNumbers = detail::KeptContext::fewEntries;

/// No value is a text, and each name is one that lastingName gave. Listeners' exceptions come out
/// of both.
ZANDOR_INSTRUMENT_API EventId startNumbers(const Opaque* handle, ContextArgs numbers);
ZANDOR_INSTRUMENT_API void instantNumbers(const Opaque* handle, ContextArgs numbers);

}  // namespace instrument
