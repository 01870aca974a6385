// Functions of the client interface's types that do no more than ask whether anybody wants events,
// in a library of their own as those of the interface are.
#pragma once

#include <cstddef>

#include "zandor/client/client.h"

namespace bench {

[[gnu::visibility("default")]] zandor_event startIfWanted(zandor_client* client, const char* name,
                                                          const char* const* keys,
                                                          const char* const* values,
                                                          std::size_t count);
[[gnu::visibility("default")]] void stopIfWanted(zandor_client* client, zandor_event event);

}  // namespace bench
