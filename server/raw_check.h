// SPDX-License-Identifier: MIT
// Whether a file is a raw disk, or a format that keeps the disk's blocks elsewhere than at their places:
// served as it is, its workstation would see the format's own tables and destroy them.
#pragma once

#include <string>

#include "server/block_store.h"

namespace server {

// Throws std::runtime_error that names the format and the command that serves such a file.
void check_raw_disk(BlockStore& disk, const std::string& path);

}  // namespace server
