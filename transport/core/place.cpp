// SPDX-License-Identifier: MIT
#include "transport/core/place.h"

namespace transport {

bool Next_Hop(const Place& Place, const Ip_Address& To, Ip_Address& Hop)
{
    bool Here = true, All_Zeros = true, All_Ones = true;
    for (unsigned i = 0; i < sizeof To.Bytes; ++i) {
        const unsigned Mask = Place.Mask.Bytes[i];
        const unsigned Host = To.Bytes[i] & ~Mask & 0xFF;
        Here = Here && ((To.Bytes[i] ^ Place.Own.Bytes[i]) & Mask) == 0;
        All_Zeros = All_Zeros && Host == 0;
        All_Ones = All_Ones && Host == (~Mask & 0xFF);
    }
    if (To.Is_Zero() || To.Is_Of_Many() || To == Place.Own)
        return false;
    // The first and the last address of a network mean all of it. A mask of 31 or 32 ones leaves no such.
    const bool Has_Such = (Place.Mask.Bytes[3] & 3) == 0;
    if (Here && Has_Such && (All_Zeros || All_Ones))
        return false;
    Hop = Here ? To : Place.Gateway;
    return !Hop.Is_Zero();
}

}  // namespace transport
