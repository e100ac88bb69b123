// SPDX-License-Identifier: MIT
// A local disk with any partition table: which image areas the driver makes of it, and that nothing outside
// them is written.
//
// Input: a byte of flags, the four entries, changes of the area in the first one (image_input.h), then
// writes: a LUN, a sector of 2 bytes, a count.
#include <memory>

#include "driver/image/file_io.h"
#include "driver/image/image_setup.h"
#include "driver/state/boot_param.h"
#include "fuzz/image_input.h"
#include "fuzz/kernel.h"
#include "machine/disk/local_disk.h"

using namespace fuzz;

namespace {

constexpr std::uint32_t local_sectors = 2048;
constexpr std::uint32_t system_start = 16;

Bytes disk_content(Input& input)
{
    Bytes bytes(local_sectors * 512, 0xEE);
    auto& table = *reinterpret_cast<formats::PartitionSector*>(bytes.data());
    table.Partition[0].Type = formats::partition_system_image;
    table.Partition[0].Start.set(system_start);
    table.Partition[0].Count.set(area_sectors);
    table.Partition[1].Type = formats::partition_temporary_image;
    table.Partition[1].Start.set(system_start + area_sectors);
    table.Partition[1].Count.set(900);
    input.fill(table.Partition);
    ImageArea area;
    area.change(input);
    std::ranges::copy(area.bytes, bytes.begin() + system_start * 512);
    return bytes;
}

void use(QRNH_OBJ_IMG* area, std::vector<bool>& may_change, Input& input)
{
    require(area->Base_Sec != 0 && std::uint64_t{area->Base_Sec} + area->Total_Secs <= local_sectors,
            "an image area lies on the disk, and not on its partition table");
    std::fill_n(may_change.begin() + static_cast<int>(area->Base_Sec), area->Total_Secs, true);
    auto image = std::make_unique<QRNH_IMG_RW>(area, input.u8() % 4);
    Bytes buffer(128 * 512);
    for (int i = 0; i < 8 && !input.empty(); ++i) {
        const unsigned sector = input.u16();
        const LONG bytes = (1 + input.u8() % 128) * 512;
        const LONG done = image->Write(0, sector, buffer.data(), bytes);
        require(done <= bytes && done >= -bytes, "a write tells a length of its run");
        image->Read(0, sector, buffer.data(), bytes);
    }
    image->Img_Flush();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    static machine::LocalDisk disk(local_sectors);
    DriverPiece driver;
    driver.machine.add_local_disk(disk, 0);
    Input input(data, size);
    const unsigned flags = input.u8();
    const Bytes before = disk_content(input);
    disk.write(0, before);
    std::vector<bool> may_change(local_sectors);
    driver.run([&] {
        Boot_Param.Local_Nums = flags & 1;
        PDEVICE_OBJECT device = QRNH_FSD_Obj("PhysicalDrive0");
        formats::PartitionSector sector_0;
        require(Fsd_Read(device, 0, &sector_0, sizeof sector_0) == sizeof sector_0, "the disk is read");
        QRNH_IMG_RW* system = QRNH_MBR_Init(device, sector_0);
        require(system == pQRNH_Img_Sys, "the system image is the one that is told");
        if (system)
            use(system->Image(), may_change, input);
        if (pQRNH_Obj_Tmp)
            use(pQRNH_Obj_Tmp, may_change, input);
    });
    const Bytes after = disk.read(0, local_sectors);
    for (std::uint32_t sector = 0; sector < local_sectors; ++sector)
        require(may_change[sector] || std::memcmp(&before[sector * 512], &after[sector * 512], 512) == 0,
                "nothing outside the image areas is written");
    return 0;
}
