#include "zandor/instrument/trace_view.hpp"

#include <algorithm>
#include <atomic>
#include <optional>
#include <utility>
#include <vector>

#include "lod_flame.hpp"
#include "lod_json.hpp"
#include "lod_outline.hpp"
#include "lod_turns.hpp"
#include "lod_window.hpp"

namespace instrument {

using namespace detail;

namespace {

// What an answer may hold, and what may be read for one.
constexpr std::size_t mostSlices = 30'000;
constexpr std::size_t mostThreads = 10'000;
constexpr std::size_t mostActiveThreads = 200;
constexpr std::size_t mostActiveTimes = 2'000;
constexpr std::uint64_t mostBytesAtOnce = 40 << 20;
constexpr std::uint32_t flameParts = 256;
constexpr TreeLimits flameLimits{.threads = 100, .nodes = 4'000, .cells = 20'000};

constexpr const char* phaseNames[] = {"first", "ordered", "whole"};

struct Stopped {};

char lower(char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

bool hasText(std::string_view name, std::string_view text) {
    const auto same = [](char a, char b) { return lower(a) == lower(b); };
    return std::search(name.begin(), name.end(), text.begin(), text.end(), same) != name.end() ||
           text.empty();
}

}  // namespace

class TraceView::Parts {
  public:
    explicit Parts(const std::filesystem::path& file)
        : blocks_(file, [this](std::uint64_t bytes) { tell(bytes); }) {
        for (const auto& process : blocks_.blocks().processes())
            if (const std::int64_t begin = process->begin(); begin != 0)
                origin_ = origin_ == 0 ? begin : std::min(origin_, begin);
        activity_ = blocks_.activity();
        for (const LodActivity& track : activity_)
            for (const std::int64_t begin : track.begins)
                lastTime_ = std::max<std::int64_t>(lastTime_, begin);
        outline_.emplace(blocks_.blocks());
        lastTime_ = std::max<std::int64_t>(lastTime_, outline_->end());
        outlineEnd_ = outline_->isEmpty() ? origin_ : lastTime_.load();
    }

    void read() {
        try {
            blocks_.survey();
            beginAgain();
            while (readPiece()) {
            }
        } catch (const Stopped&) {
        }
    }
    void stop() noexcept { isStopped_ = true; }

    std::string state();
    std::string activity() const;
    std::string threads();
    std::string window(std::int64_t begin, std::int64_t end, std::uint32_t pixels,
                       LodSources threads);
    std::string flame(std::int64_t begin, std::int64_t end);
    std::string find(std::string_view text, const Place& from, bool isForward);
    std::string details(const Place& place);

  private:
    enum class Phase : std::uint8_t { first, ordered, whole };

    void beginAgain();
    bool readPiece();
    int percent() const;
    void tell(std::uint64_t bytes);
    void appendThreads(LodJson& out) const;
    void appendOutlineThreads(LodJson& out) const;
    std::vector<LodRowSlices> rowsWithin(std::int64_t begin, std::int64_t end, std::uint32_t pixels,
                                         LodSources threads, bool& isExact);
    std::vector<bool> namesWith(std::string_view text) const;
    LodEvent eventAt(const Place& place) const {
        const std::int64_t start = saturatingAdd(origin_, place.start);
        return {start, saturatingAdd(start, place.duration), place.serial, 0, place.thread, 0};
    }

    LodBlocks blocks_;
    std::vector<LodActivity> activity_;
    std::int64_t origin_ = 0;
    std::int64_t outlineEnd_ = 0;
    std::atomic<std::int64_t> lastTime_ = 0;
    std::atomic<std::uint64_t> bytesRead_ = 0;
    std::atomic<bool> isStopped_ = false;
    std::atomic<Phase> phase_ = Phase::first;

    // For whoever's turn it is.
    LodTurns turns_;
    std::optional<LodOutline> outline_;  // until all is read
    // From the second phase on.
    std::optional<LodWindow> window_;
    std::optional<LodPyramid> pyramid_;
    std::optional<LodFlame> flame_;
    std::vector<std::uint64_t> counts_;  // of events by name
    std::uint64_t events_ = 0;
    std::atomic<std::int64_t> until_ = 0;  // up to where the pyramid goes
};

void TraceView::Parts::tell(std::uint64_t bytes) {
    if (isStopped_)
        throw Stopped();
    bytesRead_ += bytes;
}

void TraceView::Parts::beginAgain() {
    const auto turn = turns_.work();
    std::vector<std::optional<std::uint32_t>> numbers;
    for (SourceInfo* const thread : outline_->threads())
        numbers.push_back(blocks_.numberOf(thread));
    outline_->renumber(numbers);
    const RecordingFacts& facts = blocks_.facts();
    lastTime_ = facts.lastTime;
    // A file may tell of any times; parts of these can be reckoned with.
    const std::int64_t duration =
        std::clamp<std::int64_t>(saturatingSubtract(facts.lastTime, origin_), 0, INT64_MAX / 4);
    window_.emplace(blocks_);
    pyramid_.emplace(facts.sources.size());
    flame_.emplace(blocks_.names(), TimeBins(origin_, duration, flameParts), facts.sources.size());
    until_ = origin_;
    blocks_.rewind();
    phase_ = Phase::ordered;
}

bool TraceView::Parts::readPiece() {
    const auto turn = turns_.work();
    const std::span<const LodEvent> events =
        blocks_.next([this](RecordBlock& block) { return window_->read(block); });
    for (const LodEvent& event : events) {
        pyramid_->add(event);
        flame_->add(event);
        if (event.name >= counts_.size())
            counts_.resize(event.name + 1);
        ++counts_[event.name];
    }
    events_ += events.size();
    if (!events.empty()) {
        until_ = events.back().start;
        return true;
    }
    flame_->finish(blocks_.facts().sources.size());
    outline_.reset();
    until_ = lastTime_.load();
    phase_ = Phase::whole;
    return false;
}

/// The first phase reads the records once, seldom twice, which shows late. So each phase is a half.
int TraceView::Parts::percent() const {
    const auto half = [](double part, double whole) {
        return static_cast<int>(std::clamp(50 * part / std::max(whole, 1.0), 0.0, 49.0));
    };
    if (phase_ == Phase::first)
        return half(static_cast<double>(bytesRead_), static_cast<double>(blocks_.recordBytes()));
    if (phase_ == Phase::ordered)
        return 50 + half(static_cast<double>(saturatingSubtract(until_, origin_)),
                         static_cast<double>(saturatingSubtract(lastTime_, origin_)));
    return 100;
}

std::string TraceView::Parts::state() {
    LodJson out(origin_);
    const Phase phase = phase_;
    out.open('{');
    out.key("phase");
    out.text(phaseNames[static_cast<std::size_t>(phase)]);
    out.member("percent", percent());
    out.member("duration", std::max<std::int64_t>(saturatingSubtract(lastTime_, origin_), 0));
    out.member("processes", blocks_.blocks().processes().size());
    if (phase != Phase::first) {
        const auto turn = turns_.ask();
        const RecordingFacts& facts = blocks_.facts();
        out.key("until");
        out.time(until_);
        out.member("events", events_);
        out.member("threads", facts.sources.size());
        out.member("dropped", facts.drops.total());
        out.member("damaged", blocks_.blocks().damaged());
        out.key("originUtc");
        out.text(std::to_string(facts.originUtc));
    }
    out.close('}');
    return std::move(out).taken();
}

std::string TraceView::Parts::activity() const {
    LodJson out(origin_);
    out.open('[');
    for (std::size_t i = 0; i < std::min(activity_.size(), mostActiveThreads); ++i) {
        const LodActivity& track = activity_[i];
        out.open('[');
        out.text(track.process);
        out.text(track.thread);
        out.open('[');
        const std::size_t step = track.begins.size() / mostActiveTimes + 1;
        for (std::size_t at = 0; at < track.begins.size(); at += step)
            out.time(track.begins[at]);
        out.close(']');
        out.close(']');
    }
    out.close(']');
    return std::move(out).taken();
}

std::string TraceView::Parts::threads() {
    LodJson out(origin_);
    out.open('[');
    const auto turn = turns_.ask();
    if (phase_ == Phase::first)
        appendOutlineThreads(out);
    else
        appendThreads(out);
    out.close(']');
    return std::move(out).taken();
}

void TraceView::Parts::appendOutlineThreads(LodJson& out) const {
    const auto threads = outline_->threads();
    for (std::uint32_t i = 0; i < std::min(threads.size(), mostThreads); ++i) {
        SourceInfo& source = *threads[i];
        out.open('[');
        out.text(source.processName->view());
        out.number(source.processId);
        out.text(source.name());
        out.number(source.threadId);
        out.numbers(outline_->rowsOf(i, LodRow::Kind::nested), 0,
                    outline_->rowsOf(i, LodRow::Kind::instants));
        out.close(']');
    }
}

void TraceView::Parts::appendThreads(LodJson& out) const {
    const auto& sources = blocks_.facts().sources;
    for (std::uint32_t i = 0; i < std::min(sources.size(), mostThreads); ++i) {
        out.open('[');
        out.text(sources[i].processName.value_or(""));
        out.number(sources[i].processId);
        out.text(sources[i].name);
        out.number(sources[i].threadId);
        for (const auto kind : {LodRow::Kind::nested, LodRow::Kind::beside, LodRow::Kind::instants})
            out.number(pyramid_->rowsOf(i, kind));
        out.close(']');
    }
}

/// Of the pyramid, where that is as fine as the screen, or else too many events had to be read; of
/// the outline, as long as that goes farther. Coarser where that is too much.
std::vector<LodRowSlices> TraceView::Parts::rowsWithin(std::int64_t begin, std::int64_t end,
                                                       std::uint32_t pixels, LodSources threads,
                                                       bool& isExact) {
    const int finest = lodShift(begin, end, pixels);
    const bool isFine = phase_ == Phase::whole && pyramid_->shift() <= finest;
    std::optional<std::vector<LodEvent>> events;
    if (phase_ != Phase::first && !isFine)
        events = window_->within(begin, end, threads, mostBytesAtOnce);
    isExact = events || isFine;
    const auto rowsAt = [&](int shift) {
        if (events) {
            LodPyramid exact(blocks_.facts().sources.size(), shift);
            for (const LodEvent& event : *events)
                exact.add(event);
            return exact.window(begin, end, shift, threads);
        }
        const bool isInPyramid =
            phase_ == Phase::whole || (phase_ == Phase::ordered && end < until_);
        return isInPyramid ? pyramid_->window(begin, end, shift, threads)
                           : outline_->window(begin, end, shift, threads);
    };
    for (int shift = finest;; ++shift) {
        std::vector<LodRowSlices> rows = rowsAt(shift);
        std::size_t slices = 0;
        for (const LodRowSlices& row : rows)
            slices += row.slices.size();
        if (slices <= mostSlices || shift == LodLane::largestShift)
            return rows;
    }
}

std::string TraceView::Parts::window(std::int64_t begin, std::int64_t end, std::uint32_t pixels,
                                     LodSources threads) {
    LodJson out(origin_);
    out.open('{');
    out.member("begin", begin);
    out.member("end", end);
    if (begin < end) {
        const auto turn = turns_.ask();
        bool isExact = false;
        const auto rows = rowsWithin(saturatingAdd(origin_, begin), saturatingAdd(origin_, end),
                                     pixels, threads, isExact);
        out.key("exact");
        out.word(isExact ? "true" : "false");
        out.key("until");
        out.time(std::max(until_.load(), outlineEnd_));
        appendRows(out, rows, blocks_.names());
    }
    out.close('}');
    return std::move(out).taken();
}

std::string TraceView::Parts::flame(std::int64_t begin, std::int64_t end) {
    LodJson out(origin_);
    out.open('{');
    if (phase_ != Phase::first && begin < end) {
        const auto turn = turns_.ask();
        const auto& sources = blocks_.facts().sources;
        const std::int64_t from = saturatingAdd(origin_, begin), to = saturatingAdd(origin_, end);
        std::vector<CallNode> nodes;
        if (const auto events = window_->within(from, to, {}, mostBytesAtOnce)) {
            nodes = stacksWithin(blocks_.names(), sources.size(), *events, from, to);
        } else {
            const TimeBins& parts = flame_->bins();
            const std::uint32_t first = parts.of(saturatingAdd(from, parts.width() / 2));
            const std::uint32_t last =
                std::max(first, parts.of(saturatingSubtract(to, parts.width() / 2 + 1)));
            nodes = flame_->between(first, last);
            begin = first * parts.width();
            end = (last + 1) * parts.width();
            if (phase_ == Phase::ordered)  // no more is in it yet
                end = std::clamp(saturatingSubtract(until_, origin_), begin, end);
        }
        out.member("begin", begin);
        out.member("end", end);
        appendTree(out, trim(nodes, flameLimits), sources);
    }
    out.close('}');
    return std::move(out).taken();
}

std::vector<bool> TraceView::Parts::namesWith(std::string_view text) const {
    std::vector<bool> names(counts_.size());
    for (std::uint32_t i = 0; i < counts_.size(); ++i) {
        const Opaque& name = *blocks_.names().instrument(i);
        names[i] = counts_[i] > 0 && hasText({name.name, name.nameLength}, text);
    }
    return names;
}

std::string TraceView::Parts::find(std::string_view text, const Place& from, bool isForward) {
    if (phase_ != Phase::whole)
        return "null";
    const auto turn = turns_.ask();
    const std::vector<bool> names = namesWith(text);
    std::uint64_t events = 0;
    for (std::size_t i = 0; i < names.size(); ++i)
        events += names[i] ? counts_[i] : 0;
    LodJson out(origin_);
    out.open('{');
    out.member("names", std::ranges::count(names, true));
    out.member("events", events);
    out.key("hit");
    if (const auto hit = window_->nearest(eventAt(from), isForward, names)) {
        out.open('[');
        out.time(hit->start);
        out.number(saturatingSubtract(hit->end, hit->start));
        out.name(blocks_.names().instrument(hit->name));
        out.numbers(hit->source, hit->serial);
        out.close(']');
    } else {
        out.word("null");
    }
    out.close('}');
    return std::move(out).taken();
}

std::string TraceView::Parts::details(const Place& place) {
    if (phase_ == Phase::first)
        return "null";
    const auto turn = turns_.ask();
    const auto found = window_->find(eventAt(place));
    if (!found)
        return "null";
    const LodEvent& event = found->event;
    const Opaque* const name = blocks_.names().instrument(event.name);
    const RecordedSource& source = blocks_.facts().sources[event.source];
    LodJson out(origin_);
    out.open('{');
    out.key("name");
    out.name(name);
    out.key("place");
    // Acquire pairs with the release in setPlace.
    const char* const where = name->place.load(std::memory_order_acquire);
    out.text(where ? where : "");
    out.key("start");
    out.time(event.start);
    out.member("duration", saturatingSubtract(event.end, event.start));
    out.member("marks", event.marks);
    out.key("process");
    out.text(source.processName.value_or(""));
    out.member("processId", source.processId);
    out.key("thread");
    out.text(source.name);
    out.key("context");
    out.open('[');
    for (const ContextArg& entry : found->context) {
        out.open('[');
        out.text(entry.name);
        out.value(entry.value);
        out.close(']');
    }
    out.close(']');
    out.close('}');
    return std::move(out).taken();
}

TraceView::TraceView(const std::filesystem::path& file) : parts_(std::make_unique<Parts>(file)) {}
TraceView::~TraceView() = default;

void TraceView::read() {
    parts_->read();
}
void TraceView::stop() noexcept {
    parts_->stop();
}
std::string TraceView::state() const {
    return parts_->state();
}
std::string TraceView::activity() const {
    return parts_->activity();
}
std::string TraceView::threads() {
    return parts_->threads();
}
std::string TraceView::window(std::int64_t begin, std::int64_t end, std::uint32_t pixels,
                              std::uint32_t firstThread, std::uint32_t lastThread) {
    return parts_->window(begin, end, pixels, {firstThread, lastThread});
}
std::string TraceView::flame(std::int64_t begin, std::int64_t end) {
    return parts_->flame(begin, end);
}
std::string TraceView::find(std::string_view text, const Place& from, bool isForward) {
    return parts_->find(text, from, isForward);
}
std::string TraceView::details(const Place& place) {
    return parts_->details(place);
}

}  // namespace instrument
