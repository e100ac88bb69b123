// SPDX-License-Identifier: MIT
// What the boot program left in conventional memory: the disks, and the PC's place in the network. Called
// once, by whoever has that memory mapped; reads nothing outside of it.
#pragma once

#include "formats/boot_request.h"
#include "transport/core/place.h"

namespace transport {

struct Boot_Records {
    bool Has_Disks, Has_Network;
    formats::Boot_Param Disks;  // with the level of the record
    Place Here;                 // the port is the one from which the boot program asked
    formats::ServerRecord Server;
};

// Low_Memory: the first Bytes of physical memory.
void Find_Boot_Records(const void* Low_Memory, std::uint32_t Bytes, Boot_Records& Found);

}  // namespace transport
