// Conversion of many ticks to nanoseconds, which are mostly in order.
#pragma once

#include <cstdint>
#include <memory>

#include "zandor/instrument/export.hpp"

namespace instrument {

namespace detail {
class TickReader;
}

namespace clock {

/// Gives what toNanoseconds does, and remembers what the latest ticks were converted by. For one
/// thread at a time.
class ZANDOR_INSTRUMENT_API TickConversion {
  public:
    TickConversion();
    ~TickConversion();
    TickConversion(TickConversion&&) noexcept;
    TickConversion& operator=(TickConversion&&) noexcept;

    std::int64_t operator()(std::uint64_t ticks) const noexcept;

  private:
    std::unique_ptr<detail::TickReader> reader_;
};

}  // namespace clock
}  // namespace instrument
