// What a start leaves in the driver's tables.
#include "driver/startup/disk_table.h"

#include <cstring>

#include "driver/engine/worker.h"
#include "driver/startup/boot_param.h"
#include "driver/startup/driver_entry.h"
#include "driver/startup/image_search.h"
#include "driver/startup/memory_probe.h"
#include "machine/executive/executive.h"
#include "tests/driver/driver_test.h"

namespace {

UNICODE_STRING service_key()
{
    UNICODE_STRING path;
    RtlInitUnicodeString(&path, reinterpret_cast<PCWSTR>(machine::Registry::service_key.c_str()));
    return path;
}

// Builds the tables for what stands in Boot_Param.
void init_luns()
{
    UNICODE_STRING path = service_key();
    KeInitializeEvent(&Start_Event, NotificationEvent, FALSE);
    Lun_Init(&path);
}

TEST(DiskTable, Packet_sizes_slots_and_cache_state_follow_from_the_four_tuning_bytes)
{
    struct Row {
        std::uint8_t flags, read_kb, write_kb;  // as handed over
        std::uint8_t final_flags, final_read_kb, final_write_kb;
        LONG slots, state;
    };
    const Row rows[] = {
        {0x00, 0x30, 0x30, 0x04, 8, 6, 4, -1},   {0x13, 0xF0, 0x70, 0x13, 16, 8, 3, 0},
        {0x80, 0x00, 0x0F, 0x81, 1, 1, 1, 0},    {0x2B, 0x71, 0x3E, 0x24, 8, 4, 4, -1},
        {0x01, 0xFF, 0xFF, 0x01, 16, 16, 1, -1}, {0x08, 0x70, 0x70, 0x08, 8, 8, 8, -1},
        {0x09, 0x70, 0x70, 0x04, 8, 8, 4, -1},   {0x40, 0x70, 0x70, 0x44, 8, 8, 4, -1},
        {0x10, 0x70, 0x70, 0x14, 8, 8, 4, 0},    {0x85, 0x70, 0x70, 0x81, 8, 8, 1, 0},
        {0x95, 0x70, 0x70, 0x95, 8, 8, 5, 0},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(testing::Message() << "flags " << std::hex << int{row.flags});
        DriverPiece driver;
        driver.run([&] {
            formats::Disk_Info& disk = Boot_Param.Disks[2];
            disk.Disk_Secs.set(100);
            disk.Disk_Flags = row.flags;
            disk.Read_KB = row.read_kb;
            disk.Write_KB = row.write_kb;
            init_luns();
            EXPECT_EQ(disk.Disk_Flags, row.final_flags);
            EXPECT_EQ(disk.Read_KB, row.final_read_kb);
            EXPECT_EQ(disk.Write_KB, row.final_write_kb);
            EXPECT_EQ(Lun_Stats[2].Free_Slots, row.slots);
            EXPECT_EQ(Local_Cache[2].State, row.state);
            EXPECT_EQ(Local_Cache[2].Lock.Header.Type, SynchronizationEvent);
            EXPECT_EQ(Local_Cache[2].Lock.Header.SignalState, 1);
            EXPECT_TRUE(Disk_Set_Up(2));
        });
    }
}

TEST(DiskTable, Absent_disk_keeps_its_bytes_and_can_be_neither_waited_for_nor_cached)
{
    DriverPiece driver;
    driver.run([] {
        formats::Disk_Info before;
        std::memset(&before, 0x9F, sizeof before);
        before.Disk_Secs.set(0);
        Boot_Param.Disks[1] = before;
        Boot_Param.Disks[2].Disk_Secs.set(100);
        init_luns();
        EXPECT_EQ(std::memcmp(&Boot_Param.Disks[1], &before, sizeof before), 0);
        EXPECT_EQ(Lun_Stats[1].Free_Slots, 0);
        EXPECT_FALSE(Disk_Set_Up(1));
        EXPECT_EQ(Local_Cache[1].State, -1);
        EXPECT_EQ(Local_Cache[1].Lock.Header.SignalState, 1);
        EXPECT_EQ(PAE_Nums, -1);
        EXPECT_TRUE(Disk_Set_Up(2));
    });
}

TEST(DiskTable, Worker_blocks_stand_in_the_table_and_in_the_list_in_order)
{
    DriverPiece driver;
    driver.machine.faults().fail(machine::Operation::pool_allocate, "QRNM", 5);
    driver.run([] {
        init_luns();
        PLIST_ENTRY link = pRW_List.Flink;
        for (ULONG index = 0; index < 5; ++index, link = link->Flink) {
            const RW_Entry* entry = pRW_Tbl[index];
            ASSERT_NE(entry, nullptr);
            EXPECT_EQ(&entry->Link, link);
            EXPECT_EQ(entry->Index(), index);
            EXPECT_EQ(entry->Frag_Mask, 0u);
            EXPECT_EQ(entry->pWr_Slot, nullptr);
            EXPECT_EQ(entry->Ack_Event.Header.Type, SynchronizationEvent);
            EXPECT_EQ(entry->Ack_Event.Header.SignalState, 0);
        }
        EXPECT_EQ(link, &pRW_List);
        EXPECT_EQ(pRW_Tbl[5], nullptr);
    });
}

class Start {
public:
    explicit Start(machine::MachineConfig config = {}) : driver(std::move(config)) {}

    void leave(const formats::Boot_Param& block)
    {
        formats::BootRecord record{};
        std::memcpy(record.Signature, formats::boot_record_signature, sizeof record.Signature);
        record.Kind.set(formats::boot_record_kind);
        record.Rack_Level.set(0x0701);
        record.Param = block;
        driver.machine.memory().write(driver.machine.config().base_memory_kb * 1024u,
                                      {reinterpret_cast<const std::uint8_t*>(&record), sizeof record});
    }
    void boot()
    {
        image = machine::builtin_driver();
        driver.run([&] { EXPECT_EQ(driver.machine.boot(*image), STATUS_SUCCESS); });
    }

    DriverPiece driver;
    std::unique_ptr<machine::DriverImage> image;
};

TEST(Start, Record_in_low_memory_brings_its_own_rack_level)
{
    formats::Boot_Param block;
    for (std::size_t i = 0; i < sizeof block; ++i)
        reinterpret_cast<std::uint8_t*>(&block)[i] = static_cast<std::uint8_t>(i * 7 + 1);
    block.Disk_Nums = block.Lun_Nums = block.Local_Nums = 0;
    for (formats::Disk_Info& disk : block.Disks)
        disk.Disk_Secs.set(0);
    Start start;
    start.leave(block);
    start.boot();
    block.Rack_Level.set(0x0701);
    EXPECT_EQ(std::memcmp(&Boot_Param, &block, sizeof block), 0);
}

TEST(Start, Event_stays_reset_and_the_image_lock_is_free_without_a_source)
{
    Start start;
    start.boot();
    EXPECT_EQ(Start_Event.Header.Type, NotificationEvent);
    EXPECT_EQ(Start_Event.Header.SignalState, 0);
    EXPECT_EQ(Img_Lock.Header.Type, SynchronizationEvent);
    EXPECT_EQ(Img_Lock.Header.SignalState, 1);
    EXPECT_EQ(pSaved_MBR, nullptr);
}

TEST(Start, Image_makes_LUN_0_with_16_KB_packets_split_writes_and_no_retry_budget)
{
    const std::uint8_t descriptor[] = {0xE9, 13, 0, 0x90, 'Q', 'R', 'N', 'H', 0x44, 0x10, 0, 0};
    std::vector<std::uint8_t> sector(512);
    for (std::size_t i = 0; i < sector.size(); ++i)
        sector[i] = static_cast<std::uint8_t>(i);
    Start start;
    start.driver.machine.memory().write(0x96000, descriptor);
    start.driver.machine.memory().write(0x96010, sector);
    start.boot();
    ASSERT_NE(pSaved_MBR, nullptr);
    EXPECT_EQ(std::memcmp(pSaved_MBR, sector.data(), sector.size()), 0);
    const formats::Disk_Info& disk = Boot_Param.Disks[0];
    EXPECT_EQ(disk.Disk_Secs.get(), 0xC9C8C7C6u + 0xCDCCCBCAu + 1);
    EXPECT_EQ(disk.Read_KB, 16);
    EXPECT_EQ(disk.Write_KB, 16);
    EXPECT_EQ(disk.Disk_Flags, 0x24);
    EXPECT_EQ(disk.Retry_Mins, 0);
    EXPECT_EQ(Boot_Param.Boot_Mode.get(), 7u);
    EXPECT_EQ(Boot_Param.Lun_Nums, 1);
    EXPECT_EQ(Boot_Param.Disk_Nums, 1);
    EXPECT_EQ(Start_Event.Header.SignalState, 1);
}

TEST(Start, Disks_without_a_transport_are_counted_in_8_bits)
{
    formats::Boot_Param block{};
    block.Lun_Nums = 3;
    block.Disk_Nums = 1;
    Start start;
    start.leave(block);
    start.boot();
    EXPECT_EQ(Boot_Param.Lun_Nums, 0);
    EXPECT_EQ(Boot_Param.Disk_Nums, 254);
    EXPECT_EQ(Boot_Param.Boot_Mode.get(), 0u);
}

}  // namespace
