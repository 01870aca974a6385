// The threads that work behind the published methods, without memory: they go on, say what was
// lost, and work again when there is memory.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>

#include "tests/native/failing_memory.hpp"
#include "zandor/client/client.h"
#include "zandor/instrument/controls.hpp"
#include "zandor/instrument/listeners.hpp"
#include "zandor/instrument/recorder.hpp"
#include "zandor/performance/aggregator.hpp"
#include "zandor/performance/product_stats.hpp"
#include "zandor/runtime/console.hpp"
#include "zandor/runtime/sanitizers.hpp"

namespace {

using failing_memory::FailureElsewhere;
namespace stats = performance::productStats;

class FailingThreads : public testing::Test {
  protected:
    static void SetUpTestSuite() {
        std::string name = std::filesystem::temp_directory_path() / "threads-XXXXXX";
        if (!mkdtemp(name.data()))
            throw std::runtime_error("no temporary folder");
        folder_ = name;
        for (const char* variable : {"XDG_STATE_HOME", "ZANDOR_RUNTIME_DIR"})
            setenv(variable, name.c_str(), 1);
    }
    static void TearDownTestSuite() { std::filesystem::remove_all(folder_); }

  private:
    static inline std::filesystem::path folder_;
};

TEST_F(FailingThreads, StatisticsDropRowsAndKeepTheNext) {
    zandor::setConsoleSink(
        [](const char*, std::size_t length) noexcept { return static_cast<int>(length); });
    stats::logEventTime("first", "");
    EXPECT_TRUE(stats::flush());
    std::uint64_t dropped = 0;
    for (std::uint64_t first = 1; first < 80; ++first) {
        SCOPED_TRACE("request " + std::to_string(first));
        {
            const FailureElsewhere failure({first, first % 2 == 0});
            stats::logEventTime("a name that is longer than a short text", "and its detail");
            stats::flush();
        }
        EXPECT_LE(stats::droppedRows(), dropped + 1);
        dropped = stats::droppedRows();
        stats::logEventTime("next", "");
        stats::flush();
        EXPECT_EQ(stats::droppedRows(), dropped);
    }
    // Sanitizers have an allocator of their own below that of the threads and the database.
    EXPECT_TRUE(dropped > 0 || ZANDOR_SANITIZED);
}

struct ClientCloser {
    void operator()(zandor_client* client) const noexcept { zandor_client_close(client); }
};
using Client = std::unique_ptr<zandor_client, ClientCloser>;

TEST_F(FailingThreads, TheHostOfClientsHearsThemWhenThereIsMemoryAgain) {
    instrument::controls.enableAll(true);
    for (std::uint64_t first = 1; first <= 12; ++first) {
        SCOPED_TRACE("request " + std::to_string(first));
        instrument::InstrumentRecorder recorder;
        instrument::listeners.add(recorder);
        instrument::ExternalEventsAggregator aggregator;
        Client early;
        {
            const FailureElsewhere failure({first, first % 2 == 0});
            aggregator.start();
            early.reset(zandor_client_open("a client with a name that is no short text"));
            for (int round = 0; round < 20; ++round)
                std::this_thread::yield();
        }
        const Client client(zandor_client_open("later"));
        while (!zandor_client_is_wanted(client.get())) {
            aggregator.refreshActiveClients();
            std::this_thread::yield();
        }
        zandor_client_instant(client.get(), "heard", nullptr, nullptr, 0);
        aggregator.stop();
        EXPECT_EQ(recorder.getEventPoints("heard").size(), 1u);
    }
    instrument::controls.disableAll();
}

}  // namespace
