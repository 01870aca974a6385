#include "zandor/instrument/source.hpp"

#include <new>

#include "names.hpp"
#include "process_state.hpp"
#include "read_section.hpp"
#include "run_file.hpp"
#include "zandor/instrument/instrument.hpp"

namespace instrument {
namespace detail {
namespace {

using Head = std::atomic<SourceInfo*>;

Head& headFor(std::uint64_t id) noexcept {
    return processState().externalSources[id % ProcessState::externalBuckets];
}

const InternedText& internName(std::string_view name, const char* what) {
    refuseNul(name, what);
    if (const InternedText* text = intern(name))
        return *text;
    throw std::bad_alloc();
}

void nameSources(ThreadState& state) noexcept {
    // Release pairs with the acquire in SourceInfo::name.
    const InternedText* name = threadLocals.givenName();
    const auto give = [name](SourceInfo& info) {
        info.givenName.store(name, std::memory_order_release);
        journalChanges(info);
    };
    give(*state.source.info);
    for (const TaggedSource* tagged = state.tagged; tagged; tagged = tagged->next)
        give(*tagged->source.info);
}

/// The place that points to the source of this id, or to the chain's end.
Head* placeOf(std::uint64_t id) noexcept {
    Head* place = &headFor(id);
    // Acquire pairs with the release in addExternalSource.
    for (SourceInfo* info = place->load(std::memory_order_acquire); info && info->id != id;
         info = place->load(std::memory_order_acquire))
        place = &info->next;
    return place;
}

SourcePtr namelessSource(std::uint64_t id) noexcept {
    SourceInfo* info = makeSource();
    if (!info)
        return {};
    info->id = id;
    SourcePtr source(info);
    SourcePtr::release(info);
    return source;
}

/// Drops the table's reference when no thread can be about to take one of its own.
void retireSource(SourceInfo* info) noexcept {
    SourceInfo*& retired = processState().retiredSources;
    info->retired = retired;
    retired = info;
    if (!everybodyLeft())
        return;
    while (SourceInfo* gone = retired) {
        retired = gone->retired;
        SourcePtr::release(gone);
    }
}

}  // namespace

SourcePtr externalSource(std::uint64_t id) noexcept {
    {
        ThreadState* state = ThreadState::ofThisThread();
        if (!state)
            return {};
        const ReadSection section(*state);
        // Pairs with the release in addExternalSource and removeExternalSource.
        if (SourceInfo* info = placeOf(id)->load(std::memory_order_acquire))
            return SourcePtr(info);
    }
    return namelessSource(id);
}

}  // namespace detail

using namespace detail;

void setThreadName(std::string_view name) {
    threadLocals.setName = &internName(name, "instrument::setThreadName: name");
    if (ThreadState* state = ThreadState::find())
        nameSources(*state);
}

void setDefaultThreadName(std::string_view name) {
    const InternedText* known = threadLocals.defaultName;
    if (known && known->view() == name)
        return;
    threadLocals.defaultName = &internName(name, "instrument::setDefaultThreadName: name");
    if (ThreadState* state = ThreadState::find())
        nameSources(*state);
}

bool isThreadNamed() noexcept {
    return threadLocals.givenName() != nullptr;
}

std::uint64_t addExternalSource(std::string_view processName, std::string_view threadName,
                                std::uint64_t processId, std::uint64_t threadId) {
    const InternedText& process =
        internName(processName, "instrument::addExternalSource: processName");
    const InternedText& thread =
        internName(threadName, "instrument::addExternalSource: threadName");
    SourceInfo* info = makeSource();
    if (!info)
        throw std::bad_alloc();
    info->processId = processId;
    info->threadId = threadId;
    info->processName = &process;
    info->givenName.store(&thread, std::memory_order_relaxed);
    const Locked locked(processState().sources);
    Head& head = headFor(info->id);
    info->next.store(head.load(std::memory_order_relaxed), std::memory_order_relaxed);
    // Pairs with the acquire in placeOf.
    head.store(info, std::memory_order_release);
    return info->id;
}

void removeExternalSource(std::uint64_t sourceId) noexcept {
    const Locked locked(processState().sources);
    Head* place = placeOf(sourceId);
    SourceInfo* info = place->load(std::memory_order_relaxed);
    if (!info)
        return;
    // Relaxed under the lock; the release pairs with the acquire in placeOf and externalSource.
    place->store(info->next.load(std::memory_order_relaxed), std::memory_order_release);
    retireSource(info);
}

}  // namespace instrument
