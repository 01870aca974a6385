#include "zandor/instrument/trace_view.hpp"

#include <gmock/gmock.h>

#include <thread>

#include "testing/recorder_support.hpp"
#include "testing/temporary_folder.hpp"
#include "zandor/instrument/source.hpp"
#include "zandor/instrument/trace_file.hpp"

namespace instrument {
namespace {

namespace fs = std::filesystem;
using test_support::Listening;
using testing::AllOf;
using testing::HasSubstr;
using testing::Not;

/// An external thread whose events have times that the test chooses.
class TraceViewTest : public test_support::RecorderTest {
  protected:
    static constexpr std::int64_t begin = 1'000'000'000;

    void event(const Instrument& name, std::int64_t start, std::int64_t stop) {
        const EventId id{source_, ++serial_};
        listeners.onEventStartAt(name.handle(), {}, id, begin + start);
        listeners.onEventStopAt(name.handle(), {}, id, begin + stop);
    }
    TraceView saved() {
        saveTraceFile(recorder_, file_);
        return TraceView(file_);
    }

    test_support::TemporaryFolder folder_;
    fs::path file_ = folder_.path() / "trace.vtrace";
    const Instrument outer_{"view.outer"};
    const Instrument inner_{"view.inner"};
    InstrumentRecorder recorder_;
    Listening listening_{recorder_};
    std::uint64_t source_ = addExternalSource("other program", "its thread", 77, 78);
    std::uint64_t serial_ = 0;
};

TEST_F(TraceViewTest, ShowsTheEventsOfAWindow) {
    event(outer_, 0, 1000);
    event(inner_, 100, 300);
    event(inner_, 800, 900);
    TraceView view(saved());
    view.read();
    EXPECT_THAT(view.state(), AllOf(HasSubstr("\"phase\":\"whole\""), HasSubstr("\"events\":3"),
                                    HasSubstr("\"duration\":1000,")));
    EXPECT_THAT(view.threads(), "[[\"other program\",77,\"its thread\",78,2,0,0]]");
    EXPECT_THAT(view.window(0, 500, 500, 0, 0), HasSubstr("\"exact\":true"));
    EXPECT_THAT(view.window(0, 500, 500, 0, 0), HasSubstr("[0,0,1,[100,200,"));
    EXPECT_THAT(view.window(0, 500, 500, 0, 0), Not(HasSubstr("800,100")));
    EXPECT_THAT(view.window(0, 500, 500, 1, 5), HasSubstr("\"rows\":[]"));
}

}  // namespace
}  // namespace instrument
