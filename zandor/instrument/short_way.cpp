#include "zandor/instrument/short_way.hpp"

#include "listener_class.hpp"
#include "process_state.hpp"

namespace instrument {
namespace {

// All that there are; under the listeners' lock. Whole at every instant, for the child of a fork.
constinit ShortWay* newest = nullptr;

}  // namespace

ShortWay::ShortWay(InstrumentListener& listener, const ShortOperations& operations,
                   void* self) noexcept
    : listener_(listener), class_(detail::tableOf(listener)), operations_(operations), self_(self) {
    const detail::Locked locked(detail::processState().listeners);
    next_ = newest;
    newest = this;
}

ShortWay::~ShortWay() {
    const detail::Locked locked(detail::processState().listeners);
    ShortWay** place = &newest;
    while (*place != this)
        place = &(*place)->next_;
    *place = next_;
}

const ShortWay* ShortWay::of(const InstrumentListener& listener) noexcept {
    for (const ShortWay* way = newest; way; way = way->next_)
        if (&way->listener_ == &listener)
            return way->class_ == detail::tableOf(listener) ? way : nullptr;
    return nullptr;
}

}  // namespace instrument
