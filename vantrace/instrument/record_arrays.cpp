#include "vantrace/instrument/record_arrays.hpp"

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <unordered_set>

#include "vantrace/instrument/nanoseconds.hpp"
#include "vantrace/instrument/struct_array.hpp"
#include "zandor/instrument/event_id.hpp"

namespace vantrace {

using instrument::ContextEntry;
using instrument::ContextSet;
using Event = InstrumentRecorder::Event;
using EventCount = InstrumentCounter::EventCount;
using EventPoint = InstrumentRecorder::EventPoint;
using EventStats = InstrumentRecorder::EventStats;

namespace {

/// A field that a kind of record has of its own, besides its name and context.
template <typename Record>
struct Field {
    const char* name;
    matrix::Array (*value)(const Record&);
};

matrix::Array secondsValue(std::int64_t nanoseconds) {
    return numberValue(toSeconds(nanoseconds));
}

// What the times of an event subtract to need not fit; it wraps then.
std::int64_t difference(std::int64_t a, std::int64_t b) {
    return static_cast<std::int64_t>(static_cast<std::uint64_t>(a) - static_cast<std::uint64_t>(b));
}

constexpr Field<EventCount> countFields[] = {
    {"count", [](const EventCount& r) { return numberValue(static_cast<double>(r.count)); }},
};

constexpr Field<EventStats> statsFields[] = {
    {"count", [](const EventStats& r) { return numberValue(static_cast<double>(r.count)); }},
    {"duration", [](const EventStats& r) { return secondsValue(r.duration); }},
};

constexpr Field<Event> eventFields[] = {
    {"source_name", [](const Event& r) { return textValue(r.sourceName()); }},
    {"start_time_point", [](const Event& r) { return secondsValue(r.startTimePoint); }},
    {"stop_time_point", [](const Event& r) { return secondsValue(r.stopTimePoint); }},
    {"duration",
     [](const Event& r) { return secondsValue(difference(r.stopTimePoint, r.startTimePoint)); }},
};

constexpr Field<EventPoint> pointFields[] = {
    {"source_name", [](const EventPoint& r) { return textValue(r.sourceName()); }},
    {"serial_id",
     [](const EventPoint& r) { return numberValue(static_cast<double>(r.serialId())); }},
    {"type", [](const EventPoint& r) { return textValue(instrument::getName(r.type)); }},
    {"time_point", [](const EventPoint& r) { return secondsValue(r.timePoint); }},
};

std::span<const Field<EventCount>> ownFields(const EventCount*) {
    return countFields;
}
std::span<const Field<EventStats>> ownFields(const EventStats*) {
    return statsFields;
}
std::span<const Field<Event>> ownFields(const Event*) {
    return eventFields;
}
std::span<const Field<EventPoint>> ownFields(const EventPoint*) {
    return pointFields;
}

template <typename Record>
std::vector<const char*> withOwnFields(std::vector<const char*> names) {
    for (const Field<Record>& field : ownFields(static_cast<const Record*>(nullptr)))
        names.push_back(field.name);
    return names;
}

/// Sets the record's own fields from the place `first` on.
template <typename Record>
void setOwnFields(StructArray& array, std::size_t element, std::size_t first,
                  const Record& record) {
    for (const Field<Record>& field : ownFields(&record))
        array.set(element, first++, field.value(record));
}

/// The distinct context names, as views into the records.
template <typename Record>
std::vector<std::string_view> contextNames(const std::vector<Record>& records) {
    std::unordered_set<std::string_view> known;
    std::vector<std::string_view> names;
    for (const Record& record : records)
        for (const ContextEntry& entry : record.context)
            if (known.insert(entry.name).second)
                names.push_back(entry.name);
    return names;
}

std::string_view valueOf(const ContextSet& context, std::string_view name) {
    const auto entry = context.find(ContextEntry{name, {}});
    return entry == context.end() ? std::string_view() : entry->value;
}

template <typename Record>
hxArray* plain(const std::vector<Record>& records) {
    StructArray array(records.size(), withOwnFields<Record>({"name"}));
    for (std::size_t i = 0; i < records.size(); ++i) {
        array.set(i, 0, textValue(records[i].name));
        setOwnFields(array, i, 1, records[i]);
    }
    return matrix::to_zandor(std::move(array).release());
}

template <typename Record>
hxArray* contextColumns(const std::vector<Record>& records) {
    const std::vector<std::string_view> columns = contextNames(records);
    // The names of entries out of the library end with a NUL.
    std::vector<const char*> names{"name"};
    for (const std::string_view column : columns)
        names.push_back(column.data());
    StructArray array(records.size(), withOwnFields<Record>(std::move(names)));
    for (std::size_t i = 0; i < records.size(); ++i) {
        array.set(i, 0, textValue(records[i].name));
        for (std::size_t column = 0; column < columns.size(); ++column)
            array.set(i, 1 + column, textValue(valueOf(records[i].context, columns[column])));
        setOwnFields(array, i, 1 + columns.size(), records[i]);
    }
    return matrix::to_zandor(std::move(array).release());
}

template <typename Record>
hxArray* display(const std::vector<Record>& records) {
    StructArray array(records.size(), withOwnFields<Record>({"display", "name", "context"}));
    for (std::size_t i = 0; i < records.size(); ++i) {
        const Record& record = records[i];
        array.set(i, 0,
                  textValue(instrument::combineEventNameWithContext(std::string(record.name),
                                                                    record.context)));
        array.set(i, 1, textValue(record.name));
        array.set(i, 2, toContextStruct(record.context));
        setOwnFields(array, i, 3, record);
    }
    return matrix::to_zandor(std::move(array).release());
}

}  // namespace

hxArray* toPlainStructArray(const std::vector<EventCount>& records) {
    return plain(records);
}
hxArray* toPlainStructArray(const std::vector<EventStats>& records) {
    return plain(records);
}

hxArray* toContextColumnsStructArray(const std::vector<EventCount>& records) {
    return contextColumns(records);
}
hxArray* toContextColumnsStructArray(const std::vector<EventStats>& records) {
    return contextColumns(records);
}
hxArray* toContextColumnsStructArray(const std::vector<Event>& records) {
    return contextColumns(records);
}
hxArray* toContextColumnsStructArray(const std::vector<EventPoint>& records) {
    return contextColumns(records);
}

hxArray* toDisplayStructArray(const std::vector<EventCount>& records) {
    return display(records);
}
hxArray* toDisplayStructArray(const std::vector<EventStats>& records) {
    return display(records);
}
hxArray* toDisplayStructArray(const std::vector<Event>& records) {
    return display(records);
}
hxArray* toDisplayStructArray(const std::vector<EventPoint>& records) {
    return display(records);
}

matrix::Array toContextStruct(const ContextSet& context) {
    if (context.empty())
        return matrix::detail::do_create_struct(0, 0, {});
    std::vector<const char*> names;
    for (const ContextEntry& entry : context)
        names.push_back(entry.name.data());
    StructArray array(1, names);
    std::size_t field = 0;
    for (const ContextEntry& entry : context)
        array.set(0, field++, textValue(entry.value));
    return std::move(array).release();
}

}  // namespace vantrace
