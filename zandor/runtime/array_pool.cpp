#include "zandor/runtime/array_pool.hpp"

#include <sys/mman.h>

#include <array>
#include <atomic>
#include <cstdlib>
#include <mutex>
#include <new>
#include <utility>

#include "zandor/runtime/fork_locks.hpp"
#include "zandor/runtime/per_thread.hpp"
#include "zandor/runtime/sanitizers.hpp"

namespace matrix::detail {

namespace {

constexpr bool usePools = !ZANDOR_SANITIZED;
constexpr std::size_t granule = 16;
constexpr std::uint32_t classCount = 32;  ///< class c holds blocks of (c + 1) granules
constexpr std::uint32_t fromMalloc = classCount;
constexpr std::size_t slabSize = std::size_t{256} << 10;
constexpr std::uint32_t batch = 32;  ///< blocks that move between a cache and the depot at once

struct FreeBlock {
    FreeBlock* next;
};

/// Aligned memory for blocks of one class. Guarded by poolLock.
struct alignas(granule) Slab {
    FreeBlock* freeBlocks = nullptr;  ///< blocks that were used before
    Slab* next = nullptr;             ///< of the slabs of its class with free blocks
    Slab* previous = nullptr;
    std::uint32_t sizeClass;
    std::uint32_t capacity;    ///< of blocks; kept, since dividing takes longer than all else here
    std::uint32_t used = 0;    ///< blocks that are out of the depot
    std::uint32_t carved = 0;  ///< blocks that were ever out of the depot

    explicit Slab(std::uint32_t blockClass) noexcept
        : sizeClass(blockClass),
          capacity(static_cast<std::uint32_t>((slabSize - sizeof(Slab)) / blockSize())) {}
    std::size_t blockSize() const noexcept { return (sizeClass + 1) * granule; }
    bool full() const noexcept { return used == capacity; }

    static Slab* of(FreeBlock* block) noexcept {
        return reinterpret_cast<Slab*>(reinterpret_cast<std::uintptr_t>(block) & ~(slabSize - 1));
    }
    FreeBlock* take() noexcept {
        ++used;
        if (freeBlocks)
            return std::exchange(freeBlocks, freeBlocks->next);
        char* blocks = reinterpret_cast<char*>(this + 1);
        return reinterpret_cast<FreeBlock*>(blocks + blockSize() * carved++);
    }
    void put(FreeBlock* block) noexcept {
        block->next = std::exchange(freeBlocks, block);
        --used;
    }
};

/// An aligned piece of anonymous memory, or null.
void* mapSlab() noexcept {
    void* wide =
        mmap(nullptr, 2 * slabSize, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (wide == MAP_FAILED)
        return nullptr;
    const auto begin = reinterpret_cast<std::uintptr_t>(wide);
    const auto aligned = (begin + slabSize - 1) & ~(slabSize - 1);
    if (aligned > begin)
        munmap(wide, aligned - begin);
    const auto rest = begin + slabSize - aligned;
    if (rest)
        munmap(reinterpret_cast<void*>(aligned + slabSize), rest);
    return reinterpret_cast<void*>(aligned);
}

/// All blocks that no thread's cache holds. Guarded by poolLock.
class Depot {
  public:
    /// Chains up to `wanted` blocks; none when memory ran out.
    FreeBlock* take(std::uint32_t sizeClass, std::uint32_t wanted, std::uint32_t& taken) noexcept {
        FreeBlock* chain = nullptr;
        for (taken = 0; taken < wanted; ++taken) {
            Slab* slab = withRoom(sizeClass);
            if (!slab)
                break;
            FreeBlock* block = slab->take();
            if (slab->full())
                unlink(slab);
            block->next = std::exchange(chain, block);
        }
        return chain;
    }

    void put(FreeBlock* block) noexcept {
        Slab* slab = Slab::of(block);
        if (slab->full())
            link(slab);
        slab->put(block);
        // One slab stays for each class, so that a single array made and destroyed maps nothing.
        if (slab->used == 0 && (slab->next || slab->previous)) {
            unlink(slab);
            munmap(slab, slabSize);
        }
    }

  private:
    Slab* withRoom(std::uint32_t sizeClass) noexcept {
        if (!withRoom_[sizeClass]) {
            if (void* memory = mapSlab())
                link(new (memory) Slab(sizeClass));
        }
        return withRoom_[sizeClass];
    }
    void link(Slab* slab) noexcept {
        Slab*& first = withRoom_[slab->sizeClass];
        slab->previous = nullptr;
        slab->next = first;
        if (first)
            first->previous = slab;
        first = slab;
    }
    void unlink(Slab* slab) noexcept {
        (slab->previous ? slab->previous->next : withRoom_[slab->sizeClass]) = slab->next;
        if (slab->next)
            slab->next->previous = slab->previous;
        slab->next = slab->previous = nullptr;
    }

    std::array<Slab*, classCount> withRoom_{};
};

class ThreadCache;

constinit Depot depot;
constinit ThreadCache* caches = nullptr;  ///< of the threads that live; guarded by poolLock
/// Blocks counted by no living thread's cache. Relaxed, as all counts of blocks: whoever needs an
/// exact sum learned of what happened otherwise.
constinit std::atomic<std::int64_t> countOfEndedThreads{0};

/// A thread's free blocks, and its part of the count of live ones.
class ThreadCache {
  public:
    ThreadCache() noexcept {
        const std::lock_guard lock(zandor::poolLock);
        next_ = std::exchange(caches, this);
    }
    ~ThreadCache() {
        const std::lock_guard lock(zandor::poolLock);
        for (List& list : lists_) {
            while (list.count)
                depot.put(list.pop());
        }
        countOfEndedThreads.fetch_add(live(), std::memory_order_relaxed);
        ThreadCache** link = &caches;
        while (*link != this)
            link = &(*link)->next_;
        *link = next_;
    }
    ThreadCache(const ThreadCache&) = delete;
    ThreadCache& operator=(const ThreadCache&) = delete;

    void* take(std::uint32_t sizeClass) noexcept {
        List& list = lists_[sizeClass];
        if (!list.count) {
            const std::lock_guard lock(zandor::poolLock);
            list.first = depot.take(sizeClass, batch, list.count);
        }
        return list.count ? list.pop() : nullptr;
    }

    void put(void* memory, std::uint32_t sizeClass) noexcept {
        List& list = lists_[sizeClass];
        list.first = new (memory) FreeBlock{list.first};
        if (++list.count < 2 * batch)
            return;
        const std::lock_guard lock(zandor::poolLock);
        while (list.count > batch)
            depot.put(list.pop());
    }

    /// Only the owner counts. A sum over the threads is exact about all that happened before it.
    void count(std::int64_t change) noexcept {
        live_.store(live_.load(std::memory_order_relaxed) + change, std::memory_order_relaxed);
    }
    std::int64_t live() const noexcept { return live_.load(std::memory_order_relaxed); }
    const ThreadCache* next() const noexcept { return next_; }

  private:
    struct List {
        FreeBlock* first = nullptr;
        std::uint32_t count = 0;
        FreeBlock* pop() noexcept {
            --count;
            return std::exchange(first, first->next);
        }
    };
    std::array<List, classCount> lists_;
    std::atomic<std::int64_t> live_{0};  // relaxed
    ThreadCache* next_ = nullptr;
};

void count(ThreadCache* cache, std::int64_t change) noexcept {
    if (cache) {
        cache->count(change);
    } else {
        countOfEndedThreads.fetch_add(change, std::memory_order_relaxed);
    }
}

void* takePooled(ThreadCache* cache, std::uint32_t sizeClass) noexcept {
    if (cache)
        return cache->take(sizeClass);
    const std::lock_guard lock(zandor::poolLock);
    std::uint32_t taken = 0;
    return depot.take(sizeClass, 1, taken);
}

void putPooled(ThreadCache* cache, void* memory, std::uint32_t sizeClass) noexcept {
    if (cache) {
        cache->put(memory, sizeClass);
        return;
    }
    const std::lock_guard lock(zandor::poolLock);
    depot.put(new (memory) FreeBlock{nullptr});
}

}  // namespace

Block allocateBlock(std::size_t size) {
    ThreadCache* cache = zandor::PerThread<ThreadCache>::get();
    Block block{nullptr, fromMalloc};
    if (usePools && size <= classCount * granule) {
        block.sizeClass = static_cast<std::uint32_t>((size + granule - 1) / granule - 1);
        block.memory = takePooled(cache, block.sizeClass);
    } else {
        block.memory = std::malloc(size);
    }
    if (!block.memory)
        throw std::bad_alloc();
    count(cache, 1);
    return block;
}

void freeBlock(Block block) noexcept {
    ThreadCache* cache = zandor::PerThread<ThreadCache>::get();
    count(cache, -1);
    if (block.sizeClass == fromMalloc) {
        std::free(block.memory);
    } else {
        putPooled(cache, block.memory, block.sizeClass);
    }
}

std::size_t liveBlockCount() noexcept {
    const std::lock_guard lock(zandor::poolLock);
    std::int64_t sum = countOfEndedThreads.load(std::memory_order_relaxed);
    for (const ThreadCache* cache = caches; cache; cache = cache->next())
        sum += cache->live();
    return static_cast<std::size_t>(sum);
}

}  // namespace matrix::detail
