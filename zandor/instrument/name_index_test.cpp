// Queries for one name: they read little, and find what those that read all do.
#include "name_index.hpp"

#include <gmock/gmock.h>

#include <random>
#include <string>
#include <thread>
#include <vector>

#include "testing/recorder_support.hpp"
#include "zandor/instrument/source.hpp"

namespace instrument {
namespace {

using namespace detail;
using test_support::Listening;
using test_support::onThreads;

class NameIndexTest : public test_support::RecorderTest {
  protected:
    template <class Query>
    static std::uint64_t bytesReadBy(Query query) {
        const std::uint64_t before = bytesOfRecordsRead;
        query();
        return bytesOfRecordsRead - before;
    }
    void pairs(const Instrument& name, int count) {
        for (int i = 0; i < count; ++i)
            const Scope scope{name};
    }

    static std::string textOf(const InstrumentRecorder::Event& event) {
        return std::to_string(event.startTimePoint) + " " + std::to_string(event.stopTimePoint);
    }
    static std::string textOf(const InstrumentRecorder::EventPoint& point) {
        return std::to_string(point.timePoint) + " " + std::to_string(static_cast<int>(point.type));
    }
    template <class Records>
    static std::vector<std::string> textsOf(const Records& records) {
        std::vector<std::string> texts;
        for (const auto& record : records)
            texts.push_back(textOf(record) + " " + std::string(record.name) + " " +
                            test_support::textOf(record.context) + " " +
                            std::to_string(record.id.sourceId) + " " +
                            std::to_string(record.id.serialId) + " " + std::string(record.source));
        return texts;
    }

    const Instrument rare_{"index.rare"};
    const Instrument often_{"index.often"};
    InstrumentRecorder recorder_;
    const Listening listening_{recorder_};
};

/// Sixty chunks and more, of which one has the name.
TEST_F(NameIndexTest, ANameInOneOfAHundredChunksIsFoundByReadingTwo) {
    constexpr int inAChunk = 131'072;  // pairs
    std::thread([&] {
        pairs(often_, 60 * inAChunk);
        pairs(rare_, 100);
        pairs(often_, 60 * inAChunk);
    }).join();
    const std::uint64_t all = bytesReadBy([&] { recorder_.getAllEventStats(); });
    EXPECT_EQ(recorder_.getEventStats("index.rare").count, 100);
    const auto expectFewBytes = [&](auto query) { EXPECT_LE(bytesReadBy(query), all / 50); };
    expectFewBytes([&] { EXPECT_EQ(recorder_.getEventStats("index.rare").count, 100); });
    expectFewBytes([&] { EXPECT_EQ(recorder_.getEvents("index.rare").size(), 100u); });
    expectFewBytes([&] { EXPECT_EQ(recorder_.getEventPoints("index.rare").size(), 200u); });
    expectFewBytes([&] { recorder_.getEventStatsByContext("index.rare"); });
    expectFewBytes([&] { recorder_.getEventStatsForContext("index.rare", {}); });
    std::thread([&] { pairs(rare_, 1); }).join();
    expectFewBytes([&] { EXPECT_EQ(recorder_.getEventStats("index.rare").count, 101); });
}

/// Events across chunks, of each kind, with stops that another thread or another name gives; asked
/// for between the recording of parts, so that the index grows with them.
TEST_F(NameIndexTest, FindsWhatAQueryForAllFinds) {
    constexpr int nameCount = 40;
    std::vector<Instrument> names;
    for (int i = 0; i < nameCount; ++i)
        names.emplace_back("index." + std::to_string(i));
    InstrumentRecorder small({.maxBytes = 64 << 20});
    const Listening listening(small);
    const std::uint64_t external = addExternalSource("other program", "its thread", 77, 78);
    std::uint64_t serial = 0;
    const auto emit = [&](int seed) {
        std::mt19937 random(static_cast<unsigned>(seed));
        std::vector<OpenEvent> open;
        // Names come and go, so that most chunks have few of them.
        for (int i = 0; i < 5'000; ++i) {
            const Instrument& name = names[(i / 250 * 7 + seed + random() % 3) % nameCount];
            if (random() % 3 == 0 || open.size() > 200) {
                if (!open.empty()) {
                    name.stop(open.back());
                    open.pop_back();
                }
            } else if (random() % 10 == 0) {
                name.instant({{"i", i}});
            } else {
                open.push_back(name.start({{"seed", seed}}));
            }
        }
        std::thread([&] {
            while (!open.empty()) {
                names[0].stop(open.back());
                open.pop_back();
            }
        }).join();
    };
    for (int part = 0; part < 3; ++part) {
        onThreads(2, [&](int index) { emit(2 * part + index); });
        const EventId id{external, ++serial};
        listeners.onEventStartAt(names[1].handle(), {}, id, 1000 * part);
        listeners.onEventStopAt(names[2].handle(), {}, id, 1000 * part + 100);
        listeners.onEventStopAt(names[3].handle(), {}, id, 1000 * part + 50);
        const auto stats = small.getAllEventStats();
        const auto events = small.getAllEvents();
        const auto points = small.getAllEventPoints();
        for (const Instrument& name : names) {
            const std::string_view text = name.name();
            const auto isIt = [&](const auto& record) { return record.name == text; };
            const auto of = [&](auto records) {
                std::erase_if(records, [&](const auto& record) { return !isIt(record); });
                return records;
            };
            const auto known = of(stats);
            const auto found = small.getEventStats(text);
            EXPECT_EQ(found.count, known.empty() ? 0 : known[0].count) << text;
            EXPECT_EQ(found.duration, known.empty() ? 0 : known[0].duration) << text;
            EXPECT_EQ(textsOf(small.getEvents(text)), textsOf(of(events)));
            EXPECT_EQ(textsOf(small.getEventPoints(text)), textsOf(of(points)));
        }
    }
    removeExternalSource(external);
}

TEST_F(NameIndexTest, BeginsAnewWithAnotherRecording) {
    constexpr int count = 100'000;
    for (const Instrument* name : {&rare_, &often_}) {
        pairs(*name, count);
        EXPECT_EQ(recorder_.getEventStats(name->name()).count, count);
        recorder_.clearAllEventData();
    }
    pairs(often_, count);
    EXPECT_EQ(recorder_.getEventStats("index.rare").count, 0);
    EXPECT_EQ(recorder_.getEventStats("index.often").count, count);
}

}  // namespace
}  // namespace instrument
