#include "zandor/instrument/number_events.hpp"

#include <new>

#include "listener_array.hpp"
#include "short_delivery.hpp"

namespace instrument {

using namespace detail;

namespace {

/// The context in words, two an entry.
class NumberWords {
  public:
    [[gnu::always_inline]] explicit NumberWords(ContextArgs numbers) noexcept : end_(words_) {
        for (const ContextArg& number : numbers) {
            *end_++ = numberHead(InternedText::of(number.name), number.value);
            *end_++ = bitsOf(number.value);
        }
    }
    NumberWords(const NumberWords&) = delete;
    NumberWords& operator=(const NumberWords&) = delete;

    std::span<const Word> words() const noexcept { return {words_, end_}; }

  private:
    Word words_[2 * mostNumbers];
    Word* end_;
};

/// Whether it was told; its identity is the thread's latest then.
template <RecordKind kind>
[[gnu::always_inline]] inline bool begin(const InsideLane& lane, const Opaque* handle,
                                         ContextArgs numbers) noexcept {
    return lane && lane.begin<kind>(handle, NumberWords(numbers).words());
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
