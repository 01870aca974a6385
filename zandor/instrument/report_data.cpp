#include "report_data.hpp"

#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "call_tree.hpp"
#include "context_times.hpp"
#include "counter_series.hpp"
#include "event_order.hpp"
#include "json_text.hpp"
#include "name_times.hpp"
#include "self_time.hpp"
#include "text_buffer.hpp"
#include "zandor/instrument/duration_buckets.hpp"

namespace instrument::detail {
namespace {

// These bound what a report can grow to.
constexpr std::uint32_t mostBins = 240;
constexpr std::size_t mostNames = 2'000;
constexpr std::size_t mostNameValues = 150'000;
constexpr std::size_t mostContextValues = 24;
constexpr std::size_t mostContextCells = 60'000;
constexpr std::size_t mostCounters = 60;
constexpr std::size_t mostCounterCells = 15'000;
constexpr std::size_t longestText = 200;

std::int64_t durationOf(const RecordingFacts& facts) {
    return std::max<std::int64_t>(saturatingSubtract(facts.lastTime, facts.originMonotonic), 0);
}

TimeBins binsOf(const RecordingFacts& facts) {
    return {facts.originMonotonic, durationOf(facts), mostBins};
}

/// Everything that one reading of the events gives.
class Sums {
    struct Owner {
        std::uint32_t node;
        std::uint32_t name;
    };

    auto give() {
        return [this](const Owner& owner, std::int64_t from, std::int64_t nanoseconds) {
            tree.give(owner.node, from, nanoseconds);
            names.give(owner.name, from, nanoseconds);
        };
    }

  public:
    explicit Sums(EventStream& stream)
        : bins(binsOf(stream.facts())),
          tree(bins, stream.facts().sources.size()),
          names(bins),
          contexts(bins),
          counters(bins),
          open_(stream.facts().sources.size()) {
        forEachEnclosingFirst(stream,
                              [&](const RecordedEvent& event) { add(stream.facts(), event); });
        for (std::uint32_t i = 0; i < stream.facts().sources.size(); ++i)
            open_.finish(i, give());
        for (auto points = stream.nextPoints(); !points.empty(); points = stream.nextPoints())
            for (const RecordedPoint& point : points)
                add(point);
    }

    TimeBins bins;
    CallTree tree;
    NameTimes names;
    ContextTimesByName contexts;
    CounterSeriesByName counters;
    std::uint64_t events = 0;
    std::uint64_t unfinished = 0;
    std::uint64_t instants = 0;

  private:
    void add(const RecordingFacts& facts, const RecordedEvent& event) {
        const std::int64_t end = closingTime(facts, event);
        if (end < event.start)
            return;
        const Owner* parent = open_.advance(event.source, event.start, give());
        const Owner owner{tree.child(parent ? parent->node : event.source, event.instrument),
                          names.placeOf(event.instrument)};
        open_.enter(event.source, event.start, end, owner);
        tree.count(owner.node, event.start);
        names.count(owner.name, event, end);
        ++events;
        if (event.finished)
            contexts.count(event);
        else
            ++unfinished;
    }

    void add(const RecordedPoint& point) {
        counters.count(point);
        instants += point.type == EventPointType::instant;
    }

    SelfTime<Owner> open_;
};

std::string_view shortened(std::string_view text) {
    if (text.size() <= longestText)
        return text;
    std::size_t end = longestText;
    while (end > 0 && (static_cast<unsigned char>(text[end]) & 0xc0) == 0x80)
        --end;
    return text.substr(0, end);
}

class Writer {
  public:
    Writer(Sums sums, const RecordingFacts& facts, std::uint32_t processes, TextSink& sink)
        : sums_(std::move(sums)), facts_(facts), processes_(processes), out_(sink) {}

    void write() {
        appendHead();
        appendTree(trim(sums_.tree.nodes(), TreeLimits()));
        appendTimes(std::move(sums_.names).widest(mostNames, mostNameValues));
        appendContexts(std::move(sums_.contexts).widest(mostContextValues, mostContextCells));
        appendCounters(std::move(sums_.counters).most(mostCounters, mostCounterCells));
        appendBuckets();
        appendNames();
        out_.append("}");
        out_.flush();
    }

  private:
    void appendHead() {
        out_.append("{\"bins\":{\"count\":");
        out_.appendNumber(sums_.bins.count());
        member("width", sums_.bins.width());
        out_.append('}');
        member("duration", durationOf(facts_));
        member("events", sums_.events);
        member("unfinished", sums_.unfinished);
        member("instants", sums_.instants);
        member("processes", processes_);
        member("dropped", facts_.drops.refused + facts_.drops.oldest + facts_.drops.shortest +
                              facts_.drops.failed);
        out_.append(",\n\"originUtc\":\"");
        out_.appendNumber(facts_.originUtc);
        out_.append('"');
    }

    void appendTree(const TrimmedTree& tree) {
        list("threads", tree.sources, [&](std::uint32_t source) {
            out_.append("[");
            appendText(facts_.sources[source].processName.value_or(""));
            out_.append(',');
            appendText(facts_.sources[source].name);
            out_.append(']');
        });
        member("moreThreads", tree.moreThreads);
        list("tree", tree.nodes, [&](const CallNode& node) {
            out_.append('[');
            out_.appendNumber(
                node.parent == CallNode::none ? -1 : static_cast<std::int64_t>(node.parent));
            out_.append(',');
            appendName(node.instrument);
            for (const auto& [bin, cell] : node.cells.entries())
                values(bin, cell.calls, cell.self);
            out_.append(']');
        });
    }

    void appendTimes(const std::vector<NameTime>& times) {
        list("times", times, [&](const NameTime& name) {
            out_.append('[');
            appendName(name.instrument);
            out_.append(',');
            cells(name.cells, [&](std::uint32_t bin, const NameCell& cell) {
                values(bin, cell.calls, cell.total, cell.self, cell.longest);
            });
            out_.append(',');
            cells(name.durations,
                  [&](std::uint32_t bucket, const Tally& tally) { values(bucket, tally.count); });
            out_.append(']');
        });
    }

    void appendContexts(const std::vector<ContextTimes>& contexts) {
        list("contexts", contexts, [&](const ContextTimes& times) {
            out_.append('[');
            appendName(times.instrument);
            out_.append(',');
            appendText(times.key);
            out_.append(",[");
            for (const ContextValueTimes& value : times.values) {
                out_.append(&value == times.values.data() ? "[" : ",[");
                appendTextOrNull(value.value, !value.standsForOthers);
                for (const auto& [bin, cell] : value.cells.entries())
                    values(bin, cell.calls, cell.total);
                out_.append(']');
            }
            out_.append("]]");
        });
    }

    void appendCounters(const std::vector<CounterSeries>& counters) {
        list("counters", counters, [&](const CounterSeries& series) {
            out_.append('[');
            appendName(series.instrument);
            out_.append(',');
            appendTextOrNull(series.key, series.hasValues);
            out_.append(',');
            cells(series.cells, [&](std::uint32_t bin, const CounterCell& cell) {
                values(bin, cell.count, cell.lowest, cell.highest, cell.last);
            });
            out_.append(']');
        });
    }

    void appendBuckets() {
        std::vector<std::int64_t> begins;
        for (std::size_t bucket = 0; bucket < DurationBuckets::count; ++bucket)
            begins.push_back(DurationBuckets::lowest(bucket));
        list("buckets", begins, [&](std::int64_t begin) { out_.appendNumber(begin); });
    }

    void appendNames() {
        list("names", names_, [&](const Opaque* name) {
            out_.append('"');
            appendJsonName(out_, shortened({name->name, name->nameLength}));
            out_.append('"');
        });
    }

    template <class Number>
    void member(std::string_view name, Number number) {
        out_.append(",\"");
        out_.append(name);
        out_.append("\":");
        out_.appendNumber(number);
    }

    template <class Items, class Append>
    void list(std::string_view name, const Items& items, Append append) {
        out_.append(",\n\"");
        out_.append(name);
        out_.append("\":[");
        bool isFirst = true;
        for (const auto& item : items) {
            if (!std::exchange(isFirst, false))
                out_.append(",\n");
            append(item);
        }
        out_.append(']');
    }

    /// Numbers behind a comma each.
    template <class... Numbers>
    void values(Numbers... numbers) {
        ((out_.append(','), out_.appendNumber(numbers)), ...);
    }

    /// A list of what `append` appends, which begins with a comma; so the first is a 0 to skip.
    template <class Value, class Append>
    void cells(const SparseValues<Value>& sparse, Append append) {
        out_.append("[0");
        for (const auto& [key, value] : sparse.entries())
            append(key, value);
        out_.append(']');
    }

    void appendName(const Opaque* instrument) {
        if (!instrument) {
            out_.append("-1");
            return;
        }
        const auto [place, isNew] = numbers_.try_emplace(instrument, names_.size());
        if (isNew)
            names_.push_back(instrument);
        out_.appendNumber(place->second);
    }

    void appendText(std::string_view text) {
        out_.append('"');
        appendJsonText(out_, shortened(text));
        out_.append('"');
    }

    void appendTextOrNull(std::string_view text, bool isThere) {
        if (isThere)
            appendText(text);
        else
            out_.append("null");
    }

    Sums sums_;
    const RecordingFacts& facts_;
    const std::uint32_t processes_;
    TextBuffer out_;
    std::vector<const Opaque*> names_;
    std::unordered_map<const Opaque*, std::size_t> numbers_;
};

}  // namespace

void writeReportData(EventStream& stream, std::uint32_t processes, TextSink& sink) {
    Writer(Sums(stream), stream.facts(), processes, sink).write();
}

}  // namespace instrument::detail
