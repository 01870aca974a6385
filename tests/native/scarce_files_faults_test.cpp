// Clients and hosts that have no descriptor left at one moment meet once there are some again.
#include <gmock/gmock.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/resource.h>

#include "client_faults_support.hpp"
#include "zandor/client/packets.hpp"
#include "zandor/client/wire.hpp"
#include "zandor/performance/external_client.hpp"
#include "zandor/performance/external_socket.hpp"
#include "zandor/runtime/sanitizers.hpp"

namespace client_tests {
namespace {

std::atomic<int> connections{0};

}  // namespace
}  // namespace client_tests

extern "C" void zandor_test_point(const char* label) {
    if (std::strcmp(label, "client.connected") == 0)
        ++client_tests::connections;
}

namespace client_tests {
namespace {

using instrument::detail::ExternalSocket;
using instrument::detail::FileDescriptor;
namespace wire = zandor::client::wire;
using zandor::client::Receipt;
using zandor::client::receivePacket;

/// What one process waits for and another gives.
class Signal {
  public:
    void give() const { ASSERT_EQ(write(ends_[1], "", 1), 1); }
    void wait() const {
        char ignored = 0;
        ASSERT_EQ(read(ends_[0], &ignored, 1), 1);
    }

  private:
    static std::array<int, 2> makePipe() {
        std::array<int, 2> ends{};
        EXPECT_EQ(pipe(ends.data()), 0);
        return ends;
    }
    const std::array<int, 2> ends_ = makePipe();
};

/// All descriptors that this process may have, but so many.
class TakenFiles {
  public:
    explicit TakenFiles(std::size_t left) {
        getrlimit(RLIMIT_NOFILE, &before_);
        const rlimit few{std::min<rlim_t>(before_.rlim_cur, 256), before_.rlim_max};
        setrlimit(RLIMIT_NOFILE, &few);
        for (int file = 0; (file = eventfd(0, EFD_CLOEXEC)) >= 0;)
            files_.emplace_back(file);
        files_.resize(files_.size() - left);
    }
    ~TakenFiles() { setrlimit(RLIMIT_NOFILE, &before_); }
    TakenFiles(const TakenFiles&) = delete;
    TakenFiles& operator=(const TakenFiles&) = delete;

  private:
    rlimit before_{};
    std::vector<FileDescriptor> files_;
};

/// Until both of a client's threads, the program's and its own, wait, but for the one that asks.
void waitUntilAsleep(pid_t process) {
    const std::string path = "/proc/" + std::to_string(process) + "/task";
    const std::string asking = std::to_string(gettid());
    ASSERT_TRUE(waitUntil([&] {
        const std::filesystem::directory_iterator threads(path);
        return std::distance(begin(threads), end(threads)) == 2 &&
               std::ranges::all_of(std::filesystem::directory_iterator(path),
                                   [&](const auto& each) {
                                       return each.path().filename() == asking ||
                                              process_tests::isAsleep(each.path());
                                   });
    }));
}

class ScarceFiles : public ClientTest, public testing::WithParamInterface<std::size_t> {};

TEST_P(ScarceFiles, KeepAClientFromItsHostOnlyForAWhile) {
    const std::string name = "poor " + std::to_string(GetParam());
    aggregator_.start();
    const Signal more;
    Child child([&] {
        std::optional<TakenFiles> taken(GetParam());
        const OpenClient client(name.c_str());
        more.wait();
        taken.reset();
        client.waitUntilWanted();
        client.instant("in the end");
    });
    waitUntilAsleep(child.process());
    more.give();
    EXPECT_EQ(child.wait(), 0);
    aggregator_.stop();
    EXPECT_EQ(accountOf(name).delivered, 1u);
}

// The sanitizer of undefined behaviour needs descriptors to look at an object's type.
#if !ZANDOR_SANITIZED
TEST_P(ScarceFiles, KeepAHostFromItsClientOnlyForAWhile) {
    connections = 0;
    const Signal ready, look, end;
    Child host([&] {
        aggregator_.start();
        {
            const TakenFiles taken(GetParam() - 1);
            ready.give();
            look.wait();
            aggregator_.refreshActiveClients();
        }
        end.wait();
        aggregator_.stop();
        _exit(accountOf("patient").delivered == 1 ? 0 : 1);
    });
    ready.wait();
    {
        const OpenClient client("patient");
        EXPECT_TRUE(waitUntil([] { return connections > 0; }));
        waitUntilAsleep(getpid());
        look.give();
        client.waitUntilWanted();
        client.instant("in the end");
    }
    end.give();
    EXPECT_EQ(host.wait(), 0);
}
#endif

// A client that opens without any is inert.
INSTANTIATE_TEST_SUITE_P(Left, ScarceFiles, testing::Range<std::size_t>(1, 7));

/// Waits for a connection, and takes the hello that comes over it.
FileDescriptor hearHello(const ExternalSocket& host) {
    pollfd file{host.get(), POLLIN, 0};
    EXPECT_EQ(poll(&file, 1, 30'000), 1);
    FileDescriptor client = host.accept();
    wire::Hello hello{};
    int counters = -1;
    EXPECT_TRUE(waitUntil([&] {
        return receivePacket(client.get(), &hello, sizeof hello, counters) == Receipt::packet;
    }));
    close(counters);
    return client;
}

TEST(AnswerWithoutItsFile, IsAskedForAgain) {
    const RuntimeFolder folder;
    const Signal take, taken, release, end;
    Child child([&] {
        const OpenClient client("unlucky");
        take.wait();
        std::optional<TakenFiles> files(0);
        taken.give();
        release.wait();
        files.reset();
        end.wait();
    });
    const ExternalSocket host;
    const FileDescriptor first = hearHello(host);
    take.give();
    taken.wait();
    const instrument::detail::ExternalTerms terms;
    const instrument::detail::SharedControl control(1, terms.ringSlots);
    const wire::Welcome welcome{wire::magic,
                                wire::version,
                                static_cast<std::uint32_t>(wire::Outcome::welcome),
                                1,
                                control.bytes(),
                                terms.ringSlots,
                                terms.namesBytes,
                                terms.dataBytes};
    ASSERT_TRUE(zandor::client::sendPacket(first.get(), &welcome, sizeof welcome, control.file()));
    pollfd left{first.get(), POLLIN, 0};
    EXPECT_EQ(poll(&left, 1, 30'000), 1);
    release.give();
    EXPECT_TRUE(hearHello(host));
    end.give();
    EXPECT_EQ(child.wait(), 0);
}

}  // namespace
}  // namespace client_tests
