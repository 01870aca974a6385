#include "lod_pyramid.hpp"

#include <gmock/gmock.h>

#include <algorithm>
#include <random>

namespace instrument::detail {
namespace {

using Kind = LodRow::Kind;
using testing::ElementsAre;
using testing::FieldsAre;

class LodPyramidTest : public testing::Test {
  public:
    LodPyramidTest& event(std::int64_t start, std::int64_t end, std::uint32_t source = 0,
                          std::uint32_t marks = 0) {
        pyramid_.add({start, end, ++serial_, 7, source, marks});
        return *this;
    }
    /// Kind and place of each row, with the number of its slices.
    std::vector<std::tuple<Kind, std::uint32_t, std::size_t>> rows(std::uint32_t source = 0) {
        std::vector<std::tuple<Kind, std::uint32_t, std::size_t>> found;
        for (const LodRowSlices& row : pyramid_.window(0, 1000, 0, {source, source}))
            found.emplace_back(row.row.kind, row.row.place, row.slices.size());
        return found;
    }

  protected:
    LodPyramid pyramid_{3};
    std::uint64_t serial_ = 0;
};

TEST_F(LodPyramidTest, HasNestedEventsBelowWhatTheyAreIn) {
    event(0, 100).event(10, 50).event(20, 30).event(40, 50).event(60, 100).event(100, 110);
    EXPECT_THAT(rows(), ElementsAre(FieldsAre(Kind::nested, 0, 2), FieldsAre(Kind::nested, 1, 2),
                                    FieldsAre(Kind::nested, 2, 2)));
}

TEST_F(LodPyramidTest, KeepsThreadsApart) {
    event(0, 100, 0).event(10, 120, 1).event(20, 30, 1);
    EXPECT_THAT(rows(0), ElementsAre(FieldsAre(Kind::nested, 0, 1)));
    EXPECT_THAT(rows(1), ElementsAre(FieldsAre(Kind::nested, 0, 1), FieldsAre(Kind::nested, 1, 1)));
    EXPECT_EQ(pyramid_.rowsOf(1, Kind::nested), 2u);
    EXPECT_EQ(pyramid_.rowsOf(1, Kind::beside), 0u);
    EXPECT_EQ(pyramid_.rowsOf(2, Kind::nested), 0u);
}

TEST_F(LodPyramidTest, HasWhatDoesNotNestSideBySide) {
    event(0, 100).event(10, 150).event(20, 160).event(30, 40).event(155, 156);
    event(160, 170, 0, LodEvent::stopsElsewhere);
    EXPECT_THAT(rows(), ElementsAre(FieldsAre(Kind::nested, 0, 2), FieldsAre(Kind::nested, 1, 1),
                                    FieldsAre(Kind::beside, 0, 2), FieldsAre(Kind::beside, 1, 1)));
    const auto shown = pyramid_.window(0, 1000, 0, {});
    EXPECT_EQ(shown[2].slices[0].marks, LodEvent::overlaps);
    EXPECT_EQ(shown[2].slices[1].marks, LodEvent::stopsElsewhere);
}

TEST_F(LodPyramidTest, HasInstantsInARowOfTheirOwn) {
    event(0, 100).event(10, 10, 0, LodEvent::isInstant).event(20, 30);
    EXPECT_THAT(rows(), ElementsAre(FieldsAre(Kind::nested, 0, 1), FieldsAre(Kind::nested, 1, 1),
                                    FieldsAre(Kind::instants, 0, 1)));
}

TEST_F(LodPyramidTest, GivesEachEventsSerial) {
    event(0, 100).event(200, 300);
    EXPECT_EQ(pyramid_.window(150, 1000, 0, {})[0].slices[0].serial, 2u);
}

TEST(LodPyramid, KeepsItsBoundAndCountsEveryEvent) {
    constexpr std::size_t most = 1000;
    LodPyramid pyramid(2, 0, most);
    std::mt19937 random(3);
    std::int64_t now = 0;
    for (int i = 0; i < 100'000; ++i) {
        pyramid.add({now, now + 40, 0, static_cast<std::uint32_t>(random() % 5),
                     static_cast<std::uint32_t>(random() % 2), 0});
        now += static_cast<std::int64_t>(50 + random() % 50);
        ASSERT_LE(pyramid.size(), most);
    }
    std::uint64_t events = 0;
    std::size_t slices = 0;
    for (const LodRowSlices& row : pyramid.window(0, now, 0, {})) {
        slices += row.slices.size();
        for (const LodSlice& slice : row.slices)
            events += slice.events;
    }
    EXPECT_EQ(events, 100'000u);
    EXPECT_GT(slices, most / 8);
}

TEST(LodPyramid, KeepsLongEventsApartAmongShortOnes) {
    LodPyramid pyramid(1, 0, 100);
    for (std::int64_t i = 0; i < 10'000; ++i)
        pyramid.add(
            {i * 100, i * 100 + (i == 5000 ? 90'000'000 : 10), 1, i == 5000 ? 9u : 1u, 0, 0});
    const auto rows = pyramid.window(0, 100'000'000, 0, {});
    const auto isLong = [](const LodSlice& slice) { return slice.name == 9; };
    const auto found = std::ranges::find_if(rows[0].slices, isLong);
    ASSERT_NE(found, rows[0].slices.end());
    EXPECT_EQ(found->events, 1u);
    EXPECT_EQ(found->end - found->begin, 90'000'000);
}

TEST(LodPyramid, GivesWayToVeryManyRows) {
    LodPyramid pyramid(500, 0, 100);
    for (std::uint32_t source = 0; source < 500; ++source)
        pyramid.add({0, 10, 1, 1, source, 0});
    EXPECT_EQ(pyramid.window(0, 10, 0, {}).size(), 500u);
}

}  // namespace
}  // namespace instrument::detail
