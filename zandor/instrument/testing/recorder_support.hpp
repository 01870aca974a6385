// What the recorder's tests share.
#pragma once

#include <gtest/gtest.h>

#include <barrier>
#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "zandor/instrument/controls.hpp"
#include "zandor/instrument/instrument.hpp"
#include "zandor/instrument/listeners.hpp"
#include "zandor/instrument/recorder.hpp"

namespace instrument::test_support {

/// Registered as long as it lives.
class Listening {
  public:
    explicit Listening(InstrumentListener& listener) : listener_(listener) {
        listeners.add(listener_);
    }
    ~Listening() { listeners.remove(listener_); }
    Listening(const Listening&) = delete;
    Listening& operator=(const Listening&) = delete;

  private:
    InstrumentListener& listener_;
};

/// All instruments are on in these tests.
class RecorderTest : public testing::Test {
  protected:
    void SetUp() override { controls.enableAll(true); }
    void TearDown() override { controls.enableAll(false); }
};

/// Runs `work(index)` on so many threads, which begin together, and joins them.
inline void onThreads(int count, const std::function<void(int)>& work) {
    std::barrier together(count);
    std::vector<std::thread> threads;
    for (int i = 0; i < count; ++i)
        threads.emplace_back([&, i] {
            together.arrive_and_wait();
            work(i);
        });
    for (std::thread& thread : threads)
        thread.join();
}

/// "a=1 b=x".
inline std::string textOf(const ContextSet& context) {
    std::string text;
    for (const ContextEntry& entry : context)
        text.append(text.empty() ? "" : " ").append(entry.name).append("=").append(entry.value);
    return text;
}

}  // namespace instrument::test_support
