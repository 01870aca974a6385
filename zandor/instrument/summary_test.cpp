#include "zandor/instrument/summary.hpp"

#include <gmock/gmock.h>

#include "zandor/instrument/testing/recording_builder.hpp"

namespace {

using namespace instrument;
using detail::summarize;
using test_support::RecordingBuilder;
using ::testing::IsEmpty;

struct Row {
    std::string_view name;
    std::int64_t count, total, self, minimum, maximum;
    bool operator==(const Row&) const = default;
};

void PrintTo(const Row& row, std::ostream* out) {
    *out << row.name << " count " << row.count << " total " << row.total << " self " << row.self
         << " minimum " << row.minimum << " maximum " << row.maximum;
}

std::vector<Row> rows(RecordingBuilder& builder) {
    std::vector<Row> rows;
    for (const EventSummary& s : summarize(builder.build()))
        rows.push_back({s.name, s.count, s.total, s.self, s.minimum, s.maximum});
    return rows;
}

TEST(Summary, IsEmptyForNoEvents) {
    RecordingBuilder builder;
    builder.source("main");
    builder.point("tick", 0, 1).event("open", 0, 2, std::nullopt).event("reversed", 0, 5, 4);
    EXPECT_THAT(rows(builder), IsEmpty());
}

TEST(Summary, TellsCountTotalSelfAndExtremesWidestSelfFirst) {
    RecordingBuilder builder;
    builder.source("main");
    builder.event("solve", 0, 0, 100).event("step", 0, 10, 40).event("step", 0, 40, 90);
    EXPECT_EQ(rows(builder),
              (std::vector<Row>{{"step", 2, 80, 80, 30, 50}, {"solve", 1, 100, 20, 100, 100}}));
}

TEST(Summary, CountsRecursionOnceInTheTotal) {
    RecordingBuilder builder;
    builder.source("main");
    builder.event("f", 0, 0, 100).event("g", 0, 10, 50).event("f", 0, 20, 40);
    EXPECT_EQ(rows(builder),
              (std::vector<Row>{{"f", 2, 100, 80, 20, 100}, {"g", 1, 40, 20, 40, 40}}));
}

TEST(Summary, CountsOverlapOfOneNameOnce) {
    RecordingBuilder builder;
    builder.source("main");
    builder.event("f", 0, 0, 100).event("f", 0, 50, 150);
    EXPECT_EQ(rows(builder), (std::vector<Row>{{"f", 2, 150, 150, 100, 100}}));
}

TEST(Summary, AddsUpThreads) {
    RecordingBuilder builder;
    builder.source("main");
    builder.source("worker");
    builder.event("f", 0, 0, 100).event("f", 1, 50, 150).event("f", 1, 200, 200);
    EXPECT_EQ(rows(builder), (std::vector<Row>{{"f", 3, 200, 200, 0, 100}}));
}

TEST(Summary, LeavesOpenEventsOutOfTheirParentsChildren) {
    RecordingBuilder builder;
    builder.source("main");
    builder.event("outer", 0, 0, 100).event("open", 0, 10, std::nullopt);
    EXPECT_EQ(rows(builder), (std::vector<Row>{{"outer", 1, 100, 100, 100, 100}}));
}

TEST(Summary, OrdersEqualSelfTimesByName) {
    RecordingBuilder builder;
    builder.source("main");
    builder.event("b", 0, 0, 10).event("a", 0, 20, 30);
    EXPECT_EQ(rows(builder),
              (std::vector<Row>{{"a", 1, 10, 10, 10, 10}, {"b", 1, 10, 10, 10, 10}}));
}

}  // namespace
