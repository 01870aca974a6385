// External clients and the aggregator, end to end.
#include <gmock/gmock.h>

#include <array>
#include <atomic>
#include <barrier>
#include <memory>
#include <set>

#include "client_support.hpp"
#include "zandor/instrument/clock.hpp"
#include "zandor/instrument/exports.hpp"
#include "zandor/instrument/testing/event_log.hpp"
#include "zandor/performance/counter.hpp"

namespace client_tests {
namespace {

using instrument::ContextEntry;
using instrument::EventPointType;
using testing::AllOf;
using testing::Each;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::SizeIs;

class Clients : public ClientTest {
  protected:
    /// What the recorder has after a collect.
    auto points() {
        aggregator_.collectEvents();
        return recorder_.getAllEventPoints();
    }
    auto events() {
        aggregator_.collectEvents();
        return recorder_.getAllEvents();
    }
};

TEST_F(Clients, EventsArriveWithNameContextAndSource) {
    aggregator_.start();
    const OpenClient client("solver-3");
    client.waitUntilWanted();
    const char* keys[] = {"n", "method"};
    const char* values[] = {"512", "cg"};
    const zandor_event event = zandor_client_start(client.get(), "assemble", keys, values, 2);
    client.stop(event);
    const auto all = events();
    ASSERT_THAT(all, SizeIs(1));
    EXPECT_EQ(all[0].name, "assemble");
    EXPECT_EQ(instrument::combineEventNameWithContext("assemble", all[0].context),
              "assemble [method=cg, n=512]");
    EXPECT_THAT(std::string(all[0].source), testing::StartsWith("solver-3/"));
    EXPECT_EQ(all[0].id.serialId, 1u);
}

TEST_F(Clients, TimesLieBetweenTheCallersReadingsOfTheSameClock) {
    aggregator_.start();
    const OpenClient client("clock");
    client.waitUntilWanted();
    constexpr std::int64_t microsecond = 1000;
    const std::int64_t before = instrument::clock::now();
    const zandor_event event = client.start("work");
    const std::int64_t between = instrument::clock::now();
    client.stop(event);
    const std::int64_t after = instrument::clock::now();
    const auto all = events();
    ASSERT_THAT(all, SizeIs(1));
    EXPECT_GE(all[0].startTimePoint, before - microsecond);
    EXPECT_LE(all[0].startTimePoint, between + microsecond);
    EXPECT_GE(all[0].stopTimePoint, between - microsecond);
    EXPECT_LE(all[0].stopTimePoint, after + microsecond);
}

TEST_F(Clients, NullAndClosedClientsDoNothing) {
    zandor_client* const closed = zandor_client_open("closed");
    zandor_client_close(closed);
    const OpenClient next("next");
    for (zandor_client* const client : {static_cast<zandor_client*>(nullptr), closed}) {
        EXPECT_FALSE(zandor_client_is_wanted(client));
        const zandor_event event = zandor_client_start(client, "never", nullptr, nullptr, 0);
        EXPECT_EQ(event.serial, 0u);
        zandor_client_stop(client, event);
        zandor_client_instant(client, nullptr, nullptr, nullptr, 0);
        zandor_client_close(client);
    }
    aggregator_.start();
    next.waitUntilWanted();
    zandor_client_instant(closed, "never", nullptr, nullptr, 0);
    next.instant("once");
    const auto all = points();
    ASSERT_THAT(all, SizeIs(1));
    EXPECT_EQ(all[0].name, "once");
}

TEST_F(Clients, NothingIsPublishedWhileNobodyWantsIt) {
    const OpenClient client("early");
    client.instant("unwanted");
    aggregator_.start();
    client.waitUntilWanted();
    client.instant("wanted");
    aggregator_.stop();
    EXPECT_TRUE(waitUntil([&] { return !client.isWanted(); }));
    client.instant("late");
    const auto all = recorder_.getAllEventPoints();
    ASSERT_THAT(all, SizeIs(1));
    EXPECT_EQ(all[0].name, "wanted");
    EXPECT_EQ(accountOf("early").published, 1u);
}

TEST_F(Clients, StoppingTheAggregatorTakesInWhatWasPublished) {
    aggregator_.start();
    const OpenClient client("last words");
    client.waitUntilWanted();
    for (int i = 0; i < 1000; ++i)
        client.instant("word");
    aggregator_.stop();
    EXPECT_THAT(recorder_.getAllEventPoints(), SizeIs(1000));
    EXPECT_EQ(folder_.files(), 0u);
}

TEST_F(Clients, ClosedClientsEventsAreStillCollected) {
    aggregator_.start();
    {
        const OpenClient client("short");
        client.waitUntilWanted();
        client.stop(client.start("work"));
    }
    EXPECT_THAT(events(), SizeIs(1));
    expectBalanced(accountOf("short"));
}

TEST_F(Clients, ThreadsAreSourcesOfTheirOwnAndKeepTheirOrder) {
    constexpr int threads = 4;
    constexpr int each = 2000;
    aggregator_.start();
    const OpenClient client("pool");
    client.waitUntilWanted();
    {
        std::vector<std::jthread> pool;
        for (int t = 0; t < threads; ++t)
            pool.emplace_back([&, t] {
                zandor_client_name_thread(("worker-" + std::to_string(t)).c_str());
                for (int i = 0; i < each; ++i)
                    client.stop(client.start("step"));
            });
    }
    std::map<std::string, std::uint64_t> serials;
    for (const auto& event : events()) {
        const std::uint64_t before =
            std::exchange(serials[std::string(event.source)], event.id.serialId);
        EXPECT_EQ(event.id.serialId, before + 1);
    }
    EXPECT_THAT(serials,
                ElementsAre(std::pair("pool/worker-0", each), std::pair("pool/worker-1", each),
                            std::pair("pool/worker-2", each), std::pair("pool/worker-3", each)));
}

TEST_F(Clients, StopsFromAnotherThreadEndTheEventOfTheFirst) {
    aggregator_.start();
    const OpenClient client("handover");
    client.waitUntilWanted();
    const char* key = "k";
    const char* value = "v";
    const zandor_event event = zandor_client_start(client.get(), "job", &key, &value, 1);
    std::thread([&] { client.stop(event); }).join();
    const auto all = events();
    ASSERT_THAT(all, SizeIs(1));
    EXPECT_EQ(all[0].name, "job");
    EXPECT_GE(all[0].duration(), 0);
    EXPECT_TRUE(accountOf("handover").drops.empty());
}

TEST_F(Clients, StopsThatAreReadBeforeTheirStartsAreKept) {
    aggregator_.start();
    const OpenClient client("crossing");
    client.waitUntilWanted();
    constexpr int events = 20000;
    std::atomic<bool> isDone{false};
    std::array<zandor_event, 64> handed{};
    std::barrier step(2);
    std::thread starter([&] {
        for (int i = 0; i < events / 64; ++i) {
            for (auto& event : handed)
                event = client.start("crossed");
            step.arrive_and_wait();
            step.arrive_and_wait();
        }
    });
    std::thread stopper([&] {
        for (int i = 0; i < events / 64; ++i) {
            step.arrive_and_wait();
            for (const auto& event : handed)
                client.stop(event);
            step.arrive_and_wait();
        }
        isDone = true;
    });
    while (!isDone)
        aggregator_.collectEvents();
    starter.join();
    stopper.join();
    aggregator_.stop();
    EXPECT_THAT(recorder_.getAllEvents(), SizeIs(events / 64 * 64));
    const auto account = accountOf("crossing");
    EXPECT_TRUE(account.drops.empty());
    EXPECT_EQ(account.delivered, 2u * (events / 64 * 64));
}

TEST_F(Clients, AreUnderTheSameControls) {
    instrument::controls.disableAll();
    instrument::controls.enable("on");
    instrument::controls.enable("rules", {"mode", "fast"});
    aggregator_.start();
    const OpenClient client("controlled");
    client.waitUntilWanted();
    const char* key = "mode";
    const char* fast = "fast";
    const char* slow = "slow";
    client.stop(client.start("on"));
    client.stop(client.start("off"));
    zandor_client_instant(client.get(), "rules", &key, &fast, 1);
    zandor_client_instant(client.get(), "rules", &key, &slow, 1);
    std::vector<std::string> names;
    for (const auto& point : points())
        names.push_back(
            instrument::combineEventNameWithContext(std::string(point.name), point.context));
    EXPECT_THAT(names, ElementsAre("on", "on", "rules [mode=fast]"));
    const auto account = accountOf("controlled");
    EXPECT_EQ(account.drops.at("disabled"), 3u);
    expectBalanced(account);
}

TEST_F(Clients, AStopIsDeliveredWhenItsStartWasThoughItWasSwitchedOffSince) {
    aggregator_.start();
    const OpenClient client("switched");
    client.waitUntilWanted();
    const zandor_event event = client.start("work");
    aggregator_.collectEvents();
    instrument::controls.disableAll();
    client.stop(event);
    EXPECT_THAT(events(), SizeIs(1));
}

TEST_F(Clients, OtherListenersHearThemToo) {
    instrument::InstrumentCounter counter;
    instrument::listeners.add(counter);
    aggregator_.start();
    const OpenClient client("counted");
    client.waitUntilWanted();
    for (int i = 0; i < 7; ++i)
        client.stop(client.start("thing"));
    aggregator_.collectEvents();
    instrument::listeners.remove(counter);
    EXPECT_EQ(counter.getEventCount("thing").count, 7);
}

TEST_F(Clients, AFullRingDropsAndCounts) {
    aggregator_.start();
    const OpenClient client("flood");
    client.waitUntilWanted();
    constexpr std::uint64_t many = 100'000;
    std::uint64_t taken = 0;
    for (std::uint64_t i = 0; i < many; ++i) {
        const zandor_event event = client.start("drop");
        taken += event.serial != 0;
        client.stop(event);
    }
    EXPECT_LT(taken, many);
    // What was started can be stopped: room is kept for that.
    EXPECT_THAT(events(), SizeIs(taken));
    aggregator_.stop();
    const auto account = accountOf("flood");
    EXPECT_EQ(account.drops.at("full"), many - taken);
    EXPECT_EQ(account.delivered, 2 * taken);
    expectBalanced(account);
}

TEST_F(Clients, ARingThatWasFullTakesEventsAgainOnceItWasRead) {
    aggregator_.start();
    const OpenClient client("again");
    client.waitUntilWanted();
    for (int round = 0; round < 10; ++round) {
        while (client.start("fill").serial != 0) {
        }
        aggregator_.collectEvents();
        EXPECT_NE(client.start("fill").serial, 0u);
    }
    aggregator_.stop();
    expectBalanced(accountOf("again"));
}

TEST_F(Clients, ContextsOfAllLengthsPassTheRingsEnd) {
    aggregator_.start();
    const OpenClient client("lengths");
    client.waitUntilWanted();
    const char* key = "text";
    std::uint64_t sent = 0;
    for (int round = 0; round < 40; ++round) {
        for (std::size_t length = 0; length < 700; length += 7) {
            const std::string value(length, static_cast<char>('a' + length % 26));
            const char* text = value.c_str();
            zandor_client_instant(client.get(), "sized", &key, &text, 1);
            ++sent;
        }
        aggregator_.collectEvents();
    }
    std::uint64_t good = 0;
    for (const auto& point : points()) {
        const std::string& value = point.context.begin()->value;
        good += value == std::string(value.size(), static_cast<char>('a' + value.size() % 26));
    }
    EXPECT_EQ(good, sent);
}

TEST_F(Clients, TextsThatAreTooLongAreDroppedAndCounted) {
    aggregator_.start();
    const OpenClient client("long");
    client.waitUntilWanted();
    const std::string name(1024, 'n');
    const std::string value((1 << 14) + 1, 'v');
    const char* key = "k";
    const char* text = value.c_str();
    client.instant(name.c_str());
    zandor_client_instant(client.get(), "value", &key, &text, 1);
    const std::vector<const char*> keys(65, "k");
    const std::vector<const char*> values(65, "v");
    zandor_client_instant(client.get(), "entries", keys.data(), values.data(), 65);
    client.instant(name.c_str() + 1);
    EXPECT_THAT(points(), SizeIs(1));
    const auto account = accountOf("long");
    EXPECT_EQ(account.drops.at("oversize"), 3u);
    expectBalanced(account);
}

TEST_F(Clients, MoreNamesThanThereIsRoomForAreDroppedAndCounted) {
    aggregator_.start();
    const OpenClient client("names");
    client.waitUntilWanted();
    constexpr int many = 10'000;
    for (int i = 0; i < many; ++i) {
        client.instant(("name number " + std::to_string(i)).c_str());
        if (i % 1000 == 0)
            aggregator_.collectEvents();
    }
    client.instant("name number 0");
    const auto all = points();
    std::set<std::string> names;
    for (const auto& point : all)
        names.emplace(point.name);
    EXPECT_EQ(names.size() + 1, all.size());
    const auto account = accountOf("names");
    EXPECT_EQ(account.drops.at("names"), many + 1 - all.size());
    expectBalanced(account);
}

TEST_F(Clients, NamesAreTakenByTheirTextNotByTheirAddress) {
    aggregator_.start();
    const OpenClient client("texts");
    client.waitUntilWanted();
    char name[] = "a";
    for (int i = 0; i < 3; ++i, ++name[0])
        client.instant(name);
    std::vector<std::string> names;
    for (const auto& point : points())
        names.emplace_back(point.name);
    EXPECT_THAT(names, ElementsAre("a", "b", "c"));
}

TEST_F(Clients, SeveralHostsHaveTheSameEvents) {
    aggregator_.start();
    instrument::ExternalEventsAggregator second;
    second.start();
    const OpenClient client("shared");
    ASSERT_TRUE(waitUntil([&] {
        aggregator_.refreshActiveClients();
        client.instant("probe");
        const auto before = recorder_.getEventPoints("probe").size();
        aggregator_.collectEvents();
        const auto between = recorder_.getEventPoints("probe").size();
        second.collectEvents();
        return between > before && recorder_.getEventPoints("probe").size() > between;
    }));
    recorder_.clearAllEventData();
    client.instant("for both");
    aggregator_.collectEvents();
    EXPECT_THAT(recorder_.getEventPoints("for both"), SizeIs(1));
    second.collectEvents();
    EXPECT_THAT(recorder_.getEventPoints("for both"), SizeIs(2));
    second.stop();
    client.instant("for one");
    aggregator_.collectEvents();
    EXPECT_THAT(recorder_.getEventPoints("for one"), SizeIs(1));
}

TEST_F(Clients, TheNextHostPicksThemUp) {
    const OpenClient client("patient");
    for (int round = 0; round < 5; ++round) {
        aggregator_.start();
        client.waitUntilWanted();
        client.stop(client.start("round"));
        aggregator_.stop();
        ASSERT_TRUE(waitUntil([&] { return !client.isWanted(); }));
    }
    EXPECT_THAT(recorder_.getAllEvents(), SizeIs(5));
}

TEST_F(Clients, ThreadsThatComeAndGoLeaveNothingBehind) {
    aggregator_.start();
    const OpenClient client("brief");
    client.waitUntilWanted();
    constexpr int threads = 3000;  // more than a client has slots for rings
    for (int i = 0; i < threads; ++i) {
        std::thread([&] { client.instant("hello"); }).join();
        if (i % 100 == 0)
            aggregator_.collectEvents();
    }
    EXPECT_THAT(points(), SizeIs(threads));
    EXPECT_TRUE(accountOf("brief").drops.empty());
}

TEST_F(Clients, EventsOfAThreadsDestructorsArrive) {
    aggregator_.start();
    const OpenClient client("ending");
    client.waitUntilWanted();
    struct AtEnd {
        const OpenClient* client = nullptr;
        ~AtEnd() {
            if (client)
                client->instant("destructor");
        }
    };
    std::thread([&] {
        static thread_local AtEnd atEnd;
        atEnd.client = &client;
        client.instant("body");
    }).join();
    EXPECT_THAT(points(), SizeIs(2));
}

TEST_F(Clients, ListenersExceptionsComeOutAfterEverythingWasDelivered) {
    aggregator_.start();
    const OpenClient client("thrown");
    client.waitUntilWanted();
    for (int i = 0; i < 3; ++i)
        client.instant("event");
    instrument::test_support::HandlerListener thrower(
        [](EventPointType, const instrument::Opaque*, const instrument::EventContext&,
           instrument::EventId,
           std::optional<std::int64_t>) { throw std::runtime_error("a listener's"); });
    instrument::listeners.add(thrower);
    EXPECT_THROW(aggregator_.collectEvents(), std::runtime_error);
    instrument::listeners.remove(thrower);
    EXPECT_THAT(recorder_.getAllEventPoints(), SizeIs(3));
    EXPECT_TRUE(aggregator_.isStarted());
}

TEST_F(Clients, AccountsStandInTheTracesMetadata) {
    aggregator_.start();
    const OpenClient client("named \"so\"");
    client.waitUntilWanted();
    client.stop(client.start("work"));
    aggregator_.collectEvents();
    const std::string trace = instrument::getAllCompleteEventsTraceEventJson(
        recorder_, instrument::TimeSystem::monotonic, std::chrono::nanoseconds(-1));
    const auto account = accountOf("named \"so\"");
    const std::string prefix = "\"client_" + std::to_string(account.client) + "_";
    EXPECT_THAT(trace, AllOf(HasSubstr(prefix + "name\":\"named \\\"so\\\"\""),
                             HasSubstr(prefix + "published\":\"2\""),
                             HasSubstr(prefix + "delivered\":\"2\"")));
    EXPECT_THAT(trace, HasSubstr("\"process_name\""));
}

TEST_F(Clients, AThreadOfTheAggregatorCollectsWhereItIsAsked) {
    aggregator_.startCollecting(std::chrono::milliseconds(1));
    const OpenClient client("unattended");
    client.waitUntilWanted();
    client.stop(client.start("work"));
    EXPECT_TRUE(waitUntil([&] { return recorder_.getAllEvents().size() == 1; }));
}

TEST_F(Clients, MoreThanThereArePlacesForAreNull) {
    std::vector<std::unique_ptr<OpenClient>> all;
    for (int i = 0; i < 16; ++i) {
        all.push_back(std::make_unique<OpenClient>("one of many"));
        EXPECT_NE(all.back()->get(), nullptr);
    }
    EXPECT_EQ(zandor_client_open("one too many"), nullptr);
    all.clear();
    EXPECT_NE(OpenClient("again").get(), nullptr);
}

}  // namespace
}  // namespace client_tests
