// The checksum of a trace file's block.
#pragma once

#include <zlib.h>

#include <cstddef>
#include <cstdint>
#include <span>

#include "trace_format.hpp"

namespace instrument::detail {

class TraceChecksum {
  public:
    explicit TraceChecksum(TraceBlockHead head) noexcept {
        head.checksum = 0;
        add(std::as_bytes(std::span(&head, 1)));
    }
    void add(std::span<const std::byte> bytes) noexcept {
        if (!bytes.empty())  // zlib takes null for a wish to begin anew
            value_ = crc32_z(value_, reinterpret_cast<const Bytef*>(bytes.data()), bytes.size());
    }
    std::uint32_t value() const noexcept { return static_cast<std::uint32_t>(value_); }

  private:
    uLong value_ = crc32_z(0, nullptr, 0);
};

}  // namespace instrument::detail
