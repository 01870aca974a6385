// A small numerical program with instruments of its own: a heat equation on a grid whose rows two
// threads share. Records its events, prints where the time went, and writes a trace.
//
//   native [trace.json]
#include <algorithm>
#include <barrier>
#include <cmath>
#include <cstdio>
#include <exception>
#include <thread>
#include <vector>

#include "zandor/instrument/controls.hpp"
#include "zandor/instrument/exports.hpp"
#include "zandor/instrument/instrument.hpp"
#include "zandor/instrument/recorder.hpp"

namespace {

const instrument::Instrument run{"run"};
const instrument::Instrument sweep{"sweep"};
const instrument::Instrument waiting{"waiting for the other half"};
const instrument::Instrument converged{"converged"};

constexpr int threads = 2;
constexpr int maximumSteps = 200;

struct Grid {
    explicit Grid(int side)
        : size(side), values(static_cast<std::size_t>(side) * static_cast<std::size_t>(side)) {
        std::fill_n(values.begin(), side, 1.0);  // one warm edge
    }
    double& at(int row, int column) {
        return values[static_cast<std::size_t>(row * size + column)];
    }
    int size;
    std::vector<double> values;
};

/// Replaces the inner values of some rows by the mean of their neighbours; gives the largest
/// change.
double relax(Grid& from, Grid& to, int firstRow, int lastRow) {
    double change = 0;
    for (int row = firstRow; row < lastRow; ++row)
        for (int column = 1; column < from.size - 1; ++column) {
            to.at(row, column) = 0.25 * (from.at(row - 1, column) + from.at(row + 1, column) +
                                         from.at(row, column - 1) + from.at(row, column + 1));
            change = std::max(change, std::abs(to.at(row, column) - from.at(row, column)));
        }
    return change;
}

class Solver {
  public:
    Solver(int size, double tolerance) : grids_{Grid(size), Grid(size)}, tolerance_(tolerance) {}

    void solve() {
        // An event with context: numbers and texts as they are.
        const instrument::Scope scope{
            run, {{"n", grids_[0].size}, {"tolerance", tolerance_}, {"method", "jacobi"}}};
        std::thread worker([this] {
            instrument::setThreadName("worker");
            steps(1);
        });
        steps(0);
        worker.join();
    }

  private:
    void steps(int thread) {
        const int rows = (grids_[0].size - 2) / threads;
        for (int step = 0; step < maximumSteps && !done_; ++step) {
            // The macro evaluates its arguments only where somebody listens.
            ZANDOR_SCOPE("step", {"step", step});
            {
                const instrument::Scope scope{sweep};
                changes_[thread] = relax(grids_[step % 2], grids_[1 - step % 2], 1 + thread * rows,
                                         1 + (thread + 1) * rows);
            }
            meet(thread, step);
        }
    }

    // The worker opens an event that the main thread closes: how long the main thread's part was
    // the longer one.
    void meet(int thread, int step) {
        if (thread == 1)
            open_ = waiting.start({{"step", step}});
        together_.arrive_and_wait();
        if (thread == 0) {
            waiting.stop(open_);
            done_ = std::max(changes_[0], changes_[1]) < tolerance_;
            if (done_)
                converged.instant({{"step", step}});
        }
        together_.arrive_and_wait();
    }

    Grid grids_[2];
    const double tolerance_;
    double changes_[threads]{};
    bool done_ = false;
    instrument::OpenEvent open_;
    std::barrier<> together_{threads};
};

}  // namespace

int main(int count, char** arguments) {
    try {
        const char* file = count > 1 ? arguments[1] : "native.json";
        instrument::setThreadName("main");
        instrument::InstrumentRecorder recorder;
        instrument::listeners.add(recorder);
        instrument::controls.enableAll(true);

        Solver(256, 1e-3).solve();

        std::printf("%-26s %8s %12s %12s\n", "event", "count", "total/ms", "self/ms");
        for (const auto& event : instrument::summarize(recorder))
            std::printf("%-26.*s %8lld %12.3f %12.3f\n", static_cast<int>(event.name.size()),
                        event.name.data(), static_cast<long long>(event.count),
                        static_cast<double>(event.total) / 1e6,
                        static_cast<double>(event.self) / 1e6);
        instrument::saveTraceEventJson(recorder, instrument::TimeSystem::monotonic,
                                       std::chrono::nanoseconds(-1), file);
        std::printf("The trace is in %s\n", file);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "native: %s\n", error.what());
        return 1;
    }
}
