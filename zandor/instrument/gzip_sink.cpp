#include "gzip_sink.hpp"

#include <algorithm>
#include <limits>

namespace instrument::detail {

GzipSink::GzipSink(TextSink& out) : out_(out) {
    isal_deflate_init(&stream_);
    stream_.level = 1;
    stream_.level_buf = memory_.data();
    stream_.level_buf_size = static_cast<std::uint32_t>(memory_.size());
    stream_.gzip_flag = IGZIP_GZIP;
}

void GzipSink::write(std::string_view text) {
    constexpr std::size_t most = std::numeric_limits<std::uint32_t>::max();
    while (!text.empty()) {
        const std::string_view piece = text.substr(0, most);
        // The input is only read.
        stream_.next_in = reinterpret_cast<std::uint8_t*>(const_cast<char*>(piece.data()));
        stream_.avail_in = static_cast<std::uint32_t>(piece.size());
        deflateAll();
        text.remove_prefix(piece.size());
    }
}

void GzipSink::finish() {
    stream_.end_of_stream = 1;
    deflateAll();
}

void GzipSink::deflateAll() {
    do {
        stream_.next_out = compressed_.data();
        stream_.avail_out = static_cast<std::uint32_t>(compressed_.size());
        isal_deflate(&stream_);
        out_.write({reinterpret_cast<const char*>(compressed_.data()),
                    compressed_.size() - stream_.avail_out});
    } while (stream_.avail_out == 0);
}

}  // namespace instrument::detail
