// SPDX-License-Identifier: MIT
#include <gtest/gtest.h>
#include <sys/stat.h>

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

// The system's own answer, not the store's.
std::uint64_t room_of(const std::string& path)
{
    struct stat status {};
    EXPECT_EQ(stat(path.c_str(), &status), 0);
    return static_cast<std::uint64_t>(status.st_blocks) * 512;
}

TEST_F(File_store, Zeros_take_no_room_in_a_file_with_holes_and_keep_it_in_one_without)
{
    Bytes data(65536), zeros(16384), read(65536);
    fill(data, 1);
    {
        const auto store = open_file_store(path, false);
        if (!store->hole(0, 512))
            GTEST_SKIP() << "the file system has no holes";
        ASSERT_TRUE(store->write(0, data));
        EXPECT_FALSE(store->hole(16384, 512));
        const auto full = room_of(path);
        ASSERT_TRUE(store->write(16384, zeros));
        ASSERT_TRUE(store->write(131072, zeros)) << "into a hole";
        EXPECT_LE(room_of(path), full - zeros.size());
        EXPECT_TRUE(store->hole(16384, 16384));
        ASSERT_TRUE(store->write(512, Bytes(512))) << "smaller than any hole";
        ASSERT_TRUE(store->flush());
        std::fill_n(data.begin() + 16384, zeros.size(), std::uint8_t{0});
        std::fill_n(data.begin() + 512, 512, std::uint8_t{0});
        ASSERT_TRUE(store->read(0, read));
        EXPECT_EQ(read, data);
        EXPECT_EQ(store->size_bytes(), std::filesystem::file_size(path));
    }
    make(65536);
    std::ofstream(path, std::ios::binary).write(reinterpret_cast<const char*>(data.data()), 65536);
    const auto store = open_file_store(path, false);
    // What is not on the disk yet may have no room yet.
    ASSERT_TRUE(store->flush());
    const auto full = room_of(path);
    ASSERT_TRUE(store->write(0, zeros));
    ASSERT_TRUE(store->flush());
    EXPECT_EQ(room_of(path), full);
    EXPECT_FALSE(store->hole(0, 512));
}

TEST_F(File_store, Zeros_are_refused_where_nothing_can_be_written)
{
    const Bytes zeros(16384);
    EXPECT_FALSE(open_file_store(path, true)->write(0, zeros)) << "opened for reading only";
    const auto store = open_file_store(path, false);
    std::filesystem::resize_file(path, 4096);
    ASSERT_TRUE(store->write(8192, zeros));
    EXPECT_GE(std::filesystem::file_size(path), 8192u + 16384u) << "told as written, so it must be there";
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
