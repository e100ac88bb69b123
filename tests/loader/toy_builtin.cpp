// SPDX-License-Identifier: MIT
// A stand-in for the linked driver: its answer shows whether all its variables start afresh.
#include <nt.h>

int toy_common[64];
extern "C" {
int QRN_Cache_Stats[2] = {5, 6};
}

extern "C" NTSTATUS NTAPI DriverEntry(PDRIVER_OBJECT, PUNICODE_STRING)
{
    static int initialised = 1000;
    static int zeroed;
    static const char* pointer = "a";
    initialised += 1000;
    ++zeroed;
    ++QRN_Cache_Stats[1];
    toy_common[63] += 10;
    pointer = *pointer == 'a' ? "b" : "c";
    return initialised + zeroed + toy_common[63] + (*pointer == 'b' ? 100 : 0);
}
