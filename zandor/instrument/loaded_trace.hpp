// A trace file, read back as a recording.
#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <vector>

#include "recording.hpp"
#include "trace_names.hpp"
#include "trace_process.hpp"
#include "trace_reader.hpp"

namespace instrument::detail {

/// Throws as TraceReader does. What the file holds is not trusted; what of it cannot be read is
/// counted.
class ZANDOR_INSTRUMENT_API LoadedTrace {
  public:
    explicit LoadedTrace(const std::filesystem::path& file);

    /// Its texts live as long as this. Times are those of the first process's monotonic clock.
    Recording recording;
    std::uint32_t processes = 0;
    std::uint64_t damagedBlocks = 0;
    bool hasIndex = false;

  private:
    using Processes = std::vector<std::unique_ptr<LoadedProcess>>;
    void readProcesses(const TraceReader& reader, Processes& loaded);
    void readNames(const TraceReader& reader, const Processes& loaded);
    void readRecords(const TraceReader& reader, const Processes& loaded);
    void match(const Processes& loaded);

    TraceNames names_;
};

}  // namespace instrument::detail
