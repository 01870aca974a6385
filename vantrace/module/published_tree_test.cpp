// The whole published tree against one table of it.
#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

#include "vantrace/module/entry.hpp"
#include "zandor/runtime/zandor.hpp"

namespace {

constexpr char theTree[] =
    R"(performance: Performance Utils and Diagnostics
  utils: Utility
    getNanosecondTimer() -> uint64 scalar [Static]
    getMicrosecondTimer() -> uint64 scalar [Static]
    getMillisecondTimer() -> uint64 scalar [Static]
    getModuleList() -> KobsFactoryString vector [Static]
    queueLoadLibrary(char) -> void [Static]
    loadLibrary(char) -> void [Static]
    loadLibraries(KobsFactoryString vector) -> void [Static]
    queueSleepTask(int32 scalar) -> void [Static]
    getReleseFromXMLFile(KobsFactoryString scalar) -> KobsFactoryString scalar [Static]
    queueDummyTaskIfNonParSessions() -> logical scalar [Static]
  instrument: Instrumentation API
    instruments: instrument instruments
      startEvent(char, KobsFactoryString vector) -> any [Static]
      stopEvent(char, KobsFactoryString vector, uint64 scalar, uint64 scalar) -> void [Static]
    controls: Instrument Controls
      has(char) -> logical scalar [Static]
      isEnabled(char) -> void [Static]
      isEnabledWithContext(char, KobsFactoryString vector) -> void [Static]
      enable(char) -> void [Static]
      enableWithContextEntry(char, KobsFactoryString vector) -> void [Static]
      disable(char) -> void [Static]
      disableWithContextEntry(char, KobsFactoryString vector) -> void [Static]
      wereAllEnabled() -> logical scalar [Static]
      enableAll() -> void [Static]
      disableAll() -> void [Static]
    recorder: Instrument Recorder
      isActive() -> logical scalar [Static]
      start() -> void [Static]
      stop() -> void [Static]
      clearAllEventData() -> void [Static]
      getAllEventPoints() -> any [Static]
      getEventPoints(char) -> any [Static]
      getEventPointsForContext(char, KobsFactoryString vector) -> any [Static]
      getAllEvents() -> any [Static]
      getEvents(char) -> any [Static]
      getEventsForContext(char, KobsFactoryString vector) -> any [Static]
      getAllEventStats() -> any [Static]
      getAllEventStatsByContext() -> any [Static]
      getAllEventStatsByContextEntry() -> any [Static]
      getEventStats(char) -> any [Static]
      getEventStatsByContext(char) -> any [Static]
      getEventStatsByContextEntry(char) -> any [Static]
      getEventStatsForContext(char, KobsFactoryString vector) -> any [Static]
      getAllEventsCollapsedStacks() -> any [Static]
      getAllCompleteEventsTraceEventJson() -> any [Static]
      getAllCompleteEventsTraceEventJsonWithUTC() -> any [Static]
      getAllCompleteEventsTraceEventJsonWithFilter(double scalar) -> any [Static]
    profiler: Instrument Profiler
      isActive() -> logical scalar [Static]
      start() -> void [Static]
      stop() -> any [Static]
      stopAndPrint() -> void [Static]
    counter: Instrument Counter
      isActive() -> logical scalar [Static]
      start() -> void [Static]
      stop() -> void [Static]
      resetAllEventCounts() -> void [Static]
      resetEventCount(char) -> void [Static]
      getAllEventCounts() -> any [Static]
      getAllEventCountsByContext() -> any [Static]
      getAllEventCountsByContextEntry() -> any [Static]
      getEventCount(char) -> any [Static]
      getEventCountsByContext(char) -> any [Static]
      getEventCountsByContextEntry(char) -> any [Static]
      getEventCountForContext(char, KobsFactoryString vector) -> any [Static]
    externalEventsAggregator: External instrumentation events aggregator
      start() -> void [Static]
      stop() -> void [Static]
      collectEvents() -> void [Static]
      refreshActiveClients() -> void [Static]
    logger: Instrument Logger
      isActive() -> logical scalar [Static]
      start() -> void [Static]
      stop() -> void [Static]
    testAPI_addSomethingToInstrumentation(double scalar) -> void [Static]
    areAnyListenersActive() -> logical scalar [Static]
  cooperativeTaskManager: CooperativeTaskManager
    getNumPendingTasks() -> int32 scalar [Static]
    logPendingTasks() -> void [Static]
    pause() -> void [Static]
    resume() -> void [Static]
    isPaused() -> logical scalar [Static]
    pausePPE() -> void [Static]
    resumePPE() -> void [Static]
    finishAllTasks() -> void [Static]
    finishTaskByName(char) -> void [Static]
    process(uint64 scalar) -> void [Static]
    isProcessing() -> logical scalar [Static]
    removeAllTasks() -> void [Static]
    cleanup() -> void [Static]
    setLoggingEnabled(logical scalar) -> void [Static]
    getLoggingEnabled() -> logical scalar [Static]
  productStats: Product Stats
    logEventTime(char, char) -> void [Static Hidden Private]
    logEventBeginTime(char, char) -> void [Static Hidden Private]
    logEventEndTime(char, char) -> void [Static Hidden Private]
)";

std::string joined(const std::vector<std::string>& texts) {
    std::string all;
    for (const std::string& text : texts)
        all += (all.empty() ? "" : ", ") + text;
    return all;
}

void print(std::ostream& out, const zandor::MethodDescription& method, const std::string& indent) {
    out << indent << method.name << '(' << joined(method.inputs) << ") -> "
        << joined(method.outputs) << " [" << (method.isStatic ? "Static" : "")
        << (method.isHidden ? " Hidden" : "") << (method.isPrivate ? " Private" : "") << "]\n";
}

void print(std::ostream& out, const zandor::Namespace& branch, const std::string& indent) {
    out << indent << branch.name() << ": " << branch.description() << '\n';
    for (const zandor::Namespace& child : branch.namespaces())
        print(out, child, indent + "  ");
    for (const zandor::Method& method : branch.methods())
        print(out, method.description(), indent + "  ");
}

template <typename Visit>
void visit(const zandor::Namespace& branch, Visit visitor) {
    visitor(branch);
    for (const zandor::Namespace& child : branch.namespaces())
        visit(child, visitor);
}

class PublishedTree : public testing::Test {
  protected:
    void SetUp() override { ZDInitialize_vantrace(); }
    zandor::Namespace root() const { return zandor::findRoot("performance"); }
};

TEST_F(PublishedTree, IsTheOneInTheTable) {
    std::ostringstream out;
    print(out, root(), "");
    EXPECT_EQ(out.str(), theTree);
}

TEST_F(PublishedTree, HasTwelveNamespacesAndEightySixMethods) {
    std::size_t namespaces = 0;
    std::size_t methods = 0;
    visit(root(), [&](const zandor::Namespace& branch) {
        ++namespaces;
        methods += branch.methods().size();
    });
    EXPECT_EQ(namespaces, 12u);
    EXPECT_EQ(methods, 86u);
}

TEST_F(PublishedTree, DetailedDescriptionsEqualDescriptions) {
    visit(root(), [](const zandor::Namespace& branch) {
        EXPECT_EQ(branch.detailedDescription(), branch.description());
    });
}

TEST_F(PublishedTree, EveryMethodIsRegisteredWithTheNumbersZeroAndTwo) {
    visit(root(), [](const zandor::Namespace& branch) {
        for (const zandor::Method& method : branch.methods()) {
            EXPECT_EQ(method.description().minimumInputs, 0) << method.description().fullName;
            EXPECT_EQ(method.description().flags, 2) << method.description().fullName;
        }
    });
}

TEST_F(PublishedTree, PrivateMethodsAreReachedOnlyThroughTheirDoor) {
    constexpr char name[] = "performance.productStats.logEventTime";
    EXPECT_THROW(zandor::resolve(name), zandor::NameNotFoundError);
    EXPECT_TRUE(zandor::resolve(name, zandor::Door::privateToo).isLoaded());
}

}  // namespace
