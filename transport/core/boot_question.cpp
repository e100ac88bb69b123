// SPDX-License-Identifier: MIT
#include "transport/core/boot_question.h"

namespace transport {
namespace {

bool Same(const std::uint8_t* Left, const std::uint8_t* Right, unsigned Bytes)
{
    for (unsigned i = 0; i < Bytes; ++i)
        if (Left[i] != Right[i])
            return false;
    return true;
}

}  // namespace

void Boot_Question::Begin(const Place& Place, std::uint32_t Cookie, Ticks Now, Ticks Patience)
{
    Request_ = {};
    __builtin_memcpy(Request_.Mark, formats::boot_mark, sizeof Request_.Mark);
    Request_.Version = formats::boot_version;
    Request_.Kind = formats::boot_kind_request;
    Request_.Length.set(sizeof Request_);
    Request_.Cookie.set(Cookie);
    __builtin_memcpy(Request_.Hardware, &Place.Card, sizeof Request_.Hardware);
    __builtin_memcpy(Request_.Ip, &Place.Own, sizeof Request_.Ip);
    Request_.Abilities.set(formats::boot_ability_write);
    State_ = State::Asking;
    Next_ = Now;
    End_ = Now + Patience;
}

bool Boot_Question::Due(Ticks Now)
{
    if (State_ != State::Asking)
        return false;
    if (Now >= End_) {
        State_ = State::Nobody;
        return false;
    }
    if (Now < Next_)
        return false;
    Next_ = Now + Ask_Again;
    return true;
}

// A block without disks, or with more than there can be, would be read as "still searching" or "no server".
bool Boot_Question::Is_The_Answer(const formats::BootAnswer& Answer, unsigned Bytes) const
{
    return Answer.Version == formats::boot_version && Answer.Kind == formats::boot_kind_answer &&
           Answer.Length.get() >= sizeof Answer && Answer.Length.get() <= Bytes &&
           Answer.Cookie.get() == Request_.Cookie.get() &&
           Same(Answer.Hardware, Request_.Hardware, sizeof Answer.Hardware) && Answer.Param.Disk_Nums != 0 &&
           Answer.Param.Disk_Nums <= formats::disk_count_max;
}

bool Boot_Question::Take(const void* Packet, unsigned Bytes)
{
    const auto* const Mark = static_cast<const std::uint8_t*>(Packet);
    if (Bytes < sizeof formats::boot_mark || !Same(Mark, formats::boot_mark, sizeof formats::boot_mark))
        return false;
    if (State_ != State::Asking || Bytes < sizeof(formats::BootAnswer))
        return true;
    const auto& Answer = *static_cast<const formats::BootAnswer*>(Packet);
    if (Is_The_Answer(Answer, Bytes)) {
        Disks_ = Answer.Param;
        Disks_.Rack_Level.set(Answer.Rack_Level.get());
        State_ = State::Answered;
    }
    return true;
}

}  // namespace transport
