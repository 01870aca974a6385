#include "trace_process.hpp"

#include <algorithm>
#include <cstring>

#include "account_text.hpp"
#include "untrusted_records.hpp"

namespace instrument::detail {
namespace {

template <class Value>
Value valueAt(std::span<const std::byte> bytes) noexcept {
    Value value;
    std::memcpy(&value, bytes.data(), sizeof value);
    return value;
}

std::string_view textOf(std::span<const std::byte> bytes) noexcept {
    return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

}  // namespace

LoadedProcess::LoadedProcess(TraceNames& names, const TraceProcess& untrusted,
                             std::int64_t timeShift, std::uint64_t mostNumbers)
    : names_(names), facts_(untrusted), timeShift_(timeShift), mostNumbers_(mostNumbers) {
    facts_.name.back() = '\0';
    unknownText_ = names_.internText("(unknown)").id;
    unknownInstrument_ = names_.instrumentNumber("(unknown)");
    processName_ = &names_.internText(facts_.name.data());
    if (!facts_.ticksAreTsc)
        clock_.countNanoseconds();
}

void LoadedProcess::addJournal(std::span<const std::uint64_t> untrusted) {
    while (!untrusted.empty()) {
        const std::uint64_t bytes = untrusted[0] >> 8;
        const std::span<const std::byte> payload = std::as_bytes(untrusted.subspan(1));
        if (bytes > payload.size())
            return;
        addEntry(static_cast<JournalEntry>(untrusted[0] & 255), payload.first(bytes));
        untrusted = untrusted.subspan(1 + (bytes + sizeof(Word) - 1) / sizeof(Word));
    }
}

void LoadedProcess::addEntry(JournalEntry kind, std::span<const std::byte> payload) {
    const std::size_t least = kind == JournalEntry::source ? sizeof(SourceEntry)
                              : kind == JournalEntry::clock || kind == JournalEntry::place
                                  ? 2 * sizeof(Word)
                                  : sizeof(Word);
    if (payload.size() < least)
        return;
    const auto first = valueAt<std::uint64_t>(payload);
    const auto rest = payload.subspan(sizeof(Word));
    switch (kind) {
        case JournalEntry::text:
            return addName(texts_, first, names_.internText(textOf(rest)).id);
        case JournalEntry::instrument:
            return addName(instruments_, first, names_.instrumentNumber(textOf(rest)));
        case JournalEntry::source:
            sourceEntries_[first] = valueAt<SourceEntry>(payload);
            return;
        case JournalEntry::place:
            return addPlace(first, valueAt<std::uint64_t>(rest));
        case JournalEntry::clock:
            return clock_.add(first, valueAt<std::int64_t>(rest));
        case JournalEntry::account:
            if (auto account = accountFrom(first, textOf(rest)))
                externalAccounts_.push_back(std::move(*account));
            return;
    }
}

/// Numbers are dense, so that none is larger than what the file has room for.
void LoadedProcess::addName(std::vector<std::uint32_t>& numbers, std::uint64_t number,
                            std::uint32_t own) {
    if (number >= mostNumbers_)
        return;
    if (number >= numbers.size())
        numbers.resize(number + 1, notTold);
    numbers[number] = own;
}

void LoadedProcess::addPlace(std::uint64_t instrument, std::uint64_t text) {
    const InternedText* const place = textAt(text);
    if (place && instrument < instruments_.size() && instruments_[instrument] != notTold)
        names_.setPlace(instruments_[instrument], *place);
}

void LoadedProcess::adapt(std::span<Word> records, bool notes) {
    forEachRecord(records, [&](std::span<Word> record) {
        if (notes && RecordHead(record[0]).kind() == RecordKind::foreignStop)
            notedStops_.add({record[2], record[3]});
        adaptRecord(record);
    });
}

StreamState LoadedProcess::stateAt(const TraceStretch& stretch) {
    return {stretch.source, stretch.nextSerial, &sourceOf(stretch.source)};
}

void LoadedProcess::adaptRecord(std::span<Word> record) {
    const RecordHead head{record[0]};
    if (head.kind() == RecordKind::source) {
        record[3] = reinterpret_cast<Word>(&sourceOf(record[1]));
        return;
    }
    const std::int64_t time =
        head.timed() ? static_cast<std::int64_t>(record[1]) : clock_(record[1]);
    record[0] = RecordHead(head.kind(), true, head.context(), instrumentAt(head.instrument()),
                           head.serial())
                    .word();
    record[1] = static_cast<Word>(saturatingAdd(time, timeShift_));
    const bool isCounted = head.context() == RecordHead::contextIsCounted;
    adaptContext(record.subspan(wordsOf(head.kind()) + (isCounted ? 1 : 0)));
}

void LoadedProcess::adaptContext(std::span<Word> context) {
    const auto own = [this](std::uint64_t number) {
        const InternedText* text = textAt(number);
        return Word{text ? text->id : unknownText_};
    };
    for (std::size_t i = 0; i < context.size(); ++i) {
        const Word name = own(context[i] >> 32) << 32;
        const auto value = static_cast<std::uint32_t>(context[i]);
        const bool isNumber = value >= numberMark && i + 1 < context.size();
        context[i] = name | (isNumber ? value : own(value));
        i += isNumber ? 1 : 0;
    }
}

void LoadedProcess::addLost(std::span<const std::uint64_t> untrusted) {
    constexpr std::size_t words = sizeof(LostRange) / sizeof(Word);
    for (; untrusted.size() >= words; untrusted = untrusted.subspan(words))
        lostRanges_.push_back(recordIn<LostRange>(untrusted));
}

void LoadedProcess::finishJournal() {
    clock_.prepare();
    lost_ = LostRanges(std::move(lostRanges_));
}

std::int64_t LoadedProcess::begin() noexcept {
    std::int64_t begin = facts_.originNanoseconds;
    if (facts_.originTicks != 0) {
        const std::int64_t first = clock_(facts_.originTicks);
        begin = begin == 0 ? first : std::min(begin, first);
    }
    return begin == 0 ? 0 : saturatingAdd(begin, timeShift_);
}

const InternedText* LoadedProcess::textAt(std::uint64_t number) const noexcept {
    if (number >= texts_.size() || texts_[number] == notTold)
        return nullptr;
    return &InternedText::of(names_.text(texts_[number]));
}

/// Nameless where no journal tells of it. Kept by this: the reference that it begins with is never
/// given back.
SourceInfo& LoadedProcess::sourceOf(std::uint64_t id) {
    const auto [known, isNew] = sources_.try_emplace(id, nullptr);
    if (!isNew)
        return *known->second;
    SourceInfo& made = sourceMemory_.emplace_back();
    known->second = &made;
    made.references.store(1, std::memory_order_relaxed);  // nobody else knows it yet
    made.id = id;
    made.processId = facts_.processId;
    made.processName = processName_;
    if (const auto told = sourceEntries_.find(id); told != sourceEntries_.end()) {
        const SourceEntry& entry = told->second;
        made.processId = entry.processId;
        made.threadId = entry.threadId;
        if (const InternedText* process = textAt(entry.processName))
            made.processName = process;
        made.givenName.store(textAt(entry.name), std::memory_order_relaxed);
    }
    return made;
}

}  // namespace instrument::detail
