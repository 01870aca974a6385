#include "vantrace/instrument/context_entries.hpp"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace {

using vantrace::makeContextEntries;
using vantrace::makeContextEntry;
using Strings = std::vector<std::string>;

template <typename List>
concept Buildable = requires(List&& list) {
    makeContextEntry(std::forward<List>(list));
    makeContextEntries(std::forward<List>(list));
};
static_assert(Buildable<const Strings&>);
static_assert(!Buildable<Strings>, "the entries would name strings that are gone");

template <typename Build>
std::string messageOf(Build build, const Strings& list) {
    try {
        build(list);
    } catch (const std::invalid_argument& error) {
        return error.what();
    }
    return "no error";
}

TEST(ContextEntry, NamesTheListsFirstStringAndCopiesTheSecond) {
    const Strings list{"method", "conjugate gradients"};
    const instrument::ContextEntry entry = makeContextEntry(list);
    EXPECT_EQ(entry.name, "method");
    EXPECT_EQ(entry.name.data(), list[0].data());
    EXPECT_EQ(entry.value, "conjugate gradients");
}

TEST(ContextEntry, TakesExactlyTwoStrings) {
    const auto build = [](const Strings& list) { makeContextEntry(list); };
    for (const Strings& list : {Strings{}, Strings{"a"}, Strings{"a", "b", "c"}})
        EXPECT_EQ(messageOf(build, list), "makeContextEntry takes exactly two strings.");
}

TEST(ContextEntries, KeepOrderAndEqualNames) {
    const Strings list{"n", "3", "a", "1", "n", "4"};
    const auto entries = makeContextEntries(list);
    ASSERT_EQ(entries.size(), 3u);
    EXPECT_EQ(entries[0], (instrument::ContextEntry{"n", "3"}));
    EXPECT_EQ(entries[1], (instrument::ContextEntry{"a", "1"}));
    EXPECT_EQ(entries[2], (instrument::ContextEntry{"n", "4"}));
    EXPECT_EQ(entries[2].name.data(), list[4].data());
}

TEST(ContextEntries, EmptyListIsAnEmptyContext) {
    const Strings list;
    EXPECT_TRUE(makeContextEntries(list).empty());
}

TEST(ContextEntries, OddCountIsRefused) {
    const auto build = [](const Strings& list) { makeContextEntries(list); };
    for (const Strings& list : {Strings{"a"}, Strings{"a", "b", "c"}})
        EXPECT_EQ(messageOf(build, list), "makeContextEntries takes name/value pairs of strings.");
}

}  // namespace
