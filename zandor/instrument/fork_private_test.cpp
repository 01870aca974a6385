#include "zandor/instrument/fork_private.hpp"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>

namespace instrument::detail {
namespace {

/// What `check` says in a child.
bool holdsInAChild(const std::function<bool()>& check) {
    const pid_t child = fork();
    if (child == 0)
        _exit(check() ? 0 : 1);
    int status = 0;
    waitpid(child, &status, 0);
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

struct Numbers {
    int first;
    int more[5000];
};

TEST(ForkPrivate, AChildFindsItNewAndTheParentKeepsIt) {
    const ForkPrivate<Numbers> numbers;
    numbers->first = 1;
    numbers->more[4999] = 2;
    EXPECT_TRUE(holdsInAChild([&] { return numbers->first == 0 && numbers->more[4999] == 0; }));
    EXPECT_EQ(numbers->first, 1);
    EXPECT_EQ(numbers->more[4999], 2);
}

TEST(ForkPrivate, AGrandchildFindsItNewToo) {
    const ForkPrivate<Numbers> numbers;
    EXPECT_TRUE(holdsInAChild([&] {
        numbers->first = 1;
        return holdsInAChild([&] { return numbers->first == 0; }) && numbers->first == 1;
    }));
}

TEST(ForkPrivate, WhereTheKernelDoesNotWipeAHandlerDoes) {
    auto* memory = static_cast<int*>(mapMemory(8192));
    auto* forgotten = static_cast<int*>(mapMemory(8192));
    wipeOnFork(memory, 8192, Wiping::handler);
    wipeOnFork(forgotten, 8192, Wiping::handler);
    forgetWiping(forgotten);
    memory[0] = memory[2047] = forgotten[0] = 1;
    EXPECT_TRUE(
        holdsInAChild([&] { return memory[0] == 0 && memory[2047] == 0 && forgotten[0] == 1; }));
    EXPECT_EQ(memory[0], 1);
    wipeOnFork(forgotten, 8192, Wiping::handler);
    EXPECT_TRUE(holdsInAChild([&] { return forgotten[0] == 0; }));
    for (int* range : {memory, forgotten}) {
        forgetWiping(range);
        unmapMemory(range, 8192);
    }
}

}  // namespace
}  // namespace instrument::detail
