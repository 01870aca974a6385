// Sixteen clients of two threads each that produce a million events a second in all, and a host
// that collects them: whether everything arrives, and what the host needs for it.
//
//   clients_soak [SECONDS [EVENTS A SECOND]]     (60, 1,000,000; 0: as many as they can)
//
// Ends with 1 where published is not delivered and dropped together, or, at a given rate, where
// something was dropped.
#include <stdlib.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "zandor/client/client.h"
#include "zandor/instrument/controls.hpp"
#include "zandor/instrument/external_accounts.hpp"
#include "zandor/instrument/listeners.hpp"
#include "zandor/performance/aggregator.hpp"
#include "zandor/performance/counter.hpp"

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr int clients = 16;
constexpr int threads = 2;

/// Produces that many events a second, a hundredth of them at a time; 0: without a pause.
void produce(zandor_client* client, Clock::time_point end, long rate) {
    while (!zandor_client_is_wanted(client))
        std::this_thread::yield();
    constexpr milliseconds turn(10);
    const long pairs = rate == 0 ? 1000 : rate / 200;
    for (auto next = Clock::now(); next < end; next += turn) {
        for (long i = 0; i < pairs; ++i)
            zandor_client_stop(client, zandor_client_start(client, "soak", nullptr, nullptr, 0));
        if (rate == 0)
            next = Clock::now() - turn;
        else
            std::this_thread::sleep_until(next + turn);
    }
}

void runClient(int number, Clock::time_point end, long rate) {
    zandor_client* const client = zandor_client_open(("soak-" + std::to_string(number)).c_str());
    std::vector<std::thread> all;
    for (int i = 0; i < threads; ++i)
        all.emplace_back(produce, client, end, rate / (clients * threads));
    for (std::thread& thread : all)
        thread.join();
    zandor_client_close(client);
}

double processorSeconds() {
    timespec time{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &time);
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
}

long peakMegabytes() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return usage.ru_maxrss / 1024;
}

/// Prints what became of the events; whether that is as it has to be.
bool report(double seconds, bool isPaced) {
    std::uint64_t published = 0, delivered = 0, dropped = 0;
    for (const auto& account : instrument::externalAccounts()) {
        published += account.published;
        delivered += account.delivered;
        for (const auto& [cause, count] : account.drops) {
            std::printf("%s: %llu dropped (%s)\n", account.name.c_str(),
                        static_cast<unsigned long long>(count), cause.c_str());
            dropped += count;
        }
    }
    std::printf("published %llu, delivered %llu, dropped %llu in %.1f s: %.0f a second\n",
                static_cast<unsigned long long>(published),
                static_cast<unsigned long long>(delivered),
                static_cast<unsigned long long>(dropped), seconds,
                static_cast<double>(published) / seconds);
    std::printf("host: %.0f ns of processor time an event, peak memory %ld MB\n",
                processorSeconds() * 1e9 / static_cast<double>(delivered), peakMegabytes());
    return published > 0 && published == delivered + dropped && (dropped == 0 || !isPaced);
}

}  // namespace

int main(int count, char** arguments) {
    const long seconds = count > 1 ? std::atol(arguments[1]) : 60;
    const long rate = count > 2 ? std::atol(arguments[2]) : 1'000'000;
    char folder[] = "/tmp/zandor-soak-XXXXXX";
    if (!mkdtemp(folder))
        return 2;
    setenv("ZANDOR_RUNTIME_DIR", folder, 1);
    const auto begin = Clock::now();
    const auto end = begin + std::chrono::seconds(seconds);
    std::vector<pid_t> children;
    for (int i = 0; i < clients; ++i) {
        const pid_t child = fork();
        if (child == 0) {
            runClient(i, end, rate);
            _exit(0);
        }
        children.push_back(child);
    }
    instrument::InstrumentCounter counter;
    instrument::listeners.add(counter);
    instrument::controls.enableAll(true);
    instrument::ExternalEventsAggregator aggregator;
    aggregator.startCollecting(milliseconds(20));
    for (const pid_t child : children)
        waitpid(child, nullptr, 0);
    aggregator.stop();
    std::filesystem::remove_all(folder);
    const std::chrono::duration<double> passed = Clock::now() - begin;
    return report(passed.count(), rate != 0) ? 0 : 1;
}
