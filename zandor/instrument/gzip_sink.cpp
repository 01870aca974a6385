#include "gzip_sink.hpp"

#include <algorithm>
#include <limits>
#include <new>

namespace instrument::detail {

GzipSink::GzipSink(TextSink& out) : out_(out) {
    constexpr int gzipWithLargestWindow = 15 + 16;
    constexpr int mostMemory = 9;
    if (deflateInit2(&stream_, Z_BEST_SPEED, Z_DEFLATED, gzipWithLargestWindow, mostMemory,
                     Z_DEFAULT_STRATEGY) != Z_OK)
        throw std::bad_alloc();
}

GzipSink::~GzipSink() {
    deflateEnd(&stream_);
}

void GzipSink::write(std::string_view text) {
    constexpr std::size_t most = std::numeric_limits<uInt>::max();
    while (!text.empty()) {
        const std::string_view piece = text.substr(0, most);
        // zlib does not write to its input.
        stream_.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(piece.data()));
        stream_.avail_in = static_cast<uInt>(piece.size());
        deflateAll(Z_NO_FLUSH);
        text.remove_prefix(piece.size());
    }
}

void GzipSink::finish() {
    deflateAll(Z_FINISH);
}

void GzipSink::deflateAll(int flush) {
    do {
        stream_.next_out = reinterpret_cast<Bytef*>(compressed_.data());
        stream_.avail_out = static_cast<uInt>(compressed_.size());
        deflate(&stream_, flush);
        out_.write({compressed_.data(), compressed_.size() - stream_.avail_out});
    } while (stream_.avail_out == 0);
}

}  // namespace instrument::detail
