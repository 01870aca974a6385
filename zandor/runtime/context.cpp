#include "zandor/runtime/context.hpp"

#include <atomic>
#include <utility>

namespace zdutil::contextmgr {

namespace {

constinit std::atomic<KtxID> lastCreated{BlessedKtxID};  // relaxed: the numbers only have to differ
[[gnu::tls_model("initial-exec")]] constinit thread_local KtxID current = BlessedKtxID;

}  // namespace

KtxID ContextRegistry::getKtxID() noexcept {
    return current;
}

// Relaxed: the numbers only have to differ.
KtxID ContextRegistry::create() noexcept {
    return lastCreated.fetch_add(1, std::memory_order_relaxed) + 1;
}

std::uint64_t ContextRegistry::count() noexcept {
    return lastCreated.load(std::memory_order_relaxed) - BlessedKtxID + 1;
}

ScopedContext::ScopedContext(KtxID id) noexcept : previous_(std::exchange(current, id)) {}

ScopedContext::~ScopedContext() {
    current = previous_;
}

}  // namespace zdutil::contextmgr
