// SPDX-License-Identifier: MIT
// A LUN's queue on the real port driver, over a miniport that holds, answers or fails SRBs as told.
#include "station/lun_device.h"

#include <set>

#include "tests/scsiport/port_test.h"

using namespace station;

namespace {

constexpr std::uint32_t largest_bytes = 4096;
constexpr std::uint32_t disk_sectors = 4096;
constexpr std::uint32_t disk_bytes = disk_sectors * 512;

class Lun : public PortTest {
protected:
    struct Job : Transfer {
        explicit Job(Operation what, std::uint32_t at = 0, std::uint32_t bytes = 0) : buffer(bytes)
        {
            operation = what;
            offset = at;
            length = bytes;
            data = buffer.data();
            done = [](Transfer& transfer) { ++static_cast<Job&>(transfer).ended; };
        }
        std::vector<std::uint8_t> buffer;
        unsigned ended = 0;
    };
    static Job read(std::uint32_t at, std::uint32_t bytes)
    {
        return Job(Transfer::Operation::read, at, bytes);
    }

    Lun() : miniport_of_this_size(miniport) {}

    // Opens a queue to LUN 1 in the booted machine.
    void with_queue(std::function<void(BlockQueue&)> body)
    {
        run([&] {
            LunDevice device(port(), port().luns().at(1), statistics);
            ASSERT_EQ(device.size_bytes(), disk_bytes);
            miniport.seen.clear();
            const auto queue = device.open_queue();
            body(*queue);
        });
    }
    LunStatistics statistics;

private:
    struct Size {
        explicit Size(TestMiniport& miniport)
        {
            miniport.maximum_transfer_bytes = largest_bytes;
            miniport.disks[1].assign(disk_bytes, 0);
        }
    } miniport_of_this_size;
};

}  // namespace

TEST_F(Lun, Transfers_run_side_by_side_and_each_ends_once_with_its_last_piece)
{
    hold_transfers();
    with_queue([&](BlockQueue& queue) {
        std::vector<std::unique_ptr<Job>> jobs;
        for (std::uint32_t i = 0; i < 20; ++i) {
            jobs.push_back(
                std::make_unique<Job>(Transfer::Operation::write, i * 8 * largest_bytes, 3 * largest_bytes));
            queue.submit(*jobs.back());
        }
        EXPECT_EQ(statistics.queue, 20u);
        EXPECT_EQ(miniport.held.size(), 32u) << "SRBs in flight are bounded";
        unsigned rounds = 0;
        while (!miniport.held.empty() && ++rounds < 10)
            let_go();
        for (const auto& job : jobs)
            EXPECT_EQ(job->ended, 1u);
        std::set<unsigned> blocks;
        for (const SCSI_REQUEST_BLOCK& srb : miniport.seen)
            blocks.insert(srb.Cdb[4] << 8 | srb.Cdb[5]);
        EXPECT_EQ(miniport.seen.size(), 60u);
        EXPECT_EQ(blocks.size(), 60u) << "every piece was issued once";
    });
    EXPECT_EQ(statistics.writes, 20u);
    EXPECT_EQ(statistics.queue, 0u);
}

TEST_F(Lun, Zeros_cover_their_range_and_nothing_else_however_large_a_transfer_may_be)
{
    miniport.maximum_transfer_bytes = 256 << 10;
    std::vector<std::uint8_t>& disk = miniport.disks[1];
    disk.assign(disk_bytes, 0xEE);
    with_queue([&](BlockQueue& queue) {
        Job zeros(Transfer::Operation::zero, 512, 0);
        zeros.length = disk_bytes - 1024;
        queue.submit(zeros);
        EXPECT_EQ(zeros.ended, 1u);
        EXPECT_EQ(zeros.error, 0u);
        EXPECT_EQ(std::count(disk.begin(), disk.begin() + 512, 0xEE), 512);
        EXPECT_EQ(std::count(disk.begin() + 512, disk.end() - 512, 0), disk_bytes - 1024);
        EXPECT_EQ(std::count(disk.end() - 512, disk.end(), 0xEE), 512);
    });
    EXPECT_EQ(statistics.sectors_written, disk_sectors - 2u);
}

TEST_F(Lun, Failed_piece_fails_its_transfer_alone_and_issues_no_more_of_it)
{
    hold_transfers();
    with_queue([&](BlockQueue& queue) {
        Job large = read(0, 100 * largest_bytes);
        Job next = read(largest_bytes, largest_bytes);
        queue.submit(large);
        queue.submit(next);
        ASSERT_EQ(miniport.held.size(), 32u);
        held_status = SRB_STATUS_ERROR;
        port().reset_bus();  // all 32, and what follows them meanwhile
        let_go();
        EXPECT_EQ(large.ended, 1u);
        EXPECT_EQ(large.error, 5u);
        EXPECT_EQ(next.ended, 1u);
        EXPECT_EQ(next.error, 0u);
        EXPECT_EQ(miniport.seen.size(), 33u);
    });
    EXPECT_EQ(statistics.errors, 1u);
    EXPECT_EQ(statistics.reads, 1u);
}

TEST_F(Lun, Thousand_transfers_that_fail_at_once_do_not_nest)
{
    // Every submission ends inside the submitting call; each end makes the next one possible.
    std::vector<std::unique_ptr<Job>> jobs;
    with_queue([&](BlockQueue& queue) {
        hold_transfers();
        for (int i = 0; i < 1000; ++i) {
            jobs.push_back(std::make_unique<Job>(read(0, largest_bytes)));
            queue.submit(*jobs.back());
        }
        ASSERT_EQ(miniport.held.size(), 32u);
        miniport.start_io = [this](PSCSI_REQUEST_BLOCK srb) { miniport.complete(srb, SRB_STATUS_ERROR); };
        let_go();
    });
    for (const auto& job : jobs)
        ASSERT_EQ(job->ended, 1u);
    EXPECT_EQ(statistics.errors, 968u);
    EXPECT_EQ(statistics.reads, 32u);
}
