// SPDX-License-Identifier: MIT
// Execution of SRBs: the command set, sense data, address checks, and the delay-load rule.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <set>

#include "tests/scenario/rig.h"

namespace scenario {
namespace {

using machine::Sense;

constexpr Sense bad_command{0x05, 0x20, 0x00};
constexpr Sense bad_field{0x05, 0x24, 0x00};
constexpr Sense out_of_range{0x05, 0x21, 0x00};
constexpr Sense no_medium{0x02, 0x3A, 0x00};
constexpr char delay_over[] = "\nQRN SCSI: BusChangeDetected For Delay Load\n";

struct Answer {
    std::uint8_t srb_status;
    std::uint8_t scsi_status;
    std::uint32_t transferred;
    std::optional<Sense> sense;
    Bytes data;
    Bytes sense_data;
    bool failed_with(Sense expected) const
    {
        return srb_status == (SRB_STATUS_ERROR | SRB_STATUS_AUTOSENSE_VALID) &&
               scsi_status == SCSISTAT_CHECK_CONDITION && transferred == 0 && sense == expected;
    }
    bool succeeded(std::uint32_t bytes) const
    {
        return srb_status == SRB_STATUS_SUCCESS && scsi_status == SCSISTAT_GOOD && transferred == bytes &&
               !sense;
    }
};

using Codes = std::initializer_list<std::uint8_t>;

constexpr std::uint8_t untouched = 0xEE;

// A command with a buffer of so many bytes, and sense data of so many.
Answer command(Rig& rig, std::vector<std::uint8_t> cdb, std::size_t bytes = 0, unsigned lun = 0,
               std::uint8_t sense_bytes = 18)
{
    machine::ScsiRequest request(rig.scsi());
    const ULONG direction = cdb[0] == 0x2A ? SRB_FLAGS_DATA_OUT : SRB_FLAGS_DATA_IN;
    Bytes data(bytes, untouched);
    request.lun = static_cast<std::uint8_t>(lun);
    std::copy(cdb.begin(), cdb.end(), request.cdb.begin());
    request.cdb_bytes = static_cast<std::uint8_t>(cdb.size() <= 6 ? 6 : cdb.size() <= 10 ? 10 : 16);
    request.data = bytes ? data.data() : nullptr;
    request.data_bytes = static_cast<std::uint32_t>(bytes);
    request.srb_flags = (bytes ? direction : 0u) | SRB_FLAGS_NO_QUEUE_FREEZE;
    request.sense_buffer_bytes = sense_bytes;
    rig.execute(request);
    return {request.srb_status,
            request.scsi_status,
            request.transferred,
            request.sense(),
            data,
            Bytes(request.sense_data.begin(), request.sense_data.end())};
}

// READ(10) or WRITE(10) of so many bytes, whatever its own transfer length says.
Answer transfer(Rig& rig, std::uint8_t code, std::uint32_t lba, std::size_t bytes, unsigned lun = 0,
                std::uint8_t blocks = 0)
{
    auto byte = [lba](unsigned shift) { return static_cast<std::uint8_t>(lba >> shift); };
    return command(rig, {code, 0, byte(24), byte(16), byte(8), byte(0), 0, 0, blocks, 0}, bytes, lun);
}

TEST(ScsiCommands, Every_operation_code_succeeds_answers_or_is_refused)
{
    const std::set<unsigned> accepted = {0x00, 0x04, 0x12, 0x1A, 0x1B, 0x1D, 0x25, 0x2B, 0x2F, 0x35};
    Rig rig;
    rig.run([&] {
        for (unsigned code = 0; code < 256; ++code) {
            if (code == 0x28 || code == 0x2A)
                continue;
            // Byte 2 asks MODE SENSE for all pages.
            Answer answer = command(rig, {static_cast<std::uint8_t>(code), 0, 0x3F, 0, 8, 0, 0, 0, 8, 0}, 8);
            EXPECT_TRUE(accepted.contains(code) ? answer.succeeded(8) : answer.failed_with(bad_command))
                << std::hex << code;
            bool answers = code == 0x12 || code == 0x1A || code == 0x25;
            EXPECT_NE(answer.data == Bytes(8, untouched), answers) << std::hex << code;
        }
    });
    EXPECT_TRUE(rig.packets().empty());
}

TEST(ScsiCommands, Sense_data_is_cut_to_the_senders_buffer)
{
    const Bytes full = {0x70, 0, 0x05, 0, 0, 0, 0, 10, 0, 0, 0, 0, 0x20, 0, 0, 0, 0, 0};
    Rig rig;
    rig.run([&] {
        for (std::uint8_t room : Codes{0, 1, 3, 8, 13, 17, 18, 19, 255}) {
            Answer answer = command(rig, {0x03}, 0, 0, room);
            EXPECT_EQ(answer.srb_status, SRB_STATUS_ERROR | SRB_STATUS_AUTOSENSE_VALID) << int{room};
            EXPECT_EQ(answer.scsi_status, SCSISTAT_CHECK_CONDITION);
            Bytes expected = full;
            expected.resize(std::min<std::size_t>(room, full.size()));
            expected.resize(answer.sense_data.size());
            EXPECT_EQ(answer.sense_data, expected) << int{room};
        }
    });
}

TEST(ScsiCommands, Inquiry_names_the_disk_and_its_LUN)
{
    Rig rig({.disks = std::vector<DiskPlan>(4)});
    rig.run([&] {
        for (unsigned lun = 0; lun < 4; ++lun) {
            Bytes expected = {0, 0, 2, 2, 0, 0, 0, 0x53};
            const std::string text = "QRN.DiskmSCSI MiniPorts 000" + std::to_string(lun + 1);
            expected.insert(expected.end(), text.begin(), text.end());
            ASSERT_EQ(expected.size(), 36u);
            for (std::size_t room : {0, 1, 5, 35, 36, 37, 255}) {
                Answer answer = command(rig, {0x12, 0, 0, 0, static_cast<std::uint8_t>(room), 0}, room, lun);
                EXPECT_TRUE(answer.succeeded(static_cast<std::uint32_t>(room)));
                Bytes wanted = expected;
                wanted.resize(room, untouched);
                EXPECT_EQ(answer.data, wanted) << lun << " " << room;
            }
        }
        EXPECT_TRUE(command(rig, {0x12, 1, 0, 0, 36, 0}, 36).failed_with(bad_field));
        EXPECT_TRUE(command(rig, {0x12, 0xFE, 0x80, 0, 36, 0}, 36).succeeded(36));
    });
}

TEST(ScsiCommands, Mode_sense_knows_all_pages_together_and_none_alone)
{
    Rig rig;
    rig.run([&] {
        for (std::uint8_t page : Codes{0x3F, 0x7F, 0xBF, 0xFF}) {
            Answer answer = command(rig, {0x1A, 0, page, 0, 192, 0}, 192);
            EXPECT_TRUE(answer.succeeded(192));
            Bytes expected = {3, 0, 0, 0};
            expected.resize(192, untouched);
            EXPECT_EQ(answer.data, expected);
        }
        EXPECT_EQ(command(rig, {0x1A, 0, 0x3F, 0, 2, 0}, 2).data, (Bytes{3, 0}));
        for (std::uint8_t page : Codes{0x08, 0x00, 0x3E, 0x1C, 0xC0})
            EXPECT_TRUE(command(rig, {0x1A, 0, page, 0, 192, 0}, 192).failed_with(bad_field)) << int{page};
    });
}

Answer capacity(Rig& rig, unsigned lun, std::size_t bytes = 8)
{
    return command(rig, {0x25, 0, 0, 0, 0, 0, 0, 0, 0, 0}, bytes, lun);
}

TEST(ScsiCommands, Capacity_is_the_last_block_and_the_block_size)
{
    Rig rig({.disks = {{.sectors = 4096}, {.sectors = 1}, {.sectors = 0}, {.sectors = 2048}},
             .adjust_block = [](formats::Boot_Param& block) { block.Disks[3].Disk_Secs.set(0xFFFFFFFF); }});
    rig.run([&] {
        EXPECT_EQ(capacity(rig, 0).data, (Bytes{0, 0, 0x0F, 0xFF, 0, 0, 2, 0}));
        EXPECT_EQ(capacity(rig, 1).data, (Bytes{0, 0, 0, 0, 0, 0, 2, 0}));
        EXPECT_EQ(capacity(rig, 3, 10).data,
                  (Bytes{0xFF, 0xFF, 0xFF, 0xFE, 0, 0, 2, 0, untouched, untouched}));
        EXPECT_EQ(capacity(rig, 0, 3).data, (Bytes{0, 0, 0x0F}));
        EXPECT_TRUE(capacity(rig, 2).failed_with(no_medium));
    });
}

TEST(ScsiCommands, Address_is_checked_in_the_order_path_target_LUN)
{
    struct Row {
        std::uint8_t path, target, lun, status;
    };
    Rig rig({.disks = std::vector<DiskPlan>(2)});
    rig.run([&] {
        for (const Row& row :
             {Row{1, 1, 9, SRB_STATUS_INVALID_PATH_ID}, Row{255, 0, 0, SRB_STATUS_INVALID_PATH_ID},
              Row{0, 1, 9, SRB_STATUS_INVALID_TARGET_ID}, Row{0, 0, 2, SRB_STATUS_INVALID_LUN},
              Row{0, 0, 4, SRB_STATUS_INVALID_LUN}, Row{0, 0, 255, SRB_STATUS_INVALID_LUN},
              Row{0, 0, 1, SRB_STATUS_SUCCESS}}) {
            for (std::uint8_t code : Codes{0x00, 0x03, 0x28}) {
                if (row.status == SRB_STATUS_SUCCESS && code == 0x03)
                    continue;
                machine::ScsiRequest request(rig.scsi());
                request.path = row.path, request.target = row.target, request.lun = row.lun;
                request.cdb[0] = code;
                request.sense_buffer_bytes = 18;
                rig.execute(request);
                EXPECT_EQ(SRB_STATUS(request.srb_status), row.status) << int{row.lun};
                EXPECT_FALSE(request.sense());
                EXPECT_EQ(request.scsi_status, SCSISTAT_GOOD);
            }
        }
    });
}

TEST(ScsiCommands, LUNs_above_four_are_invalid_whatever_the_block_claims)
{
    Rig rig({.disks = std::vector<DiskPlan>(4),
             .adjust_block = [](formats::Boot_Param& block) { block.Lun_Nums = block.Disk_Nums = 200; }});
    rig.run([&] {
        EXPECT_EQ(rig.scsi().luns().size(), 4u);
        EXPECT_EQ(SRB_STATUS(command(rig, {0x00}, 0, 4).srb_status), SRB_STATUS_INVALID_LUN);
        EXPECT_EQ(SRB_STATUS(transfer(rig, 0x28, 0, 512, 199).srb_status), SRB_STATUS_INVALID_LUN);
    });
}

TEST(ScsiCommands, Only_known_functions_are_accepted)
{
    Rig rig;
    rig.run([&] {
        for (unsigned function = 1; function < 0x30; ++function) {
            if (function == SRB_FUNCTION_RELEASE_QUEUE || function == SRB_FUNCTION_SHUTDOWN)
                continue;  // the port driver's own, and one that ends the system
            machine::ScsiRequest request(rig.scsi());
            request.function = static_cast<std::uint8_t>(function);
            rig.execute(request);
            bool known = function == SRB_FUNCTION_FLUSH || function == SRB_FUNCTION_RESET_BUS;
            EXPECT_EQ(SRB_STATUS(request.srb_status), known ? SRB_STATUS_SUCCESS : SRB_STATUS_BAD_FUNCTION)
                << function;
        }
    });
}

TEST(ScsiCommands, Transfers_are_checked_against_the_end_of_the_disk)
{
    struct Row {
        std::optional<Sense> sense;
        std::vector<std::pair<std::uint32_t, std::uint32_t>> ranges;  // block, bytes
    };
    const Row rows[] = {
        {{}, {{0, 512}, {2040, 4096}, {2047, 512}, {1920, 65536}, {0, 0}, {2048, 0}}},
        {out_of_range, {{2041, 4096}, {2048, 512}, {2049, 0}, {1921, 65536}, {~0u, 512}, {~0u, 0}}},
        {out_of_range, {{0xFFFFFFF8, 4096}, {0xFFFFFFF8, 65536}, {0x80000000, 512}, {2048, 513}}},
        {bad_field, {{0, 1}, {0, 513}, {2047, 1023}, {2048, 511}}}};
    // On the second disk, where a request that should not have been sent ends after a minute.
    Rig rig({.disks = std::vector<DiskPlan>(2)});
    rig.run([&] {
        for (const Row& row : rows)
            for (auto [lba, bytes] : row.ranges)
                for (std::uint8_t code : Codes{0x28, 0x2A}) {
                    rig.forget_packets();
                    Answer answer = transfer(rig, code, lba, bytes, 1, 0x7F);
                    SCOPED_TRACE(testing::Message() << lba << " " << bytes << " " << int{code});
                    EXPECT_TRUE(row.sense ? answer.failed_with(*row.sense) : answer.succeeded(bytes));
                    EXPECT_TRUE(!row.sense || answer.data == Bytes(bytes, untouched));
                    EXPECT_EQ(rig.packets().empty(), row.sense || bytes == 0);
                }
    });
}

TEST(ScsiCommands, Empty_transfer_is_all_that_an_absent_disk_completes)
{
    Rig rig({.disks = {{}, {.sectors = 0}}});
    rig.run([&] {
        for (std::uint8_t code : Codes{0x28, 0x2A}) {
            EXPECT_TRUE(transfer(rig, code, 0, 0, 1).succeeded(0));
            EXPECT_TRUE(transfer(rig, code, 1, 0, 1).failed_with(out_of_range));
            EXPECT_TRUE(transfer(rig, code, 0, 512, 1).failed_with(out_of_range));
            EXPECT_TRUE(transfer(rig, code, 0, 511, 1).failed_with(bad_field));
        }
        EXPECT_TRUE(command(rig, {0x00}, 0, 1).succeeded(0));
        EXPECT_TRUE(rig.packets().empty());
        EXPECT_TRUE(transfer(rig, 0x28, 0, 512, 0).succeeded(512));
    });
}

TEST(ScsiCommands, Delay_load_disks_wait_for_the_first_64_KB_write_to_LUN_0)
{
    Rig rig({.disks = {{.flags = 0x44}, {.flags = 0x44}, {.flags = 0x04}}});
    rig.run([&] {
        auto held_back = [&] {
            EXPECT_TRUE(transfer(rig, 0x28, 0, 4096, 1).failed_with(out_of_range));
            EXPECT_TRUE(transfer(rig, 0x2A, 0, 4096, 1).failed_with(out_of_range));
            EXPECT_TRUE(transfer(rig, 0x28, 0, 0, 1).failed_with(out_of_range));
        };
        held_back();
        EXPECT_TRUE(command(rig, {0x12, 0, 0, 0, 36, 0}, 36, 1).succeeded(36));
        EXPECT_TRUE(capacity(rig, 1).succeeded(8));
        EXPECT_TRUE(transfer(rig, 0x28, 0, 4096, 2).succeeded(4096));
        // None of these is the write that is waited for.
        EXPECT_TRUE(transfer(rig, 0x2A, 0, 4096).succeeded(4096));
        EXPECT_TRUE(transfer(rig, 0x2A, 0, 65024).succeeded(65024));
        EXPECT_TRUE(transfer(rig, 0x28, 0, 65536).succeeded(65536));
        EXPECT_TRUE(transfer(rig, 0x2A, 0, 65536, 2).succeeded(65536));
        EXPECT_TRUE(transfer(rig, 0x2A, 1921, 65536).failed_with(out_of_range));
        EXPECT_TRUE(transfer(rig, 0x2A, 0, 65536, 1).failed_with(out_of_range));
        held_back();
        EXPECT_EQ(rig.printed(delay_over), 0u);
        EXPECT_EQ(rig.scsi().scans(), 1u);

        EXPECT_TRUE(transfer(rig, 0x2A, 128, 65536).succeeded(65536));
        rig.machine.sleep_ms(10);
        EXPECT_EQ(rig.printed(delay_over), 1u);
        EXPECT_EQ(rig.scsi().bus_changes(), 1u);
        EXPECT_EQ(rig.scsi().scans(), 2u);
        EXPECT_TRUE(transfer(rig, 0x28, 0, 4096, 1).succeeded(4096));
        EXPECT_TRUE(transfer(rig, 0x2A, 0, 65536, 1).succeeded(65536));
        EXPECT_TRUE(transfer(rig, 0x2A, 0, 65536).succeeded(65536));
    });
    EXPECT_EQ(rig.printed(delay_over), 1u);
    EXPECT_EQ(rig.scsi().bus_changes(), 1u);
}

}  // namespace
}  // namespace scenario
