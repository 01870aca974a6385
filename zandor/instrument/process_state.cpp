#include "process_state.hpp"

#include <new>

#include "zandor/instrument/fork_private.hpp"

namespace instrument::detail {
namespace {

constinit std::atomic<ProcessState*> mapped{nullptr};
// In its place where the system gives no memory.
constinit ProcessState unmapped;

ProcessState& mapState() noexcept {
    void* memory = mapMemory(sizeof(ProcessState));
    ProcessState* made = &unmapped;
    if (memory) {
        wipeOnFork(memory, sizeof(ProcessState));
        made = ::new (memory) ProcessState();
    }
    ProcessState* first = nullptr;
    if (mapped.compare_exchange_strong(first, made))
        return *made;
    if (memory) {
        forgetWiping(memory);
        unmapMemory(memory, sizeof(ProcessState));
    }
    return *first;
}

}  // namespace

ProcessState& processState() noexcept {
    // Pairs with the exchange in mapState.
    ProcessState* state = mapped.load(std::memory_order_acquire);
    return state ? *state : mapState();
}

}  // namespace instrument::detail
