// SPDX-License-Identifier: MIT
// The queues of SRBs that wait for the miniport, one for each logical unit, and which of them goes down
// next: SRBs that bypass frozen queues first, in order of arrival; then one SRB of each unit in turn.
//
// Everything under the adapter's queue lock.
#pragma once

#include <array>
#include <cstdint>
#include <vector>

#include <nt.h>

#include "machine/scsiport/irp_list.h"

namespace machine {

// Normal SRBs of one unit in the miniport's hands; SRBs that bypass frozen queues come on top.
constexpr unsigned unit_depth = 254;

struct Unit {
    IrpList waiting;
    unsigned active = 0;        // normal SRBs in the miniport's hands
    unsigned busy_retries = 0;  // answers BUSY in a row
    bool frozen = false;        // after an error, until the class driver releases the queue
    bool held = false;          // after BUSY, until a completion or the next second
    bool drawn = true;          // fed one at a time: an SRB has come back since the last went down
    bool on_ready_list = false;
    Unit* next_ready = nullptr;
    std::array<std::uint8_t, unit_depth> free_tags{};  // from tags_in_use on
    unsigned tags_in_use = 0;
};

class UnitQueues {
public:
    // depth: normal SRBs in flight for each unit, at most unit_depth. one_at_a_time: a unit gets the next
    // when one has come back.
    void configure(unsigned luns, unsigned depth, bool one_at_a_time);

    // The unit of a LUN; all addresses that the adapter does not have share one more unit.
    Unit& unit_at(unsigned path, unsigned target, unsigned lun);
    const Unit& unit_at(unsigned path, unsigned target, unsigned lun) const;
    Unit& unit_of(const SCSI_REQUEST_BLOCK& srb) { return unit_at(srb.PathId, srb.TargetId, srb.Lun); }

    static bool bypasses(const SCSI_REQUEST_BLOCK& srb)
    {
        return (srb.SrbFlags & SRB_FLAGS_BYPASS_FROZEN_QUEUE) != 0;
    }

    void add(PIRP irp);
    // Back to the head of its queue.
    void put_back(Unit& unit, PIRP irp);
    // Takes the next SRB that may go down now; null when there is none.
    PIRP next();

    // To be called when a unit may have become able to send.
    void refresh(Unit& unit);
    // An SRB of the unit came back.
    void draw(Unit& unit);
    // Ends the pause of all units that answered BUSY. True when there were any.
    bool release_held();

    static std::uint8_t take_tag(Unit& unit);
    static void give_back_tag(Unit& unit, std::uint8_t tag);

private:
    bool can_send(const Unit& unit) const
    {
        return !unit.frozen && !unit.held && !unit.waiting.empty() && unit.active < depth_ &&
               (unit.drawn || !one_at_a_time_);
    }

    unsigned depth_ = unit_depth;
    bool one_at_a_time_ = false;
    std::vector<Unit> units_;
    IrpList bypassing_;
    Unit* first_ready_ = nullptr;
    Unit* last_ready_ = nullptr;
};

}  // namespace machine
