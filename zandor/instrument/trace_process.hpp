// One process of a trace file on its way to a recording.
#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <span>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "recorder_snapshot.hpp"
#include "run_file.hpp"
#include "source_info.hpp"
#include "trace_clock.hpp"
#include "trace_format.hpp"
#include "trace_names.hpp"
#include "zandor/instrument/external_accounts.hpp"

namespace instrument::detail {

/// First all journals are added, then all records. Its records are made to look as those of this
/// process's recorders do, with times in nanoseconds and the names' numbers; what they hold is not
/// trusted. Seen by a Matcher it is a snapshot.
class LoadedProcess {
  public:
    /// `timeShift` is added to all times.
    LoadedProcess(TraceNames& names, const TraceProcess& untrusted, std::int64_t timeShift,
                  std::uint64_t mostNumbers);
    LoadedProcess(const LoadedProcess&) = delete;
    LoadedProcess& operator=(const LoadedProcess&) = delete;

    void addJournal(std::span<const std::uint64_t> untrusted);
    /// A stretch and its records. False when not all of it was whole.
    bool addRecords(std::vector<std::uint64_t> untrusted);
    void addLost(std::span<const std::uint64_t> untrusted);
    /// To be said before it is read.
    void finish();

    std::span<const TrackView> tracks() const noexcept { return views_; }
    const EventIdSet& foreignStops() const noexcept { return foreignStops_; }
    bool isLost(EventId id) const noexcept { return lost_.has(id); }
    const TraceProcess& facts() const noexcept { return facts_; }
    const std::vector<ExternalAccount>& externalAccounts() const noexcept {
        return externalAccounts_;
    }
    /// Of its first event; 0: none.
    std::int64_t begin();

  private:
    void addEntry(JournalEntry kind, std::span<const std::byte> payload);
    void addName(std::vector<std::uint32_t>& numbers, std::uint64_t number, std::uint32_t own);
    void adapt(std::span<Word> record);
    void adaptContext(std::span<Word> context);
    SourceInfo& sourceOf(std::uint64_t id);
    const InternedText* textAt(std::uint64_t number) const noexcept;
    std::uint32_t instrumentAt(std::uint32_t number) const noexcept;
    void prepareClock();

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
    bool clockIsPrepared_ = false;
    std::deque<std::vector<Word>> words_;
    std::map<std::uint64_t, std::size_t> trackPlaces_;
    std::vector<TrackView> views_;
    EventIdSet foreignStops_;
    std::vector<LostRange> lostRanges_;
    LostRanges lost_;
};

}  // namespace instrument::detail
