// SPDX-License-Identifier: MIT
#include "transport/core/neighbours.h"

namespace transport {

Neighbours::Neighbour* Neighbours::Find(const Ip_Address& Ip)
{
    for (Neighbour& Each : Table_)
        if (Each.Used && Each.Ip == Ip)
            return &Each;
    return nullptr;
}

Neighbours::Neighbour& Neighbours::Make_Room()
{
    Neighbour* Oldest = &Table_[0];
    for (Neighbour& Each : Table_) {
        if (!Each.Used)
            return Each;
        if (Each.Needed_At < Oldest->Needed_At)
            Oldest = &Each;
    }
    return *Oldest;
}

Neighbours::Way Neighbours::Look_Up(const Ip_Address& Ip, const Hardware_Address& Hint, Ticks Now)
{
    Neighbour* Found = Find(Ip);
    if (!Found) {
        Found = &Make_Room();
        *Found = {};
        Found->Used = true;
        Found->Ip = Ip;
    }
    if (!Found->Heard) {
        Found->Known = Hint.Is_One_Card();
        Found->Card = Hint;
    }
    Found->Needed_At = Now;
    const bool Fresh = Found->Heard && Now - Found->Heard_At < Neighbour_Fresh;
    const bool Ask = !Fresh && (!Found->Asked || Now - Found->Asked_At >= Neighbour_Ask_Again);
    if (Ask) {
        Found->Asked = true;
        Found->Asked_At = Now;
    }
    return {Found->Known, Ask, Found->Card};
}

bool Neighbours::Learn(const Ip_Address& Ip, const Hardware_Address& Card, Ticks Now)
{
    Neighbour* const Found = Find(Ip);
    if (!Found || !Found->Asked || Now - Found->Asked_At > Neighbour_Answer_Late || !Card.Is_One_Card())
        return false;
    Found->Card = Card;
    Found->Known = Found->Heard = true;
    Found->Heard_At = Now;
    Found->Asked = false;  // a second answer is somebody else's
    return true;
}

void Neighbours::Forget()
{
    for (Neighbour& Each : Table_)
        Each = {};
}

}  // namespace transport
