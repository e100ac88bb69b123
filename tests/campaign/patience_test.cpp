// SPDX-License-Identifier: MIT
// Which failures a campaign excuses.
#include <gtest/gtest.h>

#include "campaign/patience.h"

using namespace campaign;

namespace {

constexpr std::int64_t minute_ms = 60'000;

Plan plan_of(std::uint32_t mode, bool mirrored, std::uint8_t retry_mins = 1)
{
    Plan plan{};
    plan.boot_mode = mode;
    plan.disks.resize(2);
    for (DiskPlan& disk : plan.disks) {
        disk.mirrored = mirrored;
        disk.retry_mins = retry_mins;
    }
    return plan;
}

TEST(Patience, A_disk_waits_for_its_server_as_long_as_Retry_Mins_says)
{
    const Plan one = plan_of(0, false, 1), two = plan_of(0, false, 2), endless = plan_of(0, false, 0);
    for (const Plan* plan : {&one, &two, &endless}) {
        Patience patience(*plan);
        patience.away(ServerName::main, 0, 10 * minute_ms);
        EXPECT_FALSE(patience.may_fail(1, true, 0, 55'000));
        EXPECT_EQ(patience.may_fail(1, true, 0, 70'000), plan == &one);
        EXPECT_EQ(patience.may_fail(1, true, 0, 140'000), plan != &endless);
        EXPECT_FALSE(patience.may_fail(1, true, 130'000, 140'000)) << "it has waited for 10 s";
    }
}

TEST(Patience, A_shutdown_excuses_what_had_four_time_outs_in_it)
{
    const Plan plan = plan_of(0, false, 2);
    Patience patience(plan);
    patience.away(ServerName::main, 0, 20'000);
    EXPECT_FALSE(patience.may_end_in_shutdown(1, 10'000, 12'000));
    EXPECT_TRUE(patience.may_end_in_shutdown(1, 10'000, 14'000));
    EXPECT_FALSE(patience.may_end_in_shutdown(1, 25'000, 40'000)) << "it was back";
}

TEST(Patience, Reads_of_the_system_disk_never_fail_in_a_network_boot)
{
    const Plan network = plan_of(0, false), other = plan_of(1, false);
    for (const Plan* plan : {&network, &other}) {
        Patience patience(*plan);
        patience.away(ServerName::main, 0, 10 * minute_ms);
        EXPECT_EQ(patience.may_fail(0, false, 0, 5 * minute_ms), plan == &other);
        EXPECT_TRUE(patience.may_fail(0, true, 0, 5 * minute_ms));
    }
}

TEST(Patience, One_lost_server_of_a_mirror_excuses_nothing)
{
    const Plan plan = plan_of(0, true);
    for (const ServerName lost : {ServerName::main, ServerName::slave}) {
        Patience patience(plan);
        patience.away(lost, 0, 10 * minute_ms);
        EXPECT_FALSE(patience.may_fail(1, true, 0, 10 * minute_ms));
        const ServerName other = lost == ServerName::main ? ServerName::slave : ServerName::main;
        EXPECT_FALSE(patience.may_leave(1, lost, 20'000));
        EXPECT_TRUE(patience.may_leave(1, lost, 25'000));
        EXPECT_FALSE(patience.may_leave(1, other, 10 * minute_ms));
        patience.away(other, 2 * minute_ms, 10 * minute_ms);
        EXPECT_TRUE(patience.may_fail(1, true, 2 * minute_ms, 4 * minute_ms));
    }
}

TEST(Patience, A_retry_limit_excuses_only_what_was_under_way_and_went_unanswered)
{
    const Plan plan = plan_of(0, false);
    Patience patience(plan);
    patience.retry_limit(10'000);
    EXPECT_FALSE(patience.may_fail(1, true, 5'000, 20'000)) << "the server answers";
    patience.away(ServerName::main, 8'000, minute_ms);
    EXPECT_TRUE(patience.may_fail(1, true, 5'000, 20'000));
    EXPECT_FALSE(patience.may_fail(1, true, 15'000, 25'000)) << "it came later";
}

}  // namespace
