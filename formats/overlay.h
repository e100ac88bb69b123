// SPDX-License-Identifier: MIT
// The file of an overlay: what one workstation wrote to a disk whose image it shares with others.
//
//   header (one sector, so that it is never half written), padded to overlay_page_bytes
//   map    one bit for each block that the overlay holds, as of the last flush
//   live   the same as of the last write; it counts only while the header's Session is the kernel's own
//   data   blocks at the places that they have on the disk; the file is sparse
//
// A flush brings the data down before the bits of the map. So the map never tells of a block that a power cut
// has kept from the medium. A server that is killed loses nothing: what it wrote is in the kernel's hands,
// and the live map is in step with it as long as that kernel runs.
#pragma once

#include "formats/endian.h"

namespace formats {

constexpr char overlay_signature[] = "QRNOVLAY";
constexpr std::uint32_t overlay_version = 1;
constexpr std::uint32_t overlay_page_bytes =
    4096;  // parts of the file begin at multiples, the map is written in these
constexpr std::uint32_t overlay_block_bytes_min = 512;
constexpr std::uint32_t overlay_block_bytes_max = 65536;

struct OverlayHeader {
    char Signature[8];
    Le32 Version;
    Le32 Block_Bytes;  // a power of two
    Le64 Disk_Bytes;
    Le64 Map_Offset;
    Le64 Live_Offset;
    Le64 Data_Offset;
    std::uint8_t Session[16];  // of the kernel that has written the live map
    char Base[256];            // the image beneath, as the server names it; zero-terminated
    std::uint8_t Reserved_320[188];
    Le32 Checksum;
};

// Over all of the header before its checksum.
inline std::uint32_t overlay_checksum(const OverlayHeader& header)
{
    std::uint32_t hash = 0x811C9DC5;
    const auto* bytes = reinterpret_cast<const std::uint8_t*>(&header);
    for (std::size_t i = 0; i < offsetof(OverlayHeader, Checksum); ++i)
        hash = (hash ^ bytes[i]) * 0x01000193;
    return hash;
}

static_assert(sizeof(OverlayHeader) == 512);
static_assert(offsetof(OverlayHeader, Version) == 8);
static_assert(offsetof(OverlayHeader, Block_Bytes) == 12);
static_assert(offsetof(OverlayHeader, Disk_Bytes) == 16);
static_assert(offsetof(OverlayHeader, Map_Offset) == 24);
static_assert(offsetof(OverlayHeader, Live_Offset) == 32);
static_assert(offsetof(OverlayHeader, Data_Offset) == 40);
static_assert(offsetof(OverlayHeader, Session) == 48);
static_assert(offsetof(OverlayHeader, Base) == 64);
static_assert(offsetof(OverlayHeader, Checksum) == 508);
static_assert(sizeof(overlay_signature) - 1 == sizeof(OverlayHeader::Signature));

}  // namespace formats
