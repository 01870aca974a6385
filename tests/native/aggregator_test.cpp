// Collecting other processes' events: what listeners do meanwhile, and that none may listen.
#include <gmock/gmock.h>

#include <functional>
#include <stdexcept>

#include "client_support.hpp"
#include "zandor/instrument/instrument.hpp"
#include "zandor/instrument/listener.hpp"

namespace client_tests {
namespace {

using testing::IsEmpty;
using testing::SizeIs;

/// Does something at each event that it hears.
class Doer : public instrument::InstrumentListener {
  public:
    explicit Doer(std::function<void()> doing) : do_(std::move(doing)) {
        instrument::listeners.add(*this);
    }
    ~Doer() override { instrument::listeners.remove(*this); }
    Doer(const Doer&) = delete;
    Doer& operator=(const Doer&) = delete;

  private:
    using Handle = const instrument::Opaque*;
    using Context = instrument::EventContext;
    using Id = instrument::EventId;
    void onInstant(Handle, const Context&, Id) override { do_(); }
    void onStart(Handle, const Context&, Id) override { do_(); }
    void onStop(Handle, const Context&, Id) override { do_(); }
    void onInstantAt(Handle, const Context&, Id, std::int64_t) override { do_(); }
    void onStartAt(Handle, const Context&, Id, std::int64_t) override { do_(); }
    void onStopAt(Handle, const Context&, Id, std::int64_t) override { do_(); }

    const std::function<void()> do_;
};

class Aggregator : public ClientTest {
  protected:
    Aggregator() {
        aggregator_.start();
        client_.waitUntilWanted();
    }

    const OpenClient client_{"of this process"};
};

TEST_F(Aggregator, TellsOfTheFirstExceptionOfAListenerAndCollectsAll) {
    const Doer throwing([] { throw std::domain_error("of a listener"); });
    client_.instant("collected");
    client_.instant("collected");
    EXPECT_THROW(aggregator_.collectEvents(), std::domain_error);
    EXPECT_THAT(recorder_.getEventPoints("collected"), SizeIs(2));
    EXPECT_NO_THROW(aggregator_.collectEvents());
}

TEST_F(Aggregator, StopsThoughAListenerThrows) {
    const Doer throwing([] { throw std::domain_error("of a listener"); });
    client_.instant("collected");
    EXPECT_THROW(aggregator_.stop(), std::domain_error);
    EXPECT_FALSE(aggregator_.isStarted());
    EXPECT_THAT(recorder_.getEventPoints("collected"), SizeIs(1));
    EXPECT_NO_THROW(aggregator_.stop());
}

TEST_F(Aggregator, CollectsNothingInsideAListener) {
    client_.instant("collected");
    {
        const Doer collecting([this] {
            aggregator_.refreshActiveClients();
            aggregator_.collectEvents();
        });
        instrument::Instrument("an event of this thread").instant();
        EXPECT_THAT(recorder_.getEventPoints("collected"), IsEmpty());
    }
    aggregator_.collectEvents();
    EXPECT_THAT(recorder_.getEventPoints("collected"), SizeIs(1));
}

TEST_F(Aggregator, CountsEventsThatNobodyListensTo) {
    instrument::listeners.remove(recorder_);
    client_.stop(client_.start("unheard"));
    client_.instant("unheard");
    aggregator_.collectEvents();
    const auto account = accountOf("of this process");
    EXPECT_EQ(account.published, 3u);
    EXPECT_EQ(account.drops.at("unheard"), 2u);
    EXPECT_EQ(account.drops.at("disabled"), 1u);  // the stop, of a start that was not delivered
    expectBalanced(account);
}

}  // namespace
}  // namespace client_tests
