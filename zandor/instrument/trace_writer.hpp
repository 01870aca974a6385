// Writes a trace file block by block.
#pragma once

#include <cstdint>
#include <filesystem>
#include <span>
#include <string_view>
#include <vector>

#include "file_sink.hpp"
#include "outline_writer.hpp"
#include "recorder_storage.hpp"
#include "trace_format.hpp"
#include "zandor/instrument/export.hpp"

namespace instrument::detail {

/// The file takes its place at commit. Errors are std::system_error. Keeps one index entry a block.
class ZANDOR_INSTRUMENT_API TraceWriter {
    using Bytes = std::span<const std::byte>;

  public:
    explicit TraceWriter(const std::filesystem::path& file);

    /// Begins the next process: what follows is its.
    void beginProcess(const TraceProcess& process);
    void journal(std::span<const std::byte> entries);
    /// Whole records of event memory, whose one-word records count from `base` at first; in blocks
    /// of some two megabytes.
    void records(const TraceStretch& stretch, std::span<const Word> records,
                 std::uint64_t base = StreamState::noBase);
    void lost(std::span<const LostRange> ranges);
    /// A stream of samples of the process, if there are any.
    void lines(Bytes stream);
    /// A block of another trace file.
    void copy(TraceBlock kind, std::span<const std::byte> payload) { block(kind, payload); }
    void commit();

    std::uint32_t processes() const noexcept { return processes_; }

  private:
    std::span<const Word> adapt(RecordReader& reader);
    void block(TraceBlock kind, Bytes first, Bytes second = {});
    void endProcess();
    void put(Bytes bytes);

    FileSink sink_;
    std::uint64_t offset_ = 0;
    std::uint32_t processes_ = 0;
    std::vector<TraceIndexEntry> index_;
    std::vector<Word> adapted_;
    OutlineWriter outline_;  // of the present process
};

}  // namespace instrument::detail
