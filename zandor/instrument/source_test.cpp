#include "zandor/instrument/source.hpp"

#include <gtest/gtest.h>
#include <pthread.h>

#include <barrier>

#include "zandor/instrument/source_info.hpp"
#include "zandor/instrument/testing/event_log.hpp"

namespace instrument {
namespace {

using detail::SourcePtr;
using test_support::ControlsTest;
using test_support::EventLog;
using test_support::HandlerListener;

class SourceTest : public ControlsTest {
  protected:
    void emit() const { listeners.onEventInstant(solve, ContextSet()); }
    const Opaque* solve = controls.getHandle("solve");
};

/// The name of the next event's source, as the thread that produces it hears it.
std::string heardName() {
    EventLog log;
    listeners.add(log);
    listeners.onEventInstant(controls.getHandle("solve"), ContextSet());
    return log.events().at(0).sourceName;
}

TEST_F(SourceTest, AThreadWithoutANameHasTheKernels) {
    std::thread([] {
        pthread_setname_np(pthread_self(), "kernel-name");
        EXPECT_EQ(heardName(), "kernel-name");
        pthread_setname_np(pthread_self(), "newer-name");
        EXPECT_EQ(heardName(), "newer-name");
        EXPECT_FALSE(isThreadNamed());
    }).join();
}

TEST_F(SourceTest, ASetNameGoesBeforeADefaultNameAndThatBeforeTheKernels) {
    std::thread([] {
        pthread_setname_np(pthread_self(), "kernel-name");
        setDefaultThreadName("MainThread");
        EXPECT_TRUE(isThreadNamed());
        EXPECT_EQ(heardName(), "MainThread");
        setDefaultThreadName("Renamed");
        EXPECT_EQ(heardName(), "Renamed");
        setThreadName("io");
        EXPECT_EQ(heardName(), "io");
        setDefaultThreadName("MainThread");
        EXPECT_EQ(heardName(), "io");
        setThreadName("io 2");
        EXPECT_EQ(heardName(), "io 2");
    }).join();
}

TEST_F(SourceTest, NamingAThreadTouchesNoOtherThread) {
    std::thread([] {
        setThreadName("first");
        std::thread([] { EXPECT_FALSE(isThreadNamed()); }).join();
    }).join();
}

TEST_F(SourceTest, ANulInsideANameIsRefused) {
    const std::string_view bad("a\0b", 3);
    EXPECT_THROW(setThreadName(bad), std::invalid_argument);
    EXPECT_THROW(setDefaultThreadName(bad), std::invalid_argument);
    EXPECT_THROW(addExternalSource(bad, "t", 1, 1), std::invalid_argument);
    EXPECT_THROW(addExternalSource("p", bad, 1, 1), std::invalid_argument);
}

TEST_F(SourceTest, OtherVirtualMachinesOfAThreadShareItsName) {
    std::thread([] {
        EventLog log;
        listeners.add(log);
        const Opaque* instrument = controls.getHandle("solve");
        listeners.onEventInstant(instrument, ContextSet(), 3);
        setThreadName("worker");
        listeners.onEventInstant(instrument, ContextSet(), 3);
        listeners.onEventInstant(instrument, ContextSet(), 4);
        const auto events = log.events();
        EXPECT_EQ(events[1].sourceName, "worker");
        EXPECT_EQ(events[2].sourceName, "worker");
        EXPECT_EQ(events[0].sourceId, events[1].sourceId);
    }).join();
}

/// Keeps the sources of what it hears, as a recording does.
class SourceKeeper : public HandlerListener {
  public:
    SourceKeeper()
        : HandlerListener([this](EventPointType, const Opaque*, const EventContext& context,
                                 EventId, auto) { sources_.emplace_back(context.source()); }) {}
    ~SourceKeeper() override { listeners.remove(*this); }
    detail::SourceInfo& operator[](std::size_t i) const { return *sources_.at(i); }

  private:
    std::vector<SourcePtr> sources_;
};

TEST_F(SourceTest, AReaderSeesTheKernelsNameOfALiveThreadAsItIsNow) {
    SourceKeeper keeper;
    listeners.add(keeper);
    std::barrier step(2);
    std::thread thread([&] {
        emit();
        pthread_setname_np(pthread_self(), "renamed");
        step.arrive_and_wait();
        step.arrive_and_wait();
        pthread_setname_np(pthread_self(), "last-name");
    });
    step.arrive_and_wait();
    EXPECT_EQ(keeper[0].name(), "renamed");
    step.arrive_and_wait();
    thread.join();
    EXPECT_EQ(keeper[0].name(), "last-name");
    EXPECT_EQ(keeper[0].processId, static_cast<std::uint64_t>(getpid()));
    EXPECT_NE(keeper[0].threadId, 0u);
}

TEST_F(SourceTest, ANameOutlivesItsThreadAndTheCallersText) {
    SourceKeeper keeper;
    listeners.add(keeper);
    std::thread([&] {
        std::string name = "short-lived";
        setThreadName(name);
        name.assign(name.size(), 'x');
        emit();
    }).join();
    EXPECT_EQ(keeper[0].name(), "short-lived");
}

TEST_F(SourceTest, ARemovedExternalSourceStaysForWhoeverKeepsIt) {
    SourceKeeper keeper;
    listeners.add(keeper);
    const std::uint64_t id = addExternalSource("client", "worker", 4711, 4712);
    listeners.onEventInstantAt(solve, ContextSet(), {id, 1}, 5);
    removeExternalSource(id);
    removeExternalSource(id);
    EXPECT_EQ(keeper[0].name(), "worker");
    EXPECT_EQ(keeper[0].processName->view(), "client");
    EXPECT_EQ(keeper[0].processId, 4711u);
    EXPECT_EQ(keeper[0].threadId, 4712u);
}

TEST_F(SourceTest, ExternalSourcesMayComeAndGoWhileTheirEventsAreDelivered) {
    std::atomic<std::uint64_t> known{0};
    std::atomic<bool> done{false};
    test_support::CountingListener counting;
    listeners.add(counting);
    test_support::onThreads(3, [&](int thread) {
        for (int i = 0; thread == 0 && i < 3000; ++i) {
            const std::uint64_t id = addExternalSource("client", "worker", 1, 2);
            const std::uint64_t old = known.exchange(id);
            removeExternalSource(old);
        }
        if (thread == 0)
            done = true;
        while (!done)
            listeners.onEventInstantAt(solve, ContextSet(), {known, 1}, 5);
    });
    removeExternalSource(known);
}

}  // namespace
}  // namespace instrument
