// Makes a trace file of a given size, to measure what reads one.
//
//   trace_files EVENTS FILE.vtrace   events of four threads, nested in each other, under 21 names
//   in some 2,000 stacks
#include <atomic>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "zandor/instrument/controls.hpp"
#include "zandor/instrument/instrument.hpp"
#include "zandor/instrument/recorder.hpp"
#include "zandor/instrument/trace_file.hpp"

namespace {

using instrument::Instrument;
using instrument::Scope;

constexpr unsigned threadCount = 4;
constexpr unsigned nameCount = 200;
constexpr unsigned deepest = 9;

/// Makes events until none are left, as calls of one another.
class Caller {
  public:
    Caller(const std::vector<Instrument>& names, std::uint64_t events, unsigned seed)
        : names_(names), left_(events), random_(seed) {}

    void run() {
        while (left_ > 0)
            call(0);
    }

  private:
    void call(unsigned depth) {
        if (left_ == 0)
            return;
        --left_;
        const Instrument& name = names_[depth * nameCount / (deepest + 1) + random_() % 2];
        if (left_ % 64 == 0) {
            const Scope scope(name, {{"left", left_}});
            callOthers(depth);
        } else {
            const Scope scope(name);
            callOthers(depth);
        }
    }
    void callOthers(unsigned depth) {
        for (auto calls = depth < deepest ? random_() % 4 : 0; calls > 0; --calls)
            call(depth + 1);
    }

    const std::vector<Instrument>& names_;
    std::uint64_t left_;
    std::minstd_rand random_;
};

void record(std::uint64_t events) {
    std::vector<Instrument> names;
    for (unsigned i = 0; i < nameCount; ++i)
        names.emplace_back("work::step_" + std::to_string(i));
    std::vector<std::thread> threads;
    for (unsigned i = 0; i < threadCount; ++i)
        threads.emplace_back([&, i] {
            instrument::setThreadName("worker " + std::to_string(i));
            const Scope whole(names.back());
            Caller(names, events / threadCount, i + 1).run();
        });
    for (std::thread& thread : threads)
        thread.join();
}

}  // namespace

int main(int count, char** arguments) {
    if (count != 3) {
        std::fputs("usage: trace_files EVENTS FILE.vtrace\n", stderr);
        return 2;
    }
    const std::uint64_t events = std::strtoull(arguments[1], nullptr, 10);
    const std::filesystem::path file = arguments[2];
    const std::filesystem::path folder = file.string() + ".run";
    std::filesystem::create_directory(folder);
    {
        instrument::InstrumentRecorder recorder(
            {.maxBytes = std::size_t{1} << 36, .folder = folder});
        instrument::listeners.add(recorder);
        instrument::controls.enableAll(true);
        record(events);
        instrument::controls.enableAll(false);
        instrument::listeners.remove(recorder);
        instrument::finishRunFolder(folder, file);
    }
    std::filesystem::remove_all(folder);
    return 0;
}
