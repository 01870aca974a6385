// Context of events: name/value pairs that qualify them, and the identity of events.
#pragma once

#include <boost/container/flat_set.hpp>
#include <cstdint>
#include <string>
#include <string_view>

#include "zandor/instrument/control_element.hpp"
#include "zandor/instrument/event_id.hpp"
#include "zandor/instrument/export.hpp"

namespace instrument {

/// One name/value pair. The name is a view of characters that somebody else owns (and that a NUL
/// follows where the entry comes out of the library); the value is owned.
struct ContextEntry {
    std::string_view name;
    std::string value;
    bool operator==(const ContextEntry&) const = default;
};

/// Byte-wise by name; a prefix comes first.
struct ContextEntryLessByName {
    bool operator()(const ContextEntry& a, const ContextEntry& b) const noexcept {
        return a.name < b.name;
    }
};

/// "solve [n=3, tol=1e-6]"; the name alone when the context is empty.
ZANDOR_INSTRUMENT_API std::string combineEventNameWithContext(std::string name,
                                                              const ContextSet& context);

}  // namespace instrument
