// SPDX-License-Identifier: MIT
#include "server/boot_parameters.h"

#include <cstring>

namespace server {

namespace {

// High nibble: size in KB minus 1.
std::uint8_t packet_kb(unsigned kb)
{
    return static_cast<std::uint8_t>((kb - 1) << 4);
}

formats::Disk_Info make_disk(const ServedDisk& served, unsigned lun, std::uint32_t sectors)
{
    formats::Disk_Info disk{};
    std::memcpy(disk.Disk_Id, served.id, sizeof disk.Disk_Id);
    set_disk_parm(disk.Disk_Parm, lun);
    disk.Disk_Secs.set(sectors);
    disk.Read_KB = packet_kb(served.read_kb);
    disk.Write_KB = packet_kb(served.write_kb);
    disk.Disk_Flags =
        static_cast<std::uint8_t>(served.slots | (served.delay_load ? formats::disk_flag_delay_load : 0) |
                                  (served.cache_mb ? formats::disk_flag_ram_cache : 0));
    disk.Retry_Mins = static_cast<std::uint8_t>(served.retry_mins);
    return disk;
}

}  // namespace

void set_disk_parm(std::uint8_t (&parm)[4], unsigned lun)
{
    std::memset(parm, 0, sizeof parm);
    parm[3] = static_cast<std::uint8_t>(lun);
}

formats::Boot_Param make_boot_parameters(std::span<const ServedDisk> disks,
                                         std::span<const std::uint32_t> disk_sectors,
                                         const formats::ServerRecord& self)
{
    formats::Boot_Param block{};
    block.Boot_Mode.set(formats::boot_mode_network);
    block.Lun_Nums = static_cast<std::uint8_t>(disks.size());
    block.Disk_Nums = block.Lun_Nums;
    block.Boot_Flags = formats::boot_flag_tag_slot;
    block.Boot_Port.set(self.Port.get());
    block.Rack_Level.set(formats::rack_level_status_query);
    block.Boot_Server = self;
    std::uint32_t tag_key = 0x9E3779B9;
    for (unsigned lun = 0; lun < disks.size(); ++lun) {
        block.Disks[lun] = make_disk(disks[lun], lun, disk_sectors[lun]);
        block.Main_Server[lun] = self;
        if (disks[lun].mirror)
            block.Slave_Server[lun] = *disks[lun].mirror;
        for (const std::uint8_t byte : disks[lun].id)
            tag_key = (tag_key ^ byte) * 0x01000193;
    }
    block.Tag_Key.set(tag_key);
    return block;
}

}  // namespace server
