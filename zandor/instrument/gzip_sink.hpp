// Compresses on the way to another sink.
#pragma once

#include <isa-l/igzip_lib.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "zandor/instrument/exports.hpp"

namespace instrument::detail {

/// One gzip stream with one member: browsers read no more than the first. At the level that costs
/// little time.
class GzipSink : public TextSink {
  public:
    explicit GzipSink(TextSink& out);
    GzipSink(const GzipSink&) = delete;
    GzipSink& operator=(const GzipSink&) = delete;

    void write(std::string_view text) override;
    /// To be said after the last text.
    void finish();

  private:
    void deflateAll();

    TextSink& out_;
    isal_zstream stream_;
    std::array<std::uint8_t, ISAL_DEF_LVL1_DEFAULT> memory_;
    std::array<std::uint8_t, std::size_t{128} << 10> compressed_;
};

}  // namespace instrument::detail
