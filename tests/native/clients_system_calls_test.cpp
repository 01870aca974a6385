// Producing makes no system call: each one that a thread makes is caught and counted.
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <signal.h>
#include <stddef.h>
#include <sys/prctl.h>
#include <sys/syscall.h>

#include <atomic>

#include "client_support.hpp"

namespace client_tests {
namespace {

std::atomic<int> systemCalls{0};

/// Has every system call of the calling thread counted instead of made, from now on. What ends the
/// process and the handler is not.
bool countSystemCalls() {
    struct sigaction action {};
    action.sa_handler = [](int) { ++systemCalls; };
    sigaction(SIGSYS, &action, nullptr);
    sock_filter filter[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_exit_group, 1, 0),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_rt_sigreturn, 0, 1),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_TRAP),
    };
    const sock_fprog program{std::size(filter), filter};
    return prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
           prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) == 0;
}

constexpr int notPossible = 77;

/// What a child saw of its own system calls while it ran `work`.
template <class Work>
int systemCallsOf(Work work) {
    const pid_t child = fork();
    if (child == 0) {
        const OpenClient client("quiet");
        if (!waitUntil([&] { return client.isWanted(); }))
            _exit(notPossible - 1);
        const char* key = "key";
        const char* value = "value";
        const auto produce = [&](int events) {
            for (int i = 0; i < events; ++i) {
                client.stop(zandor_client_start(client.get(), "work", &key, &value, 1));
                client.stop(client.start("plain"));
                client.instant(i % 2 ? "odd" : "even");
            }
        };
        produce(2);
        if (!countSystemCalls())
            _exit(notPossible);
        work(produce);
        _exit(std::min(systemCalls.load(), 70));
    }
    int status = 0;
    waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

class ProducersSystemCalls : public ClientTest {
  protected:
    ProducersSystemCalls() { aggregator_.startCollecting(std::chrono::milliseconds(1)); }
};

TEST_F(ProducersSystemCalls, AreCounted) {
    const int calls = systemCallsOf([](auto) {
        for (int i = 0; i < 3; ++i)
            getppid();
    });
    if (calls == notPossible)
        GTEST_SKIP() << "the kernel filters no system calls here";
    EXPECT_EQ(calls, 3);
}

TEST_F(ProducersSystemCalls, AreNoneInAMillionEventsThroughFullRingsAndEmptyOnes) {
    const int calls = systemCallsOf([](auto produce) { produce(200'000); });
    if (calls == notPossible)
        GTEST_SKIP() << "the kernel filters no system calls here";
    EXPECT_EQ(calls, 0);
    aggregator_.stop();
    const auto account = accountOf("quiet");
    EXPECT_GE(account.published, 600'000u);
    expectBalanced(account);
}

}  // namespace
}  // namespace client_tests
