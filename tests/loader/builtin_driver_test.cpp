// SPDX-License-Identifier: MIT
#include <gtest/gtest.h>

#include "machine/loader/driver_image.h"

namespace {

int test_data = 1;
int test_zeroed;

TEST(BuiltinDriver, Every_load_starts_with_the_initial_data_and_leaves_the_programs_own_alone)
{
    for (int load = 1; load <= 3; ++load) {
        const auto driver = machine::driver_named("builtin");
        EXPECT_EQ(driver->name(), "builtin");
        EXPECT_EQ(driver->exported("QRN_Cache_Stats"), nullptr) << "not loaded";
        const machine::DriverImage::Entry entry = driver->load();
        ++test_data;
        ++test_zeroed;
        EXPECT_EQ(entry(nullptr, nullptr), 2000 + 1 + 10 + 100) << "load " << load;
        EXPECT_EQ(entry(nullptr, nullptr), 3000 + 2 + 20) << "load " << load;
        const auto* const exported = static_cast<int*>(driver->exported("QRN_Cache_Stats"));
        ASSERT_TRUE(exported);
        EXPECT_EQ(exported[0], 5);
        EXPECT_EQ(exported[1], 6 + 2) << "load " << load;
        EXPECT_EQ(driver->exported("toy_common"), nullptr);
        EXPECT_EQ(test_data, 1 + load);
        EXPECT_EQ(test_zeroed, load);
    }
}

}  // namespace
