// SPDX-License-Identifier: MIT
// Whether what is to be served as a disk's image area is one, and one of that disk.
#pragma once

#include <cstdint>
#include <string>

#include "server/block_store.h"

namespace server {

// Throws std::runtime_error with a message that names the path.
void check_image_area(BlockStore& area, const std::string& path, std::uint64_t disk_sectors);

}  // namespace server
