// SPDX-License-Identifier: MIT
// The worker threads: they admit request records, pick chunks and run them.
#pragma once

#include <nt.h>

// Creates the queues, up to Count worker blocks with their threads, and the receive thread. Loading thread.
void Workers_Start(ULONG Count);

VOID NTAPI QRN_RW_Thread(PVOID Context);
