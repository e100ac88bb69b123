// SPDX-License-Identifier: MIT
// Which disks hold the workers. A disk whose server is silent keeps a worker for as long as its patience
// lasts; so, where there are other disks, silent disks together hold all workers but one, and that one is for
// the others; and among themselves each of them has a turn, time-out by time-out. A single worker, or a
// single disk, goes by no such rule.
//
// Any thread, PASSIVE_LEVEL or below DISPATCH_LEVEL; nothing here is locked: counts that are a moment old
// make a worker too few or too many for that moment.
#pragma once

#include <nt.h>

// A worker turns to a disk, or from it: for a chunk, a negotiation, or the write-back of a cached block.
void Hold_Begin(ULONG Lun);
void Hold_End(ULONG Lun);

// Whether a worker may turn to the disk now. Under Active_Lock the answer stays true until Hold_Begin, as only
// there do workers turn to silent disks.
bool May_Hold(ULONG Lun);
// Hold_Begin, when the worker may. Takes Active_Lock.
bool Try_Hold(ULONG Lun);
// A worker that a silent disk holds has to be let go: silent disks hold all of them, or one has none.
bool Must_Let_Go(ULONG Lun);

// The silent disk that had a turn last, and that others go before; -1: none.
LONG Last_Turn();
void Turn_Ends(ULONG Lun);

// A packet of the disk has timed out; a packet has come to its end.
void Disk_Is_Silent(ULONG Lun);
void Disk_Answers(ULONG Lun);

// A worker that serves one disk turns to another for a scope.
class Disk_Turn {
public:
    Disk_Turn(ULONG From, ULONG To) : From_(From), To_(To)
    {
        Hold_Begin(To_);
        Hold_End(From_);
    }
    ~Disk_Turn()
    {
        Hold_Begin(From_);
        Hold_End(To_);
    }
    Disk_Turn(const Disk_Turn&) = delete;
    Disk_Turn& operator=(const Disk_Turn&) = delete;

private:
    ULONG From_;
    ULONG To_;
};

