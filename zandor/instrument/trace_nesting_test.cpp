// Random recordings, full of ties, keep the rules of traces, and nothing in them is lost or moved.
#include <gmock/gmock.h>

#include <random>

#include "zandor/instrument/saturating.hpp"
#include "zandor/instrument/testing/json_reader.hpp"
#include "zandor/instrument/testing/recording_builder.hpp"
#include "zandor/instrument/testing/string_sink.hpp"
#include "zandor/instrument/testing/trace_rules.hpp"
#include "zandor/instrument/trace_event_json.hpp"
#include "zandor/runtime/sanitizers.hpp"

namespace {

using namespace instrument;
using test_support::Json;
using test_support::RecordingBuilder;
using ::testing::IsEmpty;

constexpr std::int64_t day = 86'400'000'000'000;

struct Shape {
    const char* name;
    std::int64_t range;  // times within, nanoseconds
    std::int64_t from;   // of most events: a first one stands at the origin
    TimeSystem timeSystem = TimeSystem::monotonic;
};

void PrintTo(const Shape& shape, std::ostream* out) {
    *out << shape.name;
}

class RandomTraces : public ::testing::TestWithParam<Shape> {
  protected:
    std::int64_t upTo(std::int64_t most) {
        return std::uniform_int_distribution<std::int64_t>(0, most)(random_);
    }

    /// Sometimes a time that occurred already, so that ends and starts meet.
    std::int64_t time() {
        if (!times_.empty() && upTo(2) == 0)
            return times_[upTo(times_.size() - 1)];
        times_.push_back(GetParam().from + upTo(GetParam().range));
        return times_.back();
    }

    void addEvent(RecordingBuilder& builder, std::int64_t number) {
        auto [start, stop] = std::minmax({time(), time()});
        if (upTo(30) == 0)
            std::swap(start, stop);
        const bool isOpen = upTo(10) == 0;
        const auto source = static_cast<std::uint32_t>(upTo(2));
        builder.event(std::string(1, static_cast<char>('a' + upTo(3))), source, start,
                      isOpen ? std::nullopt : std::optional(stop), {{"number", number}});
        if (upTo(10) == 0)
            builder.stoppedBy(static_cast<std::uint32_t>(upTo(2)));
    }

    RecordingBuilder randomRecording(unsigned seed) {
        random_.seed(seed);
        times_.clear();
        RecordingBuilder builder;
        for (const char* name : {"main", "worker", "io"})
            builder.source(name);
        if (GetParam().from > 0)
            builder.event("first", 0, 0, 100, {{"number", -1}});
        const std::int64_t events = 1 + upTo(25);
        for (std::int64_t i = 0; i < events; ++i)
            addEvent(builder, i);
        for (std::int64_t i = upTo(3); i > 0; --i)
            builder.point("tick", static_cast<std::uint32_t>(upTo(2)), time());
        return builder;
    }

    std::mt19937_64 random_;
    std::vector<std::int64_t> times_;
};

/// What a trace shows of one event, in nanoseconds.
struct Shown {
    std::string phase;
    std::string tid;
    std::int64_t start = 0;
    std::int64_t end = 0;
    std::string exactDuration;
};

std::map<std::string, Shown> shownByNumber(const Json& document) {
    std::map<std::string, Shown> shown;
    std::map<std::string, Shown*> pairs;
    for (const Json& event : document["traceEvents"].elements) {
        const std::string& phase = event["ph"].text;
        if (phase == "e")
            pairs.at(event["id"].text)->end = event["ts"].nanoseconds();
        const Json* args = event.find("args");
        if (!args || !args->has("number"))
            continue;
        const auto [place, isNew] = shown.try_emplace((*args)["number"].text);
        EXPECT_TRUE(isNew) << "twice: " << place->first;
        Shown& entry = place->second;
        entry = {phase, event["tid"].text, event["ts"].nanoseconds(), 0, ""};
        if (phase == "X")
            entry.end = entry.start + event["dur"].nanoseconds();
        if (phase == "b")
            pairs[event["id"].text] = &entry;
        if (phase == "i")
            entry.exactDuration = (*args)["duration_ns"].text;
    }
    return shown;
}

/// Whether no other event of the thread crosses the event, or has an end so close behind its end
/// that drawing all of them inward could reach it.
bool isUndisturbed(const detail::Recording& recording, const detail::RecordedEvent& event) {
    const auto isClose = [&](std::int64_t time) {
        return event.stop <= time &&
               time <= event.stop + static_cast<std::int64_t>(recording.events.size());
    };
    for (const auto& other : recording.events) {
        if (&other == &event || other.source != event.source)
            continue;
        const bool crosses =
            other.start <= event.start && event.start < other.stop && other.stop <= event.stop;
        if (crosses || !other.finished || isClose(other.stop) || isClose(other.start))
            return false;
    }
    return event.finished && event.stopSource == event.source && event.stop > event.start;
}

TEST_P(RandomTraces, NestInDoublesAndShowEachEventOnce) {
    const bool isUtc = GetParam().timeSystem == TimeSystem::utc;
    const std::int64_t step = isUtc ? 250 : 1;
    constexpr unsigned recordings = ZANDOR_SANITIZED ? 200 : 2000;
    for (unsigned seed = 0; seed < recordings && !HasFailure(); ++seed) {
        RecordingBuilder builder = randomRecording(seed);
        const detail::Recording& recording = builder.build();
        test_support::StringSink sink;
        detail::writeTraceEventJson(recording, GetParam().timeSystem, -1, sink);
        const Json document = test_support::JsonReader::read(sink.text);
        ASSERT_THAT(test_support::TraceRules::violations(document, step), IsEmpty())
            << "seed " << seed << sink.text;

        const auto shown = shownByNumber(document);
        const std::int64_t first =
            std::min(RecordingBuilder::origin, recording.events.front().start);
        std::size_t kept = 0;
        for (const auto& event : recording.events) {
            if (event.finished && event.stop < event.start)
                continue;
            ++kept;
            const auto found = shown.find(std::to_string(event.context[0].value.signedInteger()));
            ASSERT_NE(found, shown.end()) << "seed " << seed << sink.text;
            const Shown& entry = found->second;
            const std::int64_t end = event.finished ? event.stop : recording.lastTime;
            const auto expected = [&](std::int64_t time) {
                return isUtc ? (time - RecordingBuilder::origin + RecordingBuilder::originUtc) /
                                   step * step
                             : time - first + 1000;
            };
            EXPECT_EQ(entry.tid, std::to_string(event.source + 1));
            EXPECT_EQ(entry.start, expected(event.start)) << "seed " << seed << sink.text;
            if (entry.phase == "i") {
                EXPECT_EQ(entry.exactDuration, std::to_string(end - event.start));
                continue;
            }
            const std::int64_t cut = expected(end) - entry.end;
            EXPECT_GE(cut, 0);
            if (entry.phase == "b") {
                EXPECT_EQ(cut, 0);
            }
            if (!isUtc && isUndisturbed(recording, event)) {
                EXPECT_EQ(entry.phase, "X") << "seed " << seed << found->first << sink.text;
                EXPECT_LE(cut, GetParam().from < 25 * day ? 0 : 8);
            }
            const std::int64_t mostPerLevel = GetParam().from < 25 * day ? 1 : 8;
            EXPECT_LE(cut, step * mostPerLevel * static_cast<std::int64_t>(recording.events.size()))
                << "seed " << seed << sink.text;
        }
        EXPECT_EQ(shown.size(), kept);
    }
}

INSTANTIATE_TEST_SUITE_P(
    Shapes, RandomTraces,
    ::testing::Values(Shape{"Ticks", 4, 0}, Shape{"Tight", 15, 0}, Shape{"Nanoseconds", 200, 0},
                      Shape{"Seconds", 1'000'000'000, 0}, Shape{"LateTicks", 12, 20 * day},
                      Shape{"After30Days", 20, 30 * day}, Shape{"After60Days", 20, 60 * day},
                      Shape{"After99Days", 30, 99 * day}, Shape{"After400Days", 60, 400 * day},
                      Shape{"AcrossDays", 99 * day, 0}, Shape{"UtcTicks", 600, 0, TimeSystem::utc},
                      Shape{"UtcTight", 3000, 0, TimeSystem::utc},
                      Shape{"UtcDays", 99 * day, 0, TimeSystem::utc}),
    [](const auto& shape) { return shape.param.name; });

}  // namespace
