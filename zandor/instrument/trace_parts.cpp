#include "trace_parts.hpp"

#include <utility>

namespace instrument::detail {
namespace {

/// "name-2.json.gz" of "name.json.gz"; the name itself for 1.
std::filesystem::path numbered(const std::filesystem::path& file, std::size_t number) {
    if (number == 1)
        return file;
    const std::string name = file.filename();
    const std::size_t dot = std::min(name.find('.', 1), name.size());
    return file.parent_path() /
           (name.substr(0, dot) + "-" + std::to_string(number) + name.substr(dot));
}

}  // namespace

void TraceParts::endHead() {
    head_ = std::exchange(item_, {});
    beginPart();
}

void TraceParts::endItem() {
    const bool fits = bytes_ + item_.size() + traceEventJsonEnd.size() <= mostBytes_;
    if (!fits && bytes_ > head_.size()) {
        endPart();
        beginPart();
    }
    parts_.back()->write(item_);
    bytes_ += item_.size();
    item_.clear();
}

void TraceParts::beginPart() {
    names_.push_back(numbered(file_, names_.size() + 1));
    parts_.push_back(std::make_unique<CompressedFile>(names_.back()));
    parts_.back()->write(head_);
    bytes_ = head_.size();
}

void TraceParts::endPart() {
    parts_.back()->write(traceEventJsonEnd);
    parts_.back()->close();
}

std::vector<std::filesystem::path> TraceParts::commit() {
    endPart();
    for (const auto& part : parts_)
        part->commit();
    return std::move(names_);
}

}  // namespace instrument::detail
