// SPDX-License-Identifier: MIT
// What the campaign's model lets pass, and what it must not.
#include <gtest/gtest.h>

#include <algorithm>

#include "campaign/model.h"

using namespace campaign;

namespace {

constexpr std::uint32_t lba = 3;

class Model : public testing::Test {
protected:
    Generations generations;
    DiskModel model{1, std::vector<Generation>(8, initial), generations};

    Generation fresh() { return generations.add(1); }
    Sector content(Generation generation) const { return generations.content({1, lba}, generation); }
    Sector torn_between(Generation begin, Generation end) const
    {
        const Sector last = content(end);
        Sector torn = content(begin);
        std::copy(last.begin() + 274, last.end(), torn.begin() + 274);
        return torn;
    }
    bool allowed(Generation generation) const { return model.check(lba, content(generation)).empty(); }
    Generation written(bool succeeded = true)
    {
        const Generation generation = fresh();
        model.write_ends(model.write_begins(lba, 1, generation), succeeded);
        return generation;
    }
};

TEST_F(Model, Written_content_is_the_only_one_and_a_failed_write_leaves_both)
{
    EXPECT_TRUE(allowed(initial));
    const Generation first = written();
    EXPECT_TRUE(allowed(first));
    EXPECT_FALSE(allowed(initial));
    const Generation failed = written(false);
    EXPECT_TRUE(allowed(first) && allowed(failed));
    // It may happen even after a later one.
    const Generation last = written();
    EXPECT_TRUE(allowed(failed) && allowed(last));
    EXPECT_FALSE(allowed(first));
    // But not after the power was off.
    model.power_off();
    const Generation next = written();
    EXPECT_TRUE(allowed(next));
    EXPECT_FALSE(allowed(failed) || allowed(last));
}

TEST_F(Model, Requests_at_the_same_time_may_find_either_content)
{
    const Generation one = fresh(), two = fresh();
    const auto read = model.read_begins();
    const auto first = model.write_begins(lba, 1, one), second = model.write_begins(lba, 1, two);
    model.write_ends(first, true);
    model.write_ends(second, true);
    EXPECT_TRUE(allowed(one) && allowed(two));
    EXPECT_FALSE(allowed(initial));
    EXPECT_EQ(model.read_ends(read, lba, content(initial)), "") << "it began before both";
    const auto later = model.read_begins();
    EXPECT_NE(model.read_ends(later, lba, content(initial)), "");
}

TEST_F(Model, Same_content_written_again_is_told_apart_from_the_first_time)
{
    const Generation again = written();
    const Generation between = written();
    EXPECT_FALSE(allowed(again));
    model.write_ends(model.write_begins(lba, 1, again), true);
    EXPECT_TRUE(allowed(again));
    EXPECT_FALSE(allowed(between));
}

TEST_F(Model, Torn_sector_passes_only_for_a_read_during_a_write)
{
    const Generation generation = fresh();
    const Sector torn = torn_between(generation, initial);
    Sector foreign = torn;
    foreign[400] ^= 1;
    auto read = model.read_begins();
    const auto write = model.write_begins(lba, 1, generation);
    EXPECT_NE(model.read_ends(read, lba, foreign), "");
    read = model.read_begins();
    EXPECT_EQ(model.read_ends(read, lba, torn), "");
    model.write_ends(write, true);
    read = model.read_begins();
    EXPECT_NE(model.read_ends(read, lba, torn), "");
}

TEST_F(Model, Sector_is_torn_only_where_a_fragment_ends)
{
    const Generation one = fresh();
    model.write_begins(lba, 1, one);
    const Sector begin = content(one), end = content(initial);
    for (const auto& [place, right] :
         {std::pair{362, true}, {212, true}, {36, true}, {256, false}, {128, false}}) {
        Sector torn = begin;
        std::copy(end.begin() + place, end.end(), torn.begin() + place);
        EXPECT_EQ(model.read_ends(model.read_begins(), lba, torn).empty(), right) << place;
    }
}

TEST_F(Model, Disk_of_one_server_does_not_flip_back)
{
    for (const bool one_truth : {false, true}) {
        if (one_truth)
            model.set_one_truth();
        const Generation lost = written();
        model.may_hold(lba, initial, false);
        EXPECT_EQ(model.read_ends(model.read_begins(), lba, content(initial)), "");
        EXPECT_EQ(allowed(lost), !one_truth);
        EXPECT_TRUE(allowed(initial));
        written();
    }
    // While it is written, a read settles nothing.
    const Generation under_way = fresh();
    const auto write = model.write_begins(lba, 1, under_way);
    const auto read = model.read_begins();
    EXPECT_EQ(model.read_ends(read, lba, content(under_way)), "");
    EXPECT_EQ(model.unsettled().size(), 1u);
    model.write_ends(write, false);
}

TEST_F(Model, Content_of_another_place_or_disk_is_refused)
{
    const auto read = [this](const Sector& sector) {
        return model.read_ends(model.read_begins(), lba, sector);
    };
    EXPECT_EQ(read(sector_content({1, lba}, initial, 0)), "");
    EXPECT_NE(read(sector_content({1, lba + 1}, initial, 0)), "");
    EXPECT_NE(read(sector_content({0, lba}, initial, 0)), "");
    EXPECT_NE(read(Sector{}), "");
}

TEST_F(Model, Server_that_lost_its_last_writes_may_show_the_old_or_the_new)
{
    for (const bool mirrored : {false, true}) {
        const Generation lost = written();
        model.may_hold(lba, initial, mirrored);
        EXPECT_TRUE(allowed(initial) && allowed(lost));
        EXPECT_EQ(model.check(lba, torn_between(lost, initial)).empty(), mirrored);
        const Generation next = written();
        EXPECT_FALSE(allowed(initial) || allowed(lost));
        EXPECT_TRUE(allowed(next));
        EXPECT_NE(model.check(lba, torn_between(next, initial)), "");
    }
}

}  // namespace
