// SPDX-License-Identifier: MIT
#include "driver/net/machine_reset.h"

namespace {

constexpr ULONG Clock_Index = 0x70;
constexpr ULONG Clock_Data = 0x71;
constexpr ULONG Sequencer_Index = 0x3C4;
constexpr ULONG Sequencer_Data = 0x3C5;
constexpr ULONG Reset_Failed_Code = 0xE5;

void Write_Port(ULONG Port, UCHAR Value)
{
    WRITE_PORT_UCHAR(reinterpret_cast<PUCHAR>(Port), Value);
}

UCHAR Read_Port(ULONG Port)
{
    return READ_PORT_UCHAR(reinterpret_cast<PUCHAR>(Port));
}

void Write_Clock(UCHAR Register, UCHAR Value)
{
    Write_Port(Clock_Index, Register);
    Write_Port(Clock_Data, Value);
}

UCHAR Read_Clock(UCHAR Register)
{
    Write_Port(Clock_Index, Register);
    return Read_Port(Clock_Data);
}

// Tells the next boot that the machine was reset for a lost system disk.
void Write_Marker()
{
    Write_Clock(3, 0x51);
    Write_Clock(5, 0x52);
}

void Quiet_Clock()
{
    constexpr UCHAR Status_B = 0x0B, Status_C = 0x0C;
    constexpr UCHAR Periodic_Interrupt = 0x40, Hours_24 = 0x02;
    Write_Clock(Status_B, static_cast<UCHAR>((Read_Clock(Status_B) & ~Periodic_Interrupt) | Hours_24));
    Read_Clock(Status_C);  // clears pending clock interrupts
}

void Pull_Reset()
{
    constexpr struct {
        USHORT Port;
        UCHAR Value;
    } Writes[] = {{0x92, 0x01}, {0x64, 0xFE}, {0xCF9, 0x02}, {0xCF9, 0x0E}, {0x92, 0x01}, {0x64, 0xFE}};
    for (const auto& Write : Writes) {
        Write_Port(Write.Port, Write.Value);
        __asm__ volatile("pause");
    }
}

void Blank_Screen()
{
    constexpr UCHAR Clocking_Mode = 1, Screen_Off = 0x20;
    Write_Port(Sequencer_Index, Clocking_Mode);
    Write_Port(Sequencer_Data, static_cast<UCHAR>(Read_Port(Sequencer_Data) | Screen_Off));
}

}  // namespace

void Machine_Reset()
{
    Write_Marker();
    Quiet_Clock();
    Pull_Reset();
    Blank_Screen();
    KeBugCheck(Reset_Failed_Code);
    __builtin_unreachable();
}
