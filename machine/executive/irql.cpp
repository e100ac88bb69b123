// SPDX-License-Identifier: MIT
// Interrupt request levels. Each thread has its own: the machine has as many processors as threads.
#include <nt.h>

#include <string>

#include "machine/executive/checks.h"
#include "machine/executive/paged_pool.h"

using namespace machine;

namespace {

[[noreturn]] void bad_change(const char* routine, KIRQL from, KIRQL to)
{
    violation(std::string(routine) + " from IRQL " + std::to_string(from) + " to " + std::to_string(to));
}

}  // namespace

extern "C" {

bool nt_switches_at_atomics = false;

void nt_switch_at_atomic()
{
    self();
    scheduler().preemption_point();
}

KIRQL NTAPI KeGetCurrentIrql()
{
    return self().irql;
}

KIRQL FASTCALL KfRaiseIrql(KIRQL irql)
{
    Thread& thread = self();
    const KIRQL old = thread.irql;
    if (irql < old || irql > HIGH_LEVEL)
        bad_change("KfRaiseIrql", old, irql);
    thread.irql = irql;
    if (irql >= DISPATCH_LEVEL)
        leave_paged_memory();
    return old;
}

KIRQL NTAPI KeRaiseIrqlToDpcLevel()
{
    return KfRaiseIrql(DISPATCH_LEVEL);
}

VOID FASTCALL KfLowerIrql(KIRQL irql)
{
    Thread& thread = self();
    if (irql > thread.irql)
        bad_change("KfLowerIrql", thread.irql, irql);
    if (irql < DISPATCH_LEVEL)
        check_no_lock_held(thread, "while the IRQL is lowered below DISPATCH_LEVEL");
    thread.irql = irql;
    scheduler().preemption_point();
}

}  // extern "C"
