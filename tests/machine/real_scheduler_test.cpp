#include <pthread.h>
#include <signal.h>

#include <atomic>
#include <thread>
#include <vector>

#include "tests/machine/kernel_test.h"

namespace machine::test {
namespace {

constexpr MachineConfig real{.scheduler = SchedulerKind::real};

TEST(Real_scheduler, Eight_threads_pass_items_through_a_queue_and_none_is_lost)
{
    struct Item {
        LIST_ENTRY link;
        int value;
    };
    constexpr int producers = 4, consumers = 4, per_producer = 20'000;
    Machine machine(real);
    std::vector<Item> items(producers * per_producer);
    std::atomic<std::int64_t> sum = 0;
    std::atomic<int> taken = 0;
    run_to_end(machine, [&] {
        LIST_ENTRY queue;
        InitializeListHead(&queue);
        KSPIN_LOCK lock = 0;
        KSEMAPHORE filled;
        KeInitializeSemaphore(&filled, 0, MAXLONG);
        std::vector<PKTHREAD> threads;
        for (int producer = 0; producer < producers; ++producer)
            threads.push_back(start_thread([&, producer] {
                for (int index = producer; index < producers * per_producer; index += producers) {
                    items[index].value = index;
                    ExInterlockedInsertTailList(&queue, &items[index].link, &lock);
                    KeReleaseSemaphore(&filled, 0, 1, FALSE);
                }
            }));
        for (int consumer = 0; consumer < consumers; ++consumer)
            threads.push_back(start_thread([&] {
                for (int round = 0; round < per_producer; ++round) {
                    wait_ms(&filled);
                    KIRQL irql;
                    KeAcquireSpinLock(&lock, &irql);
                    PLIST_ENTRY entry = IsListEmpty(&queue) ? nullptr : RemoveHeadList(&queue);
                    KeReleaseSpinLock(&lock, irql);
                    ASSERT_NE(entry, nullptr);
                    sum += CONTAINING_RECORD(entry, Item, link)->value;
                    ++taken;
                }
            }));
        for (PKTHREAD thread : threads)
            EXPECT_EQ(wait_ms(thread), STATUS_SUCCESS);
        EXPECT_TRUE(IsListEmpty(&queue));
        EXPECT_EQ(KeReadStateSemaphore(&filled), 0);
    });
    constexpr std::int64_t count = producers * per_producer;
    EXPECT_EQ(taken, count);
    EXPECT_EQ(sum, count * (count - 1) / 2);
}

TEST(Real_scheduler, A_token_goes_round_through_auto_reset_events_and_host_threads_may_join)
{
    constexpr int members = 4, rounds = 5'000;
    Machine machine(real);
    KEVENT events[members];
    for (KEVENT& event : events)
        KeInitializeEvent(&event, SynchronizationEvent, FALSE);
    std::atomic<int> holders = 0, passes = 0;
    const auto member = [&](int index) {
        for (int round = 0; round < rounds; ++round) {
            EXPECT_EQ(wait_ms(&events[index], 60'000), STATUS_SUCCESS);
            EXPECT_EQ(++holders, 1);
            ++passes;
            --holders;
            set(events[(index + 1) % members]);
        }
    };
    std::thread host([&] { member(3); });
    run_to_end(machine, [&] {
        std::vector<PKTHREAD> threads;
        for (int index = 0; index < 3; ++index)
            threads.push_back(start_thread([&, index] { member(index); }));
        set(events[0]);
        for (PKTHREAD thread : threads)
            wait_ms(thread);
    });
    host.join();
    EXPECT_EQ(passes, members * rounds);
}

TEST(Real_scheduler, Timeouts_and_timers_keep_wall_clock_time)
{
    Machine machine(real);
    run_to_end(machine, [&] {
        KEVENT event;
        KeInitializeEvent(&event, SynchronizationEvent, FALSE);
        const Ticks start = machine.scheduler().now();
        EXPECT_EQ(wait_ms(&event, 20), STATUS_TIMEOUT);
        EXPECT_GE(machine.scheduler().now() - start, 20 * ticks_per_ms);

        std::atomic<int> order = 0;
        const Ticks now = machine.scheduler().now();
        machine.scheduler().call_at(now + 10 * ticks_per_ms, [&] {
            EXPECT_EQ(KeGetCurrentIrql(), DISPATCH_LEVEL);
            order = order * 10 + 2;
            set(event);
        });
        machine.scheduler().call_at(now + 5 * ticks_per_ms, [&] { order = order * 10 + 1; });
        const TimerId cancelled = machine.scheduler().call_at(now + 7 * ticks_per_ms, [&] { order = 99; });
        EXPECT_TRUE(machine.scheduler().cancel(cancelled));
        EXPECT_EQ(wait_ms(&event), STATUS_SUCCESS);
        EXPECT_EQ(order, 12);
    });
}

TEST(Real_scheduler, Signals_that_race_with_timeouts_are_neither_lost_nor_end_a_later_wait)
{
    constexpr int signals = 3'000;
    constexpr Ticks pause = 30 * ticks_per_us;
    Machine machine(real);
    run_to_end(machine, [&] {
        KSEMAPHORE semaphore;
        KeInitializeSemaphore(&semaphore, 0, MAXLONG);
        LARGE_INTEGER interval;
        interval.QuadPart = -pause;
        PKTHREAD signaller = start_thread([&] {
            for (int round = 0; round < signals; ++round) {
                KeDelayExecutionThread(KernelMode, FALSE, &interval);
                KeReleaseSemaphore(&semaphore, 0, 1, FALSE);
            }
        });
        int received = 0, early = 0;
        while (received < signals) {
            const Ticks start = machine.scheduler().now();
            if (KeWaitForSingleObject(&semaphore, Executive, KernelMode, FALSE, &interval) == STATUS_SUCCESS)
                ++received;
            else
                early += machine.scheduler().now() - start < pause;
        }
        EXPECT_EQ(early, 0);
        EXPECT_EQ(wait_ms(signaller), STATUS_SUCCESS);
        EXPECT_EQ(KeReadStateSemaphore(&semaphore), 0);
    });
}

TEST(Real_scheduler, A_signal_of_the_host_does_not_end_a_wait)
{
    struct sigaction action = {};
    action.sa_handler = [](int) {};
    sigaction(SIGUSR1, &action, nullptr);
    Machine machine(real);
    run_to_end(machine, [&] {
        KEVENT event;
        KeInitializeEvent(&event, SynchronizationEvent, FALSE);
        const pthread_t waiter = pthread_self();
        PKTHREAD disturber = start_thread([&] {
            for (int round = 0; round < 5; ++round) {
                machine.sleep_ms(5);
                pthread_kill(waiter, SIGUSR1);
            }
        });
        const Ticks start = machine.scheduler().now();
        EXPECT_EQ(wait_ms(&event, 50), STATUS_TIMEOUT);
        EXPECT_GE(machine.scheduler().now() - start, 50 * ticks_per_ms);
        EXPECT_EQ(wait_ms(disturber), STATUS_SUCCESS);
    });
}

TEST(Real_scheduler, Switch_off_parks_blocked_and_running_threads_and_the_next_machine_is_untouched)
{
    static std::atomic<int> steps = 0;
    static std::atomic<int> unwound = 0;
    struct Frame {
        ~Frame() { ++unwound; }
    };
    {
        Machine machine(real);
        run_to_end(machine, [&] {
            static KEVENT never_set;
            KeInitializeEvent(&never_set, NotificationEvent, FALSE);
            start_thread([] {
                Frame frame;
                wait_ms(&never_set);
            });
            start_thread([] {
                Frame frame;
                static KSPIN_LOCK lock;
                for (;;) {
                    ExInterlockedRemoveHeadList(
                        [] {
                            static LIST_ENTRY list{&list, &list};
                            return &list;
                        }(),
                        &lock);
                    ++steps;
                }
            });
            while (steps < 1000)
                machine.sleep_ms(1);
        });
    }
    const int steps_at_switch_off = steps;
    Machine next(real);
    EXPECT_EQ(next.run([&] { next.sleep_ms(20); }), Outcome::finished);
    EXPECT_EQ(steps, steps_at_switch_off);
    EXPECT_EQ(unwound, 0);
}

TEST(Real_scheduler, A_bug_check_ends_the_run_and_leaves_its_thread_behind)
{
    Machine machine(real);
    std::atomic<bool> behind = false;
    EXPECT_EQ(machine.run([&] {
        start_thread([&] {
            KeBugCheck(0xE5);
            behind = true;
        });
        machine.sleep_ms(60'000);
        behind = true;
    }),
              Outcome::bug_check);
    EXPECT_EQ(machine.bug_check_code(), 0xE5u);
    EXPECT_FALSE(behind);
}

TEST(Real_schedulerDeathTest, Broken_rules_are_found_here_too)
{
    EXPECT_DEATH(
        {
            Machine machine(real);
            run_to_end(machine, [&] {
                KeRaiseIrqlToDpcLevel();
                machine.sleep_ms(1);
            });
        },
        "KeDelayExecutionThread at IRQL 2");
}

}  // namespace
}  // namespace machine::test
