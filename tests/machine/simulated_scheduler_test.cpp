// SPDX-License-Identifier: MIT
#include <algorithm>
#include <set>

#include "tests/machine/kernel_test.h"

namespace machine::test {
namespace {

// Threads that meet at a semaphore, a spin lock, delays and timers; what happened, in order.
std::string history(std::uint64_t seed)
{
    std::string log;
    in_machine(
        [&](Machine& machine) {
            KSEMAPHORE semaphore;
            KSPIN_LOCK lock = 0;
            KeInitializeSemaphore(&semaphore, 2, 100);
            machine.scheduler().call_at(2 * ticks_per_ms, [&] { log += '!'; });
            run_threads(5, [&](int index) {
                for (int round = 0; round < 4; ++round) {
                    wait_ms(&semaphore);
                    locked(lock, [&] { log += static_cast<char>('a' + index); });
                    machine.sleep_ms(1);
                    KeReleaseSemaphore(&semaphore, 0, 1, FALSE);
                }
            });
            log += std::to_string(machine.scheduler().now());
        },
        {{.seed = seed}});
    return log;
}

TEST(Simulated_scheduler, Same_seed_replays_the_run_and_other_seeds_run_otherwise)
{
    std::set<std::string> histories;
    for (std::uint64_t seed = 1; seed <= 8; ++seed) {
        const std::string first = history(seed);
        EXPECT_EQ(history(seed), first) << "seed " << seed;
        EXPECT_EQ(std::ranges::count(first, 'c'), 4) << first;
        histories.insert(first);
    }
    EXPECT_GE(histories.size(), 6u);
}

TEST(Simulated_scheduler, Threads_run_in_the_middle_of_others_but_never_inside_a_spin_lock_together)
{
    bool contended = false, lost_update = false, all_kept = false;
    for (std::uint64_t seed = 1; seed <= 50; ++seed) {
        KSPIN_LOCK outer = 0, inner = 0;
        int inside = 0, most_inside = 0, unguarded = 0;
        const auto contend = [&](int) {
            const int read = unguarded;
            contended |= outer != 0;
            locked(outer, [&] {
                most_inside = std::max(most_inside, ++inside);
                locked(inner, [] {});
                --inside;
            });
            unguarded = read + 1;
        };
        in_machine([&](Machine&) { run_threads(3, contend); }, {{.seed = seed}});
        EXPECT_EQ(most_inside, 1) << "seed " << seed;
        (unguarded == 3 ? all_kept : lost_update) = true;
    }
    EXPECT_TRUE(contended);
    EXPECT_TRUE(lost_update);
    EXPECT_TRUE(all_kept);
}

TEST(Simulated_scheduler, Timer_callbacks_run_in_order_at_dispatch_level_outside_every_thread)
{
    std::vector<int> order;
    in_machine([&](Machine& machine) {
        Scheduler& scheduler = machine.scheduler();
        KEVENT done;
        KeInitializeEvent(&done, NotificationEvent, FALSE);
        scheduler.call_at(30, [&] {
            EXPECT_EQ(scheduler.now(), 30);
            EXPECT_EQ(KeGetCurrentIrql(), DISPATCH_LEVEL);
            EXPECT_EQ(scheduler.current(), nullptr);
            order.push_back(3);
            scheduler.call_at(10, [&] { order.push_back(4); });
        });
        for (int index = 0; index < 3; ++index)
            scheduler.call_at(20, [&, index] { order.push_back(index); });
        const TimerId cancelled = scheduler.call_at(25, [&] { order.push_back(99); });
        const TimerId last = scheduler.call_at(40, [&] { set(done); });
        EXPECT_TRUE(scheduler.cancel(cancelled));
        EXPECT_FALSE(scheduler.cancel(cancelled));
        EXPECT_EQ(wait_ms(&done), STATUS_SUCCESS);
        EXPECT_FALSE(scheduler.cancel(last));
    });
    EXPECT_EQ(order, (std::vector{0, 1, 2, 3, 4}));
}

TEST(Simulated_scheduler, Run_reports_a_body_that_can_never_end_and_the_machine_goes_on)
{
    Machine machine;
    KEVENT event;
    bool passed = false;
    const auto wait = [&] {
        KeInitializeEvent(&event, SynchronizationEvent, FALSE);
        wait_ms(&event);
        passed = true;
    };
    EXPECT_EQ(machine.run(wait), Outcome::stalled);
    EXPECT_FALSE(passed);
    run_to_end(machine, [&] {
        set(event);
        machine.sleep_ms(1);
    });
    EXPECT_TRUE(passed);
}

TEST(Simulated_scheduler, Switch_off_drops_threads_where_they_stand)
{
    int unwound = 0, steps = 0;
    struct Frame {
        int& count;
        ~Frame() { ++count; }
    };
    in_machine([&](Machine& machine) {
        start_thread([&] {
            Frame frame{unwound};
            for (;; ++steps)
                machine.sleep_ms(1);
        });
        machine.sleep_ms(10);
        EXPECT_GE(steps, 8);
    });
    in_machine([](Machine& next) { next.sleep_ms(10); });
    EXPECT_EQ(unwound, 0);
    EXPECT_LE(steps, 11);
}

TEST(Simulated_scheduler, Deadlock_of_spin_locks_is_reported)
{
    static KSPIN_LOCK locks[2];
    const auto body = [](Machine&) {
        locks[0] = locks[1] = 0;
        run_threads(2, [](int first) { locked(locks[first], [=] { locked(locks[1 - first], [] {}); }); });
    };
    std::string broken;
    for (std::uint64_t seed = 1; seed <= 100 && broken.empty(); ++seed)
        broken = broken_rule(body, {{.seed = seed, .strict = false}});
    EXPECT_NE(broken.find("deadlock"), std::string::npos) << broken;
}

TEST(Simulated_scheduler, Block_hooks_run_before_a_thread_blocks_and_not_when_a_wait_is_satisfied_at_once)
{
    in_machine([](Machine& machine) {
        int hooks = 0;
        KEVENT event;
        KeInitializeEvent(&event, SynchronizationEvent, TRUE);
        // The hook wakes its own thread: the wait that follows must not miss it.
        machine.scheduler().add_block_hook([&] {
            ++hooks;
            set(event);
        });
        for (int blocked = 0; blocked < 2; ++blocked) {
            EXPECT_EQ(wait_ms(&event), STATUS_SUCCESS);
            EXPECT_EQ(hooks, blocked);
        }
    });
}

// How often two threads that read, then add atomically to, one count find that the other was there between.
int updates_seen_between(bool switch_at_atomics)
{
    int seen = 0;
    for (std::uint64_t seed = 1; seed <= 20; ++seed)
        in_machine(
            [&](Machine&) {
                volatile LONG count = 0;
                run_threads(2, [&](int) {
                    for (int round = 0; round < 5; ++round) {
                        const LONG read = count;
                        seen += InterlockedIncrement(&count) != read + 1;
                    }
                });
                EXPECT_EQ(count, 10);
            },
            {{.seed = seed, .switch_at_atomics = switch_at_atomics}});
    return seen;
}

TEST(Simulated_scheduler, Atomic_operations_are_switching_points_when_asked_for)
{
    EXPECT_EQ(updates_seen_between(false), 0);
    EXPECT_GT(updates_seen_between(true), 0);
}

TEST(Simulated_scheduler,
     One_processor_switches_to_higher_priority_at_once_and_never_at_dispatch_level_or_lower)
{
    for (std::uint64_t seed = 1; seed <= 30; ++seed)
        in_machine(
            [](Machine& machine) {
                KEVENT go;
                KeInitializeEvent(&go, SynchronizationEvent, FALSE);
                std::string log;
                run_threads(3, [&](int index) {
                    constexpr KPRIORITY priorities[] = {20, 10, 5};
                    KeSetPriorityThread(KeGetCurrentThread(), priorities[index]);
                    if (index == 0) {
                        wait_ms(&go);
                        log += 'H';
                    } else if (index == 1) {
                        machine.sleep_ms(1);
                        const KIRQL old = KeRaiseIrqlToDpcLevel();
                        KeSetEvent(&go, 0, FALSE);
                        log += 'd';
                        KeLowerIrql(old);
                        log += 'p';
                    } else {
                        machine.sleep_ms(1);
                        KeReadStateEvent(&go);
                        log += 'L';
                    }
                });
                EXPECT_TRUE(log == "dHpL" || log == "LdHp") << log;
            },
            {{.seed = seed, .processors = 1}});
}

TEST(Simulated_scheduler, Polling_for_what_cannot_run_is_told)
{
    for (const unsigned processors : {1u, 2u}) {
        const std::string broken = broken_rule(
            [](Machine&) {
                KEVENT event;
                KeInitializeEvent(&event, NotificationEvent, FALSE);
                while (!KeReadStateEvent(&event))
                    KeStallExecutionProcessor(10);
            },
            {{.processors = processors}});
        EXPECT_NE(broken.find("polls without progress"), std::string::npos) << broken;
    }
}

TEST(Simulated_scheduler, Waits_end_on_ticks_and_readings_are_those_of_the_last_tick)
{
    constexpr Ticks tick = 156'250;
    in_machine(
        [](Machine& machine) {
            Scheduler& scheduler = machine.scheduler();
            machine.sleep_ms(1);
            EXPECT_EQ(scheduler.now(), tick);
            machine.sleep_ms(16);
            EXPECT_EQ(scheduler.now(), 3 * tick);
            KEVENT due;
            KeInitializeEvent(&due, NotificationEvent, FALSE);
            scheduler.call_at(3 * tick + 5, [&] { KeSetEvent(&due, 0, FALSE); });
            EXPECT_EQ(wait_ms(&due), STATUS_SUCCESS);
            EXPECT_EQ(scheduler.now(), 3 * tick + 5) << "what is signalled wakes without a tick";
            EXPECT_EQ(KeQueryInterruptTime(), 3u * tick);
            LARGE_INTEGER before, after;
            KeQuerySystemTime(&before);
            machine.sleep_ms(1);
            KeQuerySystemTime(&after);
            EXPECT_EQ(after.QuadPart - before.QuadPart, tick);
            EXPECT_EQ(scheduler.now(), 4 * tick);
        },
        {{.clock_tick_100ns = tick}});
}

}  // namespace
}  // namespace machine::test
