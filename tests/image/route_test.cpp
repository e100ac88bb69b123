// SPDX-License-Identifier: MIT
// The image step of routing over a local disk: where each disk's data comes from and goes to, with the server
// played by the test. Versions name contents; what the server had from the start is `served`, what the system
// image holds of it is `copied`, so that a source that should not have answered is seen.
#include "driver/engine/image_route.h"

#include <memory>

#include "driver/image/file_io.h"
#include "driver/image/image_setup.h"
#include "driver/image/image_sync.h"
#include "driver/request/request.h"
#include "driver/state/boot_param.h"
#include "driver/state/local_boot.h"
#include "machine/disk/local_disk.h"
#include "tests/image/memory_area.h"

using namespace image_test;

namespace {

constexpr ULONG served = 1000, copied = 900, zeros = 0, failed = ~1u;
constexpr ULONG system_start = 64, system_sectors = 2000, temporary_start = 3000;
constexpr ULONG disk_sectors = 8000;

struct Plan {
    UCHAR local_nums = 1;
    bool server = true;
    bool check_comes = false;
    bool system = true;
    ULONG temporary_sectors = 4000;  // 0: none
};

class Workstation : public DriverPiece {
public:
    explicit Workstation(Plan plan) : disk(disk_sectors), plan_(plan)
    {
        Boot_Param.Boot_Mode.set(formats::boot_mode_local_image);
        Boot_Param.Lun_Nums = 2;
        Boot_Param.Local_Nums = plan.local_nums;
        Boot_Param.Boot_Flags = plan.check_comes ? 0 : formats::boot_flag_no_image_sync;
        Boot_Param.Disks[0].Disk_Id[1] = plan.server;
        Boot_Param.Disks[1].Disk_Id[1] = 1;
        if (plan.check_comes)
            Ndis_Handover.QRN_Send = [](PVOID, PVOID, ULONG, PVOID, ULONG) __attribute__((stdcall)){};
        pSaved_MBR = saved;
        KeInitializeEvent(&Img_Lock, SynchronizationEvent, TRUE);
        entry_ = std::make_unique<RW_Entry>();
        std::memset(entry_.get(), 0, sizeof *entry_);
    }

    // LBA 0 to 255 of disk 0 are in the system image, of 300 chunks known to be handled.
    void prepare()
    {
        auto& table = *reinterpret_cast<formats::PartitionSector*>(mbr_.data());
        table.Partition[0] = partition(0x51, 7990, 1000);  // ends past the disk
        if (plan_.system)
            table.Partition[1] = partition(0x51, system_start, system_sectors);
        table.Partition[2] = partition(0x52, 0xFFFFFF00, 0x200);
        if (plan_.temporary_sectors)
            table.Partition[3] = partition(0x52, temporary_start, plan_.temporary_sectors);
        disk.write(0, mbr_);
        MemoryArea area(system_sectors);
        EXPECT_EQ(area.open(0), 0);
        QRNH_IMG_RW image(&area, 0);
        for (ULONG sector = 2; sector <= 256; ++sector) {
            std::vector<UCHAR> data(512);
            put_sector(data.data(), 0, sector, copied);
            EXPECT_EQ(image.Write(0, sector, data.data(), 512), 512);
        }
        area.Header.Sync_Pos.set(5);
        EXPECT_TRUE(image.Img_Flush());
        disk.write(system_start, area.now);
        machine.add_local_disk(disk, 2);
    }

    // One version for all sectors; ~0 when they differ.
    ULONG read(ULONG lun, ULONG sector, ULONG count = 1)
    {
        begin(lun, sector, false);
        for (ULONG left = count; left > 0 && request_.Status == 0;) {
            const LONG result = Img_Route(entry_.get(), &request_, static_cast<LONG>(left * 512));
            const ULONG n = static_cast<ULONG>(result > 0 ? result : -result) / 512;
            for (ULONG i = 0; i < n && result < 0; ++i)
                put_sector(entry_->pData + i * 512, lun, entry_->Sector + i, server(lun, entry_->Sector + i));
            from_server += result < 0 ? n : 0;
            advance(n);
            left -= n;
        }
        if (request_.Status != 0)
            return failed;
        const ULONG version = version_of(entry_->Bounce, lun, sector);
        for (ULONG i = 0; i < count; ++i)
            if (version_of(entry_->Bounce + i * 512, lun, sector + i) != version)
                return ~0u;
        return version;
    }
    bool write(ULONG lun, ULONG sector, ULONG count, ULONG version)
    {
        begin(lun, sector, true);
        for (ULONG i = 0; i < count; ++i)
            put_sector(entry_->Bounce + i * 512, lun, sector + i, version);
        for (ULONG left = count; left > 0 && request_.Status == 0;) {
            const LONG result = Img_Route(entry_.get(), &request_, static_cast<LONG>(left * 512));
            const ULONG n = static_cast<ULONG>(result > 0 ? result : -result) / 512;
            for (ULONG i = 0; i < n && result < 0; ++i)
                content_[{lun, entry_->Sector + i}] = version;
            if (result < 0)
                Img_Written_Past(entry_.get(), &request_, -result);
            to_server += result < 0 ? n : 0;
            advance(n);
            left -= n;
        }
        return request_.Status == 0;
    }
    LONG server_lost(ULONG lun, ULONG sector, ULONG count)
    {
        begin(lun, sector, false);
        return Img_Server_Lost(entry_.get(), &request_, static_cast<LONG>(count * 512));
    }

    machine::LocalDisk disk;
    UCHAR saved[512] = {};
    unsigned from_server = 0, to_server = 0;

private:
    static formats::PartitionEntry partition(UCHAR type, ULONG start, ULONG count)
    {
        formats::PartitionEntry entry{};
        entry.Type = type;
        entry.Start.set(start);
        entry.Count.set(count);
        return entry;
    }
    ULONG server(ULONG lun, ULONG sector)
    {
        return content_.try_emplace({lun, sector}, served).first->second;
    }
    void begin(ULONG lun, ULONG sector, bool write)
    {
        request_ = {};
        request_.Lun = entry_->Lun = lun;
        request_.Write = write ? 2 : 0;
        entry_->Sector = sector;
        entry_->pData = entry_->Bounce;
        std::memset(entry_->Bounce, 0xEE, sizeof entry_->Bounce);
    }
    void advance(ULONG sectors)
    {
        entry_->pData += sectors * 512;
        entry_->Sector += sectors;
    }

    Plan plan_;
    std::vector<UCHAR> mbr_ = std::vector<UCHAR>(512);
    std::unique_ptr<RW_Entry> entry_;
    RW_Req request_{};
    std::map<std::pair<ULONG, ULONG>, ULONG> content_;
};

void with(Plan plan, const std::function<void(Workstation&)>& body)
{
    Workstation station(plan);
    station.run([&] {
        station.prepare();
        body(station);
    });
}

TEST(ImageRoute, Each_source_answers_for_what_it_has)
{
    with({}, [](Workstation& station) {
        EXPECT_EQ(station.read(0, 2, 100), copied);
        EXPECT_EQ(station.read(0, 300, 50), zeros) << "below the position";
        EXPECT_EQ(station.read(0, 1000, 50), served);
        EXPECT_EQ(station.read(1, 2, 100), served) << "disk 1 has no system image";
        EXPECT_EQ(station.from_server, 150u);
        station.read(0, 5 * 128 + 1 - 4, 8);
        EXPECT_EQ(station.from_server, 154u) << "the position ends the zeros";
        EXPECT_TRUE(station.write(0, 10, 20, 1));
        EXPECT_TRUE(station.write(1, 10, 20, 1));
        EXPECT_EQ(station.to_server, 0u);
        EXPECT_EQ(station.read(0, 10, 20), 1u);
        EXPECT_EQ(station.read(0, 30, 20), copied);
        EXPECT_EQ(station.read(1, 10, 20), 1u);
        EXPECT_EQ(station.machine.log().count("\nQRNH_FSD_Obj: ZwCreateFile \\DosDevices\\PhysicalDrive2 0"),
                  1u);
        EXPECT_EQ(station.machine.log().count("\nQRNH_MBR_Init: Create"), 2u)
            << "two partitions fit the disk";
        EXPECT_EQ(pQRNH_Img_Sys->Image()->Base_Sec, system_start);
        EXPECT_EQ(pQRNH_Obj_Tmp->Total_Secs, 4000u);
    });
}

TEST(ImageRoute, Saved_partition_sector_answers_and_follows_writes)
{
    with({}, [](Workstation& station) {
        put_sector(station.saved, 0, 1, 77);
        EXPECT_EQ(station.read(0, 1), 77u);
        EXPECT_EQ(station.machine.log().count("QRNH_FSD_Obj"), 0u) << "without a look at the local disk";
        EXPECT_TRUE(station.write(0, 1, 2, 78));
        EXPECT_EQ(version_of(station.saved, 0, 1), 78u);
        EXPECT_EQ(station.read(0, 1, 2), 78u);
        EXPECT_EQ(station.read(1, 1), served) << "it is disk 0's";
    });
}

TEST(ImageRoute, Write_past_a_full_image_is_what_is_read_from_then_on)
{
    with({.temporary_sectors = 16 + 3 * 8 + 128}, [](Workstation& station) {
        EXPECT_TRUE(station.write(0, 200, 10, 1));
        EXPECT_TRUE(station.write(0, 100, 40, 2)) << "half of it fits";
        EXPECT_EQ(station.to_server, 29u);
        EXPECT_EQ(station.read(0, 100, 40), 2u);
        EXPECT_EQ(station.read(0, 200, 10), 1u);
        EXPECT_TRUE(station.write(0, 400, 10, 3));
        EXPECT_EQ(station.read(0, 400, 10), 3u) << "not the zeros of the system image";
    });
    with({.temporary_sectors = 0}, [](Workstation& station) {
        EXPECT_TRUE(station.write(0, 100, 40, 2));
        EXPECT_EQ(station.read(0, 100, 40), 2u);
        EXPECT_EQ(station.server_lost(0, 100, 40), -40 * 512);
    });
}

TEST(ImageRoute, Failing_local_disk_never_brings_older_data_back)
{
    constexpr ULONG data = temporary_start + 16 + 3 * 8;  // LBA 0 of disk 0
    with({}, [](Workstation& station) {
        EXPECT_TRUE(station.write(0, 20, 40, 1));
        station.disk.set_bad(data + 30, 1);
        EXPECT_EQ(station.read(0, 20, 5), 1u);
        EXPECT_EQ(station.read(0, 20, 40), failed) << "the only copy cannot be read";
        EXPECT_TRUE(station.write(0, 20, 40, 2));
        EXPECT_GT(station.to_server, 0u);
        EXPECT_EQ(station.read(0, 20, 40), 2u);
        station.disk.set_bad(data + 30, 1, false);
        EXPECT_EQ(station.read(0, 20, 40), 2u);
        EXPECT_TRUE(station.write(0, 20, 40, 3));
        EXPECT_EQ(station.read(0, 20, 40), 3u);
    });
    with({}, [](Workstation& station) {
        EXPECT_EQ(station.read(0, 2), copied);
        station.disk.set_bad(system_start, system_sectors);
        EXPECT_EQ(station.read(0, 2, 100), served) << "the server has it too";
    });
    with({.local_nums = 0, .server = false}, [](Workstation& station) {
        EXPECT_EQ(station.read(0, 2), copied);
        station.disk.set_bad(system_start, system_sectors);
        EXPECT_EQ(station.read(0, 2, 100), failed);
    });
}

TEST(ImageRoute, Disk_without_server_lives_on_its_images_alone)
{
    with({.local_nums = 0, .server = false, .temporary_sectors = 16 + 3 * 8 + 128}, [](Workstation& station) {
        EXPECT_EQ(station.read(0, 2, 100), copied);
        EXPECT_EQ(station.read(0, 2000, 10), zeros) << "never written";
        EXPECT_TRUE(station.write(0, 2, 20, 1));
        EXPECT_FALSE(station.write(0, 2000, 20, 1)) << "no room, and nobody else to take it";
        EXPECT_EQ(station.from_server + station.to_server, 0u);
    });
    with({.local_nums = 0, .server = false, .system = false, .temporary_sectors = 0},
         [](Workstation& station) {
             EXPECT_EQ(station.read(0, 2, 100), failed) << "the system partition does not fit the disk";
         });
}

TEST(ImageRoute, Without_local_disk_there_are_zeros_or_the_server)
{
    for (UCHAR local_nums : {UCHAR{0}, UCHAR{1}}) {
        Workstation station({.local_nums = local_nums});
        station.run([&] {
            for (ULONG lun : {0u, 1u})
                EXPECT_EQ(station.read(lun, 2, 100), local_nums ? served : zeros);
            EXPECT_EQ(station.machine.log().count("\nQRNH_FSD_Obj: ZwCreateFile"), 2u) << "tried again";
        });
    }
}

TEST(ImageRoute, Write_without_local_disk_reaches_the_server_or_fails)
{
    for (UCHAR local_nums : {UCHAR{0}, UCHAR{1}})
        for (bool server : {true, false}) {
            Workstation station({.local_nums = local_nums, .server = server});
            station.run([&] {
                EXPECT_EQ(station.write(0, 2, 20, 1), server);
                EXPECT_EQ(station.to_server, server ? 20u : 0u);
                EXPECT_TRUE(station.write(1, 2, 20, 1)) << "of a disk that has one in any case";
            });
        }
}

TEST(ImageRoute, Image_is_silent_until_it_is_checked_or_the_server_is_lost)
{
    with({.check_comes = true}, [](Workstation& station) {
        EXPECT_EQ(station.read(0, 2, 100), served);
        EXPECT_EQ(station.read(0, 300, 50), served);
        EXPECT_EQ(station.server_lost(0, 5000, 8), -8 * 512);
        EXPECT_EQ(station.server_lost(1, 2, 8), -8 * 512);
        EXPECT_TRUE(station.write(0, 50, 8, 1));
        EXPECT_EQ(station.server_lost(0, 2, 8), 8 * 512);
        EXPECT_EQ(station.read(0, 2, 48), copied) << "without a question from now on";
        EXPECT_EQ(station.read(0, 50, 8), 1u);
        EXPECT_EQ(station.read(0, 5000, 8), served);
    });
}

NTSTATUS flush_status;
bool flush_pends;

NTSTATUS NTAPI answer_flush(PDEVICE_OBJECT, PIRP irp)
{
    irp->IoStatus.Status = flush_status;
    irp->IoStatus.Information = 0;
    if (flush_pends)
        IoMarkIrpPending(irp);
    const NTSTATUS result = flush_pends ? STATUS_PENDING : flush_status;
    IofCompleteRequest(irp, IO_NO_INCREMENT);
    return result;
}

TEST(FileIo, Flush_is_good_only_where_the_disk_has_flushed_or_has_nothing_to_flush)
{
    struct Row {
        NTSTATUS status;
        bool good;
    };
    const Row rows[] = {{STATUS_SUCCESS, true},          {STATUS_INVALID_DEVICE_REQUEST, true},
                        {STATUS_NOT_IMPLEMENTED, true},  {STATUS_NOT_SUPPORTED, true},
                        {STATUS_IO_DEVICE_ERROR, false}, {STATUS_DEVICE_NOT_READY, false}};
    Workstation station({});
    station.run([&] {
        station.prepare();
        PDEVICE_OBJECT device = QRNH_FSD_Obj("PhysicalDrive2");
        ASSERT_NE(device, nullptr);
        device->DriverObject->MajorFunction[IRP_MJ_FLUSH_BUFFERS] = answer_flush;
        for (bool pends : {false, true})
            for (const Row& row : rows) {
                flush_pends = pends;
                flush_status = row.status;
                EXPECT_EQ(Fsd_Flush(device), row.good) << std::hex << row.status;
            }
        EXPECT_TRUE(Fsd_Flush(nullptr)) << "an area that is on no disk";
    });
}

TEST(FileIo, Failures_are_told_and_cost_nothing_else)
{
    Workstation station({});
    station.run([&] {
        station.prepare();
        auto& log = station.machine.log();
        UCHAR data[1024];
        EXPECT_EQ(QRNH_FSD_Obj(std::string(115, 'x').c_str()), nullptr);
        EXPECT_TRUE(log.text().ends_with(std::string(115, 'x') + " C0000034"));
        EXPECT_EQ(QRNH_FSD_Obj(std::string(116, 'x').c_str()), nullptr);
        EXPECT_TRUE(log.text().ends_with("\nQRNH_FSD_Obj: Rtl Error"));
        PDEVICE_OBJECT device = QRNH_FSD_Obj("PhysicalDrive2");
        ASSERT_NE(device, nullptr);
        EXPECT_EQ(Fsd_Read(device, 7999, data, 512), 512);
        EXPECT_EQ(Fsd_Read(device, 7999, data, 1024), -1024);
        EXPECT_EQ(Fsd_Read(device, ULONGLONG{1} << 40, data, 512), -512);
        station.disk.set_bad(10, 1);
        EXPECT_EQ(Fsd_Write(device, 10, data, 1024), -1024);
        EXPECT_EQ(Fsd_Read(nullptr, 0, data, 1024), -1024);
        station.machine.faults().fail(machine::Operation::irp_allocate, "", 0, 2);
        EXPECT_EQ(Fsd_Write(device, 0x12345, data, 1024), -1024);
        EXPECT_EQ(log.count("\nQRNH_FSD: Irp=00000000: 4 "), 1u);
        EXPECT_TRUE(log.text().ends_with(", 00012345 1024"));
        EXPECT_FALSE(Fsd_Flush(device));
        EXPECT_TRUE(Fsd_Flush(device));
        EXPECT_EQ(station.machine.pool_bytes("QRNM"), 0u);
    });
}

TEST(ImageRoute, Local_disk_is_opened_once_by_whoever_comes_first)
{
    Workstation station({});
    station.run([&] {
        station.prepare();
        std::vector<std::unique_ptr<RW_Entry>> entries;
        for (int i = 0; i < 4; ++i) {
            entries.push_back(std::make_unique<RW_Entry>());
            entries.back()->Lun = 0;
            entries.back()->Sector = 2;
            entries.back()->pData = entries.back()->Bounce;
        }
        machine::test::run_threads(4, [&](int thread) {
            RW_Req request{};
            EXPECT_EQ(Img_Route(entries[static_cast<unsigned>(thread)].get(), &request, 8 * 512), 8 * 512);
        });
        EXPECT_EQ(station.machine.log().count("\nQRNH_MBR_Init End"), 1u);
    });
}

}  // namespace
