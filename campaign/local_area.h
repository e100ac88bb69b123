// SPDX-License-Identifier: MIT
// The local disk of boot mode 7, the server's image of LUN 0 that it is filled from, and the check of what
// is on it by the image tool's own verifier.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <vector>

#include "campaign/content.h"
#include "campaign/plan.h"
#include "machine/disk/local_disk.h"

namespace campaign {

constexpr std::uint32_t system_area_start = 63;

std::unique_ptr<machine::LocalDisk> make_local_disk(const LocalPlan& plan);

// A server's image area of these contents. tags: of each chunk, not 0.
std::vector<std::uint8_t> make_server_image(std::uint32_t sectors, std::uint64_t create_time,
                                            std::uint32_t modify_tag, std::span<const std::uint32_t> tags,
                                            const std::function<Sector(std::uint32_t lba)>& content);

// Fails the seed when the system area is damaged, or says that it has a sector whose content `allowed`
// does not know. The disk is in no machine. False: there is no image yet.
bool verify_system_area(const machine::LocalDisk& disk, const LocalPlan& plan,
                        const std::function<bool(std::uint32_t lba, std::span<const std::uint8_t>)>& allowed);

}  // namespace campaign
