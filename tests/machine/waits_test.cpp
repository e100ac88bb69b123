// SPDX-License-Identifier: MIT
#include "tests/machine/kernel_test.h"

namespace machine::test {
namespace {

TEST(Waits, Timeouts_end_to_the_tick_and_objects_keep_their_state)
{
    in_machine([](Machine& machine) {
        KEVENT event;
        KeInitializeEvent(&event, SynchronizationEvent, FALSE);
        const Ticks start = machine.scheduler().now();
        EXPECT_EQ(wait_ms(&event, 110), STATUS_TIMEOUT);
        EXPECT_EQ(wait_ms(&event, 0), STATUS_TIMEOUT);
        EXPECT_EQ(machine.scheduler().now() - start, 110 * ticks_per_ms);

        LARGE_INTEGER absolute;
        KeQuerySystemTime(&absolute);
        absolute.QuadPart += 12345;
        EXPECT_EQ(KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, &absolute), STATUS_TIMEOUT);
        EXPECT_EQ(machine.scheduler().now() - start, 110 * ticks_per_ms + 12345);

        // A wait that timed out has left the object's list: a later set finds nobody and stays, once.
        EXPECT_EQ(KeSetEvent(&event, 0, FALSE), 0);
        EXPECT_EQ(KeSetEvent(&event, 0, FALSE), 1);
        EXPECT_EQ(KeReadStateEvent(&event), 1);
        EXPECT_EQ(wait_ms(&event, 0), STATUS_SUCCESS);
        EXPECT_EQ(wait_ms(&event, 0), STATUS_TIMEOUT);
    });
}

TEST(Waits, A_synchronization_event_releases_one_waiter_and_a_notification_event_all)
{
    const auto body = [](Machine& machine) {
        for (const EVENT_TYPE type : {SynchronizationEvent, NotificationEvent}) {
            const bool all = type == NotificationEvent;
            KEVENT event;
            KeInitializeEvent(&event, type, FALSE);
            int released = 0;
            start_thread([&] {
                machine.sleep_ms(1);
                EXPECT_EQ(KeSetEvent(&event, 0, FALSE), 0);
                machine.sleep_ms(1);
                EXPECT_EQ(released, all ? 5 : 1);
                EXPECT_EQ(KeReadStateEvent(&event), all ? 1 : 0);
                for (int round = 0; round < 4; ++round)
                    set(event);
            });
            run_threads(5, [&](int) {
                EXPECT_EQ(wait_ms(&event), STATUS_SUCCESS);
                ++released;
            });
            machine.sleep_ms(2);
            EXPECT_EQ(KeResetEvent(&event), all ? 1 : 0);
            EXPECT_EQ(KeReadStateEvent(&event), 0);
        }
    };
    for (std::uint64_t seed = 1; seed <= 20; ++seed)
        in_machine(body, {{.seed = seed}});
}

TEST(Waits, A_semaphore_counts_releases_and_wakes_as_many)
{
    in_machine([](Machine& machine) {
        KSEMAPHORE semaphore;
        KeInitializeSemaphore(&semaphore, 1, 10);
        int released = 0;
        for (int index = 0; index < 4; ++index)
            start_thread([&] {
                wait_ms(&semaphore);
                ++released;
            });
        machine.sleep_ms(1);
        EXPECT_EQ(released, 1);
        EXPECT_EQ(KeReleaseSemaphore(&semaphore, 0, 2, FALSE), 0);
        machine.sleep_ms(1);
        EXPECT_EQ(released, 3);
        EXPECT_EQ(KeReleaseSemaphore(&semaphore, 0, 5, FALSE), 0);
        machine.sleep_ms(1);
        EXPECT_EQ(KeReadStateSemaphore(&semaphore), 4);
    });
}

// A thread that releases a semaphore may go on for a while before its waiters run, but never waits itself
// before.
TEST(Waits, Who_releases_a_semaphore_may_keep_the_wake_up_until_it_waits)
{
    unsigned woken_at_once = 0, kept = 0;
    for (std::uint64_t seed = 1; seed <= 40; ++seed)
        in_machine(
            [&](Machine&) {
                KSEMAPHORE semaphore;
                KEVENT event, asleep;
                KeInitializeSemaphore(&semaphore, 0, 2);
                KeInitializeEvent(&event, NotificationEvent, FALSE);
                KeInitializeEvent(&asleep, NotificationEvent, FALSE);
                int awake = 0;
                const auto sleeper = [&] {
                    set(asleep);
                    wait_ms(&semaphore);
                    ++awake;
                    set(event);
                };
                PKTHREAD threads[] = {start_thread(sleeper), start_thread(sleeper)};
                wait_ms(&asleep);
                Machine::current().sleep_ms(1);
                KeReleaseSemaphore(&semaphore, 0, 2, FALSE);
                for (int step = 0; step < 400; ++step)
                    KeReadStateEvent(&event);
                (awake == 0 ? kept : woken_at_once) += 1;
                Machine::current().sleep_ms(1);
                EXPECT_EQ(awake, 2) << "seed " << seed;
                for (PKTHREAD thread : threads)
                    wait_ms(thread);
            },
            {{.seed = seed}});
    EXPECT_GT(kept, 8u);
    EXPECT_GT(woken_at_once, 8u);
}

TEST(Waits, A_wait_on_a_thread_ends_with_the_thread_however_it_ends)
{
    in_machine([](Machine& machine) {
        bool behind = false;
        PKTHREAD thread = start_thread([&] {
            machine.sleep_ms(5);
            PsTerminateSystemThread(STATUS_SUCCESS);
            behind = true;
        });
        EXPECT_EQ(wait_ms(thread, 4), STATUS_TIMEOUT);
        EXPECT_EQ(wait_ms(thread), STATUS_SUCCESS);
        EXPECT_EQ(wait_ms(thread), STATUS_SUCCESS);
        EXPECT_EQ(machine.now_ms(), 5);
        EXPECT_FALSE(behind);
        EXPECT_EQ(ObDereferenceObject(thread), 0);
    });
}

TEST(Waits, A_signal_that_races_with_the_timeout_is_never_lost)
{
    int timeouts = 0;
    const auto race = [&](Machine& machine) {
        KEVENT event;
        KeInitializeEvent(&event, SynchronizationEvent, FALSE);
        PKTHREAD thread = start_thread([&] {
            machine.sleep_ms(10);
            set(event);
        });
        const bool timed_out = wait_ms(&event, 10) == STATUS_TIMEOUT;
        wait_ms(thread);
        EXPECT_EQ(KeReadStateEvent(&event), timed_out ? 1 : 0);
        timeouts += timed_out;
    };
    for (std::uint64_t seed = 1; seed <= 100; ++seed)
        in_machine(race, {{.seed = seed}});
    EXPECT_GT(timeouts, 5);
    EXPECT_LT(timeouts, 95);
}

TEST(Waits, Rules_of_waiting_are_enforced)
{
    static KEVENT event;
    expect_breaks({
        {"a wait at DISPATCH_LEVEL",
         [](Machine&) {
             KeInitializeEvent(&event, SynchronizationEvent, TRUE);
             KeRaiseIrqlToDpcLevel();
             wait_ms(&event, 0);  // allowed
             wait_ms(&event, 5);
         },
         "KeWaitForSingleObject waits at IRQL 2"},
        {"a wait with a spin lock held",
         [](Machine& machine) {
             KSPIN_LOCK lock = 0;
             KIRQL irql;
             KeAcquireSpinLock(&lock, &irql);
             KeLowerIrql(PASSIVE_LEVEL);
             machine.sleep_ms(1);
         },
         "a spin lock is held"},
        {"a wait in user mode",
         [](Machine&) {
             KeInitializeEvent(&event, SynchronizationEvent, TRUE);
             KeWaitForSingleObject(&event, UserRequest, UserMode, FALSE, nullptr);
         },
         "KeWaitForSingleObject in user mode"},
        {"a delay in user mode",
         [](Machine&) {
             LARGE_INTEGER interval{};
             KeDelayExecutionThread(UserMode, FALSE, &interval);
         },
         "KeDelayExecutionThread in user mode"},
        {"an event set with Wait",
         [](Machine&) {
             KeInitializeEvent(&event, SynchronizationEvent, FALSE);
             KeSetEvent(&event, IO_NO_INCREMENT, TRUE);
         },
         "KeSetEvent with Wait set"},
        {"a semaphore released with Wait",
         [](Machine&) {
             KSEMAPHORE semaphore;
             KeInitializeSemaphore(&semaphore, 1, 2);
             KeReleaseSemaphore(&semaphore, 0, 1, TRUE);
         },
         "KeReleaseSemaphore with Wait set"},
        {"a semaphore over its limit",
         [](Machine&) {
             KSEMAPHORE semaphore;
             KeInitializeSemaphore(&semaphore, 1, 2);
             KeReleaseSemaphore(&semaphore, 0, 1, FALSE);
             KeReleaseSemaphore(&semaphore, 0, 1, FALSE);
         },
         "exceeds the limit of 2"},
        {"a thread that ends at raised IRQL",
         [](Machine& machine) {
             start_thread([] { KeRaiseIrqlToDpcLevel(); });
             machine.sleep_ms(1);
         },
         "a thread ended at IRQL 2"},
        {"at a time",
         [](Machine& machine) {
             machine.sleep_ms(1500);
             violation("no such thing");
         },
         "no such thing [thread \"run\" at 1.5000000 s]"},
    });
}

}  // namespace
}  // namespace machine::test
