#include <vector>

#include "tests/machine/kernel_test.h"

namespace machine::test {
namespace {

struct Case {
    const char* name;
    std::function<void(Machine&)> body;
    const char* rule;
};

TEST(Waits, Timeouts_end_to_the_tick_and_objects_keep_their_state)
{
    Machine machine;
    run_to_end(machine, [&] {
        KEVENT event;
        KeInitializeEvent(&event, SynchronizationEvent, FALSE);
        const Ticks start = machine.scheduler().now();
        EXPECT_EQ(wait_ms(&event, 110), STATUS_TIMEOUT);
        EXPECT_EQ(machine.scheduler().now() - start, 110 * ticks_per_ms);
        EXPECT_EQ(wait_ms(&event, 0), STATUS_TIMEOUT);
        EXPECT_EQ(machine.scheduler().now() - start, 110 * ticks_per_ms);

        LARGE_INTEGER absolute;
        KeQuerySystemTime(&absolute);
        absolute.QuadPart += 12345;
        EXPECT_EQ(KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, &absolute), STATUS_TIMEOUT);
        EXPECT_EQ(machine.scheduler().now() - start, 110 * ticks_per_ms + 12345);

        // A wait that timed out has left the object's list: a later set finds nobody and stays.
        set(event);
        EXPECT_EQ(KeReadStateEvent(&event), 1);
        EXPECT_EQ(wait_ms(&event, 0), STATUS_SUCCESS);
        EXPECT_EQ(wait_ms(&event, 0), STATUS_TIMEOUT);
    });
}

TEST(Waits, A_synchronization_event_releases_one_waiter_and_a_notification_event_all)
{
    for (std::uint64_t seed = 1; seed <= 20; ++seed) {
        Machine machine({.seed = seed});
        run_to_end(machine, [&] {
            for (const EVENT_TYPE type : {SynchronizationEvent, NotificationEvent}) {
                KEVENT event;
                KeInitializeEvent(&event, type, FALSE);
                int released = 0;
                std::vector<PKTHREAD> threads;
                for (int index = 0; index < 5; ++index)
                    threads.push_back(start_thread([&] {
                        EXPECT_EQ(wait_ms(&event), STATUS_SUCCESS);
                        ++released;
                    }));
                machine.sleep_ms(1);
                EXPECT_EQ(KeSetEvent(&event, 0, FALSE), 0);
                machine.sleep_ms(1);
                const bool all = type == NotificationEvent;
                EXPECT_EQ(released, all ? 5 : 1);
                EXPECT_EQ(KeReadStateEvent(&event), all ? 1 : 0);
                for (int round = 0; round < 4; ++round)
                    set(event);
                for (PKTHREAD thread : threads)
                    EXPECT_EQ(wait_ms(thread), STATUS_SUCCESS);
                EXPECT_EQ(KeResetEvent(&event), all ? 1 : 0);
                EXPECT_EQ(KeReadStateEvent(&event), 0);
            }
        });
    }
}

TEST(Waits, A_set_event_stays_set_once_however_often_it_is_set)
{
    Machine machine;
    run_to_end(machine, [&] {
        KEVENT event;
        KeInitializeEvent(&event, SynchronizationEvent, TRUE);
        EXPECT_EQ(KeSetEvent(&event, 0, FALSE), 1);
        EXPECT_EQ(wait_ms(&event, 0), STATUS_SUCCESS);
        EXPECT_EQ(wait_ms(&event, 0), STATUS_TIMEOUT);
        set(event);
        KeClearEvent(&event);
        EXPECT_EQ(wait_ms(&event, 0), STATUS_TIMEOUT);
    });
}

TEST(Waits, A_semaphore_counts_releases_and_wakes_as_many)
{
    Machine machine;
    run_to_end(machine, [&] {
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
        EXPECT_EQ(released, 4);
        EXPECT_EQ(KeReadStateSemaphore(&semaphore), 4);
    });
}

TEST(Waits, A_wait_on_a_thread_ends_with_the_thread_however_it_ends)
{
    Machine machine;
    run_to_end(machine, [&] {
        bool behind = false;
        PKTHREAD thread = start_thread([&] {
            machine.sleep_ms(5);
            PsTerminateSystemThread(STATUS_SUCCESS);
            behind = true;
        });
        EXPECT_EQ(wait_ms(thread, 4), STATUS_TIMEOUT);
        EXPECT_EQ(wait_ms(thread), STATUS_SUCCESS);
        EXPECT_EQ(machine.now_ms(), 5);
        EXPECT_EQ(wait_ms(thread), STATUS_SUCCESS);
        EXPECT_FALSE(behind);
        EXPECT_EQ(ObDereferenceObject(thread), 0);
    });
}

TEST(Waits, A_signal_that_races_with_the_timeout_is_never_lost)
{
    int timeouts = 0;
    for (std::uint64_t seed = 1; seed <= 100; ++seed) {
        Machine machine({.seed = seed});
        run_to_end(machine, [&] {
            KEVENT event;
            KeInitializeEvent(&event, SynchronizationEvent, FALSE);
            PKTHREAD thread = start_thread([&] {
                machine.sleep_ms(10);
                set(event);
            });
            const bool timed_out = wait_ms(&event, 10) == STATUS_TIMEOUT;
            wait_ms(thread);
            EXPECT_EQ(KeReadStateEvent(&event), timed_out ? 1 : 0) << "seed " << seed;
            timeouts += timed_out;
        });
    }
    EXPECT_GT(timeouts, 5);
    EXPECT_LT(timeouts, 95);
}

TEST(Waits, Rules_of_waiting_are_enforced)
{
    static KEVENT event;
    const Case cases[] = {
        {"a wait at DISPATCH_LEVEL",
         [](Machine&) {
             KIRQL irql;
             KeInitializeEvent(&event, SynchronizationEvent, TRUE);
             KeRaiseIrql(DISPATCH_LEVEL, &irql);
             wait_ms(&event, 0);  // allowed
             wait_ms(&event, 5);
         },
         "KeWaitForSingleObject waits at IRQL 2"},
        {"a delay at DISPATCH_LEVEL",
         [](Machine& machine) {
             KIRQL irql;
             KeRaiseIrql(DISPATCH_LEVEL, &irql);
             machine.sleep_ms(1);
         },
         "KeDelayExecutionThread at IRQL 2"},
        {"a wait in a timer callback",
         [](Machine& machine) {
             machine.scheduler().call_at(1, [] { wait_ms(&event, 5); });
             machine.sleep_ms(1);
         },
         "waits at IRQL 2"},
        {"a wait with a spin lock held",
         [](Machine& machine) {
             KSPIN_LOCK lock = 0;
             LIST_ENTRY list;
             InitializeListHead(&list);
             KIRQL irql;
             KeAcquireSpinLock(&lock, &irql);
             KeLowerIrql(PASSIVE_LEVEL);
             machine.sleep_ms(1);
         },
         "a spin lock is held"},
        {"a wait on memory that is no object",
         [](Machine&) {
             KEVENT none{};
             wait_ms(&none, 0);
         },
         "never initialised"},
        {"a semaphore over its limit",
         [](Machine&) {
             KSEMAPHORE semaphore;
             KeInitializeSemaphore(&semaphore, 1, 2);
             KeReleaseSemaphore(&semaphore, 0, 1, FALSE);
             KeReleaseSemaphore(&semaphore, 0, 1, FALSE);
         },
         "exceeds the limit of 2"},
        {"a pageable call at DISPATCH_LEVEL",
         [](Machine&) {
             KIRQL irql;
             KeRaiseIrql(DISPATCH_LEVEL, &irql);
             ZwClose(nullptr);
         },
         "ZwClose at IRQL 2"},
        {"a thread that ends at raised IRQL",
         [](Machine& machine) {
             start_thread([] { KeRaiseIrqlToDpcLevel(); });
             machine.sleep_ms(1);
         },
         "a thread ended at IRQL 2"},
    };
    for (const Case& rule : cases) {
        SCOPED_TRACE(rule.name);
        EXPECT_BREAKS(rule.body, rule.rule);
    }
}

TEST(Waits, A_broken_rule_names_the_thread_and_the_virtual_time)
{
    const std::string message = broken_rule([](Machine& machine) {
        machine.sleep_ms(1500);
        violation("no such thing");
    });
    EXPECT_EQ(message, "no such thing [thread \"run\" at 1.5000000 s]");
}

TEST(WaitsDeathTest, A_broken_rule_stops_the_process_with_its_message)
{
    EXPECT_DEATH(
        {
            Machine machine;
            run_to_end(machine, [] { KeLowerIrql(DISPATCH_LEVEL); });
        },
        "rule broken: KfLowerIrql from IRQL 0 to 2");
}

}  // namespace
}  // namespace machine::test
