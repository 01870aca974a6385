// Sources: who produces events. A source is one thread of one host virtual machine, or one thread
// of another process. Its id is unique in the process and never reused.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "zandor/instrument/export.hpp"

namespace instrument {

/// Names the calling thread unless setThreadName did: for front ends that know a better name than
/// the kernel's. Cheap when the name is the one set before.
ZANDOR_INSTRUMENT_API void setDefaultThreadName(std::string_view name);

/// Whether the calling thread has a name from either call.
ZANDOR_INSTRUMENT_API bool isThreadNamed() noexcept;

/// A source for events that another process produced: the names of its process and thread, and
/// their ids in the system. Gives the source id for Listeners::on...At.
ZANDOR_INSTRUMENT_API std::uint64_t addExternalSource(std::string_view processName,
                                                      std::string_view threadName,
                                                      std::uint64_t processId,
                                                      std::uint64_t threadId);
/// Forgets it: no more events will come. Recordings keep what they need of it.
ZANDOR_INSTRUMENT_API void removeExternalSource(std::uint64_t sourceId) noexcept;

}  // namespace instrument
