// A listener that throws at its n-th event, for every n: the exception reaches whoever made the
// event, the other listeners lose nothing, and the next event is heard by all.
#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

#include "tests/native/published_methods.hpp"
#include "zandor/instrument/controls.hpp"
#include "zandor/instrument/instrument.hpp"
#include "zandor/instrument/listener.hpp"
#include "zandor/instrument/listeners.hpp"
#include "zandor/instrument/recorder.hpp"
#include "zandor/instrument/source.hpp"
#include "zandor/performance/counter.hpp"

namespace {

using namespace published;
using instrument::EventContext;
using instrument::EventId;
using instrument::Opaque;

class Thrower : public instrument::InstrumentListener {
  public:
    explicit Thrower(std::uint64_t at) : at_(at) {}
    ~Thrower() override { instrument::listeners.remove(*this); }

    std::uint64_t heard() const noexcept { return heard_; }

    void onInstant(const Opaque*, const EventContext&, EventId) override { hear(); }
    void onStart(const Opaque*, const EventContext&, EventId) override { hear(); }
    void onStop(const Opaque*, const EventContext&, EventId) override { hear(); }
    void onInstantAt(const Opaque*, const EventContext&, EventId, std::int64_t) override { hear(); }
    void onStartAt(const Opaque*, const EventContext&, EventId, std::int64_t) override { hear(); }
    void onStopAt(const Opaque*, const EventContext&, EventId, std::int64_t) override { hear(); }

  private:
    void hear() {
        if (++heard_ == at_)
            throw std::domain_error("thrown at an event");
    }

    const std::uint64_t at_;
    std::uint64_t heard_ = 0;
};

const instrument::Instrument native("throwing.native");

/// Makes one event.
using Step = std::function<void()>;

std::vector<Step> steps() {
    const std::uint64_t external = instrument::addExternalSource("client", "thread", 1, 1);
    const Opaque* handle = native.handle();
    const auto at = [=](auto operation) {
        return [=] { (instrument::listeners.*operation)(handle, {}, {external, 7}, 5); };
    };
    std::vector<Step> made;
    made.push_back([] { native.instant(); });
    made.push_back([] { native.instant({{"n", 1}}); });
    made.push_back([] { native.start(); });
    made.push_back([] { startEvent("throwing.published", {"n", "a"}); });
    made.push_back([] { stopEvent("throwing.published", {}, OpenEvent(1, 1)); });
    made.push_back([] {
        call("instrument.testAPI_addSomethingToInstrumentation", arguments(zandor::Value::real(0)));
    });
    made.push_back(at(&instrument::Listeners::onEventInstantAt));
    made.push_back(at(&instrument::Listeners::onEventStartAt));
    made.push_back(at(&instrument::Listeners::onEventStopAt));
    return made;
}

class ThrowingListener : public testing::TestWithParam<int> {
  protected:
    ThrowingListener() { instrument::controls.enableAll(true); }
    ~ThrowingListener() override { instrument::controls.disableAll(); }
};

/// Registered before, between and behind two others.
TEST_P(ThrowingListener, StarvesNobodyAndIsToldOf) {
    const std::vector<Step> all = steps();
    for (std::uint64_t at = 1; at <= all.size() + 1; ++at) {
        instrument::InstrumentRecorder recorder;
        instrument::InstrumentCounter counter;
        Thrower thrower(at);
        std::vector<instrument::InstrumentListener*> order{&recorder, &counter};
        order.insert(order.begin() + GetParam(), &thrower);
        for (instrument::InstrumentListener* listener : order)
            instrument::listeners.add(*listener);
        std::uint64_t made = 0;
        std::uint64_t thrown = 0;
        for (const Step& step : all) {
            ++made;
            try {
                step();
            } catch (const std::domain_error&) {
                EXPECT_EQ(made, at);
                ++thrown;
            }
        }
        EXPECT_EQ(thrown, at <= all.size() ? 1u : 0u);
        EXPECT_EQ(thrower.heard(), all.size());
        EXPECT_EQ(recorder.getAllEventPoints().size(), all.size());
        std::int64_t counted = 0;
        for (const auto& record : counter.getAllEventCounts())
            counted += record.count;
        EXPECT_EQ(counted, 7);
    }
}

TEST_P(ThrowingListener, LeavesAScopesEventsWhole) {
    // Of two scopes the first and the third event are starts.
    for (std::uint64_t at = 1; at <= 4; ++at) {
        instrument::InstrumentRecorder recorder;
        Thrower thrower(at);
        instrument::listeners.add(thrower);
        instrument::listeners.add(recorder);
        std::uint64_t thrown = 0;
        for (int i = 0; i < 2; ++i)
            try {
                const instrument::Scope scope{native};
            } catch (const std::domain_error&) {
                ++thrown;
            }
        // One whose start threw is none, and has no stop.
        const std::uint64_t lost = at % 2;
        EXPECT_EQ(thrown, lost);
        EXPECT_EQ(recorder.getAllEventPoints().size(), 4 - lost);
        EXPECT_EQ(recorder.getAllEvents().size(), 2 - lost);
    }
}

INSTANTIATE_TEST_SUITE_P(Places, ThrowingListener, testing::Values(0, 1, 2));

}  // namespace
