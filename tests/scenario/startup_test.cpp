// SPDX-License-Identifier: MIT
// The order of the start, boot modes, and the driver's workers.
#include <gtest/gtest.h>

#include "machine/executive/executive.h"
#include "tests/scenario/rig.h"

namespace scenario {
namespace {

constexpr char boot_callback[] = "\nQRN SCSI: Driver Bootinit CallBack";
constexpr char hdd_boot_change[] = "\nQRN SCSI: BusChangeDetected For HDD Boot";
constexpr char workers_error[] = "\nQRN SCSI: pRW_List Init Error!";
constexpr char arc_disk[] = "\\ArcName\\multi(0)disk(0)rdisk(0)";

std::optional<std::u16string> link_target(const std::string& name)
{
    return machine::executive().names.link_target({name.begin(), name.end()});
}

void count_scans(Rig& rig, std::vector<std::size_t>& luns_found)
{
    rig.scsi().set_scan_listener([&] { luns_found.push_back(rig.scsi().luns().size()); });
}

// The workers with these indices, from 0, told that they were created, and no others.
void expect_workers(Rig& rig, unsigned count)
{
    for (unsigned index = 0; index < count; ++index)
        EXPECT_EQ(rig.printed("\nQRN SCSI: QRN_RW_Thread " + std::to_string(index) + " Created"), 1u);
    EXPECT_EQ(rig.log_count("QRN_RW_Thread"), count);
}

TEST(Startup, Load_mark_refuses_the_load_before_anything_else_happens)
{
    Rig rig(
        {.adjust_block = [](formats::Boot_Param& block) { block.Load_Mark.set(formats::load_mark_refuse); }});
    rig.run_bare([&] { EXPECT_EQ(static_cast<ULONG>(rig.boot()), 0xC0000001u); });
    EXPECT_EQ(rig.machine.log().entries().size(), 2u) << rig.machine.log().text();
    EXPECT_EQ(rig.machine.transport()->handshakes(), 0u);
    EXPECT_EQ(rig.machine.pool_bytes(), 0u);
    EXPECT_FALSE(rig.scsi().adapter_started());
}

TEST(Startup, Load_mark_counts_only_when_it_is_complete_and_comes_from_low_memory)
{
    auto mark = [](std::uint32_t value) {
        return [value](formats::Boot_Param& block) { block.Load_Mark.set(value); };
    };
    for (Plan plan :
         {Plan{.adjust_block = mark(0x00FF00FE)}, Plan{.adjust_block = mark(0xFFFF00FF)},
          Plan{.handover = Handover::transport, .adjust_block = mark(formats::load_mark_refuse)}}) {
        Rig rig(plan);
        rig.run([&] { EXPECT_TRUE(rig.scsi().adapter_started()); });
    }
}

TEST(Startup, Boot_mode_decides_on_image_search_first_scan_callback_and_links)
{
    struct Row {
        std::uint32_t mode;
        unsigned disks;  // all of them presented
        bool transport, searches_image;
        std::size_t luns_at_first;
        bool calls_back;  // and makes no links
    };
    for (const Row& row :
         {Row{0, 2, true, false, 2, false}, Row{0, 4, true, false, 4, false},
          Row{0, 2, false, true, 0, false}, Row{7, 2, true, true, 2, false}, Row{7, 1, false, true, 0, false},
          Row{3, 2, true, false, 0, true}, Row{3, 2, false, true, 0, true},
          Row{0x107, 1, true, false, 0, true}, Row{0x700, 4, true, false, 0, true}}) {
        SCOPED_TRACE(testing::Message() << "mode " << row.mode << " transport " << row.transport);
        Rig rig(
            {.disks = std::vector<DiskPlan>(row.disks), .boot_mode = row.mode, .transport = row.transport});
        std::vector<std::size_t> luns_found;
        count_scans(rig, luns_found);
        rig.run([&] { rig.machine.sleep_ms(1500); });
        EXPECT_EQ(rig.logged("Find HDD Image"), row.searches_image);
        ASSERT_FALSE(luns_found.empty());
        EXPECT_EQ(luns_found.front(), row.luns_at_first);
        EXPECT_EQ(rig.printed(boot_callback), row.calls_back ? 1u : 0u);
        EXPECT_EQ(rig.scsi().bus_changes(), row.calls_back && row.transport ? 1u : 0u);
        EXPECT_EQ(rig.scsi().luns().size(), row.transport ? row.disks : 0u);
        const std::string partition = std::string(arc_disk) + "partition(1)";
        if (row.calls_back) {
            EXPECT_FALSE(link_target(arc_disk) || link_target(partition));
        } else {
            EXPECT_EQ(link_target(arc_disk), u"\\Device\\Harddisk0\\Partition0");
            EXPECT_EQ(link_target(partition), u"\\Device\\Harddisk0\\Partition1");
        }
    }
}

TEST(Startup, Disks_of_other_boot_modes_appear_by_one_bus_change_a_second_after_the_search)
{
    Rig rig({.disks = std::vector<DiskPlan>(3),
             .boot_mode = 3,
             .adjust_block = [](formats::Boot_Param& block) { block.Local_Nums = 1; }});
    std::vector<std::size_t> luns_found;
    count_scans(rig, luns_found);
    rig.run([&] {
        EXPECT_EQ(rig.scsi().bus_changes(), 0u);
        rig.machine.sleep_ms(999);
        EXPECT_EQ(luns_found, (std::vector<std::size_t>{0}));
        rig.machine.sleep_ms(2);
        EXPECT_EQ(luns_found, (std::vector<std::size_t>{0, 2}));
        rig.machine.sleep_ms(10000);
        Bytes data(512);
        EXPECT_TRUE(rig.read(1, 5, data));
    });
    EXPECT_EQ(rig.scsi().bus_changes(), 1u);
    EXPECT_EQ(rig.printed(hdd_boot_change), 1u);
    EXPECT_EQ(luns_found.size(), 2u);
}

// The counts are 8-bit but compared as signed numbers.
TEST(Startup, More_local_disks_than_disks_never_make_a_bus_change)
{
    Rig rig({.boot_mode = 3, .adjust_block = [](formats::Boot_Param& block) { block.Local_Nums = 2; }});
    rig.run([&] { rig.machine.sleep_ms(20000); });
    EXPECT_EQ(rig.printed(boot_callback), 1u);
    EXPECT_EQ(rig.scsi().bus_changes(), 0u);
}

TEST(Startup, Workers_are_as_many_as_set_or_as_a_disk_has_slots)
{
    struct Row {
        std::vector<std::uint8_t> disk_flags;
        std::optional<std::uint32_t> rw_threads;
        unsigned expected;
    };
    for (const Row& row :
         {Row{{4}, {}, 6}, Row{{2}, 2, 2}, Row{{1}, 1, 1}, Row{{4}, 8, 8}, Row{{4}, 9, 6}, Row{{4}, 0, 6},
          Row{{5}, 2, 5}, Row{{2, 8, 3}, 1, 8}, Row{{0x2B}, 2, 4}, Row{{0x8F}, 1, 1}}) {
        Plan plan{.disks = {}};
        for (std::uint8_t flags : row.disk_flags)
            plan.disks.push_back({.flags = flags});
        if (row.rw_threads)
            plan.settings["RW_THREADS"] = *row.rw_threads;
        Rig rig(plan);
        rig.run([&] { rig.machine.sleep_ms(1); });
        expect_workers(rig, row.expected);
        EXPECT_EQ(rig.log_count("QRN_Recv_Thread 0 Created"), 1u);
    }
}

TEST(Startup, First_worker_without_memory_leaves_a_driver_without_threads)
{
    Rig rig;
    rig.machine.faults().fail(machine::Operation::pool_allocate, "QRNM");
    rig.run([&] {
        rig.machine.sleep_ms(1);
        EXPECT_EQ(rig.scsi().luns().size(), 1u);
    });
    EXPECT_EQ(rig.printed(workers_error), 1u);
    EXPECT_EQ(rig.log_count("_Thread"), 0u);
}

TEST(Startup, Later_worker_without_memory_or_thread_leaves_those_before_it_at_work)
{
    for (bool memory : {true, false}) {
        Rig rig;
        if (memory)
            rig.machine.faults().fail(machine::Operation::pool_allocate, "QRNM", 2);
        else
            rig.machine.faults().fail(machine::Operation::thread_create, {}, 3, 100);
        rig.run([&] {
            Bytes data = pattern(0, 65536), back(data.size());
            EXPECT_TRUE(rig.write(0, 0, data) && rig.read(0, 0, back));
            EXPECT_EQ(back, data);
        });
        EXPECT_EQ(rig.printed(workers_error), memory ? 1u : 0u);
        expect_workers(rig, 2);
    }
}

// Lengths of the packets to the disk; those of the cache negotiation are about engine sector 0.
std::vector<unsigned> packet_lengths(const Rig& rig, std::uint8_t kind)
{
    std::vector<unsigned> lengths;
    for (const SeenPacket& packet : rig.sent(formats::sub_request, kind))
        if (packet.header().Byte_Offset.get() != 0 &&
            (kind == formats::kind_read || packet.header().Frag_Num == 1))
            lengths.push_back(packet.header().Length.get());
    return lengths;
}

TEST(Startup, Disk_table_gives_packet_sizes_and_tells_the_disk)
{
    struct Row {
        std::uint8_t flags;
        unsigned read_kb, write_kb;  // as handed over
        unsigned read_bytes, write_bytes;
        const char* message;
    };
    for (const Row& row : {Row{0x00, 4, 4, 8192, 6144, "0 -1"}, Row{0x04, 16, 8, 16384, 8192, "4 -1"},
                           Row{0x01, 1, 1, 1024, 1024, "1 -1"}, Row{0x13, 16, 8, 16384, 8192, "13 0"},
                           Row{0x80, 8, 8, 8192, 8192, "80 0"}, Row{0x95, 8, 8, 8192, 8192, "95 0"},
                           Row{0x2B, 8, 4, 8192, 4096, "2B -1"}}) {
        Rig rig({.disks = {{.flags = row.flags, .read_kb = row.read_kb, .write_kb = row.write_kb}}});
        rig.run([&] {
            Bytes data(49152);
            EXPECT_TRUE(rig.read(0, 0, data) && rig.write(0, 0, data));
        });
        EXPECT_EQ(rig.printed(std::string("\nQRN SCSI: Lun:0 800(1M) Local:") + row.message), 1u)
            << rig.machine.log().text();
        EXPECT_EQ(packet_lengths(rig, formats::kind_read),
                  std::vector<unsigned>(49152 / row.read_bytes, row.read_bytes));
        EXPECT_EQ(packet_lengths(rig, formats::kind_write),
                  std::vector<unsigned>(49152 / row.write_bytes, row.write_bytes));
    }
}

TEST(Startup, Absent_disk_between_others_is_left_out_of_the_table)
{
    Rig rig({.disks = {{}, {.sectors = 0}, {.sectors = 4097}}});
    rig.run([&] {
        Bytes data(1024);
        EXPECT_TRUE(rig.read(2, 4095, data));
        ASSERT_EQ(rig.scsi().luns().size(), 3u);
        EXPECT_EQ(rig.scsi().luns()[1].sectors, 0u);
    });
    EXPECT_EQ(rig.printed("\nQRN SCSI: Lun:2 1001(2M) Local:4 -1"), 1u);
    EXPECT_EQ(rig.log_count("Lun:"), 2u) << rig.machine.log().text();
}

TEST(Startup, Memory_is_probed_once_for_all_cache_disks_and_only_for_them)
{
    for (auto [flags, probes] : {std::pair{0x14, 1u}, std::pair{0x84, 0u}}) {
        auto disk = DiskPlan{.flags = static_cast<std::uint8_t>(flags)};
        Rig rig({.disks = {disk, disk, disk}});
        rig.run([] {});
        EXPECT_EQ(rig.printed("\nQRN MDL: PAE Flag:0"), probes);
    }
}

}  // namespace
}  // namespace scenario
