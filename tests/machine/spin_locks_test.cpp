#include <utility>
#include <vector>

#include "tests/machine/kernel_test.h"

namespace machine::test {
namespace {

KSPIN_LOCK locks[3];

void take_in_order(std::initializer_list<int> order)
{
    KIRQL irql;
    KeRaiseIrql(DISPATCH_LEVEL, &irql);
    for (const int index : order)
        KeAcquireSpinLockAtDpcLevel(&locks[index]);
    for (const int index : order)
        KeReleaseSpinLockFromDpcLevel(&locks[index]);
    KeLowerIrql(irql);
}

struct Case {
    const char* name;
    std::function<void(Machine&)> body;
    const char* rule;
};

TEST(Spin_locks, Misuse_is_reported)
{
    const Case cases[] = {
        {"twice",
         [](Machine&) {
             KIRQL irql;
             KeAcquireSpinLock(&locks[0], &irql);
             KeAcquireSpinLock(&locks[0], &irql);
         },
         "taken twice"},
        {"list routine under its own lock",
         [](Machine&) {
             LIST_ENTRY list, entry;
             InitializeListHead(&list);
             KIRQL irql;
             KeAcquireSpinLock(&locks[0], &irql);
             ExInterlockedInsertTailList(&list, &entry, &locks[0]);
         },
         "taken twice"},
        {"released by another",
         [](Machine& machine) {
             KIRQL irql;
             KeAcquireSpinLock(&locks[0], &irql);
             machine.scheduler().spawn("other", [] {
                 KIRQL other;
                 KeRaiseIrql(DISPATCH_LEVEL, &other);
                 KeReleaseSpinLock(&locks[0], other);
             });
             for (int round = 0; round < 1000; ++round)
                 KeReadStateEvent([] {
                     static KEVENT event;
                     KeInitializeEvent(&event, NotificationEvent, FALSE);
                     return &event;
                 }());
         },
         "does not hold it"},
        {"released without being held",
         [](Machine&) {
             KIRQL irql;
             KeRaiseIrql(DISPATCH_LEVEL, &irql);
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
        {"IRQL raised downwards",
         [](Machine&) {
             KIRQL irql;
             KeRaiseIrql(DISPATCH_LEVEL, &irql);
             KeRaiseIrql(APC_LEVEL, &irql);
         },
         "KfRaiseIrql from IRQL 2 to 1"},
    };
    for (const Case& rule : cases) {
        SCOPED_TRACE(rule.name);
        for (auto& lock : locks)
            lock = 0;
        EXPECT_BREAKS(rule.body, rule.rule);
    }
}

TEST(Spin_locks, A_lock_in_freed_memory_leaves_no_order_behind)
{
    constexpr SIZE_T bytes = 300 * 1024;  // memory that is used again at once
    for (auto& lock : locks)
        lock = 0;
    int reused = 0;
    EXPECT_EQ(broken_rule([&](Machine&) {
                  PKSPIN_LOCK previous = nullptr;
                  for (int round = 0; round < 10; ++round) {
                      auto* in_pool = static_cast<PKSPIN_LOCK>(ExAllocatePoolWithTag(NonPagedPool, bytes, 1));
                      KeInitializeSpinLock(in_pool);
                      PKSPIN_LOCK order[] = {in_pool, &locks[0]};
                      const bool swapped = round % 2;
                      reused += std::exchange(previous, in_pool) == in_pool;
                      KIRQL irql;
                      KeAcquireSpinLock(order[swapped], &irql);
                      KeAcquireSpinLockAtDpcLevel(order[!swapped]);
                      KeReleaseSpinLockFromDpcLevel(order[!swapped]);
                      KeReleaseSpinLock(order[swapped], irql);
                      ExFreePoolWithTag(in_pool, 1);
                  }
              }),
              "");
#if !defined(__SANITIZE_ADDRESS__)  // the sanitizer never gives the same memory out so soon
    EXPECT_GT(reused, 0);
#endif
}

TEST(Spin_locks, Interlocked_lists_keep_order_and_report_what_was_there)
{
    Machine machine;
    run_to_end(machine, [] {
        KSPIN_LOCK lock = 0;
        LIST_ENTRY list, first, second, third;
        InitializeListHead(&list);
        EXPECT_EQ(ExInterlockedRemoveHeadList(&list, &lock), nullptr);
        EXPECT_EQ(ExInterlockedInsertTailList(&list, &second, &lock), nullptr);
        EXPECT_EQ(ExInterlockedInsertTailList(&list, &third, &lock), &second);
        EXPECT_EQ(ExInterlockedInsertHeadList(&list, &first, &lock), &second);
        for (PLIST_ENTRY expected : {&first, &second, &third})
            EXPECT_EQ(ExInterlockedRemoveHeadList(&list, &lock), expected);
        EXPECT_TRUE(IsListEmpty(&list));
        EXPECT_EQ(lock, 0u);
        EXPECT_EQ(KeGetCurrentIrql(), PASSIVE_LEVEL);
    });
}

}  // namespace
}  // namespace machine::test
