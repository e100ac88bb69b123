// SPDX-License-Identifier: MIT
// Overlays as files. Every function throws std::system_error or std::runtime_error with a message that names
// the path, and may wait for the medium.
#pragma once

#include <memory>
#include <string>
#include <string_view>

#include "server/overlay_store.h"

namespace server {

// Of the kernel that runs.
Session this_session();

// A new overlay that holds nothing. It is there whole or not at all, even after a power cut. Replaces an old
// one.
void create_overlay_file(const std::string& path, const OverlayShape& shape);

std::unique_ptr<OverlayStore> open_overlay_file(const std::string& path, std::shared_ptr<BlockStore> base,
                                                const std::string& base_name);

// Reads alone; the server may be at work on it.
OverlayReport check_overlay_file(const std::string& path);

// Replaces the file's content: the old one or the new one is there, even after a power cut.
void save_file(const std::string& path, std::string_view text);

// What the disk reads as, as a new raw file with holes for zeros. `path` must not be there.
void copy_disk(BlockStore& disk, const std::string& path);

}  // namespace server
