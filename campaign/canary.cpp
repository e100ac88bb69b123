// SPDX-License-Identifier: MIT
#include "campaign/canary.h"

#include <algorithm>
#include <utility>

#include "formats/wire.h"

namespace campaign {

const char* finding_of(CanaryKind kind)
{
    switch (kind) {
    case CanaryKind::lost_write:
        return "must be|what is stored";
    case CanaryKind::other_answer:
        return "must be|but there is|disks appear";
    case CanaryKind::deaf:
        return "though nothing was wrong|wait|disks appear";
    default:
        return "";
    }
}

bool Canary::changes_answer(std::vector<std::uint8_t>& packet)
{
    if (packet.size() < formats::request_bytes)
        return false;
    if (kind_ == CanaryKind::deaf) {
        const std::uint8_t worker = packet[offsetof(formats::WireHeader, Worker_Byte)];
        return (worker & formats::worker_index_mask) == 1;
    }
    const bool data = packet.size() > formats::header_bytes;
    if (kind_ != CanaryKind::other_answer || !data)
        return false;
    std::vector<std::uint8_t> now(packet.begin() + formats::header_bytes, packet.end());
    if (before_.size() == now.size() && random_.chance(0.01))
        std::ranges::copy(before_, packet.begin() + formats::header_bytes);
    before_ = std::move(now);
    return false;
}

}  // namespace campaign
