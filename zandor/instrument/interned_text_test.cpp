#include "zandor/instrument/interned_text.hpp"

#include <gtest/gtest.h>

#include <memory>
#include <vector>

#include "zandor/instrument/testing/recorder_support.hpp"

namespace instrument::detail {
namespace {

TEST(InternedText, ATextIsKeptOnceWithANulBehind) {
    auto text = std::make_unique<std::string>("interned: kept once");
    const InternedText* kept = intern(*text);
    ASSERT_TRUE(kept);
    EXPECT_EQ(intern("interned: kept once"), kept);
    text.reset();
    EXPECT_EQ(kept->view(), "interned: kept once");
    EXPECT_EQ(kept->text()[kept->length], '\0');
    EXPECT_EQ(&InternedText::fromId(kept->id), kept);
    EXPECT_EQ(&InternedText::of(kept->view()), kept);
}

TEST(InternedText, EmptyTextsAndTextsWithNulAreLikeAnyOther) {
    EXPECT_EQ(intern(""), intern(std::string_view()));
    EXPECT_EQ(intern("")->view(), "");
    const std::string_view withNul("a\0b", 3);
    EXPECT_EQ(intern(withNul)->view(), withNul);
    EXPECT_NE(intern(withNul), intern("a"));
}

TEST(InternedText, LongTextsAreKeptWhole) {
    const std::string text(3'000'000, 'x');
    EXPECT_EQ(intern(text)->view(), text);
}

TEST(InternedText, ManyTextsKeepTheirNumbers) {
    std::vector<const InternedText*> kept;
    for (int i = 0; i < 100'000; ++i)
        kept.push_back(intern("interned: many " + std::to_string(i)));
    for (int i = 0; i < 100'000; ++i) {
        EXPECT_EQ(kept[i]->view(), "interned: many " + std::to_string(i));
        EXPECT_EQ(&InternedText::fromId(kept[i]->id), kept[i]);
    }
}

TEST(InternedText, ThreadsThatInternTheSameTextsGetTheSameCopies) {
    constexpr int threads = 4;
    std::vector<std::vector<const InternedText*>> kept(threads);
    test_support::onThreads(threads, [&](int thread) {
        for (int i = 0; i < 5000; ++i)
            kept[thread].push_back(intern("interned: race " + std::to_string(i)));
    });
    for (int thread = 1; thread < threads; ++thread)
        EXPECT_EQ(kept[thread], kept[0]);
}

}  // namespace
}  // namespace instrument::detail
