// SPDX-License-Identifier: MIT
// Between two starts: what is left on the servers and on the local disk, and what the next start finds.
#pragma once

#include <span>
#include <vector>

#include "campaign/faults.h"
#include "campaign/local_area.h"
#include "campaign/world.h"

namespace campaign {

// When the workstation is off: what the servers hold is what the models allow, and nothing else is left.
// kept: for each disk, which of its servers must hold all of it when it is mirrored.
void settle_servers(World& world, std::span<const Kept> kept);

// The server's image of the system disk, from start to start, in boot mode 7.
class ImageVersions {
public:
    explicit ImageVersions(World& world);

    // Before a start: the image has what the disk has, after the changes that the start's plan wants.
    void publish(const StartPlan& plan, unsigned start);
    // A start that loses its server at once may go on with what its local image had before.
    void allow_older();
    // The system image on the local disk is sound, and has contents of the server's image only.
    void verify_local() const;

private:
    void roll_back(unsigned start);
    void make_anew(bool shifted, unsigned start);
    void change_some(unsigned start);
    void add_version(std::vector<Generation> contents);
    void put_on_servers();

    World& world_;
    std::vector<ImageVersion> versions_;
    std::uint64_t create_time_ = 4711;
    std::uint32_t last_tag_ = 0;
    bool shifted_ = true;
};

}  // namespace campaign
