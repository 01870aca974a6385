// Which events of each thread are its longest.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "zandor/instrument/export.hpp"

namespace instrument::detail {

/// Is first shown all events, and says afterwards which are among the longest so many of their
/// source; of equally long ones those that come first. Takes 8 bytes for each of these.
class ZANDOR_INSTRUMENT_API LongestEvents {
  public:
    /// Without sources it takes all.
    explicit LongestEvents(std::size_t sources = 0, std::size_t most = 0)
        : most_(most), bySource_(sources) {}

    /// Until it is settled it takes all, and learns.
    bool takes(std::uint32_t source, std::int64_t duration);
    void settle();
    /// The same events come again.
    void beginAgain();

  private:
    struct Source {
        std::vector<std::int64_t> durations;  ///< the longest: a heap with the least on top
        std::int64_t least = 0;               ///< of what is taken
        std::size_t leastCount = 0;           ///< how many of that duration are
        std::size_t leastLeft = 0;
    };
    void learn(Source& source, std::int64_t duration);

    std::size_t most_;
    std::vector<Source> bySource_;
    bool isSettled_ = false;
};

}  // namespace instrument::detail
