// SPDX-License-Identifier: MIT
#include <algorithm>
#include <utility>

#include "tests/machine/kernel_test.h"

namespace machine::test {
namespace {

KSPIN_LOCK locks[3];

void take_in_order(std::initializer_list<int> order)
{
    const KIRQL irql = KeRaiseIrqlToDpcLevel();
    for (const int index : order)
        KeAcquireSpinLockAtDpcLevel(&locks[index]);
    for (const int index : order)
        KeReleaseSpinLockFromDpcLevel(&locks[index]);
    KeLowerIrql(irql);
}

TEST(Spin_locks, Misuse_is_reported)
{
    const BrokenRule rules[] = {
        {"list routine under its own lock",
         [](Machine&) {
             LIST_ENTRY list, entry;
             InitializeListHead(&list);
             locked(locks[0], [&] { ExInterlockedInsertTailList(&list, &entry, &locks[0]); });
         },
         "taken twice"},
        {"released by another",
         [](Machine& machine) {
             machine.scheduler().spawn("other", [] {
                 KeRaiseIrqlToDpcLevel();
                 KeReleaseSpinLock(&locks[0], PASSIVE_LEVEL);
             });
             locked(locks[0], [&] {
                 for (int round = 0; round < 1000; ++round)
                     machine.scheduler().preempt();
             });
         },
         "does not hold it"},
        {"released without being held",
         [](Machine&) {
             KeRaiseIrqlToDpcLevel();
             KeReleaseSpinLockFromDpcLevel(&locks[0]);
         },
         "nobody holds"},
        {"released to another IRQL",
         [](Machine&) {
             KIRQL irql;
             KeAcquireSpinLock(&locks[0], &irql);
             KeReleaseSpinLock(&locks[0], APC_LEVEL);
         },
         "taken at IRQL 0 is released to IRQL 1"},
        {"outer lock released first, to the outer IRQL",
         [](Machine&) {
             KIRQL outer, inner;
             KeAcquireSpinLock(&locks[0], &outer);
             KeAcquireSpinLock(&locks[1], &inner);
             KeReleaseSpinLock(&locks[0], outer);
         },
         "a spin lock is held while the IRQL is lowered"},
        {"at DPC level below it", [](Machine&) { KeAcquireSpinLockAtDpcLevel(&locks[0]); },
         "KeAcquireSpinLockAtDpcLevel at IRQL 0"},
        {"order seen both ways round",
         [](Machine&) {
             take_in_order({0, 1});
             take_in_order({1, 0});
         },
         "lock order seen both ways round"},
        {"order in a circle of three",
         [](Machine&) {
             take_in_order({0, 1});
             take_in_order({1, 2});
             take_in_order({2, 0});
         },
         "lock order seen both ways round"},
    };
    for (const BrokenRule& rule : rules) {
        std::ranges::fill(locks, 0);
        expect_breaks({rule});
    }
}

TEST(Spin_locks, A_lock_in_freed_memory_leaves_no_order_behind)
{
    constexpr SIZE_T bytes = 300 * 1024;  // memory that is used again at once
    std::ranges::fill(locks, 0);
    int reused = 0;
    EXPECT_EQ(broken_rule([&](Machine&) {
                  PKSPIN_LOCK previous = nullptr;
                  for (int round = 0; round < 10; ++round) {
                      auto* in_pool = static_cast<PKSPIN_LOCK>(ExAllocatePoolWithTag(NonPagedPool, bytes, 1));
                      KeInitializeSpinLock(in_pool);
                      PKSPIN_LOCK order[] = {in_pool, &locks[0]};
                      const bool swapped = round % 2;
                      reused += std::exchange(previous, in_pool) == in_pool;
                      locked(*order[swapped], [&] { locked(*order[!swapped], [] {}); });
                      ExFreePoolWithTag(in_pool, 1);
                  }
              }),
              "");
#if !defined(__SANITIZE_ADDRESS__)  // the sanitizer never gives the same memory out so soon
    EXPECT_GT(reused, 0);
#endif
}

}  // namespace
}  // namespace machine::test
