// SPDX-License-Identifier: MIT
// How far reads may believe a local image: the state and its transitions, which docs/image-format.md shows as
// a table. Guarded by the Map_Lock of the image's block object.
#pragma once

#include <nt.h>

class Img_Trust {
public:
    // A check against the server's image is to come. Once, before anyone else knows the image.
    void Await_Check() { State_ = State::Awaits_Check; }
    // The synchronisation has held the header against the server's, and made it fit.
    void Check_Begins() { State_ = State::Up_To_Sync_Pos; }
    // It has handled all of the disk.
    void Check_Passed() { State_ = State::Whole; }
    // No check comes after all. False when one has begun, or none was to come.
    bool Check_Given_Up(bool Last_One_Passed)
    {
        if (State_ != State::Awaits_Check)
            return false;
        State_ = Last_One_Passed ? State::Whole : State::Up_To_Sync_Pos;
        return true;
    }

    // Whether reads are told of the chunk. Others count as missing.
    bool Covers(ULONG Chunk, ULONG Sync_Pos) const
    {
        return State_ == State::Whole || (State_ == State::Up_To_Sync_Pos && Chunk < Sync_Pos);
    }

private:
    enum class State {
        Whole,
        Awaits_Check,    // whether it is a copy of the server's image is not known: nothing counts
        Up_To_Sync_Pos,  // what the synchronisation has handled counts
    };
    State State_ = State::Whole;
};
