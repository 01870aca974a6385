// Functions by their code objects, where these have no slot for them.
//
// The map holds the code objects, so that no other one comes to stand at the address of one; those
// that nobody else holds any more go when the map has doubled.
#pragma once

#include <cstddef>
#include <unordered_map>

#include "../src/python_api.hpp"
#include "function.hpp"

namespace vantrace {

/// Guarded by the interpreter's lock.
class FunctionMap {
  public:
    /// Null where it is not known, and for null.
    Function* find(PyCodeObject* code) noexcept;
    /// A function that no session decided about yet; valid until the next one is added.
    Function& add(PyCodeObject* code);

  private:
    struct Known {
        Ref code;
        Function function;
    };

    void forgetUnused();

    std::unordered_map<PyCodeObject*, Known> known_;
    std::size_t mostBeforeLooking_ = 1024;
};

/// The one of the process.
FunctionMap& functionMap() noexcept;

}  // namespace vantrace
