// SPDX-License-Identifier: MIT
// The local disk of boot mode 7, the server's image of LUN 0 that it is filled from, and the check of what
// is on it by the image tool's own verifier.
#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <vector>

#include "campaign/content.h"
#include "campaign/plan.h"
#include "machine/disk/local_disk.h"

namespace campaign {

constexpr std::uint32_t system_area_start = 63;

std::unique_ptr<machine::LocalDisk> make_local_disk(const LocalPlan& plan);

// What a server's image has: which disk it is of, its tag and those of its chunks, and its sectors by LBA.
struct ImageVersion {
    std::uint64_t create_time;
    std::uint32_t modify_tag;
    bool shifted;  // LBA k is the image's sector k, else k + 1
    std::vector<std::uint32_t> tags;
    std::vector<Generation> contents;

    std::uint32_t image_sector(std::uint32_t lba) const { return shifted ? lba : lba + 1; }
};

// The server's area of this version. No chunk's tag may be 0.
std::vector<std::uint8_t> make_server_image(const ImageVersion& version, const Generations& generations);

// Fails the seed when the system area is damaged, when a chunk of it is of no version of the server's
// image from the one that its tag names on, or when what lies below Sync_Pos is not the version that the
// header names. The disk is in no machine. False: there is no image yet.
bool verify_system_area(const machine::LocalDisk& disk, const LocalPlan& plan,
                        std::span<const ImageVersion> versions, const Generations& generations);

}  // namespace campaign
