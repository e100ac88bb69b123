// SPDX-License-Identifier: MIT
// The geometry that boot loaders and partition tables agree with.
#include <gtest/gtest.h>

#include <array>

#include "boot/geometry.h"

using namespace boot;

namespace {

using Sector = std::array<std::uint8_t, 512>;

void set_entry(Sector& sector, unsigned index, std::array<std::uint8_t, 3> last, std::uint32_t begin,
               std::uint32_t count)
{
    std::uint8_t* entry = sector.data() + 446 + index * 16;
    entry[4] = 7;
    std::copy(last.begin(), last.end(), entry + 5);
    for (unsigned i = 0; i < 4; ++i) {
        entry[8 + i] = static_cast<std::uint8_t>(begin >> 8 * i);
        entry[12 + i] = static_cast<std::uint8_t>(count >> 8 * i);
    }
    sector[510] = 0x55;
    sector[511] = 0xAA;
}

TEST(Geometry, Comes_from_the_partition_table_where_that_agrees_with_itself)
{
    Sector sector{};
    EXPECT_EQ(geometry_of(1 << 20, sector.data()).heads, 255) << "no table";
    set_entry(sector, 0, {15, 63, 99}, 63, 16 * 63 * 100 - 63);
    Geometry geometry = geometry_of(16 * 63 * 200, sector.data());
    EXPECT_EQ(geometry.heads, 16);
    EXPECT_EQ(geometry.sectors, 63);
    EXPECT_EQ(geometry.cylinders, 200);
    set_entry(sector, 1, {254, 63, 49}, 255 * 63, 255 * 63 * 49);
    EXPECT_EQ(geometry_of(1 << 20, sector.data()).heads, 255) << "two that contradict each other";
    EXPECT_EQ(geometry_of(0xFFFFFFFE, sector.data()).cylinders, 1024);
    EXPECT_EQ(geometry_of(1, sector.data()).cylinders, 1);
}

TEST(Geometry, Sectors_are_counted_from_1_and_bounded)
{
    const Geometry geometry{1024, 255, 63};
    std::uint32_t lba = 0;
    ASSERT_TRUE(to_lba(geometry, 0x0001, 0, lba));
    EXPECT_EQ(lba, 0u);
    ASSERT_TRUE(to_lba(geometry, 0xFFFF, 254, lba));
    EXPECT_EQ(lba, 1024u * 255 * 63 - 1);
    EXPECT_FALSE(to_lba(geometry, 0x0000, 0, lba));
    EXPECT_FALSE(to_lba(geometry, 0x0001, 255, lba));
    EXPECT_TRUE(is_on_disk(10, 9, 1));
    EXPECT_FALSE(is_on_disk(10, 9, 2));
    EXPECT_FALSE(is_on_disk(10, 0xFFFFFFFF, 2));
}

}  // namespace
