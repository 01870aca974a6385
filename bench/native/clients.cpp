// What an event costs a client that produces it, and the host that takes it in, beside two readings
// of the clock and a copy of 64 bytes.
//
// Producing is measured a batch at a time, which the ring has room for; reading it is not part of
// that, nor is producing part of reading.
#include <stdlib.h>
#include <time.h>

#include <atomic>
#include <cstring>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "bench/library/wanted.hpp"
#include "measuring.hpp"
#include "zandor/client/client.h"
#include "zandor/performance/aggregator.hpp"

namespace {

using bench::tick;

constexpr int batch = 8192;  // pairs

/// Of the calling thread, in seconds: what others do on the machine does not count.
double processorTime() {
    timespec time{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
}

/// Runs `work`, which does `count` of what is measured, and counts its time alone.
template <class Prepare, class Work>
void measure(benchmark::State& state, int count, Prepare prepare, Work work) {
    while (state.KeepRunningBatch(count)) {
        prepare();
        const double begin = processorTime();
        work();
        state.SetIterationTime(processorTime() - begin);
    }
}

/// An aggregator with a client in the same process.
class Connection {
  public:
    Connection() {
        char path[] = "/tmp/zandor-bench-XXXXXX";
        folder_ = mkdtemp(path);
        setenv("ZANDOR_RUNTIME_DIR", folder_.c_str(), 1);
        aggregator_.start();
        client_ = zandor_client_open("bench");
        while (!zandor_client_is_wanted(client_))
            std::this_thread::yield();
    }
    ~Connection() {
        zandor_client_close(client_);
        aggregator_.stop();
        std::filesystem::remove_all(folder_);
    }
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    void produce(const char* const* keys, const char* const* values, std::size_t count) {
        for (int i = 0; i < batch; ++i)
            zandor_client_stop(client_,
                               zandor_client_start(client_, "bench.pair", keys, values, count));
    }
    void collect() { aggregator_.collectEvents(); }

  private:
    std::string folder_;
    instrument::ExternalEventsAggregator aggregator_;
    zandor_client* client_;
};

void floorTwoTicksAndACopy(benchmark::State& state) {
    std::vector<char> ring(std::size_t{batch} * 64);
    char event[64] = {};
    measure(
        state, batch, [] {},
        [&] {
            for (int i = 0; i < batch; ++i) {
                const std::uint64_t times[2] = {tick(), tick()};
                std::memcpy(event, times, sizeof times);
                std::memcpy(ring.data() + std::size_t(i) * 64, event, sizeof event);
                benchmark::ClobberMemory();
            }
        });
}
BENCHMARK(floorTwoTicksAndACopy)->UseManualTime();

void producedPair(benchmark::State& state) {
    Connection connection;
    measure(
        state, batch, [&] { connection.collect(); },
        [&] { connection.produce(nullptr, nullptr, 0); });
}
BENCHMARK(producedPair)->UseManualTime();

void producedPairWithContext(benchmark::State& state) {
    Connection connection;
    const char* keys[] = {"n", "method"};
    const char* values[] = {"3", "cg"};
    measure(
        state, batch, [&] { connection.collect(); }, [&] { connection.produce(keys, values, 2); });
}
BENCHMARK(producedPairWithContext)->UseManualTime();

void floorTwoCalls(benchmark::State& state) {
    auto* volatile begin = bench::startIfWanted;
    auto* volatile end = bench::stopIfWanted;
    for (auto _ : state)
        end(nullptr, begin(nullptr, "bench", nullptr, nullptr, 0));
}
BENCHMARK(floorTwoCalls);

void unwantedPair(benchmark::State& state) {
    zandor_client* const client = zandor_client_open("bench");
    for (auto _ : state)
        zandor_client_stop(client, zandor_client_start(client, "bench.pair", nullptr, nullptr, 0));
    zandor_client_close(client);
}
BENCHMARK(unwantedPair);

void collectedIntoTheRecorder(benchmark::State& state) {
    Connection connection;
    instrument::InstrumentRecorder recorder;
    const bench::Listening listening({&recorder});
    measure(
        state, 2 * batch,
        [&] {
            recorder.clearAllEventData();
            connection.produce(nullptr, nullptr, 0);
        },
        [&] { connection.collect(); });
    if (recorder.getAllEvents().size() != batch)
        state.SkipWithError("events were not recorded");
}
BENCHMARK(collectedIntoTheRecorder)->UseManualTime();

}  // namespace
