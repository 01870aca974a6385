// A trace in several files of bounded size.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "compressed_file.hpp"
#include "trace_event_json.hpp"

namespace instrument::detail {

/// Begins a new file where an item would make the present one larger than is allowed; each has the
/// head and is valid by itself. They take their places together at commit. Sizes are those before
/// compression.
class TraceParts : public TraceItemSink {
  public:
    TraceParts(std::filesystem::path file, std::uint64_t mostBytes)
        : file_(std::move(file)), mostBytes_(mostBytes) {}

    void write(std::string_view text) override { item_ += text; }
    void endHead() override;
    void endItem() override;
    /// Gives the files' names: "name.json", "name-2.json", ...
    std::vector<std::filesystem::path> commit();

  private:
    void beginPart();
    void endPart();

    const std::filesystem::path file_;
    const std::uint64_t mostBytes_;
    std::string head_;
    std::string item_;
    std::vector<std::unique_ptr<CompressedFile>> parts_;
    std::vector<std::filesystem::path> names_;
    std::uint64_t bytes_ = 0;  ///< of the present part
};

}  // namespace instrument::detail
