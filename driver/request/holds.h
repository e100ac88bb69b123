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

// Whether a worker may turn to the disk now.
bool May_Hold(ULONG Lun);
// A worker that a silent disk holds has to be let go: silent disks hold all of them, or one has none.
bool Must_Let_Go(ULONG Lun);

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

// A worker's turn to a disk, for a scope.
class Disk_Hold {
public:
    explicit Disk_Hold(ULONG Lun) : Lun_(Lun) { Hold_Begin(Lun_); }
    ~Disk_Hold() { Hold_End(Lun_); }
    Disk_Hold(const Disk_Hold&) = delete;
    Disk_Hold& operator=(const Disk_Hold&) = delete;

private:
    ULONG Lun_;
};
