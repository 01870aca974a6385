// Clients and hosts that die and stop.
#include <gmock/gmock.h>

#include <thread>

#include "client_faults_support.hpp"

extern "C" void zandor_test_point(const char* label) {
    client_tests::meet(label);
}

namespace client_tests {
namespace {

using testing::SizeIs;
using testing::Values;

/// Produces until it dies; counts what was taken, once it was.
void produce(std::atomic<std::uint64_t>& taken, int events) {
    const OpenClient client("doomed");
    client.waitUntilWanted();
    const char* key = "i";
    const char* value = "some text that a context has";
    while (taken < static_cast<std::uint64_t>(events)) {
        if (zandor_client_start(client.get(), "counted", &key, &value, 1).serial != 0)
            ++taken;
        else
            std::this_thread::yield();
    }
    std::thread([&] {
        client.instant("of a thread");
        ++taken;
    }).join();
}

// Producers that die.

class ProducersKilledAt : public FaultyClients, public testing::WithParamInterface<Fault> {};

TEST_P(ProducersKilledAt, LoseNothingThatWasPublishedAndDisturbNobody) {
    Shared<std::atomic<std::uint64_t>> taken;
    aggregator_.start();
    const OpenClient bystander("bystander");
    bystander.waitUntilWanted();
    Child child([&] {
        fault = GetParam();
        produce(*taken, 40'000);
    });
    std::uint64_t beside = 0;
    int status = 0;
    while (waitpid(child.process(), &status, WNOHANG) == 0) {
        bystander.instant("beside");
        ++beside;
        aggregator_.collectEvents();
    }
    ASSERT_TRUE(WIFSIGNALED(status)) << "the label was not reached";
    ASSERT_EQ(WTERMSIG(status), SIGKILL);
    const auto account = accountAtEnd("doomed");
    expectBalanced(account);
    EXPECT_GE(account.delivered, *taken);
    EXPECT_LE(account.delivered, *taken + 1);
    EXPECT_THAT(recorder_.getEventPoints("beside"), SizeIs(beside));
}

INSTANTIATE_TEST_SUITE_P(
    Anywhere, ProducersKilledAt,
    Values(Fault{"client.connected", SIGKILL}, Fault{"client.session.entered", SIGKILL},
           Fault{"client.joined", SIGKILL}, Fault{"client.ring.made", SIGKILL},
           Fault{"client.ring.offered", SIGKILL}, Fault{"client.record.context", SIGKILL},
           Fault{"client.record.context", SIGKILL, 12'345}, Fault{"client.ring.padded", SIGKILL},
           Fault{"client.ring.offered", SIGKILL, 1}, Fault{"client.ring.ended", SIGKILL}));

// Producers that stop.

class ProducersStoppedAt : public FaultyClients, public testing::WithParamInterface<Fault> {};

TEST_P(ProducersStoppedAt, AreNotWaitedForAndGoOnLater) {
    Shared<std::atomic<std::uint64_t>> taken;
    aggregator_.start();
    const OpenClient bystander("bystander");
    bystander.waitUntilWanted();
    Child child([&] {
        fault = GetParam();
        produce(*taken, 1000);
    });
    child.waitUntilStopped();
    for (int i = 0; i < 100; ++i) {
        bystander.instant("beside");
        aggregator_.collectEvents();
    }
    EXPECT_THAT(recorder_.getEventPoints("beside"), SizeIs(100));
    child.signal(SIGCONT);
    EXPECT_EQ(child.wait(), 0);
    const auto account = accountAtEnd("doomed");
    EXPECT_EQ(account.delivered, 1001u);
    expectBalanced(account);
}

INSTANTIATE_TEST_SUITE_P(Anywhere, ProducersStoppedAt,
                         Values(Fault{"client.connected", SIGSTOP},
                                Fault{"client.ring.made", SIGSTOP},
                                Fault{"client.ring.offered", SIGSTOP},
                                Fault{"client.record.context", SIGSTOP, 500}));

// Hosts that die and stop.

void host(const Fault& what) {
    instrument::ExternalEventsAggregator aggregator;
    instrument::InstrumentRecorder recorder;
    instrument::listeners.add(recorder);
    instrument::controls.enableAll(true);
    fault = what;
    aggregator.startCollecting(std::chrono::milliseconds(1));
    waitUntil([] { return false; }, std::chrono::seconds(60));
}

class HostsKilledAt : public FaultyClients, public testing::WithParamInterface<Fault> {};

TEST_P(HostsKilledAt, DoNotDisturbTheirClientsAndTheNextOnePicksThemUp) {
    const OpenClient client("survivor");
    std::atomic<bool> isDone{false};
    Child child([] { host(GetParam()); });
    std::thread producer([&] {
        const char* key = "k";
        const char* value = "v";
        while (!isDone)
            zandor_client_instant(client.get(), "event", &key, &value, 1);
    });
    EXPECT_EQ(child.waitUntilKilled(), SIGKILL);
    EXPECT_TRUE(waitUntil([&] { return !client.isWanted(); }, std::chrono::seconds(5)));
    aggregator_.start();
    client.waitUntilWanted();
    EXPECT_TRUE(waitUntil([&] {
        aggregator_.collectEvents();
        return accountOf("survivor").delivered > 1000;
    }));
    isDone = true;
    producer.join();
    expectBalanced(accountAtEnd("survivor"));
    EXPECT_EQ(folder_.files(), std::string_view(GetParam().label) == "host.bound" ? 1u : 0u);
}

INSTANTIATE_TEST_SUITE_P(
    Anywhere, HostsKilledAt,
    Values(Fault{"host.bound", SIGKILL}, Fault{"host.listening", SIGKILL},
           Fault{"host.refreshed", SIGKILL}, Fault{"host.welcomed", SIGKILL},
           Fault{"host.ring.offered", SIGKILL}, Fault{"host.ring.header", SIGKILL, 3},
           Fault{"host.ring.copied", SIGKILL, 2}, Fault{"host.event", SIGKILL, 5000},
           Fault{"host.ring.head", SIGKILL, 5}, Fault{"host.collected", SIGKILL, 20},
           Fault{"host.round", SIGKILL, 20}));

TEST_F(FaultyClients, AStoppedHostIsForgottenAndHasThemAgainWhenItGoesOn) {
    const OpenClient client("patient");
    Child child([] { host({}); });
    client.waitUntilWanted();
    child.signal(SIGSTOP);
    child.waitUntilStopped();
    // By the lease of two seconds: nothing tells the client.
    EXPECT_TRUE(waitUntil([&] { return !client.isWanted(); }, std::chrono::seconds(5)));
    child.signal(SIGCONT);
    client.waitUntilWanted();
}

}  // namespace
}  // namespace client_tests
