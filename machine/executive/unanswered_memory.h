// SPDX-License-Identifier: MIT
// Physical addresses that can be mapped but where nothing answers: reads give ones and writes are
// lost, as on an empty bus. Every access faults; the handler lets the one instruction run on a page
// that is thrown away after it. Slow, exact, and for a driver's probes only.
#pragma once

#include <signal.h>

#include <cstddef>

namespace machine {

// A multiple of the page size. MAP_FAILED when no address space is left.
void* map_unanswered(std::size_t bytes);
// Before the mapping is undone; any other address is ignored.
void forget_unanswered(const void* mapped);

// For handlers of faults: this one is not theirs. Hands it to the handler that was there before.
void pass_fault_on(const struct sigaction& previous, int number, siginfo_t* info, void* context);

}  // namespace machine
