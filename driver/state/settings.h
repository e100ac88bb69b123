// SPDX-License-Identifier: MIT
// Tuning values from the driver's service key. Loading thread, PASSIVE_LEVEL.
#pragma once

#include <nt.h>

// Settings: defaults at load, changed only by Settings_Read and (RW_THREADS) by Lun_Init.
extern ULONG TRANS_SIZE;  // bytes: largest transfer that the port driver may send
extern ULONG RW_THREADS;  // worker threads, 1 to 8
extern LONG HOT_RETRYS;   // time-outs of one packet after which a mirrored disk leaves its main server
extern ULONG PAE_SIZE;    // MB: least physical memory for the probe above 4 GB

constexpr ULONG RW_Threads_Max = 8;

// Reads the settings; RW_RACK replaces Boot_Param's Rack_Level. Whatever is missing, of another type
// or out of range leaves its setting as it was.
void Settings_Read(PUNICODE_STRING pService_Key);
