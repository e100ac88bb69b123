// SPDX-License-Identifier: MIT
// A driver file for the tests of the loader: it uses every kind of thing that loading prepares, and
// answers with what it finds.
#include <nt.h>

extern "C" __declspec(dllexport) volatile ULONG toy_calls[2];
volatile ULONG toy_calls[2] = {17, 0};

namespace {
volatile ULONG initialised = 7;                 // data
volatile ULONG zeroed;                          // no bytes in the file
const char* volatile words[] = {"one", "two"};  // relocated pointers
ULONG (*volatile helper)(ULONG) = nullptr;

ULONG twice(ULONG value)
{
    return 2 * value;
}
}  // namespace

// The result: 2 * (calls so far in this copy of the data), plus 0x100 when a relocated pointer leads to its
// word, plus 0x200 when kernel data can be read and is set.
extern "C" NTSTATUS NTAPI DriverEntry(PDRIVER_OBJECT, PUNICODE_STRING)
{
    initialised = initialised + 1;
    zeroed = zeroed + 1;
    toy_calls[1] = toy_calls[1] + 1;
    helper = twice;

    KSPIN_LOCK lock;
    KIRQL old_irql;
    KeInitializeSpinLock(&lock);
    KeAcquireSpinLock(&lock, &old_irql);
    const ULONG at_dispatch = KeGetCurrentIrql() == DISPATCH_LEVEL;
    KeReleaseSpinLock(&lock, old_irql);
    DbgPrint("\ntoy %d %s", initialised, words[1]);

    ULONG result = helper(initialised - 7) + (initialised - 7 == zeroed ? 0 : 0x1000);
    if (at_dispatch && words[0][1] == 'n' && words[1][2] == 'o')
        result += 0x100;
    if (Mm64BitPhysicalAddress)
        result += 0x200;
    return static_cast<NTSTATUS>(result);
}
