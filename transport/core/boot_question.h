// SPDX-License-Identifier: MIT
// Asking a block server which disks this PC has, where no boot record says it. The caller sends what is due,
// brings what came, and holds one lock for all calls; any IRQL.
#pragma once

#include "formats/boot_request.h"
#include "transport/core/neighbours.h"

namespace transport {

class Boot_Question {
public:
    enum class State {
        Not_Asked,
        Asking,
        Answered,  // Disks() are this PC's
        Nobody     // nobody answered in time
    };

    static constexpr Ticks Ask_Again = Ticks_Per_Second;

    // Begins, or begins anew. A cookie differs from the last one: answers to earlier questions are late.
    void Begin(const Place& Place, std::uint32_t Cookie, Ticks Now, Ticks Patience);

    // True: Request() is to be sent now. Ends the question when the patience is at its end. To be called as
    // often as a question may be repeated.
    bool Due(Ticks Now);
    const formats::BootRequest& Request() const { return Request_; }

    // True: the packet is of this protocol, and nobody else's business. A refusal ends nothing: whoever runs
    // the server may be about to put this PC in.
    bool Take(const void* Packet, unsigned Bytes);

    State Current() const { return State_; }
    const formats::Boot_Param& Disks() const { return Disks_; }

private:
    bool Is_The_Answer(const formats::BootAnswer& Answer, unsigned Bytes) const;

    State State_ = State::Not_Asked;
    formats::BootRequest Request_ = {};
    formats::Boot_Param Disks_ = {};
    Ticks Next_ = 0, End_ = 0;
};

}  // namespace transport
