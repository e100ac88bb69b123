// SPDX-License-Identifier: MIT
#include <gtest/gtest.h>

#include <fstream>
#include <stdexcept>

#include "tests/scratch_folder.h"
#include "tests/server/workstation_model.h"

using namespace server_test;
using server::open_file_store;

namespace {

struct File_store : testing::Test {
    File_store() { make(1 << 20); }
    void make(std::uint64_t size) const
    {
        std::ofstream(path).close();
        std::filesystem::resize_file(path, size);
    }
    std::string refusal(bool readonly = false) const
    {
        try {
            open_file_store(path, readonly);
        } catch (const std::exception& error) {
            return error.what();
        }
        return "";
    }
    const ScratchFolder folder;
    std::string path = folder / "disk.img";
};

TEST_F(File_store, Keeps_what_is_written)
{
    Bytes data(16384), read(16384);
    fill(data, 1);
    {
        const auto store = open_file_store(path, false);
        EXPECT_EQ(store->size_bytes(), 1u << 20);
        ASSERT_TRUE(store->write(65536, data));
        EXPECT_TRUE(store->flush());
    }
    const auto store = open_file_store(path, true);
    ASSERT_TRUE(store->read(65536, read));
    EXPECT_EQ(read, data);
    EXPECT_FALSE(store->write(0, data)) << "opened for reading only";
}

// On a file system that tells no holes there must be none.
TEST_F(File_store, Knows_its_holes_as_they_fill)
{
    Bytes data(16384);
    fill(data, 1);
    const auto store = open_file_store(path, false);
    const bool told = store->hole(0, 1 << 20);
    ASSERT_TRUE(store->write(65536, data));
    EXPECT_EQ(store->hole(0, 65536), told);
    EXPECT_FALSE(store->hole(65536 - 512, 1024));
    EXPECT_FALSE(store->hole(65536, 16384));
    EXPECT_FALSE(store->hole(65536 + 15872, 1024));
    EXPECT_EQ(store->hole(131072, 16384), told);
    ASSERT_TRUE(store->write(131072, data));
    EXPECT_FALSE(store->hole(131072, 512));
}

TEST_F(File_store, A_file_that_shrank_fails_instead_of_reading_as_zeros)
{
    const auto store = open_file_store(path, false);
    std::filesystem::resize_file(path, 4096);
    Bytes data(8192);
    EXPECT_FALSE(store->read(0, data));
    EXPECT_FALSE(store->hole(8192, 8192));
}

TEST_F(File_store, Unfit_files_are_refused_with_the_reason)
{
    const std::pair<std::uint64_t, const char*> sizes[] = {
        {0, "is empty"},
        {513, "no multiple of 512"},
        {std::uint64_t{1} << 40, "more sectors than a workstation can address"},
        {(std::uint64_t{1} << 40) - 512, ""}};
    for (const auto& [size, reason] : sizes) {
        make(size);
        EXPECT_NE(refusal().find(reason), std::string::npos) << size;
        EXPECT_EQ(refusal().empty(), *reason == 0) << size;
    }
    path = folder / "";
    EXPECT_NE(refusal(true).find("neither a file nor a block device"), std::string::npos);
}

}  // namespace
