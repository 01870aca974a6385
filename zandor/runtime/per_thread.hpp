// A thread's own object, made when the thread first needs it and destroyed when the thread ends.
#pragma once

#include <new>

namespace zandor {

/// `get` is cheap after the first call. It yields nothing when memory ran out, and in the last
/// steps of a thread, when the object is gone already: callers must have a way that does without.
template <typename T>
class PerThread {
  public:
    static T* get() noexcept {
        if (T* object = object_) [[likely]] {
            return object;
        }
        return ended_ ? nullptr : make();
    }

  private:
    struct Ending {
        ~Ending() {
            ended_ = true;
            delete object_;
            object_ = nullptr;
        }
        bool armed = false;
    };

    [[gnu::noinline]] static T* make() noexcept {
        ending_.armed = true;  // the use makes the thread run its destructor
        return object_ = new (std::nothrow) T;
    }

    // In the thread's static block: an access must not cost a call into the loader.
    [[gnu::tls_model("initial-exec")]] static constinit inline thread_local T* object_ = nullptr;
    [[gnu::tls_model("initial-exec")]] static constinit inline thread_local bool ended_ = false;
    static inline thread_local Ending ending_;
};

}  // namespace zandor
