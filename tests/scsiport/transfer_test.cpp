// SPDX-License-Identifier: MIT
// The class driver's half: lengths and sense data.
#include <algorithm>
#include <numeric>

#include "tests/scsiport/port_test.h"

using namespace machine;

namespace {

using Transfer = PortTest;

TEST_F(Transfer, Long_reads_and_writes_are_split_into_the_largest_transfers)
{
    miniport.maximum_transfer_bytes = 4096;
    run([&] {
        std::vector<std::uint8_t> written(10'240);
        std::iota(written.begin(), written.end(), std::uint8_t{1});
        ASSERT_TRUE(port().write(1, 7, written.data(), 10'240));
        std::vector<std::uint8_t> read(10'240);
        miniport.seen.clear();
        ASSERT_TRUE(port().read(1, 7, read.data(), 10'240));
        EXPECT_EQ(read, written);
        ASSERT_EQ(miniport.seen.size(), 3U);
        const std::array<std::array<unsigned, 3>, 3> expected{{{7, 4096, 8}, {15, 4096, 8}, {23, 2048, 4}}};
        for (std::size_t index = 0; index < 3; ++index) {
            const SCSI_REQUEST_BLOCK& srb = miniport.seen[index];
            EXPECT_EQ(srb.Cdb[5], expected[index][0]);
            EXPECT_EQ(srb.DataTransferLength, expected[index][1]);
            EXPECT_EQ(srb.Cdb[8], expected[index][2]);
        }
        EXPECT_FALSE(port().read(1, 60, read.data(), 10'240)) << "past the end of the disk";

        miniport.seen.clear();
        ScsiRequest request(port());
        for (std::uint8_t* buffer : {read.data(), static_cast<std::uint8_t*>(nullptr)}) {
            request.set_read(0, 0, buffer, buffer ? 4608 : 512);
            port().execute(request);
            EXPECT_EQ(request.srb_status, SRB_STATUS_INVALID_REQUEST) << "one that no adapter could carry";
        }
        EXPECT_TRUE(miniport.seen.empty());
    });
}

// A transfer's own bytes come and go, and none beside them, wherever they lie.
TEST_F(Transfer, Data_of_any_length_and_place_is_copied_both_ways)
{
    run([&] {
        std::vector<std::uint8_t> content(64 * 512);
        std::iota(content.begin(), content.end(), std::uint8_t{7});
        std::vector<std::uint8_t> sent = content;
        for (const std::uint32_t sectors : {1u, 7u, 8u, 9u, 17u, 64u}) {
            const std::uint32_t bytes = sectors * 512;
            std::vector<std::uint8_t> around(bytes + 8, 0xEE);
            std::fill(miniport.disks[0].begin(), miniport.disks[0].end(), std::uint8_t{0});
            ASSERT_TRUE(port().write(0, 0, sent.data(), bytes));
            EXPECT_TRUE(std::equal(sent.begin(), sent.begin() + bytes, miniport.disks[0].begin()));
            EXPECT_EQ(sent, content);
            ASSERT_TRUE(port().read(0, 0, around.data() + 3, bytes));
            EXPECT_TRUE(std::equal(content.begin(), content.begin() + bytes, around.begin() + 3));
            EXPECT_EQ(around[2] + around[bytes + 3], 2 * 0xEE);
        }
        ScsiRequest request(port());
        std::array<std::uint8_t, 512> untouched;
        untouched.fill(0xEE);
        request.set_read(0, 64, untouched.data(), 512);
        port().execute(request);
        EXPECT_FALSE(request.ok()) << "past the end of the disk";
        EXPECT_EQ(std::count(untouched.begin(), untouched.end(), 0xEE), 512);
    });
}

TEST_F(Transfer, Sense_data_comes_back_as_far_as_the_buffer_holds_it)
{
    run([&] {
        const struct {
            std::uint8_t buffer_bytes;
            std::optional<Sense> sense;
        } cases[] = {{18, Sense{5, 0x20, 0}}, {255, Sense{5, 0x20, 0}}, {8, Sense{5, 0, 0}}, {0, {}}};
        for (const auto& expected : cases) {
            ScsiRequest request(port());
            request.cdb = {SCSIOP_MODE_SENSE10};
            request.sense_buffer_bytes = expected.buffer_bytes;
            port().execute(request);
            EXPECT_FALSE(request.ok());
            EXPECT_EQ(request.scsi_status, SCSISTAT_CHECK_CONDITION);
            EXPECT_EQ(request.sense(), expected.sense) << "buffer of " << int{expected.buffer_bytes};
        }
    });
}

}  // namespace
