// Reads the run file of another process, dead or alive, into a trace file.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <vector>

#include "chunk_backup.hpp"
#include "recorder_storage.hpp"
#include "trace_writer.hpp"

namespace instrument::detail {

/// Trusts nothing that it reads: whatever the file holds, it gives what whole records it finds.
class RunFileReader {
  public:
    /// Opens the file; empty for one that no recorder of this version has published.
    static std::optional<RunFileReader> open(const std::filesystem::path& file);
    ~RunFileReader();
    RunFileReader(RunFileReader&& other) noexcept;
    RunFileReader& operator=(RunFileReader&&) = delete;

    void copyTo(TraceWriter& writer);

  private:
    struct Part {
        std::uint64_t address;
        std::uint64_t offset;
        std::uint64_t bytes;
    };

    explicit RunFileReader(int descriptor) noexcept : descriptor_(descriptor) {}
    bool readHead();
    void findParts();
    bool readAt(std::uint64_t offset, void* out, std::size_t bytes) const noexcept;
    /// From where the process has it in memory.
    bool read(std::uint64_t address, void* out, std::size_t bytes) const noexcept;
    template <class Value>
    Value field(std::uint64_t address, std::size_t offset) const noexcept;

    TraceProcess process() const;
    void copyJournals(TraceWriter& writer) const;
    void copyLost(TraceWriter& writer) const;
    void copyTrack(TraceWriter& writer, std::uint64_t track, std::uint64_t number) const;
    void readBackup() noexcept;
    /// Where a chunk's records are now.
    struct Extent {
        StreamState first;
        std::uint64_t begin;
        std::uint64_t end;
        std::uint64_t next;  ///< the newer chunk; 0: none
    };
    Extent extentOf(std::uint64_t track, std::uint64_t chunk) const noexcept;
    std::uint64_t oldestOf(std::uint64_t track) const noexcept;
    std::uint64_t committedEnd(std::uint64_t track, std::uint64_t chunk,
                               std::uint64_t& next) const noexcept;
    std::vector<std::uint64_t> tracks() const;

    int descriptor_;
    std::uint64_t fileBytes_ = 0;
    TraceProcess head_;
    std::uint64_t generation_ = 0;
    ChunkBackup backup_{};
    std::uint64_t backedUpRecords_ = 0;  ///< where they are; 0: nothing was being rewritten
    std::vector<Part> events_;           ///< by address
    std::vector<Part> journals_;
};

}  // namespace instrument::detail
