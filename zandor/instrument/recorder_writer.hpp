// Writes records to a track, on the track's thread.
#pragma once

#include <cstddef>

#include "recorder_core.hpp"

namespace instrument::detail {

class RecordWriter {
  public:
    RecordWriter(RecorderCore& core, Track& track, TextCache& texts,
                 const NewRecord& record) noexcept
        : core_(core), track_(track), texts_(texts), record_(record) {}

    /// Writes the record and commits it, or counts what was dropped.
    void write() noexcept;

  private:
    bool isPastRefusal() const noexcept;
    bool endsLostEvent() const noexcept;
    bool needsSource() const noexcept;
    bool isOwnStop() const noexcept;
    bool isContextOfStart(const Word* context, std::size_t words) const noexcept;
    Denial makeRoom(std::size_t words) noexcept;
    Denial put() noexcept;
    void enterSource() noexcept;
    Word* putSource(Word* out) noexcept;
    void putHead(Word* head, RecordKind kind, std::size_t contextWords,
                 bool contextOfStart) noexcept;
    void note(const Word* head, RecordKind kind, bool hasContext) noexcept;
    void drop(Denial denial) noexcept;

    RecorderCore& core_;
    Track& track_;
    TextCache& texts_;
    const NewRecord& record_;
};

}  // namespace instrument::detail
