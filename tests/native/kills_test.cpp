// SIGKILL at any instant, of a process that records into a folder, of a client and of a host: what
// was committed is there, and nobody waits.
#include <gmock/gmock.h>

#include <atomic>
#include <random>
#include <string>
#include <thread>

#include "client_support.hpp"
#include "process_support.hpp"
#include "soak_support.hpp"
#include "zandor/instrument/testing/recorder_support.hpp"
#include "zandor/instrument/testing/temporary_folder.hpp"
#include "zandor/instrument/trace_file.hpp"

namespace client_tests {
namespace {

using instrument::test_support::onThreads;
using process_tests::Child;
using process_tests::Shared;

constexpr int threads = 2;

/// What a child has done for certain.
struct Progress {
    std::atomic<std::uint64_t> done{0};

    void await(std::uint64_t count) const {
        while (done < count)
            std::this_thread::yield();
    }
};

class Kills : public Counted<ClientTest> {
  protected:
    /// Where in its work a child is killed: anywhere, early instants as often as late ones.
    std::uint64_t anyInstant() { return 1u << random_() % 15 | random_() % 50; }

    /// A child that was forked is a client of the same name.
    static instrument::ExternalAccount ownAccountOf(const std::string& name) {
        for (const auto& account : instrument::externalAccounts()) {
            if (account.name == name && account.processId == static_cast<std::uint64_t>(getpid()))
                return account;
        }
        return {};
    }

    std::mt19937 random_{1};
};

TEST_P(Kills, OfARecordingProcessLeaveAllThatWasCommitted) {
    const instrument::Instrument work("work");
    for (int round = 0; round < count(); ++round) {
        const instrument::test_support::TemporaryFolder folder;
        Shared<Progress> progress;
        Child child([&] {
            instrument::InstrumentRecorder recorder({.folder = folder.path()});
            instrument::listeners.add(recorder);
            onThreads(threads, [&](int) {
                for (std::uint64_t i = 0;; ++i) {
                    work.stop(work.start({{"i", i}, {"text", std::to_string(i % 100)}}));
                    ++progress->done;
                }
            });
        });
        progress->await(anyInstant());
        child.signal(SIGKILL);
        ASSERT_EQ(child.waitUntilKilled(), SIGKILL);
        const auto file = folder / "result.vtrace";
        instrument::finishRunFolder(folder.path(), file);
        const instrument::TraceFile trace(file);
        const auto summary = trace.summarize();
        ASSERT_EQ(summary.size(), 1u) << "round " << round;
        ASSERT_GE(summary[0].count, static_cast<std::int64_t>(progress->done));
        ASSERT_LE(summary[0].count, static_cast<std::int64_t>(progress->done) + threads);
        ASSERT_EQ(trace.damagedBlocks(), 0u) << "round " << round;
    }
}

TEST_P(Kills, OfAClientLeaveAllThatWasPublishedAndNobodyWaits) {
    aggregator_.start();
    const OpenClient bystander("bystander");
    bystander.waitUntilWanted();
    std::uint64_t beside = 0;
    for (int round = 0; round < count(); ++round) {
        const std::string name = "killed " + std::to_string(round);
        Shared<Progress> progress;
        Child child([&] {
            const OpenClient client(name.c_str());
            client.waitUntilWanted();
            for (;;) {
                if (client.start("work").serial != 0)
                    ++progress->done;
            }
        });
        const std::uint64_t instant = anyInstant();
        while (progress->done < instant) {
            aggregator_.collectEvents();
            beside += bystander.start("beside").serial != 0;
        }
        child.signal(SIGKILL);
        ASSERT_EQ(child.waitUntilKilled(), SIGKILL);
        ASSERT_TRUE(waitUntil([&] {
            aggregator_.refreshActiveClients();
            aggregator_.collectEvents();
            return accountOf(name).delivered >= progress->done;
        })) << "round "
            << round;
        ASSERT_LE(accountOf(name).delivered, progress->done + 1);
        recorder_.clearAllEventData();
    }
    bystander.instant("beside");
    aggregator_.stop();
    const auto account = ownAccountOf("bystander");
    expectBalanced(account);
    EXPECT_EQ(account.published, beside + 1);
}

TEST_P(Kills, OfAHostDisturbNoClientAndTheNextHostHasIt) {
    const OpenClient client("survivor");
    for (int round = 0; round < countOver(10); ++round) {
        Child host([] {
            instrument::ExternalEventsAggregator aggregator;
            aggregator.start();
            for (;;)
                aggregator.collectEvents();
        });
        client.waitUntilWanted();
        for (std::uint64_t i = anyInstant(); i > 0; --i)
            client.instant("event");
        host.signal(SIGKILL);
        ASSERT_EQ(host.waitUntilKilled(), SIGKILL);
    }
    ASSERT_TRUE(waitUntil([&] { return !client.isWanted(); }, std::chrono::seconds(10)));
    aggregator_.start();
    client.waitUntilWanted();
    client.instant("event");
    aggregator_.collectEvents();
    EXPECT_FALSE(recorder_.getEventPoints("event").empty());
}

SHORT_AND_SOAK(Kills, 20, 1000);

}  // namespace
}  // namespace client_tests
