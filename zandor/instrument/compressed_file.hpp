// A file that is whole or not there; compressed where its name says so.
#pragma once

#include <filesystem>
#include <optional>
#include <string_view>

#include "file_sink.hpp"
#include "gzip_sink.hpp"

namespace instrument::detail {

class CompressedFile : public TextSink {
  public:
    explicit CompressedFile(const std::filesystem::path& file) : file_(file) {
        if (file.extension() == ".gz")
            gzip_ = std::make_unique<GzipSink>(file_);
    }

    void write(std::string_view text) override {
        if (gzip_)
            gzip_->write(text);
        else
            file_.write(text);
    }
    /// Ends what is written, so that nothing but its name is left to come.
    void close() {
        if (gzip_)
            gzip_->finish();
        gzip_.reset();
        file_.close();
    }
    /// After close, gives the file its name.
    void commit() { file_.commit(); }

  private:
    FileSink file_;
    std::unique_ptr<GzipSink> gzip_;
};

}  // namespace instrument::detail
