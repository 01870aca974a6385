#include "zandor/instrument/recorded_events.hpp"

#include <gmock/gmock.h>

#include <stdexcept>
#include <string>
#include <tuple>
#include <vector>

#include "zandor/instrument/controls.hpp"
#include "zandor/instrument/counter_point.hpp"

namespace {

using namespace instrument;
using Kind = RecordedItem::Kind;
using ::testing::ElementsAre;
using ::testing::FieldsAre;

/// Name, kind and contexts of what a recorder holds.
struct Items : RecordedItemSink {
    void take(const RecordedItem& item) override {
        std::string context;
        for (const ContextArg& arg : item.context)
            context.append(arg.name).append("=").append(toText(arg.value)).append(" ");
        found.emplace_back(item.name, item.kind, context);
        EXPECT_EQ(item.source, "reader");
        EXPECT_LE(last, item.start);
        EXPECT_LE(item.start, item.stop);
        last = item.start;
    }
    std::vector<std::tuple<std::string, Kind, std::string>> found;
    std::int64_t last = 0;
};

class RecordedEvents : public ::testing::Test {
  protected:
    RecordedEvents() {
        setThreadName("reader");
        listeners.add(recorder_);
        controls.enableAll(true);
    }
    ~RecordedEvents() override { controls.disableAll(); }

    auto read() const {
        Items items;
        readRecording(recorder_, items);
        return items.found;
    }

    const Instrument outer_{"outer"};
    const Instrument inner_{"inner"};
    InstrumentRecorder recorder_;
};

TEST_F(RecordedEvents, ComeByStartEventsAmongInstants) {
    {
        const Scope scope{outer_, {{"n", 3}, {"method", "cg"}}};
        inner_.instant({{"exact", true}});
        const Scope nested{inner_};
    }
    outer_.instant();
    EXPECT_THAT(read(), ElementsAre(FieldsAre("outer", Kind::event, "method=cg n=3 "),
                                    FieldsAre("inner", Kind::instant, "exact=true "),
                                    FieldsAre("inner", Kind::event, ""),
                                    FieldsAre("outer", Kind::instant, "")));
}

TEST_F(RecordedEvents, AnOpenEventIsUnfinishedAndAStopWithoutStartAPoint) {
    const OpenEvent open = outer_.start();
    EXPECT_THAT(read(), ElementsAre(FieldsAre("outer", Kind::unfinished, "")));
    recorder_.clearAllEventData();
    outer_.stop(open);
    EXPECT_THAT(read(), ElementsAre(FieldsAre("outer", Kind::stop, "")));
}

TEST_F(RecordedEvents, AnExceptionOfTheSinkReachesTheReader) {
    struct Throwing : RecordedItemSink {
        void take(const RecordedItem&) override { throw std::runtime_error("enough"); }
    } sink;
    outer_.instant();
    EXPECT_THROW(readRecording(recorder_, sink), std::runtime_error);
}

TEST_F(RecordedEvents, PointsOfACounterHoldItsValueAsGiven) {
    setCounter(outer_, 5);
    setCounter(outer_, 0.5);
    struct Values : RecordedItemSink {
        void take(const RecordedItem& item) override {
            kinds.push_back(item.context[0].value.kind());
            values.push_back(*counterValueOf(item.context));
        }
        std::vector<ContextValue::Kind> kinds;
        std::vector<double> values;
    } sink;
    readRecording(recorder_, sink);
    EXPECT_THAT(sink.values, ElementsAre(5, 0.5));
    EXPECT_THAT(sink.kinds,
                ElementsAre(ContextValue::Kind::signedInteger, ContextValue::Kind::real));
}

}  // namespace
