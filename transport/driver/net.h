// SPDX-License-Identifier: MIT
// The transport driver's state, and what its files offer each other. There is one device, one card and one
// place in the network.
//
// Locks: Lock and Receive_Lock, never together, and neither while NDIS is called, which may call back at
// once.
#pragma once

#include <ndis5.h>

#include "formats/boot_block.h"
#include "transport/core/frame.h"
#include "transport/core/neighbours.h"

namespace transport {

constexpr ULONG Send_Slots = 64;
constexpr ULONG Receive_Slots = 256;
constexpr ULONG Receive_Slot_Bytes = 1792;  // a frame, and behind any payload room for the answer to a poll

// A frame on its way to the card. Taken and given back under Lock.
struct Send_Slot {
    Send_Slot* pNext;
    PNDIS_PACKET pPacket;
    PNDIS_BUFFER pBuffer;
    UCHAR Bytes[Frame_Bytes_Max + 2];
};

// A received frame. It is free, on the way from the card, ready, or with the disk driver.
struct Receive_Slot {
    Receive_Slot* pNext;
    PNDIS_PACKET pPacket;  // into which the card transfers what it showed the beginning of
    PNDIS_BUFFER pBuffer;  // behind the Ethernet header
    Frame Judged;
    bool With_Caller;
    alignas(4) UCHAR Bytes[Receive_Slot_Bytes];
};

struct Net_State {
    // Set before the protocol is registered.
    PDEVICE_OBJECT pDevice;
    NDIS_HANDLE Protocol;
    NDIS_HANDLE Packet_Pool, Buffer_Pool;
    Place Here;
    formats::Boot_Param Disks;  // what Block becomes when a card is bound
    Send_Slot* pSend_Slots;
    Receive_Slot* pReceive_Slots;

    // What the disk driver reads and writes through the handover.
    formats::Boot_Param Block;
    volatile ULONG Flag;

    // Of the binding; one at a time is made or ended.
    NDIS_HANDLE Binding;
    KEVENT Completed;  // the open, close or request in progress
    NDIS_STATUS Completion;
    KEVENT Nothing_Out;

    KSPIN_LOCK Lock;
    bool Bound;    // frames may be handed down
    bool Link_Up;  // the card did not tell that its cable is off
    ULONG Sends_Out;
    USHORT Ip_Id;
    Send_Slot* pFree_Sends;
    Neighbours Table;

    KSPIN_LOCK Receive_Lock;
    Receive_Slot* pFree_Receives;
    Receive_Slot *pFirst_Ready, *pLast_Ready;
    LONG Unannounced;  // ready, and nobody woken for them yet
    KSEMAPHORE Ready;

    // For a debugger's eyes.
    volatile LONG Sends_Dropped, Receives_Dropped, Damaged;
};
extern Net_State Net;

class Net_Guard {
public:
    explicit Net_Guard(KSPIN_LOCK& Lock) : Lock_(Lock) { KeAcquireSpinLock(&Lock_, &Irql_); }
    ~Net_Guard() { KeReleaseSpinLock(&Lock_, Irql_); }
    Net_Guard(const Net_Guard&) = delete;
    Net_Guard& operator=(const Net_Guard&) = delete;

private:
    KSPIN_LOCK& Lock_;
    KIRQL Irql_;
};

// slots: PASSIVE_LEVEL, before anything else. All descriptors that will ever be needed; false without memory,
// and then Free_Slots gives back what there was.
bool Make_Slots();
void Free_Slots();

// sending: up to DISPATCH_LEVEL.
VOID NTAPI Send(PVOID pServer, PVOID pHeader, ULONG Header_Bytes, PVOID pData, ULONG Data_Bytes);
void Answer_Arp(const formats::ArpFrame& Request);
VOID NTAPI Send_Complete(NDIS_HANDLE, PNDIS_PACKET pPacket, NDIS_STATUS Status);

// receiving: indications at DISPATCH_LEVEL; Receive waits at PASSIVE_LEVEL.
ULONG NTAPI Receive(PVOID* ppHeader);
VOID NTAPI Release(PVOID pHeader);
NDIS_STATUS NTAPI Receive_Lookahead(NDIS_HANDLE, NDIS_HANDLE Card_Context, PVOID pHeader, UINT Header_Bytes,
                                    PVOID pLookahead, UINT Lookahead_Bytes, UINT Packet_Bytes);
INT NTAPI Receive_Packet(NDIS_HANDLE, PNDIS_PACKET pPacket);
VOID NTAPI Transfer_Complete(NDIS_HANDLE, PNDIS_PACKET pPacket, NDIS_STATUS Status, UINT Bytes);
VOID NTAPI Receive_Complete(NDIS_HANDLE);

// binding: PASSIVE_LEVEL.
NDIS_STATUS Register_Protocol();

inline Ticks Now()
{
    return KeQueryInterruptTime();
}

}  // namespace transport
