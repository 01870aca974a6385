// The `args` of a trace event.
#pragma once

#include <string_view>

#include "zandor/instrument/instrument.hpp"
#include "zandor/instrument/text_buffer.hpp"

namespace instrument::detail {

/// Appends the member `args` with what is added to it, or nothing when nothing is.
class ZANDOR_INSTRUMENT_API JsonArgs {
  public:
    explicit JsonArgs(TextBuffer& out) noexcept : out_(out) {}

    /// A member of our own: "unfinished", "src", "duration_ns" or "start_ns", or a counter's
    /// "value".
    void add(std::string_view name, const ContextValue& value);
    /// A member an entry. Names that are ours, or that only differ in ill-formed parts, get a
    /// number: "unfinished_2".
    void addContext(ContextArgs context);
    void close();

  private:
    void beginMember();

    TextBuffer& out_;
    bool isOpen_ = false;
};

}  // namespace instrument::detail
