// The checksum of a trace file's block.
#pragma once

#include <isa-l/crc.h>

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
        value_ = crc32_gzip_refl(value_, reinterpret_cast<const unsigned char*>(bytes.data()),
                                 bytes.size());
    }
    std::uint32_t value() const noexcept { return value_; }

  private:
    std::uint32_t value_ = 0;
};

}  // namespace instrument::detail
