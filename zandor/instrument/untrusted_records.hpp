// Records that come from a file, looked at before they are read as records: those of a trace file,
// and event memory, which has records of one word as well.
#pragma once

#include <cstddef>
#include <span>

#include "recorder_record.hpp"

namespace instrument::detail {

/// Words of the record that `untrusted` begins with; 0 when none is whole there.
inline std::size_t wordsOfUntrusted(std::span<const Word> untrusted) noexcept {
    if (untrusted.empty())
        return 0;
    const RecordHead head{untrusted[0]};
    if (head.kind() < RecordKind::start || head.kind() > RecordKind::deadStop)
        return 0;
    std::size_t words = wordsOf(head.kind());
    if (untrusted.size() < words)
        return 0;
    std::size_t context = head.context();
    if (context == RecordHead::contextOfStart) {
        context = 0;
    } else if (context == RecordHead::contextIsCounted) {
        if (untrusted.size() == words)
            return 0;
        context = untrusted[words++];
    }
    return context <= untrusted.size() - words ? words + context : 0;
}

/// The same of event memory.
inline std::size_t wordsOfUntrustedMemory(std::span<const Word> untrusted) noexcept {
    if (untrusted.empty() || !ShortRecord::is(untrusted[0]))
        return wordsOfUntrusted(untrusted);
    const ShortRecord head(untrusted[0]);
    if (head.kind() == RecordKind::base)
        return untrusted.size() < wordsOf(head.kind()) ? 0 : wordsOf(head.kind());
    return head.hasContextOfStart() && head.serial() == 0 ? 0 : 1;
}

/// The part of `untrusted` that is whole records.
inline std::span<Word> wholeRecords(std::span<Word> untrusted) noexcept {
    std::size_t end = 0;
    while (const std::size_t words = wordsOfUntrusted(untrusted.subspan(end)))
        end += words;
    return untrusted.first(end);
}
inline std::span<const Word> wholeInMemory(std::span<const Word> untrusted) noexcept {
    std::size_t end = 0;
    while (const std::size_t words = wordsOfUntrustedMemory(untrusted.subspan(end)))
        end += words;
    return untrusted.first(end);
}

/// Calls `visit(std::span<Word>)` with each of a stretch of whole records.
template <class Visit>
void forEachRecord(std::span<Word> records, Visit visit) {
    while (!records.empty()) {
        const std::size_t words = wordsOfUntrusted(records);
        visit(records.first(words));
        records = records.subspan(words);
    }
}

}  // namespace instrument::detail
