// One process of a trace file on its way to a recording.
#pragma once

#include <cstdint>
#include <deque>
#include <span>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "recorder_snapshot.hpp"
#include "run_file.hpp"
#include "saturating.hpp"
#include "source_info.hpp"
#include "trace_clock.hpp"
#include "trace_format.hpp"
#include "trace_names.hpp"
#include "zandor/instrument/external_accounts.hpp"

namespace instrument::detail {

/// First all journals are added. Then its records are made to look as those of this process's
/// recorders do, with times in nanoseconds and the names' numbers; what they hold is not trusted.
class LoadedProcess {
  public:
    /// `timeShift` is added to all times.
    LoadedProcess(TraceNames& names, const TraceProcess& untrusted, std::int64_t timeShift,
                  std::uint64_t mostNumbers);
    LoadedProcess(const LoadedProcess&) = delete;
    LoadedProcess& operator=(const LoadedProcess&) = delete;

    void addJournal(std::span<const std::uint64_t> untrusted);
    void addLost(std::span<const std::uint64_t> untrusted);
    /// To be said when all journals and losses are there.
    void finishJournal();

    /// Adapts whole records in place. `notes` the foreign stops among them.
    void adapt(std::span<Word> records, bool notes);
    // What adapting does, for one thing of a record that was not adapted.
    std::int64_t timeOf(const Record& untrusted) noexcept {
        const std::int64_t time =
            untrusted.timed ? static_cast<std::int64_t>(untrusted.time) : clock_(untrusted.time);
        return saturatingAdd(time, timeShift_);
    }
    const Opaque* instrumentOf(const Record& untrusted) const noexcept {
        return names_.instrument(instrumentAt(untrusted.instrument));
    }
    void adaptContext(std::span<Word> context);
    SourceInfo& sourceOf(std::uint64_t id);

    /// Of the stream where a stretch begins.
    StreamState stateAt(const TraceStretch& stretch);
    /// To be said when all foreign stops were noted.
    void finishStops() {
        foreignStops_ = std::move(notedStops_);
        foreignStops_.sort();
    }

    /// The events that foreign stops end; empty until it is said that all were noted.
    const EventIdSet& foreignStops() const noexcept { return foreignStops_; }
    bool isLost(EventId id) const noexcept { return lost_.has(id); }
    const TraceProcess& facts() const noexcept { return facts_; }
    const std::vector<ExternalAccount>& externalAccounts() const noexcept {
        return externalAccounts_;
    }
    /// What its times had added.
    std::int64_t timeShift() const noexcept { return timeShift_; }
    /// Of its first event; 0: none.
    std::int64_t begin() noexcept;

  private:
    static constexpr std::uint32_t notTold = 0xffffffff;

    void addEntry(JournalEntry kind, std::span<const std::byte> payload);
    void addPlace(std::uint64_t instrument, std::uint64_t text);
    void addName(std::vector<std::uint32_t>& numbers, std::uint64_t number, std::uint32_t own);
    void adaptRecord(std::span<Word> record);
    const InternedText* textAt(std::uint64_t number) const noexcept;
    std::uint32_t instrumentAt(std::uint32_t number) const noexcept {
        const bool isKnown = number < instruments_.size() && instruments_[number] != notTold;
        return isKnown ? instruments_[number] : unknownInstrument_;
    }

    TraceNames& names_;
    TraceProcess facts_;
    std::int64_t timeShift_;
    std::uint64_t mostNumbers_;
    std::uint32_t unknownText_;
    std::uint32_t unknownInstrument_;
    const InternedText* processName_;
    std::vector<std::uint32_t> texts_;  ///< by the file's numbers: the names'
    std::vector<std::uint32_t> instruments_;
    std::unordered_map<std::uint64_t, SourceEntry> sourceEntries_;
    std::unordered_map<std::uint64_t, SourceInfo*> sources_;
    std::deque<SourceInfo> sourceMemory_;
    std::vector<ExternalAccount> externalAccounts_;
    TraceClock clock_;
    EventIdSet notedStops_;
    EventIdSet foreignStops_;
    std::vector<LostRange> lostRanges_;
    LostRanges lost_;
};

}  // namespace instrument::detail
