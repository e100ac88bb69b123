#include <algorithm>
#include <memory>
#include <set>
#include <vector>

#include "tests/machine/kernel_test.h"

namespace machine::test {
namespace {

// Threads that meet at events, a semaphore, a spin lock, delays and timers; what happened, in order.
std::string history(std::uint64_t seed)
{
    std::string log;
    Machine machine({.seed = seed});
    KSEMAPHORE semaphore;
    KSPIN_LOCK lock = 0;
    std::vector<PKTHREAD> threads;
    const auto worker = [&](char name) {
        for (int round = 0; round < 4; ++round) {
            wait_ms(&semaphore);
            KIRQL irql;
            KeAcquireSpinLock(&lock, &irql);
            log += name;
            KeReleaseSpinLock(&lock, irql);
            machine.sleep_ms(1);
            KeReleaseSemaphore(&semaphore, 0, 1, FALSE);
        }
    };
    run_to_end(machine, [&] {
        KeInitializeSemaphore(&semaphore, 2, 100);
        for (char name = 'a'; name < 'f'; ++name)
            threads.push_back(start_thread([&, name] { worker(name); }));
        machine.scheduler().call_at(2 * ticks_per_ms, [&] { log += '!'; });
        for (PKTHREAD thread : threads)
            wait_ms(thread);
        log += std::to_string(machine.scheduler().now());
    });
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

TEST(Simulated_scheduler, Time_jumps_to_the_next_deadline_and_stands_still_between)
{
    Machine machine;
    run_to_end(machine, [&] {
        EXPECT_EQ(machine.scheduler().now(), 0);
        machine.sleep_ms(66'000);
        EXPECT_EQ(machine.now_ms(), 66'000);
        LARGE_INTEGER interval;
        interval.QuadPart = -7;
        KeDelayExecutionThread(KernelMode, FALSE, &interval);
        EXPECT_EQ(machine.scheduler().now(), 66'000 * ticks_per_ms + 7);
        KSPIN_LOCK lock = 0;
        for (int round = 0; round < 1000; ++round) {
            KIRQL irql;
            KeAcquireSpinLock(&lock, &irql);
            KeReleaseSpinLock(&lock, irql);
        }
        EXPECT_EQ(machine.scheduler().now(), 66'000 * ticks_per_ms + 7);
    });
}

TEST(Simulated_scheduler, Threads_interleave_inside_an_unguarded_update_for_some_seed)
{
    bool lost_update = false, all_kept = false;
    for (std::uint64_t seed = 1; seed <= 50 && !(lost_update && all_kept); ++seed) {
        Machine machine({.seed = seed});
        int counter = 0;
        KSPIN_LOCK unrelated[2] = {0, 0};
        run_to_end(machine, [&] {
            std::vector<PKTHREAD> threads;
            for (auto& lock : unrelated)
                threads.push_back(start_thread([&] {
                    const int read = counter;
                    KIRQL irql;
                    KeAcquireSpinLock(&lock, &irql);
                    counter = read + 1;
                    KeReleaseSpinLock(&lock, irql);
                }));
            for (PKTHREAD thread : threads)
                wait_ms(thread);
        });
        (counter == 2 ? all_kept : lost_update) = true;
    }
    EXPECT_TRUE(lost_update);
    EXPECT_TRUE(all_kept);
}

TEST(Simulated_scheduler, Another_thread_runs_while_a_spin_lock_is_held_and_the_contender_gets_it_later)
{
    bool contended = false;
    for (std::uint64_t seed = 1; seed <= 50; ++seed) {
        Machine machine({.seed = seed});
        KSPIN_LOCK outer = 0, inner = 0;
        int inside = 0, most_inside = 0;
        bool tried_while_held = false;
        run_to_end(machine, [&] {
            std::vector<PKTHREAD> threads;
            for (int index = 0; index < 3; ++index)
                threads.push_back(start_thread([&] {
                    KIRQL irql, ignored;
                    tried_while_held |= outer != 0;
                    KeAcquireSpinLock(&outer, &irql);
                    most_inside = std::max(most_inside, ++inside);
                    KeAcquireSpinLock(&inner, &ignored);
                    KeReleaseSpinLock(&inner, ignored);
                    --inside;
                    KeReleaseSpinLock(&outer, irql);
                }));
            for (PKTHREAD thread : threads)
                wait_ms(thread);
        });
        EXPECT_EQ(most_inside, 1) << "seed " << seed;
        contended |= tried_while_held;
    }
    EXPECT_TRUE(contended);
}

TEST(Simulated_scheduler, Timer_callbacks_run_in_order_at_dispatch_level_outside_every_thread)
{
    Machine machine;
    std::vector<int> order;
    run_to_end(machine, [&] {
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
    EXPECT_EQ(machine.run([&] {
        KeInitializeEvent(&event, SynchronizationEvent, FALSE);
        wait_ms(&event);
        passed = true;
    }),
              Outcome::stalled);
    EXPECT_FALSE(passed);
    EXPECT_EQ(machine.run([&] {
        set(event);
        machine.sleep_ms(1);
    }),
              Outcome::finished);
    EXPECT_TRUE(passed);
}

TEST(Simulated_scheduler, Switch_off_drops_threads_where_they_stand)
{
    int unwound = 0, steps = 0;
    struct Frame {
        int& count;
        ~Frame() { ++count; }
    };
    {
        Machine machine;
        run_to_end(machine, [&] {
            start_thread([&] {
                Frame frame{unwound};
                for (;;) {
                    ++steps;
                    machine.sleep_ms(1);
                }
            });
            machine.sleep_ms(10);
        });
        EXPECT_GE(steps, 9);
    }
    EXPECT_EQ(unwound, 0);
    Machine next;
    EXPECT_EQ(next.run([&] { next.sleep_ms(10); }), Outcome::finished);
    EXPECT_LE(steps, 12);
}

TEST(Simulated_scheduler, Deadlock_of_spin_locks_is_reported)
{
    std::string broken;
    for (std::uint64_t seed = 1; seed <= 100 && broken.empty(); ++seed)
        broken = broken_rule(
            [](Machine& machine) {
                static KSPIN_LOCK locks[2];
                locks[0] = locks[1] = 0;
                PKTHREAD other = start_thread([] {
                    KIRQL irql;
                    KeAcquireSpinLock(&locks[1], &irql);
                    KeAcquireSpinLockAtDpcLevel(&locks[0]);
                    KeReleaseSpinLockFromDpcLevel(&locks[0]);
                    KeReleaseSpinLock(&locks[1], irql);
                });
                KIRQL irql;
                KeAcquireSpinLock(&locks[0], &irql);
                KeAcquireSpinLockAtDpcLevel(&locks[1]);
                KeReleaseSpinLockFromDpcLevel(&locks[1]);
                KeReleaseSpinLock(&locks[0], irql);
                wait_ms(other);
                machine.sleep_ms(1);
            },
            {.seed = seed, .strict = false});
    EXPECT_NE(broken.find("deadlock"), std::string::npos) << broken;
}

TEST(Simulated_scheduler, Exceptions_in_flight_stay_with_their_thread)
{
    Machine machine;
    run_to_end(machine, [&] {
        std::vector<PKTHREAD> threads;
        for (int index = 0; index < 4; ++index)
            threads.push_back(start_thread([&, index] {
                for (int round = 0; round < 3; ++round)
                    try {
                        throw index;
                    } catch (int caught) {
                        machine.sleep_ms(1);
                        EXPECT_EQ(caught, index);
                        try {
                            throw;
                        } catch (int again) {
                            EXPECT_EQ(again, index);
                        }
                    }
            }));
        for (PKTHREAD thread : threads)
            wait_ms(thread);
    });
}

TEST(Simulated_scheduler, Block_hooks_run_before_a_thread_blocks_and_not_when_a_wait_is_satisfied_at_once)
{
    Machine machine;
    int hooks = 0;
    KEVENT event;
    KeInitializeEvent(&event, SynchronizationEvent, TRUE);
    // The hook wakes its own thread: the wait that follows must not miss it.
    machine.scheduler().add_block_hook([&] {
        ++hooks;
        set(event);
    });
    run_to_end(machine, [&] {
        EXPECT_EQ(wait_ms(&event), STATUS_SUCCESS);
        EXPECT_EQ(hooks, 0);
        EXPECT_EQ(wait_ms(&event), STATUS_SUCCESS);
        EXPECT_EQ(hooks, 1);
    });
}

}  // namespace
}  // namespace machine::test
