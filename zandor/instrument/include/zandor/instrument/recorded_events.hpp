// A recording read item by item, with context values as they were given.
//
//   struct Printer : instrument::RecordedItemSink {
//       void take(const instrument::RecordedItem& item) override { print(item.name, item.start); }
//   } printer;
//   instrument::readRecording(recorder, printer);
#pragma once

#include <cstdint>
#include <string_view>

#include "zandor/instrument/export.hpp"
#include "zandor/instrument/instrument.hpp"
#include "zandor/instrument/recorder.hpp"

namespace instrument {

/// An event, or what is none by itself: an instant, or a stop without start.
struct RecordedItem {
    enum class Kind : std::uint8_t { event, unfinished, instant, stop };

    std::string_view name;
    std::string_view source;  ///< name of the thread that produced it
    std::uint64_t sourceId = 0;
    Kind kind = Kind::event;
    std::int64_t start = 0;  ///< nanoseconds of the monotonic clock
    std::int64_t stop = 0;   ///< `start`, but for complete events
    ContextArgs context;     ///< names distinct, sorted; valid while the sink looks at the item,
                             ///< its texts, as the others, for the life of the process
};

/// Takes items one by one. An exception ends the reading and reaches its caller.
class ZANDOR_INSTRUMENT_API RecordedItemSink {
  public:
    virtual ~RecordedItemSink();
    virtual void take(const RecordedItem& item) = 0;
};

/// A snapshot, by start. May run while events come in.
ZANDOR_INSTRUMENT_API void readRecording(const InstrumentRecorder& recorder,
                                         RecordedItemSink& sink);

}  // namespace instrument
