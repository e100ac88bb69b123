// SPDX-License-Identifier: MIT
// Faults planted on purpose in the servers, which the campaign must find: proof that it can.
#pragma once

#include <cstdint>
#include <vector>

#include "campaign/streams.h"

namespace campaign {

enum class CanaryKind {
    none,
    lost_write,    // a server answers that a write is done, and has dropped it
    other_answer,  // the data of an answer is that of an answer before
    deaf,          // answers to one of the workers never leave the server
};

// What a seed's failure says of it; alternatives with a '|' between.
const char* finding_of(CanaryKind kind);

class Canary {
public:
    Canary(CanaryKind kind, std::uint64_t seed) : kind_(kind), random_(seed, "canary") {}

    bool loses_write() { return kind_ == CanaryKind::lost_write && random_.chance(0.01); }
    // A packet from a server to the workstation. True: it does not leave.
    bool changes_answer(std::vector<std::uint8_t>& packet);

private:
    CanaryKind kind_;
    Stream random_;
    std::vector<std::uint8_t> before_;
};

}  // namespace campaign
