// SPDX-License-Identifier: MIT
// Runs of sector flags against a bit-by-bit model, and the names of chunks.
#include "driver/block/sector_flags.h"

#include <array>

#include <gtest/gtest.h>

#include "driver/block/chunk_key.h"
#include "machine/scheduler/random.h"

namespace {

struct Flags {
    alignas(4) std::array<UCHAR, 20> bytes{};  // 128 flags, and a word that nobody may touch

    bool at(unsigned i) const { return bytes[i / 8] >> i % 8 & 1; }
    void put(unsigned i, bool set)
    {
        const auto bit = static_cast<UCHAR>(1u << i % 8);
        bytes[i / 8] = static_cast<UCHAR>(set ? bytes[i / 8] | bit : bytes[i / 8] & ~bit);
    }
    LONG run(unsigned start, LONG length, bool set) const
    {
        LONG sectors = 0;
        while (sectors < length / 512 && at(start + static_cast<unsigned>(sectors)) == set)
            ++sectors;
        return sectors * 512;
    }
};

TEST(SectorFlags, Runs_are_measured_set_and_cleared_bit_by_bit)
{
    machine::Random random(7);
    Flags flags;
    for (int round = 0; round < 20000; ++round) {
        const unsigned start = random.below(128);
        const LONG length = static_cast<LONG>(random.below((128 - start) * 512 + 1));
        ASSERT_EQ(SecFlag_Hit_Len(flags.bytes.data(), start, length), flags.run(start, length, true));
        ASSERT_EQ(SecFlag_Miss_Len(flags.bytes.data(), start, length), flags.run(start, length, false));
        const bool set = random.chance(0.5);
        Flags expected = flags;
        for (LONG i = 0; i < length / 512; ++i)
            expected.put(start + static_cast<unsigned>(i), set);
        (set ? SecFlag_Set : SecFlag_Clr)(flags.bytes.data(), start, length);
        ASSERT_EQ(flags.bytes, expected.bytes) << start << " " << length << " " << set;
    }
}

TEST(SectorFlags, Low_ones_counts_from_bit_0)
{
    for (unsigned byte = 0; byte < 256; ++byte) {
        unsigned ones = 0;
        while (ones < 8 && byte >> ones & 1)
            ++ones;
        EXPECT_EQ(Low_Ones(static_cast<UCHAR>(byte)), ones) << byte;
    }
}

TEST(ChunkKey, Names_lun_and_chunk)
{
    EXPECT_EQ(Chunk_Key(2, 0x100000080), 0x42000001u);
    EXPECT_EQ(Chunk_Key(0, 0xFFFFFFFF), 0x01FFFFFFu);
    EXPECT_EQ(Chunk_Key(8, 0x1F00000000), Chunk_Key(0, 0xF00000000)) << "what does not fit is cut off";
}

}  // namespace
