// SPDX-License-Identifier: MIT
// What holds for every packet that the workstation sends, whatever happens: its lengths and places, its
// fragments, where it goes, and how often it goes when nobody answers. Breaking a rule fails the seed.
//
// Asked by the network's observer, in the order in which packets leave.
#pragma once

#include <array>
#include <cstdint>
#include <span>

#include "campaign/plan.h"
#include "formats/wire.h"

namespace campaign {

class WireRules {
public:
    explicit WireRules(const Plan& plan) : plan_(plan) {}

    // to_slave: which of the two servers it goes to. True: a write that only the slave gets, and so a disk
    // that has left its main server.
    bool sent(std::span<const std::uint8_t> packet, bool to_slave, std::int64_t now_ms);
    void answered(std::span<const std::uint8_t> packet, std::int64_t now_ms);

private:
    // The packet of a worker that is in flight, as it was sent last.
    struct Flight {
        std::array<std::uint8_t, formats::match_bytes> match{};
        std::uint8_t kind = 0;
        std::int64_t request_ms = -1;                // reads; -1: not yet
        std::array<std::int64_t, 16> fragment_ms{};  // writes
        std::int64_t answer_ms = 0;                  // of any packet for this worker
        formats::WireHeader main_write{};            // the last one to a main server
    };

    void check_place(const formats::WireHeader& header, unsigned lun) const;
    void check_fragment(const formats::WireHeader& header, std::size_t bytes) const;
    void check_pace(const formats::WireHeader& header, std::int64_t now_ms);
    bool is_alone(const formats::WireHeader& header, bool to_slave);

    const Plan& plan_;
    std::array<Flight, formats::worker_index_mask + 1> flights_{};
};

}  // namespace campaign
