// The runtime's locks across fork: the forking thread holds them all while the process is
// copied, so that what they guard is whole in the child and nobody holds them there.
#pragma once

#include <mutex>

namespace zandor {

// In the order in which they are taken. All but the first are held for a few instructions, and
// nobody takes another lock or runs code of others under them.

/// Held while a plug-in's library is mapped or unmapped; its static constructors and destructors
/// run under it.
extern constinit std::recursive_mutex loaderLock;
extern constinit std::mutex registryLock;  ///< published roots, plug-ins, populations
extern constinit std::mutex internLock;    ///< new interned texts
extern constinit std::mutex poolLock;      ///< the arrays' depot and the threads' caches

}  // namespace zandor
