// SPDX-License-Identifier: MIT
#include <gtest/gtest.h>

#include "transport/core/neighbours.h"

using namespace transport;

namespace {

constexpr Ticks second = Ticks_Per_Second;
constexpr Ip_Address seven{{10, 0, 0, 7}};
constexpr Hardware_Address card{{2, 0, 0, 0, 0, 7}}, other{{2, 0, 0, 0, 0, 8}}, nobody{};

TEST(Neighbours, Are_asked_for_once_a_second_until_they_answer)
{
    Neighbours table;
    for (Ticks now = 0; now < 5 * second; now += second / 4) {
        const auto way = table.Look_Up(seven, nobody, now);
        EXPECT_FALSE(way.Known);
        EXPECT_EQ(way.Ask, now % second == 0) << now;
    }
    EXPECT_TRUE(table.Learn(seven, card, 5 * second));
    const auto way = table.Look_Up(seven, nobody, 5 * second);
    EXPECT_TRUE(way.Known && !way.Ask);
    EXPECT_EQ(way.Card, card);
}

TEST(Neighbours, Are_used_where_the_record_says_until_they_say_themselves)
{
    Neighbours table;
    auto way = table.Look_Up(seven, other, 0);
    EXPECT_TRUE(way.Known && way.Ask);
    EXPECT_EQ(way.Card, other);
    // The next record may know better, and a group is no neighbour.
    EXPECT_FALSE(table.Look_Up(seven, Every_Card, 1).Known);
    EXPECT_TRUE(table.Learn(seven, card, 2));
    EXPECT_EQ(table.Look_Up(seven, other, 3).Card, card);
}

TEST(Neighbours, Are_believed_only_when_asked_and_only_once)
{
    Neighbours table;
    EXPECT_FALSE(table.Learn(seven, card, 0)) << "nobody asked";
    table.Look_Up(seven, nobody, 0);
    EXPECT_FALSE(table.Learn({{10, 0, 0, 8}}, other, 1)) << "another was asked for";
    EXPECT_FALSE(table.Learn(seven, Every_Card, 1));
    EXPECT_TRUE(table.Learn(seven, card, 1));
    EXPECT_FALSE(table.Learn(seven, other, 2)) << "has answered already";
    EXPECT_EQ(table.Look_Up(seven, nobody, 2).Card, card);

    table.Look_Up(seven, nobody, 40 * second);
    EXPECT_FALSE(table.Learn(seven, other, 44 * second)) << "too late to be an answer";
    EXPECT_EQ(table.Look_Up(seven, nobody, 44 * second).Card, card);
}

TEST(Neighbours, Are_asked_again_while_their_last_answer_is_used)
{
    Neighbours table;
    table.Look_Up(seven, nobody, 0);
    table.Learn(seven, card, 0);
    EXPECT_FALSE(table.Look_Up(seven, nobody, Neighbour_Fresh - 1).Ask);
    for (const Ticks now : {Neighbour_Fresh, Neighbour_Fresh + second, Neighbour_Fresh + 1000 * second}) {
        const auto way = table.Look_Up(seven, nobody, now);
        EXPECT_TRUE(way.Known && way.Ask) << now;
        EXPECT_EQ(way.Card, card) << now;
    }
    // A server whose card was changed.
    EXPECT_TRUE(table.Learn(seven, other, Neighbour_Fresh + 1000 * second));
    const auto way = table.Look_Up(seven, nobody, Neighbour_Fresh + 1000 * second);
    EXPECT_EQ(way.Card, other);
    EXPECT_FALSE(way.Ask);
}

TEST(Neighbours, Not_needed_for_longest_make_room)
{
    Neighbours table;
    const auto host = [](unsigned number) {
        return Ip_Address{{10, 0, 0, static_cast<std::uint8_t>(number)}};
    };
    for (unsigned number = 0; number < Neighbours::Count_Max; ++number) {
        table.Look_Up(host(number), nobody, number);
        ASSERT_TRUE(table.Learn(host(number), card, number));
    }
    table.Look_Up(host(0), nobody, 100);
    EXPECT_FALSE(table.Look_Up(host(200), nobody, 101).Known);
    EXPECT_TRUE(table.Look_Up(host(0), nobody, 102).Known) << "needed a moment ago";
    EXPECT_FALSE(table.Look_Up(host(1), nobody, 103).Known) << "made room";
    table.Forget();
    EXPECT_FALSE(table.Look_Up(host(0), nobody, 104).Known);
}

}  // namespace
