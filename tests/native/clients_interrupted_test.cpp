// External clients whose threads are interrupted by signal handlers and forks.
#include <gmock/gmock.h>
#include <pthread.h>
#include <signal.h>

#include <atomic>
#include <set>

#include "client_support.hpp"
#include "zandor/runtime/sanitizers.hpp"

namespace client_tests {
namespace {

using testing::SizeIs;

class InterruptedClients : public ClientTest {
  protected:
    auto events() {
        aggregator_.collectEvents();
        return recorder_.getAllEvents();
    }
};

// Signal handlers.

zandor_client* handledClient = nullptr;
std::atomic<std::uint64_t> handled{0};

TEST_F(InterruptedClients, EventsInSignalHandlersAreTakenOrCounted) {
    aggregator_.start();
    const OpenClient client("signals");
    client.waitUntilWanted();
    handledClient = client.get();
    handled = 0;
    struct sigaction action {};
    action.sa_handler = [](int) {
        ++handled;
        zandor_client_instant(handledClient, "in handler", nullptr, nullptr, 0);
    };
    struct sigaction before {};
    sigaction(SIGUSR1, &action, &before);
    std::atomic<bool> isDone{false};
    std::uint64_t published = 0;
    std::thread producer([&] {
        while (!isDone) {
            const zandor_event event = client.start("outside");
            client.stop(event);
            published += event.serial != 0 ? 2 : 1;
        }
    });
    constexpr std::uint64_t signals = ZANDOR_SANITIZED ? 60 : 300;
    for (std::uint64_t i = 1; i <= signals; ++i) {
        pthread_kill(producer.native_handle(), SIGUSR1);
        EXPECT_TRUE(waitUntil([&] { return handled == i; }));
        aggregator_.collectEvents();
    }
    isDone = true;
    producer.join();
    sigaction(SIGUSR1, &before, nullptr);
    aggregator_.stop();
    const auto account = accountOf("signals");
    EXPECT_EQ(account.published, published + signals);
    expectBalanced(account);
}

// Forks.

TEST_F(InterruptedClients, AForkedChildIsAClientOfItsOwn) {
    aggregator_.start();
    const OpenClient client("family");
    client.waitUntilWanted();
    const zandor_event parents = client.start("parents");
    const pid_t child = fork();
    if (child == 0) {
        client.stop(parents);  // the parent does that itself
        const bool isWanted = waitUntil([&] { return client.isWanted(); });
        client.stop(client.start("childs"));
        _exit(isWanted ? 0 : 1);
    }
    int status = 0;
    waitpid(child, &status, 0);
    EXPECT_EQ(status, 0);
    client.stop(parents);
    const auto all = events();
    ASSERT_THAT(all, SizeIs(2));
    std::set<std::uint64_t> processes;
    for (const auto& account : instrument::externalAccounts())
        if (account.name == "family") {
            processes.insert(account.processId);
            EXPECT_EQ(account.published, 2u);
            EXPECT_TRUE(account.drops.empty());
        }
    EXPECT_THAT(processes, testing::UnorderedElementsAre(getpid(), child));
}

TEST_F(InterruptedClients, ForksWhileThreadsProduceDisturbNeitherSide) {
    aggregator_.start();
    const OpenClient client("forking");
    client.waitUntilWanted();
    std::atomic<bool> isDone{false};
    std::vector<std::thread> producers;
    for (int i = 0; i < 4; ++i)
        producers.emplace_back([&] {
            while (!isDone)
                client.stop(client.start("beside"));
        });
    for (int i = 0; i < (ZANDOR_SANITIZED ? 8 : 30); ++i) {
        const pid_t child = fork();
        if (child == 0)
            _exit(0);
        int status = 0;
        waitpid(child, &status, 0);
        EXPECT_EQ(status, 0);
        aggregator_.collectEvents();
    }
    isDone = true;
    for (std::thread& producer : producers)
        producer.join();
    aggregator_.stop();
    expectBalanced(accountOf("forking"));
}

TEST_F(InterruptedClients, AForkedHostsChildHasNoAggregatorStarted) {
    aggregator_.start();
    const pid_t child = fork();
    if (child == 0) {
        const bool isStarted = aggregator_.isStarted();
        aggregator_.collectEvents();
        aggregator_.stop();
        _exit(isStarted ? 1 : 0);
    }
    int status = 0;
    waitpid(child, &status, 0);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(folder_.files(), 1u);
    const OpenClient client("after");
    client.waitUntilWanted();
}

}  // namespace
}  // namespace client_tests
