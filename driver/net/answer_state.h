// SPDX-License-Identifier: MIT
// Ack_State of a worker: what the last answer was, and how many there have been.
#pragma once

#include <nt.h>

enum class Answer : ULONG {
    None = 0,         // the sender started or restarted the packet
    Data = 1,         // a read data fragment was stored
    Data_Gap = 2,     // the same, while the fragment before it is still missing
    Has_All = 3,      // an acknowledgement named no missing fragment
    Has_Missing = 4,  // an acknowledgement named missing fragments
};

constexpr ULONG Answer_Count_Unit = 0x100;  // every data or acknowledgement answer adds one
constexpr ULONG Answer_Kind_Mask = 0xFF;

constexpr Answer Answer_Kind(ULONG Ack_State)
{
    return static_cast<Answer>(Ack_State & Answer_Kind_Mask);
}

// The state after one more answer of the given kind.
constexpr ULONG Next_Answer(ULONG Ack_State, Answer Kind)
{
    return ((Ack_State + Answer_Count_Unit) & ~Answer_Kind_Mask) | static_cast<ULONG>(Kind);
}
