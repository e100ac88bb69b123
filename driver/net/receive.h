// SPDX-License-Identifier: MIT
// The receive thread: takes every packet that the transport delivers and routes answers to the worker
// that waits for them.
#pragma once

#include <nt.h>

VOID NTAPI QRN_Recv_Thread(PVOID Context);
