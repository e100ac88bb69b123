// SPDX-License-Identifier: MIT
// What entry.S offers: the BIOS, the card's services and memory outside the program's segment. PC only.
#pragma once

#include <cstdint>

namespace boot {

// Of a BIOS call, as the handler pushed them.
struct Registers {
    std::uint32_t edi, esi, ebp, esp, ebx, edx, ecx, eax;
    std::uint32_t ds, es, fs, gs;  // low halves
};

using FarAddress = std::uint32_t;  // segment << 16 | offset

extern "C" {
void install_handlers();
bool call_old_13(Registers* registers);
std::uint16_t pxe_call(unsigned opcode, void* parameters);
void far_copy(FarAddress to, FarAddress from, unsigned byte_count);
void far_zero(FarAddress to, unsigned byte_count);
void put_char(char character);
void idle();
std::uint16_t own_segment();
extern FarAddress pxe_structure, pxe_entry;
extern std::uint16_t base_kb;
extern std::uint32_t caller_esp;
extern std::uint16_t caller_ss;
}

inline FarAddress far_of(const void* ours)
{
    return static_cast<FarAddress>(own_segment()) << 16 |
           static_cast<FarAddress>(reinterpret_cast<std::uintptr_t>(ours));
}

constexpr FarAddress far_at(std::uint32_t linear)
{
    return linear < 0xFFFF0 ? (linear >> 4) << 16 | (linear & 15) : 0xFFFF0000 | (linear - 0xFFFF0);
}

constexpr std::uint32_t linear_of(FarAddress address)
{
    return (address >> 16 << 4) + (address & 0xFFFF);
}

template <typename Value>
Value peek(FarAddress address)
{
    Value value{};
    far_copy(far_of(&value), address, sizeof value);
    return value;
}

template <typename Value>
void poke(FarAddress address, Value value)
{
    far_copy(address, far_of(&value), sizeof value);
}

}  // namespace boot
