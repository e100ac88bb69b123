// SPDX-License-Identifier: MIT
// What a seed has beside the workstation, and what outlives each of its starts.
#pragma once

#include <memory>
#include <vector>

#include "campaign/coverage.h"
#include "campaign/model.h"
#include "campaign/plan.h"
#include "campaign/report.h"
#include "campaign/servers.h"
#include "machine/disk/local_disk.h"
#include "machine/transport/packet_capture.h"

namespace campaign {

struct World {
    World(Plan plan, CanaryKind canary);

    Plan plan;
    Canary canary;
    BlockServer main, slave;
    std::unique_ptr<machine::LocalDisk> local;  // boot mode 7 only
    Generations generations;
    std::vector<DiskModel> models;
    Coverage coverage;
    EventHash events;
    double simulated_s = 0;
    std::unique_ptr<machine::PacketCapture> capture;  // null: none

    Sector content(Place place, Generation generation) const
    {
        return generations.content(place, generation);
    }
    // Puts these contents on the servers.
    void store(Place place, Generation generation);
    std::span<const std::uint8_t> stored(BlockServer& server, Place place) const;
    // What a server has there; fails the seed when it is no content of this place that was ever written.
    Generation stored_generation(BlockServer& server, Place place);
};

}  // namespace campaign
