// How many instructions native events take: a figure that a busy machine does not move.
//
//   instructions ROW PAIRS   makes so many pairs of a row, for a tool that counts what measure()
//   does instructions             lists the rows
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <string_view>
#include <vector>

#include "zandor/instrument/clock.hpp"
#include "zandor/instrument/controls.hpp"
#include "zandor/instrument/instrument.hpp"
#include "zandor/instrument/recorder.hpp"
#include "zandor/performance/counter.hpp"
#include "zandor/performance/profiler.hpp"

namespace {

using instrument::InstrumentListener;
using instrument::Scope;

const instrument::Instrument solve{"bench.instructions"};

void plainPair() {
    const Scope scope{solve};
}

void numberPair() {
    static int n = 0;
    const Scope scope{solve, {{"n", ++n}}};
}

void textsPair() {
    const Scope scope{solve, {{"method", "cg"}, {"preconditioner", "ilu"}}};
}

void contextPair() {
    const Scope scope{solve, {{"n", 3}, {"method", "cg"}}};
}

void instantPoint() {
    solve.instant();
}

void numberPoint() {
    static int n = 0;
    solve.instant({{"n", ++n}});
}

void clockPair() {
    static_cast<void>(instrument::clock::ticks());
    static_cast<void>(instrument::clock::ticks());
}

/// All listeners that a row may have; the recorder's memory is used again after a while.
struct Listeners {
    instrument::InstrumentRecorder recorder{
        {.maxBytes = std::size_t{1} << 20, .keep = instrument::Keep::last}};
    instrument::InstrumentCounter counter;
    instrument::InstrumentProfiler profiler;
};

using Heard = std::vector<InstrumentListener*> (*)(Listeners&);

struct Row {
    const char* name;
    void (*pair)();
    Heard heard;
};

const Row rows[] = {
    {"two-clock-readings", clockPair,
     [](Listeners&) { return std::vector<InstrumentListener*>(); }},
    {"inactive", plainPair, [](Listeners&) { return std::vector<InstrumentListener*>(); }},
    {"recorded", plainPair,
     [](Listeners& all) { return std::vector<InstrumentListener*>{&all.recorder}; }},
    {"recorded-number", numberPair,
     [](Listeners& all) { return std::vector<InstrumentListener*>{&all.recorder}; }},
    {"recorded-two-texts", textsPair,
     [](Listeners& all) { return std::vector<InstrumentListener*>{&all.recorder}; }},
    {"recorded-instant", instantPoint,
     [](Listeners& all) { return std::vector<InstrumentListener*>{&all.recorder}; }},
    {"recorded-instant-number", numberPoint,
     [](Listeners& all) { return std::vector<InstrumentListener*>{&all.recorder}; }},
    {"counted", plainPair,
     [](Listeners& all) { return std::vector<InstrumentListener*>{&all.counter}; }},
    {"counted-context", contextPair,
     [](Listeners& all) { return std::vector<InstrumentListener*>{&all.counter}; }},
    {"profiled", plainPair,
     [](Listeners& all) { return std::vector<InstrumentListener*>{&all.profiler}; }},
    {"recorded-profiled", plainPair,
     [](Listeners& all) {
         return std::vector<InstrumentListener*>{&all.recorder, &all.profiler};
     }},
    {"recorded-counted-profiled", plainPair,
     [](Listeners& all) {
         return std::vector<InstrumentListener*>{&all.recorder, &all.counter, &all.profiler};
     }},
};

[[gnu::noinline]] void repeat(void (*pair)(), long pairs) {
    for (long i = 0; i < pairs; ++i)
        pair();
}

}  // namespace

// By this name the tool knows what to count.
extern "C" [[gnu::noinline]] void measure(void (*pair)(), long pairs) {
    repeat(pair, pairs);
}

namespace {

void run(const Row& row, long pairs) {
    Listeners all;
    const std::vector<InstrumentListener*> heard = row.heard(all);
    for (InstrumentListener* listener : heard)
        instrument::listeners.add(*listener);
    instrument::controls.enableAll(true);
    repeat(row.pair, pairs);
    measure(row.pair, pairs);
    instrument::controls.enableAll(false);
    for (InstrumentListener* listener : heard)
        instrument::listeners.remove(*listener);
}

}  // namespace

int main(int argc, char** argv) {
    for (const Row& row : rows) {
        if (argc < 3)
            std::puts(row.name);
        else if (std::string_view(argv[1]) == row.name)
            run(row, std::atol(argv[2]));
    }
}
