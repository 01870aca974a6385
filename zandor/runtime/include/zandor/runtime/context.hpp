// Host virtual machines: which one the calling thread runs.
#pragma once

#include <cstdint>

#include "zandor/runtime/export.hpp"

namespace zdutil::contextmgr {

using KtxID = std::uint64_t;

/// The main virtual machine. Every thread that entered no other runs it.
inline constexpr KtxID BlessedKtxID = 1;

class ZANDOR_RUNTIME_API ContextRegistry {
  public:
    /// The id of the virtual machine of the calling thread.
    static KtxID getKtxID() noexcept;

    /// A fresh id for a further virtual machine; never given out again.
    static KtxID create() noexcept;

    /// How many virtual machines have been created in this process, the main one included.
    static std::uint64_t count() noexcept;
};

/// While it lives, the calling thread runs the virtual machine `id`.
class ZANDOR_RUNTIME_API ScopedContext {
  public:
    explicit ScopedContext(KtxID id) noexcept;
    ~ScopedContext();
    ScopedContext(const ScopedContext&) = delete;
    ScopedContext& operator=(const ScopedContext&) = delete;

  private:
    KtxID previous_;
};

}  // namespace zdutil::contextmgr
