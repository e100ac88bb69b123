// SPDX-License-Identifier: MIT
// Which card has which address on this network: a table of fixed size, filled by answers to what was asked
// and by nothing else. The caller holds one lock for all calls; any IRQL.
//
// A card that was learnt serves until an answer names another one. When it has not been heard of for a while
// it is asked for again, and used meanwhile: a wrong place costs a packet, and so does none.
#pragma once

#include "transport/core/place.h"

namespace transport {

using Ticks = std::uint64_t;  // of 100 ns, as the kernel counts
constexpr Ticks Ticks_Per_Second = 10'000'000;

constexpr Ticks Neighbour_Fresh = 30 * Ticks_Per_Second;       // how long nobody is asked again
constexpr Ticks Neighbour_Ask_Again = Ticks_Per_Second;        // between two questions
constexpr Ticks Neighbour_Answer_Late = 3 * Ticks_Per_Second;  // an answer after this was not asked for

class Neighbours {
public:
    static constexpr unsigned Count_Max = 16;  // eight servers, the boot server, the gateway, some who poll

    struct Way {
        bool Known;
        bool Ask;  // the caller sends a question now
        Hardware_Address Card;
    };

    // The way to a neighbour that a packet goes to. The hint is where it is said to be, until it says so
    // itself; zeros when nobody said. The neighbour not needed for longest makes room.
    Way Look_Up(const Ip_Address& Ip, const Hardware_Address& Hint, Ticks Now);

    // An answer came. False: it was not asked for, and changes nothing.
    bool Learn(const Ip_Address& Ip, const Hardware_Address& Card, Ticks Now);

    // Another network: nothing that was known holds.
    void Forget();

private:
    struct Neighbour {
        Ip_Address Ip;
        Hardware_Address Card;
        bool Used, Known, Heard, Asked;
        Ticks Needed_At, Heard_At, Asked_At;
    };

    Neighbour* Find(const Ip_Address& Ip);
    Neighbour& Make_Room();

    Neighbour Table_[Count_Max] = {};
};

}  // namespace transport
