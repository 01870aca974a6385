// The text of source lines, for those who see a trace where the files are not.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace vantrace {

/// Files as they were when a line of them was first asked for. For one thread.
class SourceTexts {
  public:
    /// Without what indents it, and shortened; empty where the file cannot be read or has no such
    /// line. `number` counts from 1.
    std::string_view textOf(const std::string& file, std::size_t number);

  private:
    const std::vector<std::string>& linesOf(const std::string& file);

    std::unordered_map<std::string, std::vector<std::string>> files_;
    std::size_t bytes_ = 0;
};

}  // namespace vantrace
