// The namespace "controls": instruments switched on and off.
#include "zandor/instrument/controls.hpp"

#include <string>

#include "vantrace/instrument/context_entries.hpp"
#include "vantrace/instrument/method_tables.hpp"

namespace vantrace {

using instrument::ContextSet;
using instrument::controls;

namespace {

bool has(const std::string& name) {
    return controls.has(name);
}

// The two enquiries are published without a result.

void isEnabled(const std::string& name) {
    controls.isEnabled(name);
}

void isEnabledWithContext(const std::string& name, const Strings& entry) {
    ContextSet context;
    context.insert(makeContextEntry(entry));
    controls.isEnabled(name, context);
}

void enable(const std::string& name) {
    controls.enable(name);
}

void enableWithContextEntry(const std::string& name, const Strings& entry) {
    controls.enable(name, makeContextEntry(entry));
}

void disable(const std::string& name) {
    controls.disable(name);
}

void disableWithContextEntry(const std::string& name, const Strings& entry) {
    controls.disable(name, makeContextEntry(entry));
}

bool wereAllEnabled() {
    return controls.wereAllEnabled();
}

void enableAll() {
    controls.enableAll(true);
}

void disableAll() {
    controls.disableAll();
}

constinit const MethodRow rows[] = {
    {"has", has},
    {"isEnabled", isEnabled},
    {"isEnabledWithContext", isEnabledWithContext},
    {"enable", enable},
    {"enableWithContextEntry", enableWithContextEntry},
    {"disable", disable},
    {"disableWithContextEntry", disableWithContextEntry},
    {"wereAllEnabled", wereAllEnabled},
    {"enableAll", enableAll},
    {"disableAll", disableAll},
};

}  // namespace

constinit const MethodTable controlsMethods = rows;

}  // namespace vantrace
