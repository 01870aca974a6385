// Processes and threads of a trace.
#pragma once

#include <cstdint>
#include <vector>

#include "zandor/instrument/recording.hpp"
#include "zandor/instrument/text_buffer.hpp"

namespace instrument::detail {

/// Gives each process and source of a recording its small number: viewers merge threads whose id is
/// large, and take 0 for something else.
class TraceTracks {
  public:
    explicit TraceTracks(const RecordingFacts& facts);

    /// The metadata events: names, order, and the system's own ids.
    void append(TextBuffer& out) const;
    /// Puts `"pid":1,"tid":1` of a source: up to longestIds bytes, the last of them to be written
    /// over.
    char* putIds(char* at, std::uint32_t source) const noexcept {
        at = putDecimal(put(at, "\"pid\":"), processes_[source]);
        return putDecimal(put(at, ",\"tid\":"), source + 1);
    }
    static constexpr std::size_t longestIds = 2 * (longestNumber + 8);

  private:
    void appendProcess(TextBuffer& out, std::uint32_t firstSource) const;
    void appendThread(TextBuffer& out, std::uint32_t source) const;
    void appendHead(TextBuffer& out, std::string_view name, std::uint32_t source) const;
    void appendSortIndex(TextBuffer& out, std::string_view name, std::uint32_t source,
                         std::uint32_t sortIndex) const;

    const RecordingFacts& facts_;
    std::vector<std::uint32_t> processes_;  // by source
};

}  // namespace instrument::detail
