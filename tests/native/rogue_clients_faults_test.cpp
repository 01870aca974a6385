// Clients that keep to no rules.
#include <gmock/gmock.h>

#include <optional>
#include <random>

#include "client_faults_support.hpp"
#include "rogue_client.hpp"

extern "C" void zandor_test_point(const char* label) {
    client_tests::meet(label);
}

namespace client_tests {
namespace {

using testing::SizeIs;
using testing::Values;

class RogueClients : public FaultyClients {
  protected:
    RogueClients() {
        aggregator_.start();
        rogue_.emplace(folder_);
        rogue_->join();
    }
    /// Offers the ring and has it read until the host has enough of it.
    bool isGivenUp(int ring) {
        EXPECT_TRUE(rogue_->offer(ring));
        for (int i = 0; i < 20; ++i)
            aggregator_.collectEvents();
        return rogue_->isAlone();
    }
    wire::Record goodStart() const {
        return {sizeof(wire::Record),
                0,
                1,
                1,
                0,
                static_cast<std::uint16_t>(wire::RecordKind::start),
                0};
    }

    std::optional<RogueClient> rogue_;
};

TEST_F(RogueClients, AreHeardAsLongAsTheyKeepToTheRules) {
    const int ring = rogue_->makeRing();
    rogue_->putName(0, "by hand");
    rogue_->put(goodStart());
    EXPECT_FALSE(isGivenUp(ring));
    EXPECT_THAT(recorder_.getEventPoints("by hand"), SizeIs(1));
}

TEST_F(RogueClients, MemoryThatCanShrinkIsRefused) {
    EXPECT_TRUE(isGivenUp(rogue_->makeRing(F_SEAL_GROW)));
}

TEST_F(RogueClients, APunchedHoleIsNoSignal) {
    const int ring = rogue_->makeRing();
    rogue_->putName(0, "before");
    rogue_->put(goodStart());
    EXPECT_FALSE(isGivenUp(ring));
    rogue_->header().tail = 64;
    ASSERT_EQ(fallocate(ring, FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, 4096,
                        rogue_->welcome().namesBytes + rogue_->welcome().dataBytes),
              0);
    for (int i = 0; i < 20; ++i)
        aggregator_.collectEvents();
    EXPECT_TRUE(rogue_->isAlone());
    EXPECT_THAT(recorder_.getEventPoints("before"), SizeIs(1));
}

struct Crime {
    const char* name;
    std::function<void(RogueClient&, wire::Record&)> commit;
};

class RogueRecords : public RogueClients, public testing::WithParamInterface<Crime> {};

TEST_P(RogueRecords, EndTheClient) {
    const int ring = rogue_->makeRing();
    rogue_->putName(0, "by hand");
    wire::Record record = goodStart();
    rogue_->put(record);
    GetParam().commit(*rogue_, record);
    rogue_->put(record);
    EXPECT_TRUE(isGivenUp(ring));
    aggregator_.stop();
    expectBalanced(accountOf("rogue"));
}

INSTANTIATE_TEST_SUITE_P(
    Crimes, RogueRecords,
    Values(Crime{"Short", [](auto&, auto& record) { record.bytes = 24; }},
           Crime{"Odd", [](auto&, auto& record) { record.bytes = 33; }},
           Crime{"UnknownKind", [](auto&, auto& record) { record.kind = 9; }},
           Crime{"NoKind", [](auto&, auto& record) { record.kind = 0; }},
           Crime{"NameOutside", [](auto&, auto& record) { record.reference = 1 << 30; }},
           Crime{"NameUnaligned", [](auto&, auto& record) { record.reference = 3; }},
           Crime{"LongName",
                 [](auto& rogue, auto&) {
                     const wire::NameHead head{1 << 20, 0};
                     std::memcpy(rogue.names(), &head, sizeof head);
                 }},
           Crime{"NameWithNul", [](auto& rogue, auto&) { rogue.names()[9] = 0; }},
           Crime{"NoSerial", [](auto&, auto& record) { record.serial = 0; }},
           Crime{"TooManyEntries", [](auto&, auto& record) { record.entries = 65; }},
           Crime{"ContextBeyondTheRecord", [](auto&, auto& record) { record.entries = 1; }},
           Crime{"Padding", [](auto&, auto& record) { record.bytes = wire::paddingBit | 64; }}),
    [](const auto& test) { return std::string(test.param.name); });

struct Lie {
    const char* name;
    std::function<void(wire::RingHeader&)> tell;
};

class RogueHeaders : public RogueClients, public testing::WithParamInterface<Lie> {};

TEST_P(RogueHeaders, EndTheClient) {
    const int ring = rogue_->makeRing();
    rogue_->putName(0, "by hand");
    rogue_->put(goodStart());
    GetParam().tell(rogue_->header());
    EXPECT_TRUE(isGivenUp(ring));
}

INSTANTIATE_TEST_SUITE_P(
    Lies, RogueHeaders,
    Values(Lie{"Magic", [](auto& header) { ++header.magic; }},
           Lie{"Session", [](auto& header) { ++header.session; }},
           Lie{"Number", [](auto& header) { ++header.ring; }},
           Lie{"Names", [](auto& header) { header.namesBytes *= 2; }},
           Lie{"Data", [](auto& header) { header.dataBytes *= 2; }},
           Lie{"Clock", [](auto& header) { header.clock = 7; }},
           Lie{"NoThread", [](auto& header) { header.thread = 0; }},
           Lie{"TailTooFar", [](auto& header) { header.tail = std::uint64_t{1} << 40; }},
           Lie{"TailOdd", [](auto& header) { header.tail = 33; }},
           Lie{"TailBeyondWhatIsWritten", [](auto& header) { header.tail = 64; }}),
    [](const auto& test) { return std::string(test.param.name); });

TEST_F(RogueClients, OffersThatAreNoneEndTheClient) {
    const int ring = rogue_->makeRing();
    EXPECT_TRUE(rogue_->offer(ring, 1 << 20));
    aggregator_.collectEvents();
    EXPECT_TRUE(rogue_->isAlone());
}

TEST_F(RogueClients, RingsThatAreOverwrittenWhileTheyAreReadHurtNobody) {
    const OpenClient bystander("bystander");
    bystander.waitUntilWanted();
    std::mt19937_64 random(20);
    for (int round = 0; round < 30; ++round) {
        RogueClient rogue(folder_);
        rogue.join();
        const int ring = rogue.makeRing();
        rogue.putName(0, "good");
        rogue.put(goodStart());
        ASSERT_TRUE(rogue.offer(ring));
        close(ring);
        std::atomic<bool> isDone{false};
        std::thread writer([&] {
            const std::uint64_t words = rogue.welcome().dataBytes / 8;
            std::uint64_t* const data = reinterpret_cast<std::uint64_t*>(rogue.data());
            while (!isDone) {
                const std::uint64_t place = random() % words;
                const std::uint64_t position = rogue.header().tail;
                // Now noise, now what looks like a record, with an end that it might have.
                std::atomic_ref(data[place]).store(random(), std::memory_order_relaxed);
                std::atomic_ref(data[position % rogue.welcome().dataBytes / 8])
                    .store(std::uint64_t{wire::stampOf(position)} << 32 | (random() % 256),
                           std::memory_order_relaxed);
                std::atomic_ref(rogue.header().tail)
                    .store(position + random() % 16 * 8, std::memory_order_relaxed);
            }
        });
        for (int i = 0; i < 20; ++i) {
            bystander.instant("beside");
            aggregator_.collectEvents();
        }
        isDone = true;
        writer.join();
    }
    EXPECT_THAT(recorder_.getEventPoints("beside"), SizeIs(600));
}

}  // namespace
}  // namespace client_tests
