// SPDX-License-Identifier: MIT
// The synchronisation: fills the system image from the server's copy of it, in the background, chunk by
// chunk, and goes on where an earlier start stopped. At most one run per start, in a thread of its own at
// PASSIVE_LEVEL; the server's image is read by the workers, so it holds no lock of theirs while it reads.
#pragma once

#include "driver/image/image_block.h"
#include "formats/sync_stats.h"

// Null while no run was started, Sync_Ended once its start has been claimed or after its end, otherwise the
// Sync_State of the run. Taken down, and its run told to stop, under one spin lock.
extern PVOID volatile pSync_State;
inline const PVOID Sync_Ended = reinterpret_cast<PVOID>(~static_cast<ULONG_PTR>(0));

// What others may know of the one run. Written by its thread alone.
extern "C" __declspec(dllexport) volatile formats::SyncStats QRN_Sync_Stats;

enum Sync_Status : ULONG {
    Sync_Running = 0,  // or ended with all of the disk handled
    Sync_Stopped = 1,
    Sync_Failed = 2,  // the local disk or the network did
};

struct Sync_State {
    volatile ULONG Status;
    ULONG Chunk;
    ULONG Src_Tag;
    ULONG Work;  // tag of the local chunk
    UCHAR Buffer[formats::chunk_bytes];
};
static_assert(offsetof(Sync_State, Status) == 0);
static_assert(offsetof(Sync_State, Buffer) == 16);

// Claims the one start of the synchronisation and creates its thread; does nothing ever after.
void Sync_Start_Once();

// Tells a run to stop after its current chunk. False when there is none.
bool Sync_Stop();
// The same, and waits up to about 3 seconds for its end.
void QRN_RW_HDD_Stop();

VOID NTAPI QRN_RW_HDD_Sync(PVOID Context);

LONG QRNH_IMG_SYNC(Sync_State* pState, QRNH_IMG_RW* pLocal, QRNH_IMG_RW* pSource);

// The server cannot be reached, and the image was not checked yet: from now on it serves what it holds, all
// of it when its last run handled all of the disk. False when it was checked, or was never to be, or when the
// server has been read from: its disk may be another one.
bool Serve_Unchecked(QRNH_IMG_RW* pImage);

// 64 KB chunks of the image's disk.
ULONG Img_Chunks(const formats::ImageHeader& Header);
