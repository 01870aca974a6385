#include "zandor/instrument/trace_event_json.hpp"

#include <gmock/gmock.h>

#include <cerrno>
#include <limits>
#include <regex>
#include <string>

#include "zandor/instrument/counter_point.hpp"
#include "zandor/instrument/testing/json_reader.hpp"
#include "zandor/instrument/testing/recording_builder.hpp"
#include "zandor/instrument/testing/string_sink.hpp"
#include "zandor/instrument/testing/trace_rules.hpp"
#include "zandor/runtime/text.hpp"

namespace {

using namespace instrument;
using test_support::Json;
using test_support::RecordingBuilder;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

std::string exported(RecordingBuilder& builder, TimeSystem timeSystem = TimeSystem::monotonic,
                     std::int64_t minimum = -1) {
    test_support::StringSink sink;
    detail::writeTraceEventJson(builder.build(), timeSystem, minimum, sink);
    EXPECT_EQ(fl::i18n::sanitize_utf8(sink.text), sink.text);
    EXPECT_EQ(sink.text.substr(0, 2), "{\"");
    const std::int64_t step = timeSystem == TimeSystem::utc ? 250 : 1;
    const Json document = test_support::JsonReader::read(sink.text);
    EXPECT_THAT(test_support::TraceRules::violations(document, step), IsEmpty()) << sink.text;
    return sink.text;
}

/// The lines of the events that are no metadata, without their commas.
std::vector<std::string> lines(const std::string& text) {
    std::vector<std::string> found;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) {
        if (line.starts_with("{\"ph\"") && !line.starts_with("{\"ph\":\"M\"")) {
            if (line.back() == ',')
                line.pop_back();
            found.push_back(line);
        }
    }
    return found;
}

std::vector<std::string> exportedLines(RecordingBuilder& builder,
                                       TimeSystem timeSystem = TimeSystem::monotonic,
                                       std::int64_t minimum = -1) {
    return lines(exported(builder, timeSystem, minimum));
}

Json argsOf(RecordingBuilder& builder) {
    return test_support::JsonReader::read(exportedLines(builder).at(0))["args"];
}

TEST(TraceEventJson, TellsOriginClockLossesAndVersionsAsTextsForNoEvents) {
    RecordingBuilder builder;
    builder.recording().drops.refused = 7;
    builder.recording().drops.minimumDuration = 30;
    const Json document = test_support::JsonReader::read(exported(builder));
    const Json& metadata = document["metadata"];
    EXPECT_EQ(metadata["origin_monotonic_ns"].text, "81000000000");
    EXPECT_EQ(metadata["origin_utc_ns"].text, "1700000000000000123");
    EXPECT_EQ(metadata["dropped_refused"].text, "7");
    EXPECT_EQ(metadata["dropped_oldest"].text, "0");
    EXPECT_EQ(metadata["dropped_shortest_below_ns"].text, "30");
    EXPECT_EQ(metadata["left_out_negative_duration"].text, "0");
    EXPECT_NE(metadata["clock"].text, "");
    EXPECT_EQ(metadata["format_version"].text, "1");
    EXPECT_NE(metadata["zandor_version"].text, "");
    EXPECT_THAT(document["traceEvents"].elements, IsEmpty());
}

TEST(TraceEventJson, BeginsWithProcessesAndThreads) {
    RecordingBuilder builder;
    builder.source("worker", "simulation");
    builder.source("", "simulation");
    builder.event("solve", 0, 0, 1000);
    const std::string text = exported(builder);
    constexpr std::string_view expected = R"js("traceEvents":[
{"ph":"M","name":"process_name","pid":1,"tid":1,"args":{"name":"simulation","pid":"4712"}},
{"ph":"M","name":"process_sort_index","pid":1,"tid":1,"args":{"sort_index":1}},
{"ph":"M","name":"thread_name","pid":1,"tid":1,"args":{"name":"worker","tid":"5000","source":"10"}},
{"ph":"M","name":"thread_sort_index","pid":1,"tid":1,"args":{"sort_index":1}},
{"ph":"M","name":"thread_name","pid":1,"tid":2,"args":{"name":"(unnamed)","tid":"5001","source":"11"}},
{"ph":"M","name":"thread_sort_index","pid":1,"tid":2,"args":{"sort_index":2}},
{"ph":"X","name":"solve","cat":"event","pid":1,"tid":1,"ts":1.000,"dur":1.000}
]}
)js";
    EXPECT_THAT(text, HasSubstr(expected));
}

TEST(TraceEventJson, KeepsAProcessWithoutANameApartFromItsOwn) {
    RecordingBuilder builder;
    builder.source("main");
    builder.source("worker", "");
    builder.event("solve", 0, 0, 1000);
    const std::string text = exported(builder);
    const std::string own = program_invocation_short_name;
    EXPECT_THAT(text,
                HasSubstr(R"("pid":1,"tid":1,"args":{"name":")" + own + R"(","pid":"4711"})"));
    EXPECT_THAT(text, HasSubstr(R"js("pid":2,"tid":2,"args":{"name":"(unnamed)","pid":"4712"})js"));
}

TEST(TraceEventJson, GivesEachProcessItsOwnPidAndEachSourceItsOwnTid) {
    RecordingBuilder builder;
    builder.source("main");
    builder.source("worker", "simulation");
    builder.source("main");
    builder.event("a", 2, 0, 1).event("b", 1, 5, 6).event("c", 0, 9, 10);
    EXPECT_THAT(exportedLines(builder),
                ElementsAre(HasSubstr(R"("pid":1,"tid":3)"), HasSubstr(R"("pid":2,"tid":2)"),
                            HasSubstr(R"("pid":1,"tid":1)")));
}

TEST(TraceEventJson, WritesNestedEventsOuterFirstWithExactNanoseconds) {
    RecordingBuilder builder;
    builder.source("main");
    builder.event("inner", 0, 10, 1'234'567).event("outer", 0, 10, 2'000'000'001);
    EXPECT_THAT(
        exportedLines(builder),
        ElementsAre(
            R"({"ph":"X","name":"outer","cat":"event","pid":1,"tid":1,"ts":1.010,"dur":1999999.991})",
            R"({"ph":"X","name":"inner","cat":"event","pid":1,"tid":1,"ts":1.010,"dur":1234.557})"));
}

TEST(TraceEventJson, DrawsEndsThatMeetInwardByOneNanosecondALevel) {
    RecordingBuilder builder;
    builder.source("main");
    builder.event("outer", 0, 0, 100).event("inner", 0, 10, 100).event("innermost", 0, 20, 100);
    builder.event("next", 0, 100, 200);
    EXPECT_THAT(exportedLines(builder),
                ElementsAre(HasSubstr(R"("dur":0.099)"), HasSubstr(R"("dur":0.088)"),
                            HasSubstr(R"("dur":0.077)"), HasSubstr(R"("ts":1.100,"dur":0.100)")));
}

TEST(TraceEventJson, LeavesEndsAloneThatMeetNothing) {
    RecordingBuilder builder;
    builder.source("main");
    builder.source("worker");
    builder.event("a", 0, 0, 100).event("b", 1, 100, 200).event("c", 0, 101, 200);
    EXPECT_THAT(exportedLines(builder),
                ElementsAre(HasSubstr(R"("dur":0.100)"), HasSubstr(R"("dur":0.100)"),
                            HasSubstr(R"("dur":0.099)")));
}

TEST(TraceEventJson, ShowsWhatHasNoTimeLeftAsAnInstantWithItsDuration) {
    RecordingBuilder builder;
    builder.source("main");
    builder.event("empty", 0, 5, 5).event("outer", 0, 10, 11).event("same", 0, 10, 11);
    EXPECT_THAT(
        exportedLines(builder),
        ElementsAre(
            R"({"ph":"i","name":"empty","cat":"event","pid":1,"tid":1,"ts":1.005,"s":"t","args":{"duration_ns":0}})",
            R"({"ph":"X","name":"outer","cat":"event","pid":1,"tid":1,"ts":1.010,"dur":0.001})",
            R"({"ph":"i","name":"same","cat":"event","pid":1,"tid":1,"ts":1.010,"s":"t","args":{"duration_ns":1}})"));
}

TEST(TraceEventJson, ShowsOverlapAsAnAsyncPair) {
    RecordingBuilder builder;
    builder.source("main");
    builder.event("first", 0, 0, 100).event("second", 0, 50, 150);
    EXPECT_THAT(
        exportedLines(builder),
        ElementsAre(
            R"({"ph":"X","name":"first","cat":"event","pid":1,"tid":1,"ts":1.000,"dur":0.100})",
            R"({"ph":"b","name":"second","cat":"async","pid":1,"tid":1,"ts":1.050,"id":"0x1"})",
            R"({"ph":"e","name":"second","cat":"async","pid":1,"tid":1,"ts":1.150,"id":"0x1"})"));
}

TEST(TraceEventJson, ShowsAStopOnAnotherThreadAsAnAsyncPairWithAnArrow) {
    RecordingBuilder builder;
    builder.source("main");
    builder.source("worker");
    builder.event("job", 0, 0, 100).stoppedBy(1);
    EXPECT_THAT(
        exportedLines(builder),
        ElementsAre(
            R"({"ph":"b","name":"job","cat":"async","pid":1,"tid":1,"ts":1.000,"id":"0x1"})",
            R"({"ph":"s","name":"job","cat":"flow","pid":1,"tid":1,"ts":1.000,"id":"0x1"})",
            R"({"ph":"e","name":"job","cat":"async","pid":1,"tid":2,"ts":1.100,"id":"0x1"})",
            R"({"ph":"f","name":"job","cat":"flow","pid":1,"tid":2,"ts":1.100,"id":"0x1","bp":"e"})"));
}

TEST(TraceEventJson, ClosesOpenEventsAtTheLastTime) {
    RecordingBuilder builder;
    builder.source("main");
    builder.event("open", 0, 0, std::nullopt, {{"n", 3}}).event("done", 0, 10, 100);
    builder.event("inner", 0, 20, std::nullopt);
    EXPECT_THAT(
        exportedLines(builder),
        ElementsAre(
            HasSubstr(R"("ts":1.000,"dur":0.100,"args":{"unfinished":true,"n":3})"),
            HasSubstr(R"("name":"done","cat":"event","pid":1,"tid":1,"ts":1.010,"dur":0.089})"),
            HasSubstr(R"("ph":"b","name":"inner")"),
            HasSubstr(R"("ph":"e","name":"inner","cat":"async","pid":1,"tid":1,"ts":1.100)")));
}

TEST(TraceEventJson, LeavesOutAndCountsEventsThatEndBeforeTheyStart) {
    RecordingBuilder builder;
    builder.source("main");
    builder.event("reversed", 0, 100, 50).event("good", 0, 100, 200);
    const std::string text = exported(builder);
    EXPECT_THAT(lines(text), ElementsAre(HasSubstr("good")));
    EXPECT_THAT(text, HasSubstr(R"("left_out_negative_duration":"1")"));
}

TEST(TraceEventJson, KeepsEventsThatLastTheMinimumAndThenNoInstants) {
    RecordingBuilder builder;
    builder.source("main");
    builder.event("short", 0, 0, 49).event("long", 0, 100, 150).point("tick", 0, 120);
    const std::string text = exported(builder, TimeSystem::monotonic, 50);
    EXPECT_THAT(lines(text), ElementsAre(HasSubstr("long")));
    EXPECT_THAT(text, HasSubstr(R"("left_out_shorter_than_asked":"1")"));
    EXPECT_THAT(exportedLines(builder, TimeSystem::monotonic, 0),
                ElementsAre(HasSubstr("short"), HasSubstr("long")));
}

TEST(TraceEventJson, ShowsInstantsAndStrayStopsAmongTheEvents) {
    RecordingBuilder builder;
    builder.source("main");
    builder.event("a", 0, 0, 10).event("b", 0, 30, 40).point("tick", 0, 20, {{"n", 1}});
    builder.point("a", 0, 50, {}, EventPointType::stop);
    EXPECT_THAT(
        exportedLines(builder),
        ElementsAre(
            HasSubstr(R"("name":"a")"),
            R"({"ph":"i","name":"tick","cat":"instant","pid":1,"tid":1,"ts":1.020,"s":"t","args":{"n":1}})",
            HasSubstr(R"("name":"b")"),
            R"({"ph":"i","name":"a","cat":"stop","pid":1,"tid":1,"ts":1.050,"s":"t"})"));
}

TEST(TraceEventJson, PointsOfACounterAreACurve) {
    RecordingBuilder builder;
    builder.source("main");
    builder.point("memory", 0, 10, {{counterValueName, 5}});
    builder.point("memory", 0, 20, {{counterValueName, 0.25}});
    EXPECT_THAT(
        exportedLines(builder),
        ElementsAre(
            R"({"ph":"C","name":"memory","cat":"counter","pid":1,"tid":1,"ts":1.010,"args":{"value":5}})",
            R"({"ph":"C","name":"memory","cat":"counter","pid":1,"tid":1,"ts":1.020,"args":{"value":0.25}})"));
}

TEST(TraceEventJson, WhatNoCurveCanShowIsAnInstant) {
    RecordingBuilder builder;
    builder.source("main");
    builder.point("a", 0, 10, {{counterValueName, std::numeric_limits<double>::quiet_NaN()}});
    builder.point("b", 0, 20, {{counterValueName, "5"}});
    builder.point("c", 0, 30, {{counterValueName, 5}, {"more", 1}});
    builder.point("d", 0, 40, {{"value", 5}});
    EXPECT_THAT(exportedLines(builder), ::testing::Each(HasSubstr(R"("ph":"i")")));
}

TEST(TraceEventJson, CountsFromTheFirstEventWhereOneIsEarlierThanTheOrigin) {
    RecordingBuilder builder;
    builder.source("main", "client");
    builder.event("early", 0, -2000, -1500).event("first", 0, 0, 10);
    const std::string text = exported(builder);
    EXPECT_THAT(lines(text), ElementsAre(HasSubstr(R"("ts":1.000)"), HasSubstr(R"("ts":3.000)")));
    EXPECT_THAT(text, HasSubstr(R"("origin_monotonic_ns":"80999998000")"));
    EXPECT_THAT(text, HasSubstr(R"("origin_utc_ns":"1699999999999998123")"));
}

TEST(TraceEventJson, ReplacesInNamesWhatViewersStumbleOver) {
    RecordingBuilder builder;
    builder.source("main\n", "client");
    builder.event("a\tb\x7f\xc2\x85\xe2\x80\xa8\xe2\x80\xa9", 0, 0, 1);
    builder.event("", 0, 2, 3)
        .event("\xff\xed\xa0\x80\"\\", 0, 4, 5)
        .event("\xc2\xa0\xe2\x82\xac", 0, 6, 7);
    const std::string text = exported(builder);
    EXPECT_THAT(text, HasSubstr(R"("args":{"name":"main ")"));
    EXPECT_THAT(
        lines(text),
        ElementsAre(
            HasSubstr(R"("name":"a b    ")"), HasSubstr(R"js("name":"(unnamed)")js"),
            HasSubstr("\"name\":\"\xef\xbf\xbd\xef\xbf\xbd\xef\xbf\xbd\xef\xbf\xbd\\\"\\\\\""),
            HasSubstr("\"name\":\"\xc2\xa0\xe2\x82\xac\"")));
}

TEST(TraceEventJson, KeepsContextNumbersAsNumbersWhereADoubleHoldsThem) {
    RecordingBuilder builder;
    builder.source("main");
    constexpr std::int64_t exact = std::int64_t{1} << 53;
    builder.event("a", 0, 0, 1,
                  {{"big", exact + 1},
                   {"exact", exact},
                   {"inf", -std::numeric_limits<double>::infinity()},
                   {"logical", true},
                   {"low", -exact - 1},
                   {"nan", std::numeric_limits<double>::quiet_NaN()},
                   {"real", 1e-6},
                   {"round", 1152921504606846976.0},
                   {"text", "3"},
                   {"unsigned", std::numeric_limits<std::uint64_t>::max()},
                   {"whole", 3.0}});
    EXPECT_THAT(
        exportedLines(builder),
        ElementsAre(HasSubstr(
            R"("args":{"big":"9007199254740993","exact":9007199254740992,"inf":"-inf","logical":true,)"
            R"("low":"-9007199254740993","nan":"nan","real":1e-06,"round":1.152921504606847e+18,"text":"3",)"
            R"("unsigned":"18446744073709551615","whole":3})")));
}

TEST(TraceEventJson, EscapesContextTextsSoThatTheyReadBackAsTheyWere) {
    RecordingBuilder builder;
    builder.source("main");
    const std::string odd =
        std::string("\0\x01\x1f\n\r\t\b\f\"\\/", 11) + "\xe2\x80\xa8\xf0\x9f\x98\x80";
    builder.event("a", 0, 0, 1, {{odd, odd}});
    EXPECT_EQ(argsOf(builder)[odd].text, odd);
}

TEST(TraceEventJson, TellsWhereInstrumentsStand) {
    RecordingBuilder builder;
    builder.source("main");
    builder.event("a", 0, 0, 1000, {{"src", "the context's"}});
    builder.place("a", "/home/a \"b\".py:12");
    const Json args = argsOf(builder);
    EXPECT_EQ(args["src"].text, "/home/a \"b\".py:12");
    EXPECT_EQ(args["src_2"].text, "the context's");
}

TEST(TraceEventJson, TellsContextNamesApartThatWouldMeet) {
    RecordingBuilder builder;
    builder.source("main");
    builder.event("a", 0, 0, 1,
                  {{"unfinished", 1}, {"unfinished_2", 2}, {"x\xfe", 3}, {"x\xff", 4}, {"", 5}});
    const Json args = argsOf(builder);
    EXPECT_FALSE(args.has("unfinished"));
    EXPECT_EQ(args["unfinished_2"].text, "1");
    EXPECT_EQ(args["unfinished_2_2"].text, "2");
    EXPECT_EQ(args["x\xef\xbf\xbd"].text, "3");
    EXPECT_EQ(args["x\xef\xbf\xbd_2"].text, "4");
    EXPECT_EQ(args[""].text, "5");
}

TEST(TraceEventJson, CountsUtcFromTheEpochInStepsThatADoubleHolds) {
    RecordingBuilder builder;
    builder.source("main");
    builder.event("solve", 0, 0, 1'000'000).event("brief", 0, 300'000, 300'100);
    builder.point("tick", 0, 1'000'377);
    EXPECT_THAT(
        exportedLines(builder, TimeSystem::utc),
        ElementsAre(
            R"({"ph":"X","name":"solve","cat":"event","pid":1,"tid":1,"ts":1700000000000000.000,"dur":1000.000})",
            HasSubstr(
                R"("name":"brief","cat":"event","pid":1,"tid":1,"ts":1700000000000300.000,"s":"t","args":{"duration_ns":100,"start_ns":"1700000000000300123"})"),
            HasSubstr(
                R"("name":"tick","cat":"instant","pid":1,"tid":1,"ts":1700000000001000.500)")));
}

TEST(TraceEventJson, WidensTheUtcStepsWhenDoublesGetCoarser) {
    RecordingBuilder builder;
    builder.recording().originUtc = std::int64_t{2'300'000'000'000'000'000};  // 2042
    builder.source("main");
    builder.event("solve", 0, 750, 1750);
    test_support::StringSink sink;
    detail::writeTraceEventJson(builder.build(), TimeSystem::utc, -1, sink);
    EXPECT_THAT(sink.text, HasSubstr(R"("ts":2300000000000000.500,"dur":1.000)"));
}

TEST(TraceEventJson, TakesTimesOfAnySize) {
    RecordingBuilder builder;
    builder.source("main");
    auto& recording = builder.recording();
    builder.event("least", 0, 0, 1).event("open", 0, 5, std::nullopt).event("most", 0, 9, 10);
    recording.events[0].start = recording.events[0].stop = INT64_MIN;
    recording.events[2].start = INT64_MIN + 5;
    recording.events[2].stop = INT64_MAX;
    recording.lastTime = INT64_MAX;
    exported(builder);
    exported(builder, TimeSystem::monotonic, INT64_MIN);
    test_support::StringSink sink;
    detail::writeTraceEventJson(builder.build(), TimeSystem::utc, -1, sink);
    test_support::JsonReader::read(sink.text);
}

TEST(TraceEventJson, HandsItsTextOnInSmallPieces) {
    RecordingBuilder builder;
    builder.source("main");
    for (int i = 0; i < 10'000; ++i)
        builder.event("event number " + std::to_string(i % 100), 0, 10 * i, 10 * i + 5);
    test_support::StringSink sink;
    detail::writeTraceEventJson(builder.build(), TimeSystem::monotonic, -1, sink);
    EXPECT_GT(sink.text.size(), 500'000u);
    EXPECT_LE(sink.longest, 64u * 1024);
}

TEST(TraceEventJson, PassesTheSinksExceptionOn) {
    struct FullSink : TextSink {
        void write(std::string_view) override { throw std::length_error("full"); }
    } sink;
    RecordingBuilder builder;
    EXPECT_THROW(detail::writeTraceEventJson(builder.build(), TimeSystem::monotonic, -1, sink),
                 std::length_error);
}

}  // namespace
