#include "source_texts.hpp"

#include <algorithm>
#include <filesystem>
#include <fstream>

namespace vantrace {

namespace {

constexpr std::size_t longestText = 160;
// Together; further files have no text.
constexpr std::size_t mostBytes = 64 << 20;

std::string shortened(std::string line) {
    line.erase(0, std::min(line.find_first_not_of(" \t\f"), line.size()));
    line.erase(line.find_last_not_of(" \t\r\f\v") + 1);
    if (line.size() <= longestText)
        return line;
    std::size_t end = longestText;
    while (end > 0 && (static_cast<unsigned char>(line[end]) & 0xc0) == 0x80)
        --end;
    return line.erase(end);
}

}  // namespace

std::string_view SourceTexts::textOf(const std::string& file, std::size_t number) {
    const std::vector<std::string>& lines = linesOf(file);
    return number >= 1 && number <= lines.size() ? std::string_view(lines[number - 1])
                                                 : std::string_view();
}

const std::vector<std::string>& SourceTexts::linesOf(const std::string& file) {
    const auto [known, isNew] = files_.try_emplace(file);
    std::error_code error;
    // Not of a pipe, which would have the program wait for what we took of it.
    if (!isNew || !std::filesystem::is_regular_file(file, error))
        return known->second;
    const auto size = std::filesystem::file_size(file, error);
    if (error || size > mostBytes - bytes_)
        return known->second;
    bytes_ += size;
    std::ifstream stream(file);
    for (std::string line; std::getline(stream, line);)
        known->second.push_back(shortened(std::move(line)));
    return known->second;
}

}  // namespace vantrace
