#include "zandor/instrument/number_events.hpp"

#include <array>
#include <new>

#include "listener_array.hpp"
#include "short_delivery.hpp"

namespace instrument {

using namespace detail;

namespace {

/// So many numbers in words, two an entry: where their count is known, no memory is needed.
template <std::size_t count>
[[gnu::always_inline]] inline std::array<Word, 2 * count> wordsOfNumbers(
    ContextArgs numbers) noexcept {
    std::array<Word, 2 * count> words;
    for (std::size_t i = 0; i < count; ++i) {
        words[2 * i] = numberHead(InternedText::of(numbers[i].name), numbers[i].value);
        words[2 * i + 1] = bitsOf(numbers[i].value);
    }
    return words;
}

/// Whether it was told; its identity is the thread's latest then.
template <RecordKind kind>
[[gnu::always_inline]] inline bool begin(const InsideLane& lane, const Opaque* handle,
                                         ContextArgs numbers) noexcept {
    if (!lane) [[unlikely]]
        return false;
    switch (numbers.size()) {
        case 1:
            return lane.begin<kind>(handle, wordsOfNumbers<1>(numbers));
        case 2:
            return lane.begin<kind>(handle, wordsOfNumbers<2>(numbers));
        case 3:
            return lane.begin<kind>(handle, wordsOfNumbers<3>(numbers));
        default:
            static_assert(mostNumbers == 4);
            return lane.begin<kind>(handle, wordsOfNumbers<4>(numbers));
    }
}

}  // namespace

std::string_view lastingName(std::string_view name) {
    if (const InternedText* kept = intern(name))
        return kept->view();
    throw std::bad_alloc();
}

EventId startNumbers(const Opaque* handle, ContextArgs numbers) {
    if (const InsideLane lane; begin<RecordKind::start>(lane, handle, numbers)) [[likely]]
        return latestId(lane.state());
    return listeners.onEventStart(handle, numbers);
}

void instantNumbers(const Opaque* handle, ContextArgs numbers) {
    if (const InsideLane lane; begin<RecordKind::instant>(lane, handle, numbers)) [[likely]]
        return;
    listeners.onEventInstant(handle, numbers);
}

}  // namespace instrument
