// How many instructions native events take: a figure that a busy machine does not move.
//
//   instructions ROW PAIRS   makes so many pairs of a row, for a tool that counts what measure()
//   does instructions             lists the rows
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "zandor/instrument/clock.hpp"
#include "zandor/instrument/controls.hpp"
#include "zandor/instrument/instrument.hpp"
#include "zandor/instrument/literal_context.hpp"
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

void literalsPair() {
    static constinit const instrument::LiteralContext context{{"method", "cg"},
                                                              {"preconditioner", "ilu"}};
    const Scope scope{solve, context};
}

const std::vector<instrument::Instrument>& eightNames() {
    static const std::vector<instrument::Instrument> names = [] {
        std::vector<instrument::Instrument> made;
        for (int i = 0; i < 8; ++i)
            made.emplace_back("bench.nested." + std::to_string(i));
        return made;
    }();
    return names;
}

/// The next of eight pairs, each inside the one before: all eight are made with the last.
void nestedPair() {
    static std::size_t made = 0;
    if (++made % eightNames().size() != 0)
        return;
    std::optional<Scope> open[8];
    for (std::size_t i = 0; i < eightNames().size(); ++i)
        open[i].emplace(eightNames()[i]);
    for (std::size_t i = eightNames().size(); i-- > 0;)
        open[i].reset();
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

/// Who hears a row; none where it is inactive.
using Heard = std::vector<InstrumentListener*> (*)(Listeners&);

std::vector<InstrumentListener*> nobody(Listeners&) {
    return {};
}
std::vector<InstrumentListener*> recorder(Listeners& all) {
    return {&all.recorder};
}
std::vector<InstrumentListener*> counter(Listeners& all) {
    return {&all.counter};
}
std::vector<InstrumentListener*> profiler(Listeners& all) {
    return {&all.profiler};
}
std::vector<InstrumentListener*> recorderAndProfiler(Listeners& all) {
    return {&all.recorder, &all.profiler};
}
std::vector<InstrumentListener*> everybody(Listeners& all) {
    return {&all.recorder, &all.counter, &all.profiler};
}

struct Row {
    const char* name;
    void (*pair)();
    Heard heard;
};

const Row rows[] = {
    {"two-clock-readings", clockPair, nobody},
    {"inactive", plainPair, nobody},
    {"inactive-two-texts", textsPair, nobody},
    {"recorded", plainPair, recorder},
    {"recorded-number", numberPair, recorder},
    {"recorded-two-texts", textsPair, recorder},
    {"recorded-two-literals", literalsPair, recorder},
    {"recorded-nested", nestedPair, recorder},
    {"recorded-instant", instantPoint, recorder},
    {"recorded-instant-number", numberPoint, recorder},
    {"counted", plainPair, counter},
    {"counted-two-texts", textsPair, counter},
    {"counted-two-literals", literalsPair, counter},
    {"profiled", plainPair, profiler},
    {"profiled-nested", nestedPair, profiler},
    {"recorded-profiled", plainPair, recorderAndProfiler},
    {"recorded-counted-profiled", plainPair, everybody},
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
