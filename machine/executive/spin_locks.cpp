// SPDX-License-Identifier: MIT
#include "machine/executive/spin_locks.h"

#include <string>

#include "machine/executive/checks.h"
#include "machine/executive/lock_order.h"
#include "machine/executive/paged_pool.h"

namespace machine {
namespace {

ULONG_PTR owner_word(Thread& thread)
{
    return reinterpret_cast<ULONG_PTR>(&thread);
}

bool try_lock(PKSPIN_LOCK lock, ULONG_PTR owner)
{
    ULONG_PTR expected = 0;
    return __atomic_compare_exchange_n(lock, &expected, owner, false, __ATOMIC_ACQUIRE, __ATOMIC_RELAXED);
}

void check_before_taking(Thread& thread, PKSPIN_LOCK lock)
{
    if (__atomic_load_n(lock, __ATOMIC_RELAXED) == owner_word(thread))
        violation("a spin lock is taken twice by the same thread");
    if (thread.held_count == Thread::held_locks_max)
        violation("a thread holds more than " + std::to_string(Thread::held_locks_max) + " spin locks");
    for (unsigned index = 0; index < thread.held_count; ++index)
        note_lock_order(thread.held[index].lock, lock);
}

void forget_held(Thread& thread, PKSPIN_LOCK lock, KIRQL new_irql)
{
    for (unsigned index = thread.held_count; index-- > 0;) {
        if (thread.held[index].lock != lock)
            continue;
        const KIRQL old_irql = thread.held[index].old_irql;
        if (old_irql != new_irql)
            violation("a spin lock taken at IRQL " + std::to_string(old_irql) + " is released to IRQL " +
                      std::to_string(new_irql));
        --thread.held_count;
        for (; index < thread.held_count; ++index)
            thread.held[index] = thread.held[index + 1];
        return;
    }
}

}  // namespace

void take_spin_lock(Thread& thread, PKSPIN_LOCK lock, KIRQL old_irql)
{
    scheduler().preemption_point();
    if (strict_checks)
        check_before_taking(thread, lock);
    while (!try_lock(lock, owner_word(thread)))
        do
            scheduler().spin();
        while (__atomic_load_n(lock, __ATOMIC_RELAXED));
    if (strict_checks)
        thread.held[thread.held_count++] = {lock, old_irql};
}

void give_spin_lock(Thread& thread, PKSPIN_LOCK lock, KIRQL new_irql)
{
    if (strict_checks) {
        const ULONG_PTR owner = __atomic_load_n(lock, __ATOMIC_RELAXED);
        if (owner != owner_word(thread))
            violation(owner ? "a spin lock is released by a thread that does not hold it"
                            : "a spin lock is released that nobody holds");
        forget_held(thread, lock, new_irql);
    }
    __atomic_store_n(lock, 0, __ATOMIC_RELEASE);
}

}  // namespace machine

using namespace machine;

namespace {

// The interlocked list routines work at any IRQL and change it for nobody.
class ListLock {
public:
    explicit ListLock(PKSPIN_LOCK lock) : thread_(self()), lock_(lock)
    {
        take_spin_lock(thread_, lock_, thread_.irql);
    }
    ~ListLock() noexcept(false)
    {
        give_spin_lock(thread_, lock_, thread_.irql);
        scheduler().preemption_point();
    }
    ListLock(const ListLock&) = delete;
    ListLock& operator=(const ListLock&) = delete;

private:
    Thread& thread_;
    PKSPIN_LOCK lock_;
};

}  // namespace

extern "C" {

KIRQL FASTCALL KfAcquireSpinLock(PKSPIN_LOCK lock)
{
    Thread& thread = enter_at_most(DISPATCH_LEVEL, "KfAcquireSpinLock");
    const KIRQL old = thread.irql;
    thread.irql = DISPATCH_LEVEL;
    leave_paged_memory();
    take_spin_lock(thread, lock, old);
    return old;
}

VOID FASTCALL KfReleaseSpinLock(PKSPIN_LOCK lock, KIRQL new_irql)
{
    Thread& thread = self();
    if (thread.irql != DISPATCH_LEVEL)
        violation("KfReleaseSpinLock at IRQL " + std::to_string(thread.irql));
    give_spin_lock(thread, lock, new_irql);
    if (new_irql < DISPATCH_LEVEL)
        check_no_lock_held(thread, "while the IRQL is lowered below DISPATCH_LEVEL");
    thread.irql = new_irql;
    scheduler().preemption_point();
}

VOID FASTCALL KefAcquireSpinLockAtDpcLevel(PKSPIN_LOCK lock)
{
    Thread& thread = self();
    if (thread.irql < DISPATCH_LEVEL)
        violation("KeAcquireSpinLockAtDpcLevel at IRQL " + std::to_string(thread.irql));
    take_spin_lock(thread, lock, thread.irql);
}

VOID FASTCALL KefReleaseSpinLockFromDpcLevel(PKSPIN_LOCK lock)
{
    Thread& thread = self();
    if (thread.irql < DISPATCH_LEVEL)
        violation("KeReleaseSpinLockFromDpcLevel at IRQL " + std::to_string(thread.irql));
    give_spin_lock(thread, lock, thread.irql);
    scheduler().preemption_point();
}

PLIST_ENTRY FASTCALL ExfInterlockedInsertTailList(PLIST_ENTRY head, PLIST_ENTRY entry, PKSPIN_LOCK lock)
{
    ListLock guard(lock);
    const PLIST_ENTRY last = IsListEmpty(head) ? nullptr : head->Blink;
    InsertTailList(head, entry);
    return last;
}

PLIST_ENTRY FASTCALL ExfInterlockedInsertHeadList(PLIST_ENTRY head, PLIST_ENTRY entry, PKSPIN_LOCK lock)
{
    ListLock guard(lock);
    const PLIST_ENTRY first = IsListEmpty(head) ? nullptr : head->Flink;
    InsertHeadList(head, entry);
    return first;
}

PLIST_ENTRY FASTCALL ExfInterlockedRemoveHeadList(PLIST_ENTRY head, PKSPIN_LOCK lock)
{
    ListLock guard(lock);
    return IsListEmpty(head) ? nullptr : RemoveHeadList(head);
}

}  // extern "C"
