// Takes care that one thread at a time populates a namespace.
#pragma once

#include <sys/types.h>

#include <string>

namespace zandor {

/// What a thread is doing about populations.
struct Populator;

class PopulationGuard {
  public:
    /// The right to populate, held while it lives. Waits while another thread has it. Where waiting
    /// would never end, because the population needs itself, std::logic_error.
    class Turn {
      public:
        Turn(PopulationGuard& guard, const std::string& name);
        ~Turn();
        Turn(const Turn&) = delete;
        Turn& operator=(const Turn&) = delete;

      private:
        PopulationGuard& guard_;
    };

  private:
    bool isTaken() const noexcept;
    bool neededBy(const Populator& thread) const noexcept;

    Populator* owner_ = nullptr;  ///< guarded by registryLock
    pid_t process_ = 0;           ///< in which the owner is a thread
};

}  // namespace zandor
