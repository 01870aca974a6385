// Clients and hosts that run out of what they need, and those that are not let in.
#include <gmock/gmock.h>
#include <sys/eventfd.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <vector>

#include "client_faults_support.hpp"
#include "rogue_client.hpp"
#include "zandor/performance/external_socket.hpp"
#include "zandor/runtime/sanitizers.hpp"

extern "C" void zandor_test_point(const char* label) {
    client_tests::meet(label);
}

namespace client_tests {
namespace {

using testing::SizeIs;

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

}  // namespace
}  // namespace client_tests
