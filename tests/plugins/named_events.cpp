// A user's library with names and texts of its own, in its own memory.
#include <string>

#include "zandor/instrument/controls.hpp"
#include "zandor/instrument/instrument.hpp"

#define TEST_API extern "C" __attribute__((visibility("default")))

TEST_API void ZDInitialize_named_events() {}

/// What the library takes for the instrument of a name.
TEST_API const void* handleOf(const char* name) {
    return instrument::controls.getHandle(name);
}

/// Emits events whose texts lie in the library, and on a heap block that is overwritten and freed.
TEST_API void emitNamedEvents(int count) {
    static const char method[] = "method of the library";
    for (int i = 0; i < count; ++i) {
        std::string name = "event of the library " + std::to_string(i % 100);
        std::string text(100, static_cast<char>('a' + i % 26));
        {
            const instrument::Instrument instrument{name};
            const instrument::Scope scope{instrument, {{"method", method}, {"text", text}}};
        }
        name.assign(name.size(), '?');
        text.assign(text.size(), '?');
    }
}
