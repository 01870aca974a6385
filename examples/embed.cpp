// Embedding the host: loads the plug-in, records two events through its published methods, and
// prints what came back.
//
//   embed build/release/lib/libvantrace.so
#include <cstdint>
#include <cstdio>
#include <exception>
#include <string>

#include "zandor/runtime/array.hpp"
#include "zandor/runtime/zandor.hpp"

namespace {

namespace hx = matrix::hx;
using matrix::ClassId;
using zandor::Value;

/// A value of a struct array in words: texts and numbers are all that event records hold.
std::string toText(const hxArray* value) {
    if (!value) {
        return "-";
    }
    switch (hx::hxGetClassId(value)) {
        case ClassId::character:
            return hx::hxArrayToStdString(value);
        case ClassId::real:
            return std::to_string(*static_cast<const double*>(hx::hxGetData(value)));
        case ClassId::uint64:
            return std::to_string(*static_cast<const std::uint64_t*>(hx::hxGetData(value)));
        default:
            return hx::hxGetClassName(hx::hxGetClassId(value));
    }
}

void print(const char* title, const hxArray* records) {
    std::printf("%s\n", title);
    for (std::size_t i = 0; i < hx::hxGetElementCount(records); ++i) {
        for (std::size_t field = 0; field < hx::hxGetFieldCount(records); ++field) {
            const hxArray* value = hx::hxGetFieldByNumber(records, i, field);
            std::printf("  %s=%s", hx::hxGetFieldName(records, field), toText(value).c_str());
        }
        std::printf("\n");
    }
}

/// Starts and stops one event with a context of two entries.
void solve(const std::string& size) {
    const zandor::Method start = zandor::resolve("performance.instrument.instruments.startEvent");
    const zandor::Method stop = zandor::resolve("performance.instrument.instruments.stopEvent");
    const std::string context[] = {"n", size, "method", "cg"};

    const Value id = start(Value::text("solve"), Value::texts(context));
    const auto number = [&](const char* field) {
        const hxArray* value = hx::hxGetField(id.asArray(), 0, field);
        return Value::unsignedInteger(*static_cast<const std::uint64_t*>(hx::hxGetData(value)));
    };
    stop(Value::text("solve"), Value::texts(context), number("sourceId"), number("serialId"));
}

void record(const char* library) {
    zandor::Plugin plugin = zandor::Plugin::load(library);
    const zandor::Namespace instrument =
        zandor::findRoot("performance").findNamespace("instrument");
    const zandor::Namespace recorder = instrument.findNamespace("recorder");

    zandor::resolve("performance.instrument.recorder.start")();
    solve("100");
    solve("200");
    recorder.findMethod("stop")();

    print("events:", recorder.findMethod("getEvents")(Value::text("solve")).asArray());
    print("statistics:", recorder.findMethod("getAllEventStats")().asArray());
    plugin.unload();
}

}  // namespace

int main(int argumentCount, char** arguments) {
    if (argumentCount != 2) {
        std::fprintf(stderr, "usage: embed PLUGIN\n");
        return 2;
    }
    try {
        record(arguments[1]);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "embed: %s\n", error.what());
        return 1;
    }
    return 0;
}
