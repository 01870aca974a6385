// Compresses on the way to another sink.
#pragma once

#include <zlib.h>

#include <array>
#include <cstddef>
#include <string_view>

#include "zandor/instrument/exports.hpp"

namespace instrument::detail {

/// One gzip stream, at the level that costs the least time. Throws std::bad_alloc.
class GzipSink : public TextSink {
  public:
    explicit GzipSink(TextSink& out);
    ~GzipSink() override;
    GzipSink(const GzipSink&) = delete;
    GzipSink& operator=(const GzipSink&) = delete;

    void write(std::string_view text) override;
    /// To be said after the last text.
    void finish();

  private:
    void deflateAll(int flush);

    TextSink& out_;
    z_stream stream_{};
    std::array<char, std::size_t{128} << 10> compressed_;
};

}  // namespace instrument::detail
