// Where the memory of arrays comes from and goes to.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <barrier>
#include <cstring>
#include <fstream>
#include <random>
#include <thread>
#include <vector>

#include "zandor/runtime/array.hpp"
#include "zandor/runtime/class_system.hpp"
#include "zandor/runtime/sanitizers.hpp"
#include "zandor/runtime/testing/live_arrays.hpp"

namespace {

using matrix::Array;
using matrix::ClassId;
using matrix::detail::do_create_cell;
using matrix::detail::do_create_struct;
using matrix::detail::do_create_uninitnumeric;
namespace hx = matrix::hx;

TEST(ArrayMemory, MayBeFreedByAnotherThreadThanTheOneThatTookIt) {
    constexpr std::size_t count = 20'000;
    std::vector<Array> arrays(count);
    for (int round = 0; round < 4; ++round) {
        std::thread maker([&] {
            for (std::size_t i = 0; i < count; ++i) {
                arrays[i] = do_create_uninitnumeric(ClassId::logical, 1, 1 + i % 600);
                std::memset(hx::hxGetData(arrays[i].get()), static_cast<int>(i), 1 + i % 600);
            }
        });
        maker.join();
        std::thread destroyer([&] {
            for (std::size_t i = 0; i < count; ++i) {
                const auto* data =
                    static_cast<const unsigned char*>(hx::hxGetData(arrays[i].get()));
                const auto wanted = static_cast<unsigned char>(i);
                ASSERT_EQ(data[0], wanted);
                ASSERT_EQ(data[i % 600], wanted);
                arrays[i].reset();
            }
        });
        destroyer.join();
    }
}

TEST(ArrayMemory, IsNotSharedBetweenLivingArrays) {
    std::mt19937 random(1);
    std::vector<std::pair<Array, unsigned char>> living;
    for (int step = 0; step < 50'000; ++step) {
        if (living.size() < 100 || random() % 2) {
            const std::size_t size = random() % 700;
            Array array = do_create_uninitnumeric(ClassId::logical, size, 1);
            const auto mark = static_cast<unsigned char>(random());
            std::memset(hx::hxGetData(array.get()), mark, size);
            living.emplace_back(std::move(array), mark);
        } else {
            std::swap(living[random() % living.size()], living.back());
            const auto& [array, mark] = living.back();
            const auto* data = static_cast<const unsigned char*>(hx::hxGetData(array.get()));
            const std::size_t size = hx::hxGetElementCount(array.get());
            for (std::size_t i = 0; i < size; ++i)
                ASSERT_EQ(data[i], mark);
            living.pop_back();
        }
    }
}

TEST(ArrayMemory, IsMadeAndDestroyedByThreadsSideBySide) {
    constexpr int threadCount = 4;
    std::barrier start(threadCount);
    std::vector<std::thread> threads;
    for (int t = 0; t < threadCount; ++t) {
        threads.emplace_back([&, t] {
            start.arrive_and_wait();
            for (int round = 0; round < 50; ++round) {
                Array cell = do_create_cell(1, 200);
                for (std::size_t i = 0; i < 200; ++i) {
                    hx::hxSetCell(cell.get(), i, hx::hxCreateDoubleScalar(t));
                }
                for (std::size_t i = 0; i < 200; ++i) {
                    const hxArray* number = hx::hxGetCell(cell.get(), i);
                    ASSERT_EQ(*static_cast<const double*>(hx::hxGetData(number)), t);
                }
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
}

/// Destroys an array when its thread's own objects are destroyed: after the thread's cache, or
/// before it.
struct LateArray {
    Array array;
};

TEST(ArrayMemory, CanBeUsedWhileTheThreadEnds) {
    std::thread([] {
        // The order in which thread-locals are destroyed is the reverse of their first use.
        thread_local LateArray late;
        late.array = nullptr;
        late.array = do_create_cell(1, 1);
        hx::hxSetCell(late.array.get(), 0, hx::hxCreateDoubleScalar(1));
    }).join();
}

// A sanitizer's memory is its own, and the thread sanitizer's is not to be used after such a fork.
#if !ZANDOR_SANITIZED

TEST(ArrayMemory, WorksInTheChildOfAForkAmongThreadsThatUseIt) {
    std::atomic<bool> done{false};
    std::vector<std::thread> threads;
    for (int t = 0; t < 2; ++t) {
        threads.emplace_back([&, t] {
            // Each array of each round is another one, so that threads, caches and texts are always
            // on the move.
            for (int round = 0; !done.load(); ++round) {
                std::vector<Array> arrays;
                for (int i = 0; i < 100; ++i)
                    arrays.push_back(do_create_cell(1, 1));
                kobs::internal::makeInterned(std::to_string(t) + "/" +
                                             std::to_string(round % 1000));
            }
        });
    }
    int failures = 0;
    for (int i = 0; i < 50; ++i) {
        const pid_t child = fork();
        if (child == 0) {
            std::vector<Array> arrays;
            for (int n = 0; n < 1000; ++n)
                arrays.push_back(do_create_cell(1, 1));
            kobs::internal::makeInterned("in the child");
            _exit(matrix::liveArrayCount() >= 1000 ? 0 : 1);
        }
        int status = -1;
        EXPECT_EQ(waitpid(child, &status, 0), child);
        failures += status != 0;
    }
    done = true;
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(failures, 0);
}

std::size_t residentBytes() {
    std::ifstream statm("/proc/self/statm");
    std::size_t all = 0;
    std::size_t resident = 0;
    statm >> all >> resident;
    return resident * static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
}

/// A 1-by-`count` struct array of records as a recorder gives them.
Array makeRecords(std::size_t count) {
    const char* const names[] = {
        "display",         "name",    "context", "source_name", "start_time_point",
        "stop_time_point", "duration"};
    Array records = do_create_struct(1, count, names);
    for (std::size_t i = 0; i < count; ++i) {
        const auto set = [&](std::size_t field, hxArray* value) {
            hx::hxSetField(records.get(), i, hx::hxGetFieldName(records.get(), field), value);
        };
        set(0, matrix::create("solve [n=3, tol=1e-6]").release());
        set(1, matrix::create("solve").release());
        set(2, do_create_struct(0, 0, {}).release());
        set(3, matrix::create("worker").release());
        for (std::size_t field = 4; field < 7; ++field)
            set(field, hx::hxCreateDoubleScalar(1));
    }
    return records;
}

TEST(ArrayMemory, OfARecordOfSevenFieldsIsUnder500Bytes) {
    constexpr std::size_t count = 100'000;
    const std::size_t before = residentBytes();
    const Array records = makeRecords(count);
    EXPECT_LT(residentBytes() - before, 500 * count);
}

TEST(ArrayMemory, GoesBackToTheSystem) {
    makeRecords(100'000);  // what the first use takes for good
    const std::size_t before = residentBytes();
    for (int round = 0; round < 3; ++round)
        makeRecords(100'000);
    Array records = makeRecords(100'000);
    const std::size_t full = residentBytes();
    records.reset();
    EXPECT_GT(full, before + (20 << 20));
    EXPECT_LT(residentBytes(), before + (full - before) / 3);
}

#endif

}  // namespace
