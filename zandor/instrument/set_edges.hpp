// Edges that come with a context set, by the calling thread's lane where its entries are few.
#pragma once

#include <algorithm>

#include "short_delivery.hpp"
#include "zandor/instrument/context.hpp"

namespace instrument::detail {

/// The words of a set of few entries.
class SetWords {
  public:
    SetWords(const ContextSet& context, TextCache& texts) noexcept : count_(context.size()) {
        NewContext given;
        given.set = &context;
        areAll_ = isFew(context) && encodeContext(given, texts, words_);
    }
    SetWords(const SetWords&) = delete;
    SetWords& operator=(const SetWords&) = delete;

    static bool isFew(const ContextSet& context) noexcept {
        return context.size() <= KeptContext::fewEntries;
    }
    /// Whether the system gave memory for all texts.
    explicit operator bool() const noexcept { return areAll_; }
    std::span<const Word> words() const noexcept { return {words_, count_}; }

  private:
    Word words_[KeptContext::fewWords];
    std::size_t count_;
    bool areAll_;
};

/// For the stop: the start with these words of context is the track's latest record.
inline void noteStart(Track& track, std::uint64_t serial, std::span<const Word> words) noexcept {
    const Word* const end = track.tail.load(std::memory_order_relaxed);  // this thread's own
    track.recent[serial % track.recent.size()] = {serial,
                                                  end - words.size() - wordsOf(RecordKind::start)};
}

/// Whether a start of late had these words.
inline bool hadWords(const Track& track, std::uint64_t serial,
                     std::span<const Word> words) noexcept {
    const RecentStart& start = track.recent[serial % track.recent.size()];
    return start.record && start.serial == serial &&
           RecordHead(*start.record).context() == words.size() &&
           std::equal(words.begin(), words.end(), start.record + wordsOf(RecordKind::start));
}

/// A start or an instant. An identity of all zeros where it has to go the general way.
template <RecordKind kind>
EventId beginByLane(const Opaque* handle, const ContextSet& context) noexcept {
    const InsideLane lane;
    if (!lane) [[unlikely]]
        return {};
    const SetWords given(context, lane.state().texts);
    if (!given || !lane.begin<kind>(handle, given.words())) [[unlikely]]
        return {};
    const EventId id = latestId(lane.state());
    if (kind == RecordKind::start && lane.state().lane.track && !context.empty())
        noteStart(*lane.state().lane.track, id.serialId, given.words());
    return id;
}

/// Whether the recorder, if there is one, has the event's start with these words.
inline bool isOfStart(const Track* track, std::span<const Word> words, EventId id) noexcept {
    return !track || words.empty() ||
           (track->stream.source == id.sourceId && hadWords(*track, id.serialId, words));
}

/// False where it has to go the general way.
inline bool stopByLane(const Opaque* handle, const ContextSet& context, EventId id) noexcept {
    const InsideLane lane;
    if (!lane) [[unlikely]]
        return false;
    const SetWords given(context, lane.state().texts);
    return given && isOfStart(lane.state().lane.track, given.words(), id) &&
           lane.stop(handle, {given.words(), {}}, id);
}

}  // namespace instrument::detail
