// The sources that a snapshot's events come from.
#pragma once

#include <algorithm>
#include <cstdint>
#include <numeric>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "interned_text.hpp"
#include "recording.hpp"
#include "source_info.hpp"

namespace instrument::detail {

/// "process/thread" of another process that has a name, else the thread's name. Stays for the life
/// of the process.
inline std::string_view labelOf(const RecordedSource& source) {
    const std::string_view process = source.processName.value_or("");
    if (process.empty())
        return source.name;
    const InternedText* label = intern(std::string(process).append("/").append(source.name));
    return label ? label->view() : source.name;
}

/// Numbers sources as they appear.
class SourceList {
  public:
    std::uint32_t placeOf(SourceInfo* source) {
        if (source != latest_) {
            const auto next = static_cast<std::uint32_t>(sources_.size());
            const auto [known, isNew] = places_.try_emplace(source, next);
            if (isNew)
                sources_.emplace_back(source);
            latest_ = source;
            latestPlace_ = known->second;
        }
        return latestPlace_;
    }

    /// The place of one that appeared.
    std::optional<std::uint32_t> find(SourceInfo* source) const {
        const auto known = places_.find(source);
        return known == places_.end() ? std::nullopt : std::optional(known->second);
    }

    /// The sources by id, and for each place that was given the new one.
    std::pair<std::vector<RecordedSource>, std::vector<std::uint32_t>> sorted() const {
        std::vector<std::uint32_t> byId(sources_.size());
        std::iota(byId.begin(), byId.end(), 0u);
        std::ranges::stable_sort(byId, {},
                                 [&](std::uint32_t place) { return sources_[place]->id; });
        std::vector<RecordedSource> sources;
        std::vector<std::uint32_t> newPlaces(byId.size());
        for (const std::uint32_t place : byId) {
            newPlaces[place] = static_cast<std::uint32_t>(sources.size());
            SourceInfo& source = *sources_[place];
            std::optional<std::string_view> process;
            if (source.processName)
                process = source.processName->view();
            sources.push_back(
                {source.id, source.name(), process, source.processId, source.threadId});
        }
        return {std::move(sources), std::move(newPlaces)};
    }

  private:
    std::vector<SourcePtr> sources_;
    std::unordered_map<SourceInfo*, std::uint32_t> places_;
    SourceInfo* latest_ = nullptr;
    std::uint32_t latestPlace_ = 0;
};

}  // namespace instrument::detail
