#include "zandor/instrument/report_data.hpp"

#include <gmock/gmock.h>

#include "zandor/instrument/call_tree.hpp"
#include "zandor/instrument/testing/recording_builder.hpp"

namespace {

using namespace instrument;
using test_support::RecordingBuilder;
using ::testing::AllOf;
using ::testing::HasSubstr;
using ::testing::Le;
using ::testing::Not;

class Text : public TextSink {
  public:
    void write(std::string_view piece) override { text.append(piece); }
    std::string text;
};

/// Without line ends.
std::string report(RecordingBuilder& builder) {
    detail::RecordingStream stream(builder.build());
    Text sink;
    detail::writeReportData(stream, 1, sink);
    std::erase(sink.text, '\n');
    return sink.text;
}

std::int64_t selfOf(const std::vector<detail::CallNode>& nodes) {
    std::int64_t self = 0;
    for (const detail::CallNode& node : nodes)
        for (const auto& [bin, cell] : node.cells.entries())
            self += cell.self;
    return self;
}

TEST(ReportData, IsWholeForNoEvents) {
    RecordingBuilder builder;
    EXPECT_THAT(report(builder),
                AllOf(HasSubstr("\"bins\":{\"count\":1,\"width\":1}"), HasSubstr("\"tree\":[]"),
                      HasSubstr("\"events\":0"), HasSubstr("\"names\":[]")));
}

TEST(ReportData, SpreadsTimeOverTheBinsInWhichItPassed) {
    RecordingBuilder builder;
    builder.source("main");
    // 240 bins of 10 ns at 2399 ns.
    builder.event("solve", 0, 0, 25).event("step", 0, 5, 12).event("late", 0, 2390, 2399);
    EXPECT_THAT(report(builder),
                AllOf(HasSubstr("\"bins\":{\"count\":240,\"width\":10}"),
                      HasSubstr("\"tree\":[[-1,-1],[0,0,0,1,5,1,0,8,2,0,5],[1,1,0,1,5,1,0,2],"),
                      HasSubstr("[0,[0,0,1,10,5,25,1,0,10,8,0,2,0,5,5,0],[0,14,1]]"),
                      HasSubstr("\"names\":[\"solve\",\"step\",\"late\"]")));
}

TEST(ReportData, HasTheEndOfTheRangeWhereTimesAddUpToMore) {
    constexpr std::int64_t most = 7'000'000'000'000'000'000;
    RecordingBuilder builder;
    builder.source("main");
    builder.event("long", 0, -most, 0).event("long", 0, 0, most);
    detail::RecordingStream stream(builder.build());
    const auto tree = detail::trim(detail::callTree(stream), {});
    ASSERT_EQ(tree.nodes.size(), 2u);
    EXPECT_EQ(tree.nodes[1].cells.entries().front().second.self, INT64_MAX);
    EXPECT_THAT(report(builder), HasSubstr("\"long\""));
}

TEST(ReportData, ClosesOpenEventsAtTheEndAndCountsThemApart) {
    RecordingBuilder builder;
    builder.source("main");
    builder.event("open", 0, 0, std::nullopt).event("last", 0, 5, 9);
    EXPECT_THAT(report(builder), AllOf(HasSubstr("\"events\":2"), HasSubstr("\"unfinished\":1"),
                                       HasSubstr("[0,[0,0,0,1,1,0,")));
}

TEST(ReportData, TellsTimesByWhatContextsSay) {
    RecordingBuilder builder;
    builder.source("main");
    builder.event("solve", 0, 0, 5, {{"n", 3}});
    builder.event("solve", 0, 10, 20, {{"n", 3}, {"tol", 0.5}});
    builder.event("solve", 0, 20, 50, {{"n", "many"}});
    EXPECT_THAT(report(builder),
                HasSubstr("\"contexts\":[[0,\"n\",[[\"many\",20,1,30],[\"3\",0,1,5,10,1,10]]],"
                          "[0,\"tol\",[[\"0.5\",10,1,10]]]]"));
}

TEST(ReportData, TellsWhatInstantsCountAndMeasure) {
    RecordingBuilder builder;
    builder.source("main");
    builder.point("tick", 0, 0)
        .point("tick", 0, 0)
        .point("odd stop", 0, 1, {}, EventPointType::stop);
    builder.point("residual", 0, 2, {{"value", 4.5}}).point("residual", 0, 2, {{"value", -1}});
    EXPECT_THAT(report(builder),
                AllOf(HasSubstr("\"instants\":4"), HasSubstr("\"counters\":[[0,null,[0,0,2,0,0,0]],"
                                                             "[1,\"value\",[0,2,2,-1,4.5,-1]]]")));
}

TEST(ReportData, PutsRareValuesOfAContextTogether) {
    RecordingBuilder builder;
    builder.source("main");
    for (int i = 0; i < 5000; ++i)
        builder.event("solve", 0, i * 10, i * 10 + 1 + i % 7, {{"i", i}});
    const std::string text = report(builder);
    EXPECT_THAT(text, HasSubstr("[null,"));
    EXPECT_THAT(text.size(), Le(30'000u));
}

TEST(ReportData, KeepsItsSizeHoweverManyNamesAndThreadsThereAre) {
    RecordingBuilder builder;
    for (int thread = 0; thread < 1000; ++thread)
        builder.source("worker " + std::to_string(thread));
    for (int i = 0; i < 300'000; ++i)
        builder.event("a name that is not short at all " + std::to_string(i % 20'000),
                      static_cast<std::uint32_t>(i % 1000), i, i + 50 + i % 1000);
    const std::string text = report(builder);
    EXPECT_THAT(text, Not(HasSubstr("\"moreThreads\":0,")));
    EXPECT_THAT(text.size(), Le(6'000'000u));
}

TEST(CallTree, KeepsEveryNanosecondWhenItIsTrimmed) {
    RecordingBuilder builder;
    builder.source("main");
    builder.source("worker");
    for (int i = 0; i < 100; ++i) {
        builder.event("outer", 0, i * 100, i * 100 + 90);
        builder.event("inner " + std::to_string(i % 10), 0, i * 100 + 10, i * 100 + 60);
        builder.event("other", 1, i * 100, i * 100 + 10);
    }
    detail::RecordingStream stream(builder.build());
    const std::vector<detail::CallNode> nodes = detail::callTree(stream);
    const detail::TrimmedTree tree = detail::trim(nodes, {.threads = 1, .nodes = 4, .cells = 50});
    EXPECT_EQ(selfOf(tree.nodes), selfOf(nodes));
    EXPECT_EQ(selfOf(nodes), 100 * 100);
    EXPECT_EQ(tree.moreThreads, 1u);
    // The thread, the rest of the threads, what is widest, and one child for all others.
    EXPECT_EQ(tree.nodes.size(), 6u);
    for (std::size_t i = 0; i < tree.nodes.size(); ++i)
        EXPECT_TRUE(tree.nodes[i].parent == detail::CallNode::none || tree.nodes[i].parent < i);
}

TEST(CallTree, TellsWhoCalledWhom) {
    RecordingBuilder builder;
    builder.source("main");
    builder.event("f", 0, 0, 100).event("g", 0, 10, 30).event("f", 0, 40, 60).event("g", 0, 45, 50);
    detail::RecordingStream stream(builder.build());
    std::vector<std::uint32_t> parents;
    for (const detail::CallNode& node : detail::callTree(stream))
        parents.push_back(node.parent);
    EXPECT_THAT(parents, testing::ElementsAre(detail::CallNode::none, 0u, 1u, 1u, 3u));
}

TEST(ReportData, ShortensTextsBetweenCharacters) {
    RecordingBuilder builder;
    builder.source("main");
    std::string longName(199, 'x');
    builder.event(longName + "\xc3\xa4\xc3\xa4", 0, 0, 5);
    EXPECT_THAT(report(builder), AllOf(HasSubstr(longName + "\""), Not(HasSubstr("\xef\xbf\xbd"))));
}

TEST(CallTree, PutsTogetherWhatIsPastItsBound) {
    RecordingBuilder builder;
    builder.source("main");
    builder.event("outer", 0, 0, 100).event("a", 0, 10, 20).event("b", 0, 30, 50);
    const detail::Recording& recording = builder.build();
    detail::CallTree tree(detail::TimeBins(0, 0, 1), 1, 2);
    const std::uint32_t outer = tree.child(0, recording.events[0].instrument);
    const std::uint32_t rest = tree.child(outer, recording.events[1].instrument);
    EXPECT_EQ(tree.child(outer, recording.events[2].instrument), rest);
    EXPECT_EQ(tree.child(rest, recording.events[1].instrument), rest);
    EXPECT_EQ(tree.child(0, recording.events[0].instrument), outer);
    EXPECT_EQ(tree.nodes().size(), 3u);
    EXPECT_EQ(tree.nodes()[rest].instrument, nullptr);
}

}  // namespace
