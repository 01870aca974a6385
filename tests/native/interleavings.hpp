// Tries every interleaving of a few small threads over a few shared words, as memory that delays
// stores shows them: a small model checker.
//
// A store waits in its thread's buffer and reaches memory at any later time: behind those to the
// same word, and, if it is a release, behind all that the thread stored before. Loads happen in
// the order of the program (they are acquires); what reordered loads could do is not looked at. A
// heavy fence empties all buffers, as the system's barrier in every thread does.
#pragma once

#include <algorithm>
#include <cstddef>
#include <functional>
#include <set>
#include <string>
#include <vector>

namespace interleavings {

struct Store {
    int word;
    int value;
    bool release;
    auto operator<=>(const Store&) const = default;
};

struct ThreadState {
    std::size_t step = 0;
    std::vector<int> registers = std::vector<int>(3);
    std::vector<Store> buffer;
    auto operator<=>(const ThreadState&) const = default;
};

struct World {
    std::vector<int> memory;
    std::vector<ThreadState> threads;
    auto operator<=>(const World&) const = default;
};

/// What a step of one thread can do. A step makes at most one access that others see.
class Access {
  public:
    Access(World& world, std::size_t thread) : world_(world), own_(world.threads[thread]) {}

    int load(int word) const {
        for (auto store = own_.buffer.rbegin(); store != own_.buffer.rend(); ++store)
            if (store->word == word)
                return store->value;
        return world_.memory[static_cast<std::size_t>(word)];
    }
    void store(int word, int value) { own_.buffer.push_back({word, value, false}); }
    void release(int word, int value) { own_.buffer.push_back({word, value, true}); }
    /// A read-modify-write, or code under a lock: whole and in memory at once.
    void exchange(int word, int value) {
        empty(own_);
        world_.memory[static_cast<std::size_t>(word)] = value;
    }
    void heavyFence() {
        for (ThreadState& thread : world_.threads)
            empty(thread);
    }
    int& local(std::size_t number) { return own_.registers[number]; }

    /// The next step, where it is not the one behind this.
    void go(std::size_t step) { next = static_cast<std::ptrdiff_t>(step); }
    /// Not now: the step is tried again when something changed.
    void wait() { waits = true; }
    void expect(bool holds, const char* what) {
        if (!holds && !broken)
            broken = what;
    }

    std::ptrdiff_t next = -1;
    bool waits = false;
    const char* broken = nullptr;

  private:
    void empty(ThreadState& thread) {
        for (const Store& store : thread.buffer)
            world_.memory[static_cast<std::size_t>(store.word)] = store.value;
        thread.buffer.clear();
    }

    World& world_;
    ThreadState& own_;
};

struct Step {
    const char* code;  ///< what it mirrors
    std::function<void(Access&)> run;
};
using Program = std::vector<Step>;

struct Verdict {
    std::string broken;  ///< empty: all holds in every interleaving
    std::size_t states = 0;
};

class Explorer {
  public:
    Explorer(std::vector<int> memory, std::vector<Program> programs)
        : programs_(std::move(programs)) {
        first_.memory = std::move(memory);
        first_.threads.resize(programs_.size());
    }

    Verdict explore() {
        std::vector<World> left{first_};
        seen_.insert(first_);
        while (!left.empty() && verdict_.broken.empty()) {
            const World world = std::move(left.back());
            left.pop_back();
            bool moved = false;
            for (std::size_t thread = 0; thread < programs_.size(); ++thread) {
                moved = step(world, thread, left) || moved;
                moved = commit(world, thread, left) || moved;
            }
            if (!moved && !isOver(world))
                verdict_.broken = "threads wait for each other for ever";
        }
        verdict_.states = seen_.size();
        return verdict_;
    }

  private:
    bool isOver(const World& world) const {
        for (std::size_t i = 0; i < programs_.size(); ++i)
            if (world.threads[i].step < programs_[i].size())
                return false;
        return true;
    }

    void add(World world, std::vector<World>& left) {
        if (seen_.insert(world).second)
            left.push_back(std::move(world));
    }

    /// Whether the thread could make its step.
    bool step(const World& world, std::size_t thread, std::vector<World>& left) {
        const std::size_t at = world.threads[thread].step;
        if (at >= programs_[thread].size())
            return false;
        World after = world;
        Access access(after, thread);
        programs_[thread][at].run(access);
        if (access.broken)
            verdict_.broken =
                std::string(access.broken) + " (at: " + programs_[thread][at].code + ")";
        if (access.waits)
            return false;
        after.threads[thread].step =
            access.next < 0 ? at + 1 : static_cast<std::size_t>(access.next);
        add(std::move(after), left);
        return true;
    }

    /// Each store that may reach memory next.
    bool commit(const World& world, std::size_t thread, std::vector<World>& left) {
        const std::vector<Store>& buffer = world.threads[thread].buffer;
        for (std::size_t i = 0; i < buffer.size(); ++i) {
            const auto isSameWord = [&](const Store& store) {
                return store.word == buffer[i].word;
            };
            const auto end = buffer.begin() + static_cast<std::ptrdiff_t>(i);
            if ((buffer[i].release && i > 0) || std::any_of(buffer.begin(), end, isSameWord))
                continue;
            World after = world;
            after.memory[static_cast<std::size_t>(buffer[i].word)] = buffer[i].value;
            after.threads[thread].buffer.erase(after.threads[thread].buffer.begin() +
                                               static_cast<std::ptrdiff_t>(i));
            add(std::move(after), left);
        }
        return !buffer.empty();
    }

    const std::vector<Program> programs_;
    World first_;
    std::set<World> seen_;
    Verdict verdict_;
};

inline Verdict explore(std::vector<int> memory, std::vector<Program> programs) {
    return Explorer(std::move(memory), std::move(programs)).explore();
}

}  // namespace interleavings
