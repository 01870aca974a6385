// What clients make of hosts that break rules, that are too many, that come again elsewhere.
#include <gmock/gmock.h>

#include <functional>
#include <memory>
#include <thread>
#include <vector>

#include "played_host.hpp"
#include "zandor/client/client_state.hpp"
#include "zandor/client/test_point.h"

extern "C" void zandor_test_point(const char*) {}

namespace client_tests {
namespace {

using testing::Values;

class PlayedHosts : public testing::Test {
  protected:
    RuntimeFolder folder_;
};

struct Unsound {
    const char* name;
    std::function<void(wire::Welcome&)> change;
};

void PrintTo(const Unsound& unsound, std::ostream* out) {
    *out << unsound.name;
}

class UnsoundWelcomes : public PlayedHosts, public testing::WithParamInterface<Unsound> {};

TEST_P(UnsoundWelcomes, AreTheEndAndTheirHostIsNotAskedAgain) {
    PlayedHost unsound;
    const OpenClient client("careful");
    unsound.hearHello();
    wire::Welcome welcome = unsound.goodWelcome();
    GetParam().change(welcome);
    unsound.welcome(welcome, unsound.control().file());
    unsound.waitUntilAlone();
    // The client looks at all hosts where another one comes.
    PlayedHost good;
    good.admit();
    client.waitUntilWanted();
    EXPECT_FALSE(unsound.hasHello());
}

INSTANTIATE_TEST_SUITE_P(
    Of, UnsoundWelcomes,
    Values(Unsound{"another magic", [](wire::Welcome& welcome) { ++welcome.magic; }},
           Unsound{"another version", [](wire::Welcome& welcome) { ++welcome.version; }},
           Unsound{"a refusal", [](wire::Welcome& welcome) { ++welcome.outcome; }},
           Unsound{"no slots", [](wire::Welcome& welcome) { welcome.ringSlots = 0; }},
           Unsound{"many slots",
                   [](wire::Welcome& welcome) { welcome.ringSlots = wire::maxRingSlots + 1; }},
           Unsound{"another control", [](wire::Welcome& welcome) { welcome.controlBytes += 16; }},
           Unsound{"slots beyond the control", [](wire::Welcome& welcome) { ++welcome.ringSlots; }},
           Unsound{"a control of another size",
                   [](wire::Welcome& welcome) {
                       ++welcome.ringSlots;
                       welcome.controlBytes += sizeof(wire::RingSlot);
                   }},
           Unsound{"rings without room", [](wire::Welcome& welcome) { welcome.dataBytes = 0; }},
           Unsound{"rings of an odd size", [](wire::Welcome& welcome) { welcome.dataBytes += 8; }},
           Unsound{"small rings", [](wire::Welcome& welcome) { welcome.dataBytes /= 2; }},
           Unsound{"large rings",
                   [](wire::Welcome& welcome) { welcome.dataBytes = 2 * wire::maxDataBytes; }},
           Unsound{"few names", [](wire::Welcome& welcome) { welcome.namesBytes = 0; }},
           Unsound{"names of an odd size", [](wire::Welcome& welcome) { welcome.namesBytes += 8; }},
           Unsound{"many names",
                   [](wire::Welcome& welcome) { welcome.namesBytes = 2 * wire::maxNamesBytes; }}));

TEST_F(PlayedHosts, WhoseLeaseRanOutGivesWayToOneThatIsThere) {
    const OpenClient client("sought after");
    std::vector<std::unique_ptr<PlayedHost>> hosts;
    for (std::size_t i = 0; i < zandor::client::mostHosts; ++i) {
        hosts.push_back(std::make_unique<PlayedHost>());
        hosts.back()->admit();
        client.waitUntilWanted();
    }
    const PlayedHost beyond;
    hosts.front()->control().grantUntil(1);
    const PlayedHost latest;
    hosts.front()->waitUntilAlone();
    EXPECT_TRUE(waitUntil([&] { return beyond.hasHello() || latest.hasHello(); }));
}

TEST_F(PlayedHosts, GiveASlotAwayAgainWhenTheyAreDoneWithItsRing) {
    PlayedHost host(1);
    const OpenClient client("of many threads");
    host.admit();
    client.waitUntilWanted();
    const auto inAThread = [&] { std::thread([&] { client.instant("x"); }).join(); };
    inAThread();
    const wire::RingOffer first = host.takeRing();
    EXPECT_EQ(host.ringHeader().written, 1u);
    EXPECT_EQ(host.ringHeader().ended, 1u);
    // What is in it is not read.
    inAThread();
    EXPECT_EQ(host.dropsWithoutRing(wire::Drop::rings), 1u);
    host.control().release(first.slot, first.ring);
    inAThread();
    EXPECT_GT(host.takeRing().ring, first.ring);
    EXPECT_EQ(host.dropsWithoutRing(wire::Drop::rings), 1u);
}

TEST_F(PlayedHosts, AreNotBelievedToHaveReadWhatWasNotWritten) {
    PlayedHost host;
    const OpenClient client("wary");
    host.admit();
    client.waitUntilWanted();
    client.instant("x");
    const std::uint32_t slot = host.takeRing().slot;
    host.control().setHead(slot, std::uint64_t{1} << 40);
    constexpr std::uint64_t events = wire::minDataBytes;
    for (std::uint64_t i = 1; i < events; ++i)
        client.instant("x");
    const wire::RingHeader header = host.ringHeader();
    EXPECT_LE(header.tail, wire::minDataBytes);
    EXPECT_EQ(header.written + header.drops[static_cast<std::size_t>(wire::Drop::full)], events);
    host.control().setHead(slot, header.tail);
    client.instant("x");
    EXPECT_EQ(host.ringHeader().written, header.written + 1);
}

TEST_F(PlayedHosts, AreFoundInAFolderThatIsMadeAnew) {
    auto host = std::make_unique<PlayedHost>();
    const OpenClient client("steadfast");
    host->admit();
    client.waitUntilWanted();
    host.reset();
    std::filesystem::remove_all(folder_.path());
    EXPECT_TRUE(waitUntil([&] { return !client.isWanted(); }));
    PlayedHost second;
    second.admit();
    client.waitUntilWanted();
}

TEST_F(PlayedHosts, AreFoundInAFolderThatTakesTheOnesPlace) {
    const OpenClient client("steadfast");
    auto host = std::make_unique<PlayedHost>();
    host->admit();
    client.waitUntilWanted();
    host.reset();
    const std::filesystem::path elsewhere = folder_.path().string() + "-moved";
    std::filesystem::rename(folder_.path(), elsewhere);
    PlayedHost second;
    second.admit();
    client.waitUntilWanted();
    std::filesystem::remove_all(elsewhere);
}

// What programs give.

TEST_F(PlayedHosts, HearOfTextsThatAreNone) {
    PlayedHost host;
    const OpenClient client(nullptr);
    host.admit();
    client.waitUntilWanted();
    zandor_client_name_thread(nullptr);
    const char* const none = nullptr;
    const char* const some = "some";
    zandor_client_instant(client.get(), nullptr, nullptr, nullptr, 0);
    zandor_client_instant(client.get(), "x", &some, &none, 1);
    host.takeRing();
    EXPECT_EQ(host.ringHeader().written, 2u);
    zandor_client_instant(client.get(), "x", nullptr, &some, 1);
    zandor_client_instant(client.get(), "x", &some, nullptr, 1);
    zandor_client_instant(client.get(), "x", &none, &some, 1);
    const wire::RingHeader header = host.ringHeader();
    EXPECT_EQ(header.written, 2u);
    EXPECT_EQ(header.drops[static_cast<std::size_t>(wire::Drop::oversize)], 3u);
}

}  // namespace
}  // namespace client_tests
