// Clients and hosts that die, stop, run out of what they need, or keep to no rules.
//
// Built of copies of the two sides whose test points act.
#include <gmock/gmock.h>
#include <sys/eventfd.h>
#include <sys/resource.h>
#include <unistd.h>

#include <optional>
#include <random>

#include "client_faults_support.hpp"
#include "zandor/client/test_point.h"
#include "zandor/performance/external_socket.hpp"
#include "zandor/runtime/sanitizers.hpp"

extern "C" void zandor_test_point(const char* label) {
    using client_tests::fault;
    if (std::strcmp(label, fault.label) == 0 && fault.passes-- == 0)
        kill(getpid(), fault.signal);
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

class FaultyClients : public ClientTest {
  protected:
    ~FaultyClients() override { fault = {}; }

    /// Collects until the host let go of the client, and gives its account.
    instrument::ExternalAccount accountAtEnd(const std::string& name) {
        aggregator_.stop();
        return accountOf(name);
    }
};

// Producers that die.

std::vector<int> openFiles() {
    std::vector<int> files;
    for (int file = 0; file < 256; ++file)
        if (fcntl(file, F_GETFD) >= 0)
            files.push_back(file);
    return files;
}

/// Takes what descriptors this process may have; few, for where there is no limit.
std::vector<int> takeAllDescriptors() {
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = std::min<rlim_t>(limit.rlim_cur, 256);
    setrlimit(RLIMIT_NOFILE, &limit);
    std::vector<int> files;
    for (int file = 0; (file = eventfd(0, EFD_CLOEXEC)) >= 0;)
        files.push_back(file);
    return files;
}

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

// What runs out.

TEST_F(FaultyClients, RefusedMemoryIsADropNotASignal) {
    aggregator_.start();
    Child child([] {
        const OpenClient client("refused");
        client.waitUntilWanted();
        const rlimit small{1 << 16, 1 << 16};
        setrlimit(RLIMIT_FSIZE, &small);
        for (int i = 0; i < 1000; ++i)
            client.instant("nowhere");
    });
    EXPECT_EQ(child.wait(), 0);
    const auto account = accountAtEnd("refused");
    EXPECT_EQ(account.drops.at("memory"), 1000u);
    expectBalanced(account);
}

TEST_F(FaultyClients, WithoutDescriptorsEventsAreDroppedAndLaterTaken) {
    aggregator_.start();
    Child child([] {
        const OpenClient client("full house");
        client.waitUntilWanted();
        const std::vector<int> files = takeAllDescriptors();
        for (int i = 0; i < 1000; ++i)
            client.instant("dropped");
        for (const int file : files)
            close(file);
        // Not tried again at every event, but in the end.
        for (int i = 0; i < 5000; ++i)
            client.instant("tried");
    });
    EXPECT_EQ(child.wait(), 0);
    const auto account = accountAtEnd("full house");
    EXPECT_GE(account.drops.at("memory"), 1000u);
    EXPECT_GT(account.delivered, 0u);
    EXPECT_EQ(account.published, 6000u);
    expectBalanced(account);
}

TEST_F(FaultyClients, ClientsThatOpenWithoutDescriptorsAreInertOrRetry) {
    Child child([] {
        takeAllDescriptors();
        zandor_client* const client = zandor_client_open("none left");
        zandor_client_instant(client, "x", nullptr, nullptr, 0);
        zandor_client_close(client);
    });
    EXPECT_EQ(child.wait(), 0);
}

// The sanitizer of undefined behaviour needs descriptors to look at an object's type.
#if !ZANDOR_SANITIZED
TEST_F(FaultyClients, AHostWithoutDescriptorsLosesNothing) {
    aggregator_.start();
    const OpenClient client("queued");
    client.waitUntilWanted();
    Child child([] {
        const OpenClient other("other");
        other.waitUntilWanted();
        for (int i = 0; i < 100; ++i)
            other.instant("kept");
    });
    ASSERT_TRUE(waitUntil([] { return accountOf("other").client == 0; }));
    ASSERT_EQ(child.wait(), 0);
    rlimit before{};
    getrlimit(RLIMIT_NOFILE, &before);
    const std::vector<int> files = takeAllDescriptors();
    aggregator_.collectEvents();
    for (const int file : files)
        close(file);
    setrlimit(RLIMIT_NOFILE, &before);
    aggregator_.collectEvents();
    EXPECT_THAT(recorder_.getEventPoints("kept"), SizeIs(100));
}
#endif

// The folder.

TEST_F(FaultyClients, LeftOverSocketsAreNoHostsAndAreRemoved) {
    const std::string name = std::string(zandor::client::hostPrefix) + "1-1";
    const int folder = open(folder_.path().c_str(), O_RDONLY | O_DIRECTORY);
    const int socket = ::socket(AF_UNIX, SOCK_SEQPACKET, 0);
    const sockaddr_un address = zandor::client::addressIn(folder, name.c_str());
    ASSERT_EQ(bind(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    close(socket);
    close(folder);
    const OpenClient client("careful");
    aggregator_.start();
    client.waitUntilWanted();
    EXPECT_FALSE(std::filesystem::exists(folder_.path() / name));
    EXPECT_EQ(folder_.files(), 1u);
}

TEST_F(FaultyClients, AHostsForkedChildKeepsNothingOfItsFiles) {
    Child client([] {
        const OpenClient other("other");
        other.waitUntilWanted();
        other.instant("heard");
        pause();
    });
    const std::vector<int> before = openFiles();
    aggregator_.start();
    ASSERT_TRUE(waitUntil([&] {
        aggregator_.collectEvents();
        return !recorder_.getEventPoints("heard").empty();
    }));
    EXPECT_GT(openFiles().size(), before.size());
    Child child([&] { _exit(openFiles() == before ? 0 : 1); });
    EXPECT_EQ(child.wait(), 0);
}

TEST_F(FaultyClients, AHostThatWasKilledIsGoneThoughItsChildLives) {
    Shared<std::atomic<pid_t>> orphan;
    Child host([&] {
        instrument::ExternalEventsAggregator doomed;
        doomed.start();
        if (fork() == 0)
            *orphan = getpid();  // by now it has let go of what is its parent's
        pause();
    });
    ASSERT_TRUE(waitUntil([&] { return *orphan != 0; }));
    host.signal(SIGKILL);
    host.wait();
    aggregator_.start();  // which removes what belongs to nobody
    EXPECT_EQ(folder_.files(), 1u);
    kill(*orphan, SIGKILL);
}

TEST_F(FaultyClients, WithoutARuntimeFolderAHostSaysSoAndAClientIsQuiet) {
    setenv("ZANDOR_RUNTIME_DIR", "/proc/there/is/none", 1);
    EXPECT_THROW(aggregator_.start(), std::runtime_error);
    EXPECT_FALSE(aggregator_.isStarted());
    const OpenClient client("alone");
    client.instant("unheard");
    EXPECT_FALSE(client.isWanted());
}

TEST_F(FaultyClients, AFolderThatIsOpenToOthersIsRefused) {
    std::filesystem::permissions(folder_.path(), std::filesystem::perms::others_exec,
                                 std::filesystem::perm_options::add);
    EXPECT_THROW(aggregator_.start(), std::runtime_error);
}

TEST_F(FaultyClients, AFolderThatComesLaterIsFound) {
    const auto later = folder_.path() / "later" / "still";
    setenv("ZANDOR_RUNTIME_DIR", later.c_str(), 1);
    const OpenClient client("early");
    std::filesystem::create_directory(later.parent_path());
    aggregator_.start();
    client.waitUntilWanted();
    aggregator_.stop();
    setenv("ZANDOR_RUNTIME_DIR", folder_.path().c_str(), 1);
}

// Others.

TEST_F(FaultyClients, AnotherVersionIsRefused) {
    aggregator_.start();
    for (const int field : {0, 1, 2, 3}) {
        RogueClient rogue(folder_);
        ASSERT_TRUE(rogue.isConnected());
        wire::Hello hello = rogue.goodHello();
        hello.version += field == 0;
        hello.headerBytes += field == 1;
        hello.recordBytes += field == 2;
        hello.magic += field == 3;
        const auto outcome = static_cast<wire::Outcome>(rogue.greet(hello, -1).outcome);
        EXPECT_EQ(outcome, wire::Outcome::otherVersion);
    }
    const OpenClient client("right");
    client.waitUntilWanted();
}

TEST_F(FaultyClients, AnotherUserIsNotLetIn) {
    if (geteuid() != 0)
        GTEST_SKIP() << "only root may switch to another user";
    aggregator_.start();
    std::filesystem::permissions(folder_.path(), std::filesystem::perms::all);
    Child child([&] {
        constexpr uid_t nobody = 65534;
        if (setresgid(nobody, nobody, nobody) != 0 || setresuid(nobody, nobody, nobody) != 0)
            _exit(2);
        RogueClient rogue(folder_);
        if (rogue.isConnected())
            rogue.greet(rogue.goodHello(), -1);
        _exit(rogue.welcome().session == 0 ? 0 : 1);
    });
    EXPECT_EQ(child.wait(), 0);
    aggregator_.collectEvents();
    EXPECT_EQ(accountOf("rogue").client, 0u);
}

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
