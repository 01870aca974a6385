// What the tests of external clients share.
#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "zandor/client/client.h"
#include "zandor/instrument/controls.hpp"
#include "zandor/instrument/external_accounts.hpp"
#include "zandor/instrument/listeners.hpp"
#include "zandor/instrument/recorder.hpp"
#include "zandor/performance/aggregator.hpp"

namespace client_tests {

/// Waits until a condition holds, and gives the processor to others meanwhile.
template <class Condition>
bool waitUntil(Condition condition, std::chrono::seconds atMost = std::chrono::seconds(30)) {
    const auto end = std::chrono::steady_clock::now() + atMost;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end)
            return false;
        std::this_thread::yield();
    }
    return true;
}

/// A runtime folder that no other test meets in.
class RuntimeFolder {
  public:
    RuntimeFolder() {
        char path[] = "/tmp/zandor-test-XXXXXX";
        path_ = mkdtemp(path);
        setenv("ZANDOR_RUNTIME_DIR", path_.c_str(), 1);
    }
    ~RuntimeFolder() {
        unsetenv("ZANDOR_RUNTIME_DIR");
        std::filesystem::remove_all(path_);
    }
    const std::filesystem::path& path() const { return path_; }
    std::size_t files() const {
        const std::filesystem::directory_iterator entries(path_);
        return static_cast<std::size_t>(std::distance(begin(entries), end(entries)));
    }

  private:
    std::filesystem::path path_;
};

/// A client that is closed with its owner.
class OpenClient {
  public:
    explicit OpenClient(const char* name) : client_(zandor_client_open(name)) {}
    ~OpenClient() { zandor_client_close(client_); }
    OpenClient(const OpenClient&) = delete;
    OpenClient& operator=(const OpenClient&) = delete;

    zandor_client* get() const { return client_; }
    bool isWanted() const { return zandor_client_is_wanted(client_) != 0; }
    void waitUntilWanted() const {
        ASSERT_TRUE(waitUntil([this] { return isWanted(); }));
    }
    zandor_event start(const char* name) const {
        return zandor_client_start(client_, name, nullptr, nullptr, 0);
    }
    void stop(zandor_event event) const { zandor_client_stop(client_, event); }
    void instant(const char* name) const {
        zandor_client_instant(client_, name, nullptr, nullptr, 0);
    }

  private:
    zandor_client* client_;
};

/// The account of the latest client of that name.
inline instrument::ExternalAccount accountOf(const std::string& name) {
    instrument::ExternalAccount latest;
    for (const auto& account : instrument::externalAccounts())
        if (account.name == name)
            latest = account;
    return latest;
}

inline std::uint64_t sumOf(const std::map<std::string, std::uint64_t>& drops) {
    std::uint64_t sum = 0;
    for (const auto& [cause, count] : drops)
        sum += count;
    return sum;
}

inline void expectBalanced(const instrument::ExternalAccount& account) {
    EXPECT_EQ(account.published, account.delivered + sumOf(account.drops));
}

/// Everything is on and goes to a recorder.
class ClientTest : public testing::Test {
  protected:
    ClientTest() {
        instrument::controls.enableAll(true);
        instrument::listeners.add(recorder_);
    }
    ~ClientTest() override {
        aggregator_.stop();
        instrument::listeners.remove(recorder_);
        instrument::controls.disableAll();
    }

    RuntimeFolder folder_;
    instrument::InstrumentRecorder recorder_;
    instrument::ExternalEventsAggregator aggregator_;
};

}  // namespace client_tests
