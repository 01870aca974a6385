// Whether switching disturbs threads that record: eight threads record pairs for a while, and the
// time of each pair is counted, while the main thread does nothing, switches an instrument, or adds
// and removes a listener.
//
//   switching nothing|instrument|listener [SECONDS]
//
// Prints the distribution of the pairs' times in microseconds, as JSON. Where there are fewer cores
// than threads the longest pairs are those that another thread's turn interrupted.
#include <algorithm>
#include <array>
#include <atomic>
#include <barrier>
#include <bit>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string_view>
#include <thread>
#include <vector>

#include "zandor/instrument/clock.hpp"
#include "zandor/instrument/controls.hpp"
#include "zandor/instrument/instrument.hpp"
#include "zandor/instrument/recorder.hpp"
#include "zandor/performance/counter.hpp"

namespace {

using instrument::InstrumentRecorder;

constexpr int threads = 8;
constexpr std::uint64_t millisecond = 1'000'000;

const instrument::Instrument solve{"switching.solve"};
const instrument::Instrument other{"switching.other"};

/// How many pairs took so long: sixteen steps for each doubling of nanoseconds.
class Distribution {
  public:
    void add(std::uint64_t nanoseconds) noexcept {
        ++counts_[placeOf(nanoseconds)];
        ++count_;
        if (nanoseconds > longest_)
            longest_ = nanoseconds;
        overAMillisecond_ += nanoseconds > millisecond;
    }
    void add(const Distribution& more) noexcept {
        for (std::size_t i = 0; i < counts_.size(); ++i)
            counts_[i] += more.counts_[i];
        count_ += more.count_;
        longest_ = std::max(longest_, more.longest_);
        overAMillisecond_ += more.overAMillisecond_;
    }
    /// What that part of the pairs keeps to.
    double microseconds(double part) const noexcept {
        const auto wanted = static_cast<std::uint64_t>(part * static_cast<double>(count_));
        std::uint64_t below = 0;
        for (std::size_t place = 0; place < counts_.size(); ++place) {
            below += counts_[place];
            if (below > wanted)
                return static_cast<double>(upperEnd(place)) / 1000;
        }
        return static_cast<double>(longest_) / 1000;
    }
    double longest() const noexcept { return static_cast<double>(longest_) / 1000; }
    std::uint64_t overAMillisecond() const noexcept { return overAMillisecond_; }
    std::uint64_t count() const noexcept { return count_; }

  private:
    static constexpr std::uint64_t steps = 16;
    static std::size_t placeOf(std::uint64_t nanoseconds) noexcept {
        if (nanoseconds < steps)
            return nanoseconds;
        const auto doublings = static_cast<std::uint64_t>(std::bit_width(nanoseconds)) - 5;
        return (doublings + 1) * steps + (nanoseconds >> doublings) - steps;
    }
    static std::uint64_t upperEnd(std::size_t place) noexcept {
        if (place < steps)
            return place;
        return (place % steps + steps + 1) << (place / steps - 1);
    }

    std::array<std::uint64_t, steps * 61> counts_{};
    std::uint64_t count_ = 0;
    std::uint64_t longest_ = 0;
    std::uint64_t overAMillisecond_ = 0;
};

std::atomic<bool> isOver{false};

/// The time from one pair to the next.
Distribution recordPairs(std::barrier<>& ready) {
    Distribution times;
    ready.arrive_and_wait();
    std::int64_t begin = instrument::clock::now();
    while (!isOver.load(std::memory_order_relaxed)) {  // partner: the store in run()
        { const instrument::Scope scope{solve}; }
        const std::int64_t end = instrument::clock::now();
        times.add(static_cast<std::uint64_t>(end - begin));
        begin = end;
    }
    return times;
}

void doNothing() {
    std::this_thread::yield();
}

void switchInstrument() {
    instrument::controls.disable("switching.other");
    instrument::controls.enable("switching.other");
}

void switchListener() {
    static instrument::InstrumentCounter counter;
    instrument::listeners.add(counter);
    instrument::listeners.remove(counter);
}

Distribution run(void (*disturb)(), std::chrono::milliseconds length, std::uint64_t& turns) {
    std::barrier ready(threads + 1);
    std::vector<Distribution> times(threads);
    std::vector<std::jthread> running;
    for (Distribution& own : times)
        running.emplace_back([&] { own = recordPairs(ready); });
    ready.arrive_and_wait();
    const auto end = std::chrono::steady_clock::now() + length;
    for (; std::chrono::steady_clock::now() < end; ++turns)
        disturb();
    isOver.store(true, std::memory_order_relaxed);  // partner: the load in recordPairs()
    running.clear();
    Distribution all;
    for (const Distribution& own : times)
        all.add(own);
    return all;
}

}  // namespace

int main(int count, char** arguments) {
    const std::string_view kind = count > 1 ? arguments[1] : "nothing";
    const double seconds = count > 2 ? std::atof(arguments[2]) : 2;
    InstrumentRecorder recorder(
        {.maxBytes = std::size_t{64} << 20, .keep = instrument::Keep::last});
    instrument::listeners.add(recorder);
    instrument::controls.enable("switching.solve");
    std::uint64_t turns = 0;
    const Distribution times =
        run(kind == "instrument" ? switchInstrument
            : kind == "listener" ? switchListener
                                 : doNothing,
            std::chrono::milliseconds(static_cast<int>(seconds * 1000)), turns);
    instrument::listeners.remove(recorder);
    std::printf(
        "{\"pairs\": %llu, \"turns\": %llu, \"p50\": %.3f, \"p99\": %.3f, \"p999\": %.3f, "
        "\"p9999\": %.3f, \"longest\": %.3f, \"over a millisecond\": %llu}\n",
        static_cast<unsigned long long>(times.count()), static_cast<unsigned long long>(turns),
        times.microseconds(0.5), times.microseconds(0.99), times.microseconds(0.999),
        times.microseconds(0.9999), times.longest(),
        static_cast<unsigned long long>(times.overAMillisecond()));
    return 0;
}
