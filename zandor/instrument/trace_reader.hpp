// Finds and checks the blocks of a trace file.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <span>
#include <vector>

#include "trace_format.hpp"
#include "zandor/instrument/export.hpp"

namespace instrument::detail {

/// Trusts nothing: every length is checked before anything is read by it, and a block whose
/// checksum is wrong is not given.
class ZANDOR_INSTRUMENT_API TraceReader {
  public:
    /// Throws std::system_error for a file that cannot be read, std::runtime_error for one that is
    /// no trace of a version known here.
    explicit TraceReader(const std::filesystem::path& file);
    ~TraceReader();
    TraceReader(const TraceReader&) = delete;
    TraceReader& operator=(const TraceReader&) = delete;

    /// As the index has them; without one as they are found from the front on.
    const std::vector<TraceIndexEntry>& blocks() const noexcept { return blocks_; }
    bool hasIndex() const noexcept { return hasIndex_; }
    std::uint64_t fileBytes() const noexcept { return fileBytes_; }

    /// A block's payload, in whole words; empty when the block is damaged.
    std::optional<std::vector<std::uint64_t>> payload(const TraceIndexEntry& entry) const;
    /// The same into `words`; false when the block is damaged.
    bool read(const TraceIndexEntry& entry, std::vector<std::uint64_t>& words) const;
    /// The first words of a block's payload, as many as there are; not checked.
    std::size_t beginning(const TraceIndexEntry& entry,
                          std::span<std::uint64_t> words) const noexcept;
    /// What a block of records begins with; not checked.
    std::optional<TraceStretch> stretch(const TraceIndexEntry& entry) const noexcept;

  private:
    bool readAt(std::uint64_t offset, void* out, std::size_t bytes) const noexcept;
    bool readHead(std::uint64_t offset, TraceBlockHead& head) const noexcept;
    bool readIndex();
    void findBlocks();

    int descriptor_ = -1;
    std::uint64_t fileBytes_ = 0;
    bool hasIndex_ = false;
    std::vector<TraceIndexEntry> blocks_;
};

}  // namespace instrument::detail
