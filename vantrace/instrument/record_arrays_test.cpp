#include "vantrace/instrument/record_arrays.hpp"

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <string>
#include <vector>

#include "vantrace/testing/published.hpp"

namespace {

using instrument::ContextEntry;
using instrument::ContextSet;
using instrument::EventPointType;
using vantrace::toContextColumnsStructArray;
using vantrace::toContextStruct;
using vantrace::toDisplayStructArray;
using vantrace::toPlainStructArray;
using vantrace_testing::fieldsOf;
using vantrace_testing::numberIn;
using vantrace_testing::Shape;
using vantrace_testing::shapeOf;
using vantrace_testing::textIn;
using Event = instrument::InstrumentRecorder::Event;
using EventPoint = instrument::InstrumentRecorder::EventPoint;
using EventStats = instrument::InstrumentRecorder::EventStats;
using Names = std::vector<std::string>;

namespace hx = matrix::hx;

ContextSet contextOf(std::initializer_list<ContextEntry> entries) {
    return ContextSet(entries.begin(), entries.end());
}

EventStats stats(std::string_view name, const ContextSet& context, std::int64_t count = 0,
                 std::int64_t duration = 0) {
    return {name, context, count, duration};
}

Event event(std::string_view name, const ContextSet& context, std::int64_t start,
            std::int64_t stop) {
    return {name, context, {7, 1}, start, stop, "worker"};
}

EventPoint point(std::string_view name, const ContextSet& context, std::uint64_t serial,
                 EventPointType type, std::int64_t time) {
    return {name, context, {7, serial}, type, time, "worker"};
}

template <typename Record>
matrix::Array plain(const std::vector<Record>& records) {
    return matrix::Array(toPlainStructArray(records));
}
template <typename Record>
matrix::Array columns(const std::vector<Record>& records) {
    return matrix::Array(toContextColumnsStructArray(records));
}
template <typename Record>
matrix::Array display(const std::vector<Record>& records) {
    return matrix::Array(toDisplayStructArray(records));
}

TEST(PlainArrays, OfStatsHoldNameCountAndSeconds) {
    const auto array = plain<EventStats>({stats("solve", {}, 3, 1'500'000'000), stats("io", {})});
    EXPECT_EQ(shapeOf(array.get()), Shape(1, 2));
    EXPECT_EQ(fieldsOf(array.get()), (Names{"name", "count", "duration"}));
    EXPECT_EQ(textIn(array.get(), 0, "name"), "solve");
    EXPECT_EQ(numberIn(array.get(), 0, "count"), 3);
    EXPECT_EQ(numberIn(array.get(), 0, "duration"), 1.5);
    EXPECT_EQ(textIn(array.get(), 1, "name"), "io");
}

TEST(PlainArrays, CountsAreSigned) {
    EXPECT_EQ(numberIn(plain<EventStats>({stats("n", {}, -5)}).get(), 0, "count"), -5);
}

TEST(ContextColumns, ComeInOrderOfFirstAppearanceBehindTheName) {
    const auto array = columns<EventStats>({stats("s", contextOf({{"tol", "1"}})),
                                            stats("s", contextOf({{"n", "3"}, {"tol", "2"}})),
                                            stats("s", contextOf({{"a", "x"}}))});
    EXPECT_EQ(fieldsOf(array.get()), (Names{"name", "tol", "n", "a", "count", "duration"}));
    EXPECT_EQ(textIn(array.get(), 1, "n"), "3");
    EXPECT_EQ(textIn(array.get(), 1, "tol"), "2");
    EXPECT_EQ(textIn(array.get(), 2, "a"), "x");
}

TEST(ContextColumns, HoldEmptyTextWhereARecordLacksTheName) {
    const auto array = columns<EventStats>(
        {stats("s", contextOf({{"n", "3"}})), stats("s", contextOf({{"m", "4"}})), stats("s", {})});
    for (const auto& [element, field] : {std::pair(0, "m"), {1, "n"}, {2, "n"}, {2, "m"}}) {
        const hxArray* value = hx::hxGetField(array.get(), element, field);
        EXPECT_EQ(hx::hxGetClassId(value), matrix::ClassId::character);
        EXPECT_EQ(hx::hxGetElementCount(value), 0u);
    }
}

TEST(ContextColumns, OfEventsHoldSourceAndTimesInSeconds) {
    const auto array =
        columns<Event>({event("solve", contextOf({{"n", "3"}}), 1'500'000'000, 4'000'000'000)});
    EXPECT_EQ(shapeOf(array.get()), Shape(1, 1));
    EXPECT_EQ(fieldsOf(array.get()), (Names{"name", "n", "source_name", "start_time_point",
                                            "stop_time_point", "duration"}));
    EXPECT_EQ(textIn(array.get(), 0, "name"), "solve");
    EXPECT_EQ(textIn(array.get(), 0, "source_name"), "worker");
    EXPECT_EQ(numberIn(array.get(), 0, "start_time_point"), 1.5);
    EXPECT_EQ(numberIn(array.get(), 0, "stop_time_point"), 4.0);
    EXPECT_EQ(numberIn(array.get(), 0, "duration"), 2.5);
}

TEST(ContextColumns, OfPointsHoldSourceSerialTypeAndTime) {
    const auto array = columns<EventPoint>({
        point("p", {}, 1, EventPointType::start, 1'500'000'000),
        point("p", {}, 1, EventPointType::stop, 0),
        point("p", {}, 2, EventPointType::instant, 0),
    });
    EXPECT_EQ(fieldsOf(array.get()),
              (Names{"name", "source_name", "serial_id", "type", "time_point"}));
    EXPECT_EQ(textIn(array.get(), 0, "source_name"), "worker");
    EXPECT_EQ(numberIn(array.get(), 0, "serial_id"), 1);
    EXPECT_EQ(numberIn(array.get(), 0, "time_point"), 1.5);
    EXPECT_EQ(textIn(array.get(), 0, "type"), "start");
    EXPECT_EQ(textIn(array.get(), 1, "type"), "stop");
    EXPECT_EQ(textIn(array.get(), 2, "type"), "instant");
}

TEST(ContextColumns, NamedLikeAFixedFieldKeepTheirValuesApart) {
    const auto array =
        columns<EventStats>({stats("s", contextOf({{"name", "x"}, {"count", "y"}}), 5)});
    const Names fields = fieldsOf(array.get());
    ASSERT_EQ(fields.size(), 5u);
    EXPECT_EQ(textIn(array.get(), 0, fields[0].c_str()), "s");
    EXPECT_EQ(textIn(array.get(), 0, fields[1].c_str()), "y");
    EXPECT_EQ(textIn(array.get(), 0, fields[2].c_str()), "x");
    EXPECT_EQ(numberIn(array.get(), 0, fields[3].c_str()), 5);
}

TEST(DisplayArrays, ShowNameAndContextTogetherAndApart) {
    const auto array =
        display<EventStats>({stats("solve", contextOf({{"tol", "1e-6"}, {"n", "3"}}))});
    EXPECT_EQ(fieldsOf(array.get()), (Names{"display", "name", "context", "count", "duration"}));
    EXPECT_EQ(textIn(array.get(), 0, "display"), "solve [n=3, tol=1e-6]");
    EXPECT_EQ(textIn(array.get(), 0, "name"), "solve");
    const hxArray* context = hx::hxGetField(array.get(), 0, "context");
    EXPECT_EQ(shapeOf(context), Shape(1, 1));
    EXPECT_EQ(fieldsOf(context), (Names{"n", "tol"}));
    EXPECT_EQ(textIn(context, 0, "tol"), "1e-6");
}

TEST(DisplayArrays, OfEventsAndPointsHoldTheirOwnFields) {
    EXPECT_EQ(fieldsOf(display<Event>({}).get()),
              (Names{"display", "name", "context", "source_name", "start_time_point",
                     "stop_time_point", "duration"}));
    EXPECT_EQ(
        fieldsOf(display<EventPoint>({}).get()),
        (Names{"display", "name", "context", "source_name", "serial_id", "type", "time_point"}));
}

TEST(DisplayArrays, OfAnEmptyContextShowTheNameAlone) {
    const auto array = display<Event>({event("solve", {}, 0, 1)});
    EXPECT_EQ(textIn(array.get(), 0, "display"), "solve");
    const hxArray* context = hx::hxGetField(array.get(), 0, "context");
    EXPECT_EQ(hx::hxGetClassId(context), matrix::ClassId::structure);
    EXPECT_EQ(shapeOf(context), Shape(0, 0));
    EXPECT_EQ(fieldsOf(context), Names());
}

TEST(ContextStructs, HoldTheEntriesInOrderOfTheirNames) {
    const matrix::Array array = toContextStruct(contextOf({{"ab", "2"}, {"b", "3"}, {"a", "1"}}));
    EXPECT_EQ(shapeOf(array.get()), Shape(1, 1));
    EXPECT_EQ(fieldsOf(array.get()), (Names{"a", "ab", "b"}));
    EXPECT_EQ(textIn(array.get(), 0, "ab"), "2");
}

TEST(RecordArrays, OfNoRecordsAreOneByZeroWithTheFixedFields) {
    EXPECT_EQ(shapeOf(plain<EventStats>({}).get()), Shape(1, 0));
    EXPECT_EQ(shapeOf(columns<EventPoint>({}).get()), Shape(1, 0));
    EXPECT_EQ(shapeOf(display<Event>({}).get()), Shape(1, 0));
    EXPECT_EQ(fieldsOf(columns<Event>({}).get()),
              (Names{"name", "source_name", "start_time_point", "stop_time_point", "duration"}));
}

TEST(RecordArrays, KeepTheOrderOfTheRecords) {
    const auto array = plain<EventStats>({stats("b", {}), stats("a", {}), stats("b", {})});
    EXPECT_EQ(textIn(array.get(), 0, "name") + textIn(array.get(), 1, "name") +
                  textIn(array.get(), 2, "name"),
              "bab");
}

TEST(RecordArrays, NamesNeedNoNulBehindThem) {
    const std::string longer = "solve and more";
    const auto array = plain<EventStats>({stats(std::string_view(longer).substr(0, 5), {})});
    EXPECT_EQ(textIn(array.get(), 0, "name"), "solve");
}

TEST(RecordArrays, DurationOfAStopBeforeItsStartIsNegative) {
    const auto array = columns<Event>({event("e", {}, 3'000'000'000, 500'000'000)});
    EXPECT_EQ(numberIn(array.get(), 0, "duration"), -2.5);
}

TEST(RecordArrays, DurationThatDoesNotFitWraps) {
    constexpr std::int64_t smallest = std::numeric_limits<std::int64_t>::min();
    const auto array = columns<Event>({event("e", {}, 1, smallest)});
    EXPECT_EQ(numberIn(array.get(), 0, "duration"),
              static_cast<double>(std::numeric_limits<std::int64_t>::max()) / 1e9);
}

TEST(RecordArrays, LargeSerialIdsArePositive) {
    const auto array =
        columns<EventPoint>({point("p", {}, 0x8000000000000000, EventPointType::start, 0)});
    EXPECT_EQ(numberIn(array.get(), 0, "serial_id"), 0x1p63);
}

}  // namespace
