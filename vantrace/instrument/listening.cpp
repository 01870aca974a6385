#include "vantrace/instrument/listening.hpp"

#include "zandor/instrument/controls.hpp"
#include "zandor/instrument/listeners.hpp"

namespace vantrace {

using instrument::controls;
using instrument::listeners;

bool Listening::isActive() const {
    return listeners.has(listener_);
}

void Listening::start() {
    listeners.add(listener_);
    savedEnableAll_ = controls.wereAllEnabled();
    controls.enableAll(true);
}

void Listening::stop() {
    controls.enableAll(savedEnableAll_.exchange(false));
    listeners.remove(listener_);
}

}  // namespace vantrace
