// SPDX-License-Identifier: MIT
// How far the driver has come with filling the system image from the server. It exports one of these as
// QRN_Sync_Stats, for debuggers and for programs that run the driver. Words change while they are read; of a
// run they are there before State says that it goes on.
#pragma once

#include <cstddef>
#include <cstdint>

namespace formats {

constexpr std::uint32_t sync_waiting = 0;
constexpr std::uint32_t sync_asking_server = 1;
constexpr std::uint32_t sync_running = 2;
constexpr std::uint32_t sync_complete = 3;
constexpr std::uint32_t sync_stopped = 4;
constexpr std::uint32_t sync_failed = 5;
constexpr std::uint32_t sync_no_server_image = 6;  // or none that could be used

struct SyncStats {
    std::uint32_t State;
    std::uint32_t Chunks;       // of 64 KB, of the image's disk
    std::uint32_t First_Chunk;  // at which this start went on
    std::uint32_t Chunk;        // the next one
    std::uint64_t Start_Time;   // interrupt time, in 100 ns
};
static_assert(offsetof(SyncStats, Start_Time) == 16);
static_assert(sizeof(SyncStats) == 24);

}  // namespace formats
