// SPDX-License-Identifier: MIT
// Where the disks come from: a boot record in low memory, the transport, or a local disk image.
#include <gtest/gtest.h>

#include <cstring>
#include <regex>

#include "formats/image_area.h"
#include "formats/image_descriptor.h"
#include "machine/executive/executive.h"
#include "tests/scenario/rig.h"

namespace scenario {
namespace {

using machine::Operation;

constexpr char transport_ok[] = "\nQRN SCSI: DCIO QRNNDIS OK";
constexpr char no_send[] = "\nQRN SCSI: QRN_Send Is NULL";
constexpr char no_server[] = "\nQRN SCSI: DCIO QRNNDIS: Not Found Server";

// The first message that begins like this; empty when there is none.
machine::DebugLog::Entry message(Rig& rig, const std::string& beginning)
{
    for (const auto& entry : rig.machine.log().entries())
        if (entry.text.rfind(beginning, 0) == 0)
            return entry;
    return {};
}

std::string find_dos(Rig& rig)
{
    return message(rig, "\nQRN_Find_Dos").text;
}
std::string find_image(Rig& rig)
{
    return message(rig, "\nQRN SCSI: Find HDD Image").text;
}

// A message of a search: paragraph, separator, and an address that is null when nothing was found.
testing::AssertionResult tells(const std::string& text, const std::string& paragraph, bool found)
{
    std::regex wanted("\n.*=" + paragraph + ",? " + (found ? "(?!0{8})[0-9A-F]{8}" : "00000000"));
    return std::regex_match(text, wanted) ? testing::AssertionSuccess() : testing::AssertionFailure() << text;
}

template <typename Format>
void leave(Rig& rig, std::uint32_t address, const Format& format)
{
    rig.machine.memory().write(address, {reinterpret_cast<const std::uint8_t*>(&format), sizeof format});
}

Plan plan_of(unsigned disks, Handover handover)
{
    return {.disks = std::vector<DiskPlan>(disks), .handover = handover};
}

TEST(DisksFound, Record_is_searched_by_paragraphs_from_the_end_of_base_memory)
{
    struct Row {
        std::uint16_t base_memory_kb;
        std::uint32_t address;  // of the record
        const char* paragraph;  // at which the search stopped
        bool found;
    };
    const Row rows[] = {{600, 614400, "9600", true},      {600, 614400 + 0x1230, "9723", true},
                        {600, 614400 + 8, "9F4D", false}, {600, 614400 - 16, "9F4D", false},
                        {600, 0x9F4C0, "9F4C", true},     {600, 0x9F4D0, "9F4D", false},
                        {637, 0x9F400, "9F40", true},     {638, 0x9F800, "9F80", false},
                        {640, 0x9F400, "A000", false},    {0, 0x8000, "800", true}};
    for (const Row& row : rows) {
        Plan plan = plan_of(2, Handover::none);
        plan.base_memory_kb = row.base_memory_kb;
        Rig rig(plan);
        leave(rig, row.address, formats::boot_record(boot_block(plan)));
        rig.run([&] { EXPECT_EQ(rig.scsi().luns().size(), row.found ? 2u : 0u); });
        EXPECT_TRUE(tells(find_dos(rig), row.paragraph, row.found)) << row.address;
    }
}

TEST(DisksFound, Malformed_records_are_skipped)
{
    void (*const spoil[])(formats::BootRecord&) = {
        [](formats::BootRecord& record) { record.Signature[8] = 'Q'; },
        [](formats::BootRecord& record) { record.Signature[0] = 'k'; },
        [](formats::BootRecord& record) { record.Bound.set(257); },
        [](formats::BootRecord& record) { record.Bound.set(0xFFFF); },
        [](formats::BootRecord& record) { record.Kind.set(21); },
        [](formats::BootRecord& record) { record.Kind.set(23); }};
    Rig rig(plan_of(1, Handover::none));
    std::uint32_t address = 614400;
    for (auto spoiled : spoil) {
        formats::BootRecord record = formats::boot_record(boot_block(plan_of(3, Handover::none)));
        spoiled(record);
        leave(rig, address, record);
        address += sizeof record;
    }
    formats::BootRecord good = formats::boot_record(boot_block(rig.plan));
    good.Bound.set(0);
    leave(rig, address, good);
    leave(rig, address + sizeof good, formats::boot_record(boot_block(plan_of(2, Handover::none))));
    rig.run([&] {
        EXPECT_EQ(rig.scsi().luns().size(), 1u);
        Bytes data(512);
        EXPECT_TRUE(rig.read(0, 0, data));
    });
    EXPECT_TRUE(tells(find_dos(rig), "9690", true));
}

TEST(DisksFound, Low_memory_that_cannot_be_mapped_leaves_the_transport_as_source)
{
    Rig rig(plan_of(1, Handover::transport));
    leave(rig, 614400, formats::boot_record(boot_block(plan_of(3, Handover::none))));
    rig.machine.faults().fail(Operation::map_io_space);
    rig.run([&] { EXPECT_EQ(rig.scsi().luns().size(), 1u); });
    EXPECT_TRUE(tells(find_dos(rig), "0", false));
    EXPECT_EQ(rig.machine.memory().windows(), 0u);
}

TEST(DisksFound, Record_makes_its_flags_and_the_transports_count_together)
{
    Plan plan = plan_of(1, Handover::low_memory);
    plan.boot_flags = formats::boot_flag_tag_slot;
    Rig rig(plan);
    formats::Boot_Param& block = rig.machine.transport()->block();
    block.Boot_Flags = formats::boot_flag_no_image_sync;
    block.Disk_Nums = formats::disk_nums_searching;  // which nobody waits for
    rig.run([&] { EXPECT_EQ(rig.now_ms(), 0); });
    EXPECT_EQ(rig.printed("\nQRN SCSI: 00 14 Disk:1 1"), 1u);
    EXPECT_EQ(rig.printed(transport_ok), 1u);
    EXPECT_EQ(rig.machine.transport()->no_server_notices(), 0u);
}

TEST(DisksFound, Transport_is_asked_once_with_the_whole_block_and_the_records_own_rack_level)
{
    Rig rig(plan_of(2, Handover::none));
    formats::Boot_Param block = boot_block(rig.plan);
    formats::BootRecord record = formats::boot_record(block);
    record.Rack_Level.set(0x0701);
    leave(rig, 614400, record);
    rig.run([] {});
    block.Rack_Level.set(0x0701);
    EXPECT_EQ(rig.machine.transport()->handshakes(), 1u);
    EXPECT_EQ(std::memcmp(&rig.machine.transport()->received_block(), &block, sizeof block), 0);
}

TEST(DisksFound, Transport_is_polled_in_steps_of_50_ms_without_bound)
{
    const std::pair<int, int> rows[] = {{0, 0}, {1, 50}, {49, 50}, {51, 100}, {120, 150}, {3600010, 3600050}};
    for (auto [ready_ms, taken_ms] : rows) {
        Plan plan = plan_of(2, Handover::transport);
        plan.boot_flags = 0x24;
        Rig rig(plan);
        formats::Boot_Param& block = rig.machine.transport()->block();
        if (ready_ms != 0) {
            block.Disk_Nums = formats::disk_nums_searching;
            rig.machine.scheduler().call_at(ready_ms * machine::ticks_per_ms, [&] { block.Disk_Nums = 2; });
        }
        rig.run([&] {
            EXPECT_EQ(rig.scsi().luns().size(), 2u);
            Bytes data(8192);
            EXPECT_TRUE(rig.read(1, 0, data));
        });
        EXPECT_EQ(message(rig, transport_ok).time, taken_ms * machine::ticks_per_ms);
        EXPECT_EQ(rig.printed("\nQRN SCSI: 00 24 Disk:2 2"), 1u) << "taken whole";
        EXPECT_TRUE(tells(find_dos(rig), "9F4D", false));
    }
}

TEST(DisksFound, Transport_without_a_server_is_told_so)
{
    const std::tuple<int, int, int> rows[] = {{0, 100, 100}, {30, 80, 110}};
    for (auto [pending_ms, message_ms, end_ms] : rows) {
        Rig rig(plan_of(0, Handover::none));
        rig.machine.transport()->set_pending_ms(pending_ms);
        formats::Boot_Param& block = rig.machine.transport()->block();
        block.Disk_Nums = formats::disk_nums_searching;
        rig.machine.scheduler().call_at(75 * machine::ticks_per_ms, [&] { block.Disk_Nums = 0; });
        rig.run([&] {
            EXPECT_EQ(rig.now_ms(), end_ms);
            rig.machine.sleep_ms(100);
            EXPECT_TRUE(rig.scsi().adapter_started());
            EXPECT_TRUE(rig.scsi().luns().empty());
        });
        EXPECT_EQ(rig.printed(no_server), 1u);
        EXPECT_EQ(message(rig, no_server).time, message_ms * machine::ticks_per_ms);
        EXPECT_EQ(rig.machine.transport()->no_server_notices(), 1u);
        EXPECT_EQ(rig.printed("\nQRN SCSI: 00 00 Disk:0 0"), 1u);
        EXPECT_TRUE(tells(find_image(rig), "9F4D", false));
        EXPECT_FALSE(rig.logged("WaitEvent OK"));
    }
}

TEST(DisksFound, Missing_transport_leaves_only_the_disks_that_are_no_LUNs)
{
    void (*const spoil[])(Rig&) = {
        nullptr,  // no device at all
        [](Rig& rig) { rig.machine.transport()->set_without_entries(true); },
        [](Rig& rig) { rig.machine.faults().fail(Operation::device_open, "\\Device\\QRNNDIS"); },
        [](Rig& rig) { rig.machine.faults().fail(Operation::irp_allocate, "IoBuildDeviceIoControlRequest"); },
        [](Rig& rig) { rig.machine.faults().fail(Operation::ioctl); }};
    for (auto spoiled : spoil) {
        SCOPED_TRACE(&spoiled - spoil);
        Plan plan = plan_of(3, Handover::low_memory);
        plan.transport = spoiled != nullptr;
        plan.adjust_block = [](formats::Boot_Param& block) { block.Lun_Nums = 2; };
        Rig rig(plan);
        if (spoiled)
            spoiled(rig);
        rig.run([&] {
            rig.machine.sleep_ms(3000);
            EXPECT_TRUE(rig.scsi().adapter_started());
            EXPECT_TRUE(rig.scsi().luns().empty());
            machine::ScsiRequest request(rig.scsi());
            rig.execute(request);
            EXPECT_EQ(SRB_STATUS(request.srb_status), SRB_STATUS_INVALID_LUN);
        });
        EXPECT_EQ(rig.printed(no_send), 1u);
        EXPECT_EQ(rig.printed(transport_ok), 0u);
        EXPECT_EQ(rig.printed("\nQRN SCSI: 00 00 Disk:0 1"), 1u);
        EXPECT_EQ(find_image(rig), "");
        EXPECT_FALSE(rig.logged("WaitEvent OK"));
        EXPECT_EQ(rig.scsi().bus_changes(), 0u);
    }
}

formats::ImageDescriptor descriptor(unsigned displacement)
{
    formats::ImageDescriptor made{0xE9, {}, 0x90, {'Q', 'R', 'N', 'H'}, {}};
    made.Displacement.set(static_cast<std::uint16_t>(displacement));
    made.Kind.set(0x1044);
    return made;
}

void leave_image(Rig& rig, std::uint32_t address, unsigned displacement)
{
    leave(rig, address, descriptor(displacement));
    formats::PartitionSector sector{};
    sector.Partition[0].Start.set(63);
    sector.Partition[0].Count.set(204800);
    leave(rig, address + 3 + displacement, sector);
}

TEST(DisksFound, Image_becomes_LUN_0_when_there_is_no_other_source)
{
    for (bool transport : {false, true}) {
        Plan plan = plan_of(0, Handover::none);
        plan.transport = transport;
        Rig rig(plan);
        leave_image(rig, 614400 + 0x100, 0x80);
        rig.run([&] {
            rig.machine.sleep_ms(1);
            ASSERT_EQ(rig.scsi().luns().size(), 1u);
            EXPECT_EQ(rig.scsi().luns()[0].sectors, 204864u);
            EXPECT_TRUE(machine::executive().names.link_target(u"\\ArcName\\multi(0)disk(0)rdisk(0)"));
        });
        EXPECT_EQ(rig.printed(no_server), transport ? 1u : 0u);
        EXPECT_EQ(rig.printed("\nQRN SCSI: 07 01 VDD Size: 32040"), 1u);
        EXPECT_TRUE(tells(find_image(rig), "9610", true));
        EXPECT_EQ(rig.printed("\nQRN SCSI: 07 00 Disk:1 1"), 1u);
        EXPECT_EQ(rig.printed("\nQRN SCSI: Lun:0 32040(100M) Local:24 -1"), 1u);
        EXPECT_EQ(rig.printed("\nQRN SCSI: QRN_Recv_Thread WaitEvent OK"), 1u);
    }
}

TEST(DisksFound, Image_beside_LUNs_changes_no_disk)
{
    Plan plan = plan_of(2, Handover::low_memory);
    plan.boot_mode = formats::boot_mode_local_image;
    Rig rig(plan);
    leave_image(rig, 614400 + 0x200, 0x80);
    rig.run([&] {
        ASSERT_EQ(rig.scsi().luns().size(), 2u);
        EXPECT_EQ(rig.scsi().luns()[0].sectors, 2048u);
    });
    EXPECT_EQ(rig.printed("\nQRN SCSI: 07 02 VDD Size: 800"), 1u);
    EXPECT_TRUE(tells(find_image(rig), "9620", true));
    EXPECT_EQ(rig.printed("\nQRN SCSI: 07 00 Disk:2 2"), 1u);
}

TEST(DisksFound, Image_sector_is_read_only_from_within_low_memory)
{
    // Displacement that puts the sector's end exactly at 640 KB.
    constexpr unsigned last = 0xA0000 - 512 - 3 - 0x9F4C0;
    for (auto [displacement, sectors] : {std::pair{last, 204864u}, {last + 1, 1u}, {0xFFFFu, 1u}}) {
        Rig rig(plan_of(0, Handover::none));
        leave_image(rig, 0x9F4C0, last);
        leave(rig, 0x9F4C0, descriptor(displacement));
        rig.run([&] {
            ASSERT_EQ(rig.scsi().luns().size(), 1u);
            EXPECT_EQ(rig.scsi().luns()[0].sectors, sectors);
        });
        EXPECT_TRUE(tells(find_image(rig), "9F4C", true));
    }
}

TEST(DisksFound, Descriptor_with_another_mark_or_kind_is_skipped)
{
    Rig rig(plan_of(0, Handover::none));
    formats::ImageDescriptor other_mark = descriptor(0), other_kind = descriptor(0);
    other_mark.Mark[3] = 'h';
    other_kind.Kind.set(0x11044);
    leave(rig, 614400, other_mark);
    leave(rig, 614400 + 16, other_kind);
    leave_image(rig, 614400 + 32, 0x40);
    rig.run([&] { EXPECT_EQ(rig.scsi().luns().size(), 1u); });
    EXPECT_TRUE(tells(find_image(rig), "9602", true));
}

TEST(DisksFound, Image_is_left_alone_without_pool_or_mapping)
{
    struct Row {
        Operation operation;
        unsigned skip;
        const char* paragraph;
    };
    for (const Row& row : {Row{Operation::pool_allocate, 0, "9600"}, Row{Operation::map_io_space, 1, "0"}}) {
        Rig rig(plan_of(0, Handover::none));
        leave_image(rig, 614400, 0x80);
        rig.machine.faults().fail(row.operation, {}, row.skip);
        rig.run([&] { EXPECT_TRUE(rig.scsi().luns().empty()); });
        EXPECT_TRUE(tells(find_image(rig), row.paragraph, false));
        EXPECT_FALSE(rig.logged("VDD Size"));
        EXPECT_EQ(rig.printed("\nQRN SCSI: 00 00 Disk:0 0"), 1u);
        EXPECT_FALSE(rig.logged("WaitEvent OK"));
    }
}

}  // namespace
}  // namespace scenario
