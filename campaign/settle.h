// SPDX-License-Identifier: MIT
// Between two starts: what is left on the servers and on the local disk, and what the next start finds.
#pragma once

#include <vector>

#include "campaign/world.h"

namespace campaign {

// When the workstation is off: what the servers hold is what the models allow, and nothing else is left.
// both: no server of a mirrored disk was given up, so both must hold all of it.
void settle_servers(World& world, bool both);

// The server's image of the system disk, from start to start, in boot mode 7.
class ImageVersions {
public:
    explicit ImageVersions(World& world);

    // Before a start: the image has what the disk has, after some changes if it is to be newer.
    void publish(bool newer, unsigned start);
    // A start that loses its server at once may go on with what its local image had before.
    void allow_older();
    // The system image on the local disk is sound, and has contents of the server's image only.
    void verify_local() const;

private:
    void change_some(unsigned start);

    World& world_;
    std::uint32_t chunks_;
    std::vector<std::uint32_t> tags_;
    std::vector<std::vector<Generation>> versions_;
};

}  // namespace campaign
