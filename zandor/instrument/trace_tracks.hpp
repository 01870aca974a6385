// Processes and threads of a trace.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
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
    /// Puts `"pid":1,"tid":1` of a source, in a place that has room for longestIds bytes.
    char* putIds(char* at, std::uint32_t source) const noexcept {
        const Ids& ids = ids_[source];
        // At a fixed size, which takes no call.
        std::memcpy(at, ids.text, longestIds);
        return at + ids.length;
    }
    static constexpr std::size_t longestIds = 44;

  private:
    struct Ids {
        std::uint32_t length;
        char text[longestIds];
    };
    static Ids makeIds(std::uint32_t process, std::uint32_t thread) noexcept;

    void appendProcess(TextBuffer& out, std::uint32_t firstSource) const;
    void appendThread(TextBuffer& out, std::uint32_t source) const;
    void appendHead(TextBuffer& out, std::string_view name, std::uint32_t source) const;
    void appendSortIndex(TextBuffer& out, std::string_view name, std::uint32_t source,
                         std::uint32_t sortIndex) const;

    const RecordingFacts& facts_;
    std::vector<std::uint32_t> processes_;  // by source
    std::vector<Ids> ids_;                  // the same
};

}  // namespace instrument::detail
