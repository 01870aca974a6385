#include "outline_writer.hpp"

#include <algorithm>
#include <array>
#include <bit>

namespace instrument::detail {
namespace {

template <class Record>
void appendRecord(std::vector<Word>& words, const Record& record) {
    const auto more = std::bit_cast<std::array<Word, sizeof(Record) / sizeof(Word)>>(record);
    words.insert(words.end(), more.begin(), more.end());
}

}  // namespace

void OutlineWriter::add(const TraceStretch& stretch, std::span<const Word> records) {
    if (stretch.track != track_) {
        endRun();
        track_ = stretch.track;
    }
    RecordReader reader(records.data(), records.data() + records.size(),
                        {stretch.source, stretch.nextSerial, nullptr});
    for (Record record; reader.next(record);)
        addRecord(record);
    if (size_ > most_)
        coarsen();
}

OutlineWriter::Rows& OutlineWriter::rowsOf(Key key) {
    if (!latestRows_ || key != latestKey_) {
        latestKey_ = key;
        latestRows_ = &rows_[key];
    }
    return *latestRows_;
}

void OutlineWriter::addRecord(const Record& record) {
    switch (record.kind) {
        case RecordKind::start:
            begin(record);
            break;
        case RecordKind::instant:
            addInstant(record);
            break;
        case RecordKind::stop:
        case RecordKind::foreignStop:
            finish(record);
            break;
        case RecordKind::source:
            if (record.beginsRun)
                endRun();
            break;
        case RecordKind::skip:
        case RecordKind::base:
        case RecordKind::deadBegin:
        case RecordKind::deadStop:
            break;
    }
}

void OutlineWriter::begin(const Record& start) {
    ++events_;
    latest_ = static_cast<std::int64_t>(start.time);
    source_ = start.source;
    if (open_.size() >= mostOpen)
        return;
    Open& open = open_.emplace_back();
    open.event.start = open.event.end = latest_;
    open.event.serial = start.id.serialId;
    open.event.name = start.instrument;
    open.timed = start.timed;
}

void OutlineWriter::addInstant(const Record& instant) {
    ++events_;
    const auto time = static_cast<std::int64_t>(instant.time);
    put(rowsOf({instant.source, instant.timed}).instants,
        {time, time, instant.id.serialId, instant.instrument, 0, LodEvent::isInstant});
}

void OutlineWriter::finish(const Record& stop) {
    if (stop.id.sourceId != source_)
        return;
    std::size_t place = open_.size();
    while (place > 0 && open_[place - 1].event.serial > stop.id.serialId)
        --place;
    if (place == 0 || open_[place - 1].event.serial != stop.id.serialId)
        return;
    Open& open = open_[--place];
    latest_ = static_cast<std::int64_t>(stop.time);
    open.event.end = latest_;
    if (place + 1 == open_.size() && open.timed == stop.timed)
        putNested({source_, open.timed}, place, open.event);
    open_.erase(open_.begin() + static_cast<std::ptrdiff_t>(place));
}

/// What is open has not ended, or by another thread.
void OutlineWriter::endRun() {
    for (std::size_t place = 0; place < open_.size(); ++place) {
        Open& open = open_[place];
        open.event.end = latest_;
        open.event.marks = LodEvent::isOpen;
        putNested({source_, open.timed}, place, open.event);
    }
    open_.clear();
}

void OutlineWriter::putNested(Key key, std::size_t place, const LodEvent& event) {
    if (place >= mostRows || event.end < event.start)
        return;
    std::vector<LodLane>& nested = rowsOf(key).nested;
    if (place >= nested.size())
        nested.resize(place + 1);
    put(nested[place], event);
}

void OutlineWriter::put(LodLane& lane, const LodEvent& event) {
    const std::size_t before = lane.size();
    lane.add(LodSlice::of(event), shift_);
    size_ += lane.size() - before;
}

/// To half of the bound, so that it is done seldom. Where that cannot be, since there are so many
/// rows, the bound gives way.
void OutlineWriter::coarsen() {
    while (size_ > most_ / 2 && shift_ < LodLane::largestShift) {
        ++shift_;
        size_ = 0;
        const auto coarser = [this](LodLane& lane) {
            lane.coarsen(shift_);
            size_ += lane.size();
        };
        for (auto& [key, rows] : rows_) {
            std::ranges::for_each(rows.nested, coarser);
            coarser(rows.instants);
        }
    }
    most_ = std::max(most_, 2 * size_);
}

std::vector<Word> OutlineWriter::take(std::uint64_t least) {
    endRun();
    std::vector<Word> words;
    const auto append = [&](const Key& key, OutlineRow row, const LodLane& lane) {
        row.source = key.first;
        row.timed = key.second;
        row.slices = lane.size();
        if (lane.size() > 0)
            appendRecord(words, row);
        for (const LodSlice& slice : lane.slices())
            appendRecord(words, OutlineSlice{slice.begin, slice.end, slice.serial, slice.busy,
                                             slice.name, slice.events, slice.marks});
    };
    if (events_ >= least)
        for (const auto& [key, rows] : rows_) {
            for (std::uint32_t place = 0; place < rows.nested.size(); ++place)
                append(key, {.place = place}, rows.nested[place]);
            append(key, {.isInstants = 1}, rows.instants);
        }
    *this = OutlineWriter();
    return words;
}

}  // namespace instrument::detail
