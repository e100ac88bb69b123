// SPDX-License-Identifier: MIT
// A disk that an NBD server exports. When that goes away, requests wait until it is back, so only threads
// that may wait use it. Any of them may at any time.
#pragma once

#include <chrono>
#include <memory>
#include <string>

#include "server/block_store.h"

namespace server {

// A file, a block device, or the URI of an NBD server. Throws std::system_error or std::runtime_error that
// names the path; a file that is no raw disk is refused.
std::shared_ptr<BlockStore> open_disk_store(const std::string& path, bool readonly);

// How long it may be silent until it counts as gone.
struct NbdPatience {
    std::chrono::milliseconds connect{2000};
    std::chrono::milliseconds answer{20000};
};
std::shared_ptr<BlockStore> open_nbd_store(const std::string& uri, bool readonly,
                                           const NbdPatience& patience = {});

}  // namespace server
