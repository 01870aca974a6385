// Libraries that are unloaded take their listeners with them.
#pragma once

namespace instrument::detail {

/// Has the runtime say when it unloads a library: then every listener that lies in the library, or
/// whose class does, is taken out before the code goes. Once; throws std::bad_alloc.
void observeUnloading();

}  // namespace instrument::detail
