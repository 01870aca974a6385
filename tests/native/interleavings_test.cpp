// The protocols without locks, in every interleaving of two or three threads: taking listeners out,
// the arrays of listeners, chunks of the recorder and the ring of a client. Of each, a variant that
// lacks one step or one order is found to be broken.
//
// Bounds: two deliveries, two listeners, two arrays; two chunks of two words; a ring of two places
// and three records.
#include "tests/native/interleavings.hpp"

#include <gtest/gtest.h>

namespace {

using namespace interleavings;

// --- A listener is taken out, and destroyed, while a thread delivers. ---

struct RemovalVariant {
    bool fence = true;
    bool wait = true;
    bool announceFirst = true;
};

Verdict exploreRemoval(RemovalVariant variant) {
    enum { calling, removed, alive };
    Program delivery;
    for (int i = 0; i < 2; ++i) {
        const std::size_t at = delivery.size();
        const Step announce{"callEachListener: calling.store(&listener)",
                            [](Access& a) { a.release(calling, 1); }};
        const Step check{"callEachListener: registration->removed.load()", [at](Access& a) {
                             if (a.load(removed))
                                 a.go(at + 4);
                         }};
        const Step called{"callEachListener: (listener.*operation)",
                          [](Access& a) { a.expect(a.load(alive), "a dead listener is called"); }};
        delivery.push_back(variant.announceFirst ? announce : check);
        delivery.push_back(variant.announceFirst ? check : announce);
        delivery.push_back(called);
        delivery.push_back(called);
        delivery.push_back(
            {"Inside::~Inside: calling.store(nullptr)", [](Access& a) { a.release(calling, 0); }});
    }
    Program removal{
        {"unregisterListener: removed.store(true)", [](Access& a) { a.release(removed, 1); }}};
    if (variant.fence)
        removal.push_back(
            {"waitUntilNobodyIsInside: heavyFence()", [](Access& a) { a.heavyFence(); }});
    if (variant.wait)
        removal.push_back({"waitUntilNobodyIsInside: calling.load()", [](Access& a) {
                               if (a.load(calling))
                                   a.wait();
                           }});
    removal.push_back({"the listener's destructor", [](Access& a) { a.exchange(alive, 0); }});
    return explore({0, 0, 1}, {delivery, removal});
}

TEST(Interleavings, ARemovedListenerIsNotCalledOnceItMayBeDestroyed) {
    EXPECT_EQ(exploreRemoval({}).broken, "");
}

TEST(Interleavings, RemovalNeedsItsFenceItsWaitAndTheOrderOfDelivery) {
    EXPECT_NE(exploreRemoval({.fence = false}).broken, "");
    EXPECT_NE(exploreRemoval({.wait = false}).broken, "");
    EXPECT_NE(exploreRemoval({.announceFirst = false}).broken, "");
}

// --- Two listeners take each other out from inside their callbacks; a third thread takes out both
// and destroys them. ---

Verdict exploreCrosswise(bool waitsInside) {
    enum { callingFirst, callingSecond, removedA, removedB, aliveA, aliveB };
    const auto delivery = [=](int calling, int otherCalling, int removed, int alive, int other) {
        return Program{
            {"callEachListener: calling.store(&listener)",
             [=](Access& a) { a.release(calling, 1); }},
            {"callEachListener: registration->removed.load()",
             [=](Access& a) {
                 if (a.load(removed))
                     a.go(5);
             }},
            {"the callback: unregisterListener", [=](Access& a) { a.exchange(other, 1); }},
            {"the callback: Listeners::remove",
             [=](Access& a) {
                 if (waitsInside && a.load(otherCalling))
                     a.wait();
             }},
            {"the callback's end",
             [=](Access& a) { a.expect(a.load(alive), "a dead listener is called"); }},
            {"Inside::~Inside: calling.store(nullptr)", [=](Access& a) { a.release(calling, 0); }},
        };
    };
    const auto whileInside = [](int calling) {
        return Step{"waitUntilNobodyIsInside: calling.load()", [=](Access& a) {
                        if (a.load(calling))
                            a.wait();
                    }};
    };
    const Program owner{
        {"unregisterListener", [](Access& a) { a.exchange(removedA, 1); }},
        {"unregisterListener", [](Access& a) { a.exchange(removedB, 1); }},
        {"waitUntilNobodyIsInside: heavyFence()", [](Access& a) { a.heavyFence(); }},
        whileInside(callingFirst),
        whileInside(callingSecond),
        {"destructors", [](Access& a) { a.exchange(aliveA, 0); }},
        {"destructors", [](Access& a) { a.exchange(aliveB, 0); }},
    };
    return explore({0, 0, 0, 0, 1, 1},
                   {delivery(callingFirst, callingSecond, removedA, aliveA, removedB),
                    delivery(callingSecond, callingFirst, removedB, aliveB, removedA), owner});
}

TEST(Interleavings, ListenersThatRemoveEachOtherNeitherHangNorAreCalledDead) {
    EXPECT_EQ(exploreCrosswise(false).broken, "");
}

TEST(Interleavings, ARemovalThatWaitedInsideACallbackWouldHang) {
    EXPECT_EQ(exploreCrosswise(true).broken, "threads wait for each other for ever");
}

// --- An array of listeners is replaced and freed while a thread goes through it. ---

struct ArrayVariant {
    bool fence = true;
    bool lookAgain = true;
    bool checkUse = true;
};

Verdict exploreArrays(ArrayVariant variant) {
    enum { inForce, snapshot, freed };  // arrays 1 and 2; the first is freed
    const Program delivery{
        {"protectListeners: listenersInForce.load()",
         [](Access& a) { a.local(0) = a.load(inForce); }},
        {"protectListeners: snapshot.store(array)",
         [](Access& a) { a.release(snapshot, a.local(0)); }},
        {"protectListeners: listenersInForce.load() again",
         [=](Access& a) {
             const int now = a.load(inForce);
             if (variant.lookAgain && now != a.local(0)) {
                 a.local(0) = now;
                 a.go(1);
             }
         }},
        {"callEachListener: listeners.all()",
         [](Access& a) { a.expect(!(a.local(0) == 1 && a.load(freed)), "a freed array is read"); }},
        {"~ProtectedListeners: snapshot.store(nullptr)", [](Access& a) { a.release(snapshot, 0); }},
    };
    Program change{
        {"publish: listenersInForce.exchange()", [](Access& a) { a.exchange(inForce, 2); }}};
    if (variant.fence)
        change.push_back({"freeRetiredListeners: heavyFence()", [](Access& a) { a.heavyFence(); }});
    change.push_back({"freeRetiredListeners: isInUse", [=](Access& a) {
                          if (variant.checkUse && a.load(snapshot) == 1)
                              a.go(99);  // a later change frees it
                      }});
    change.push_back({"freeRetiredListeners: freeArray", [](Access& a) { a.exchange(freed, 1); }});
    return explore({1, 0, 0}, {delivery, change});
}

TEST(Interleavings, AnArrayOfListenersIsNotFreedUnderADelivery) {
    EXPECT_EQ(exploreArrays({}).broken, "");
}

TEST(Interleavings, FreeingArraysNeedsItsFenceItsCheckAndTheSecondLook) {
    EXPECT_NE(exploreArrays({.fence = false}).broken, "");
    EXPECT_NE(exploreArrays({.lookAgain = false}).broken, "");
    EXPECT_NE(exploreArrays({.checkUse = false}).broken, "");
}

// --- A thread commits records to a chunk, seals it and goes on in a second; a snapshot reads. ---

struct ChunkVariant {
    bool releaseTail = true;
    bool releaseNext = true;
    bool linkBeforeTail = true;
};

Verdict exploreChunks(ChunkVariant variant) {
    // Words 0 and 1 in the first chunk, 2 in the second; places 10.. are in the second chunk.
    enum { first, second, third, tail, sealedEnd, next };
    const auto commit = [=](int word, int end) {
        return std::vector<Step>{
            {"RecordWriter: the record's words", [=](Access& a) { a.store(word, 7); }},
            {"RecordWriter: tail.store()",
             [=](Access& a) { variant.releaseTail ? a.release(tail, end) : a.store(tail, end); }}};
    };
    const Step link{"enterChunk: before->next.store()", [=](Access& a) {
                        variant.releaseNext ? a.release(next, 1) : a.store(next, 1);
                    }};
    const Step moveTail{"enterChunk: tail.store(chunk.begin())",
                        [](Access& a) { a.release(tail, 10); }};
    Program writer = commit(first, 1);
    const auto append = [&](const std::vector<Step>& steps) {
        writer.insert(writer.end(), steps.begin(), steps.end());
    };
    append(commit(second, 2));
    writer.push_back(
        {"enterChunk: before->sealedEnd.store()", [](Access& a) { a.store(sealedEnd, 2); }});
    append(variant.linkBeforeTail ? std::vector{link, moveTail} : std::vector{moveTail, link});
    append(commit(third, 11));

    const auto readWords = [](int from, int words) {
        return [=](Access& a) {
            for (int word = from; word < from + words; ++word)
                a.expect(a.load(word) == 7, "a word is read that is not there yet");
        };
    };
    const Program reader{
        {"committedEnd: chunk.next.load()",
         [](Access& a) {
             if (a.load(next))
                 a.go(3);
         }},
        {"committedEnd: track.tail.load()",
         [=](Access& a) {
             const int end = a.load(tail);
             if (end < 10) {
                 readWords(first, end)(a);
                 a.go(99);
             }
         }},
        {"committedEnd: the link, where the tail is elsewhere",
         [](Access& a) { a.expect(a.load(next), "a tail is elsewhere without a link"); }},
        {"committedEnd: chunk.sealedEnd.load()",
         [=](Access& a) {
             a.expect(a.load(sealedEnd) == 2, "a sealed chunk without its end");
             readWords(first, 2)(a);
         }},
        {"committedEnd: track.tail.load() in the second chunk",
         [=](Access& a) {
             const int end = a.load(tail);
             if (end < 10)
                 a.go(4);  // looks again: with the link comes the tail, or soon
             else
                 readWords(third, end - 10)(a);
         }},
    };
    return explore({0, 0, 0, 0, 0, 0}, {writer, reader});
}

TEST(Interleavings, ASnapshotReadsWhatIsCommittedAndNoMore) {
    EXPECT_EQ(exploreChunks({}).broken, "");
}

TEST(Interleavings, CommittingAndSealingNeedTheirOrders) {
    EXPECT_NE(exploreChunks({.releaseTail = false}).broken, "");
    EXPECT_NE(exploreChunks({.releaseNext = false}).broken, "");
    EXPECT_NE(exploreChunks({.linkBeforeTail = false}).broken, "");
}

// --- A client writes three records into a ring of two places; the host reads. ---

struct RingVariant {
    bool checkRoom = true;
    bool releaseTail = true;
    bool checkStamp = true;
    bool headAfterCopy = true;
};

Verdict exploreRing(RingVariant variant) {
    enum { data, stamp = 2, tail = 4, head = 5 };
    Program client;
    for (int record = 0; record < 3; ++record) {
        const int place = record % 2;
        const auto drop = client.size() + 4;
        client.push_back({"Ring: room, by the head that the host set", [=](Access& a) {
                              if (variant.checkRoom && record - a.load(head) >= 2)
                                  a.go(12);  // dropped and counted, as all after it here
                          }});
        client.push_back({"Ring: the record", [=](Access& a) { a.store(place, 100 + record); }});
        client.push_back(
            {"Ring: its stamp", [=](Access& a) { a.store(stamp + place, record + 1); }});
        client.push_back({"Ring: tail", [=](Access& a) {
                              variant.releaseTail ? a.release(tail, record + 1)
                                                  : a.store(tail, record + 1);
                              a.go(drop);
                          }});
    }
    Program host;
    for (int record = 0; record < 3; ++record) {
        host.push_back({"ExternalRing::fetch: the tail", [=](Access& a) {
                            if (a.load(tail) <= record)
                                a.go(99);
                        }});
        host.push_back({"ExternalRing::isStampRight", [=](Access& a) {
                            if (variant.checkStamp && a.load(stamp + record % 2) != record + 1)
                                a.go(99);  // read again in a later round
                        }});
        const Step copy{"ExternalRing::fetch: the copy", [=](Access& a) {
                            a.expect(a.load(record % 2) == 100 + record, "a record is not whole");
                        }};
        const Step give{"SharedControl::setHead", [=](Access& a) { a.release(head, record + 1); }};
        host.push_back(variant.headAfterCopy ? copy : give);
        host.push_back(variant.headAfterCopy ? give : copy);
    }
    return explore({0, 0, 0, 0, 0, 0}, {client, host});
}

TEST(Interleavings, ARingGivesEachRecordWhole) {
    EXPECT_EQ(exploreRing({}).broken, "");
}

TEST(Interleavings, ARingNeedsItsRoomItsReleaseAndTheOrderOfTheHead) {
    EXPECT_NE(exploreRing({.checkRoom = false}).broken, "");
    EXPECT_NE(exploreRing({.releaseTail = false, .checkStamp = false}).broken, "");
    EXPECT_NE(exploreRing({.headAfterCopy = false}).broken, "");
}

}  // namespace
