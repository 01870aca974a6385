// Event records as host struct arrays: one element a record, in their order.
//
//   plain            name, fields of the record
//   context columns  name, one field per context name found in any record (in order of first
//                    appearance, empty text where a record lacks it), fields of the record
//   display          display, name, context (a struct), fields of the record
//
// The caller owns what is returned. Times are seconds.
#pragma once

#include <vector>

#include "zandor/instrument/recorder.hpp"
#include "zandor/performance/counter.hpp"
#include "zandor/runtime/array.hpp"

namespace vantrace {

using instrument::InstrumentCounter;
using instrument::InstrumentRecorder;

hxArray* toPlainStructArray(const std::vector<InstrumentCounter::EventCount>& records);
hxArray* toPlainStructArray(const std::vector<InstrumentRecorder::EventStats>& records);

hxArray* toContextColumnsStructArray(const std::vector<InstrumentCounter::EventCount>& records);
hxArray* toContextColumnsStructArray(const std::vector<InstrumentRecorder::EventStats>& records);
hxArray* toContextColumnsStructArray(const std::vector<InstrumentRecorder::Event>& records);
hxArray* toContextColumnsStructArray(const std::vector<InstrumentRecorder::EventPoint>& records);

hxArray* toDisplayStructArray(const std::vector<InstrumentCounter::EventCount>& records);
hxArray* toDisplayStructArray(const std::vector<InstrumentRecorder::EventStats>& records);
hxArray* toDisplayStructArray(const std::vector<InstrumentRecorder::Event>& records);
hxArray* toDisplayStructArray(const std::vector<InstrumentRecorder::EventPoint>& records);

/// A context as a 1-by-1 struct of texts, in order of names; 0-by-0 without fields when it is
/// empty.
matrix::Array toContextStruct(const instrument::ContextSet& context);

}  // namespace vantrace
