#include "function_map.hpp"

#include <algorithm>
#include <memory>
#include <utility>
#include <vector>

namespace vantrace {

Function* FunctionMap::find(PyCodeObject* code) noexcept {
    const auto found = known_.find(code);
    return found == known_.end() ? nullptr : &found->second.function;
}

Function& FunctionMap::add(PyCodeObject* code) {
    if (known_.size() >= mostBeforeLooking_)
        forgetUnused();
    Known known{Ref::share(reinterpret_cast<PyObject*>(code)), newFunction(code)};
    return known_.try_emplace(code, std::move(known)).first->second.function;
}

void FunctionMap::forgetUnused() {
    // Whoever watches a code object may run code when it goes, which enters functions.
    std::vector<Ref> unused;
    for (auto entry = known_.begin(); entry != known_.end();) {
        Ref& code = entry->second.code;
        if (Py_REFCNT(code.get()) > 1) {
            ++entry;
            continue;
        }
        unused.push_back(std::move(code));
        entry = known_.erase(entry);
    }
    mostBeforeLooking_ = std::max<std::size_t>(1024, 2 * known_.size());
}

FunctionMap& functionMap() noexcept {
    // Never destroyed: threads may call until the very end of the process.
    static auto& map = *std::make_unique<FunctionMap>().release();
    return map;
}

}  // namespace vantrace
