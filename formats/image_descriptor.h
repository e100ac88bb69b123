// SPDX-License-Identifier: MIT
// Left on a 16-byte boundary of conventional memory by code that boots a machine from its local disk: where
// the partition sector of the disk that it boots lies. Searched like a BootRecord.
#pragma once

#include "formats/endian.h"

namespace formats {

struct ImageDescriptor {
    std::uint8_t Jump;
    Le16 Displacement;  // from the byte behind it to the partition sector
    std::uint8_t Reserved_3;
    char Mark[4];
    Le32 Kind;
};

constexpr char image_descriptor_mark[] = "QRNH";
constexpr std::uint32_t image_descriptor_kind = 0x1044;
constexpr std::uint32_t image_descriptor_jump_bytes = 3;

static_assert(sizeof(ImageDescriptor) == 12);
static_assert(offsetof(ImageDescriptor, Displacement) == 1);
static_assert(offsetof(ImageDescriptor, Mark) == 4);
static_assert(offsetof(ImageDescriptor, Kind) == 8);
static_assert(sizeof image_descriptor_mark - 1 == sizeof(ImageDescriptor::Mark));

}  // namespace formats
