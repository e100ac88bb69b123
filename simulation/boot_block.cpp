// SPDX-License-Identifier: MIT
#include "simulation/boot_block.h"

#include <algorithm>

#include "machine/transport/simulated_network.h"

namespace simulation {

formats::ServerRecord server_address(unsigned index)
{
    return machine::simulated_address(static_cast<std::uint8_t>(1 + index));
}

std::array<std::uint8_t, 4> disk_id(unsigned lun, bool mirrored)
{
    return {0x51, 0x52, static_cast<std::uint8_t>(mirrored ? formats::disk_id_mirror : 0),
            static_cast<std::uint8_t>(0xD0 + lun)};
}

formats::Boot_Param boot_block(const Boot& boot)
{
    formats::Boot_Param block{};
    block.Boot_Mode.set(boot.mode);
    block.Boot_Flags = boot.flags;
    block.Tag_Key.set(boot.tag_key);
    block.Boot_Port.set(0x1234);
    for (std::uint8_t i = 0; i < sizeof block.Identity_8; ++i) {
        block.Identity_8[i] = static_cast<std::uint8_t>(0x80 + i);
        block.Identity_16[i] = static_cast<std::uint8_t>(0x90 + i);
    }
    block.Rack_Level.set(boot.rack_level);
    block.Boot_Server = server_address(0);
    return block;
}

void add_disk(formats::Boot_Param& block, const Disk& disk)
{
    const std::uint8_t lun = block.Lun_Nums++;
    ++block.Disk_Nums;
    formats::Disk_Info& info = block.Disks[lun];
    std::ranges::copy(disk_id(lun, disk.mirrored), info.Disk_Id);
    std::ranges::copy(std::array<std::uint8_t, 4>{0xA0, 0xA1, 0xA2, lun}, info.Disk_Parm);
    info.Disk_Status.set(0x11110000 + lun);
    info.Disk_Secs.set(disk.sectors);
    info.Read_KB = static_cast<std::uint8_t>((disk.read_kb - 1) << 4);
    info.Write_KB = static_cast<std::uint8_t>((disk.write_kb - 1) << 4);
    info.Disk_Flags = disk.flags;
    info.Retry_Mins = disk.retry_mins;
    block.Main_Server[lun] = server_address(0);
    if (disk.mirrored && disk.slave_server)
        block.Slave_Server[lun] = server_address(1);
}

}  // namespace simulation
