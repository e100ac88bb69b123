// SPDX-License-Identifier: MIT
#include <pthread.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <mutex>

#include "tests/machine/kernel_test.h"

namespace machine::test {
namespace {

// On host threads, and as fibers of two processors and of more.
class Real_scheduler : public testing::TestWithParam<unsigned> {
protected:
    const MachineConfig real{{.scheduler = SchedulerKind::real, .host_processors = GetParam()}};
};
using Real_schedulerDeathTest = Real_scheduler;

INSTANTIATE_TEST_SUITE_P(Threads, Real_scheduler, testing::Values(0, 2, 4));
INSTANTIATE_TEST_SUITE_P(Threads, Real_schedulerDeathTest, testing::Values(0, 2, 4));

TEST_P(Real_scheduler, Eight_threads_pass_items_through_a_queue_and_none_is_lost)
{
    struct Item {
        LIST_ENTRY link;
        int value;
    };
    constexpr int producers = 4, consumers = 4, per_producer = 20'000;
    constexpr std::int64_t count = producers * per_producer;
    std::vector<Item> items(count);
    std::atomic<std::int64_t> sum = 0;
    std::atomic<int> taken = 0;
    LIST_ENTRY queue;
    InitializeListHead(&queue);
    KSPIN_LOCK lock = 0;
    KSEMAPHORE filled;
    const auto produce = [&](int first) {
        for (int index = first; index < count; index += producers) {
            items[index].value = index;
            ExInterlockedInsertTailList(&queue, &items[index].link, &lock);
            KeReleaseSemaphore(&filled, 0, 1, FALSE);
        }
    };
    const auto consume = [&] {
        for (int round = 0; round < per_producer; ++round) {
            wait_ms(&filled);
            PLIST_ENTRY entry = nullptr;
            locked(lock, [&] { entry = IsListEmpty(&queue) ? nullptr : RemoveHeadList(&queue); });
            ASSERT_NE(entry, nullptr);
            sum += CONTAINING_RECORD(entry, Item, link)->value;
            ++taken;
        }
    };
    in_machine(
        [&](Machine&) {
            KeInitializeSemaphore(&filled, 0, MAXLONG);
            run_threads(producers + consumers,
                        [&](int index) { index < producers ? produce(index) : consume(); });
            EXPECT_TRUE(IsListEmpty(&queue));
            EXPECT_EQ(KeReadStateSemaphore(&filled), 0);
        },
        real);
    EXPECT_EQ(taken, count);
    EXPECT_EQ(sum, count * (count - 1) / 2);
}

TEST_P(Real_scheduler, Timers_keep_wall_clock_time_and_order)
{
    in_machine(
        [](Machine& machine) {
            KEVENT event;
            KeInitializeEvent(&event, SynchronizationEvent, FALSE);
            std::atomic<int> order = 0;
            const Ticks now = machine.scheduler().now();
            // Set inside a callback: no other one runs before all of them are set, however late the host is.
            machine.scheduler().call_at(now, [&] {
                machine.scheduler().call_at(now + 10 * ticks_per_ms, [&] {
                    EXPECT_EQ(KeGetCurrentIrql(), DISPATCH_LEVEL);
                    order = order * 10 + 2;
                    set(event);
                });
                machine.scheduler().call_at(now + 5 * ticks_per_ms, [&] { order = order * 10 + 1; });
                EXPECT_TRUE(machine.scheduler().cancel(
                    machine.scheduler().call_at(now + 7 * ticks_per_ms, [&] { order = 99; })));
            });
            EXPECT_EQ(wait_ms(&event), STATUS_SUCCESS);
            EXPECT_GE(machine.scheduler().now() - now, 10 * ticks_per_ms);
            EXPECT_EQ(order, 12);
        },
        real);
}

TEST_P(Real_scheduler, Signals_that_race_with_timeouts_are_neither_lost_nor_end_a_later_wait)
{
    constexpr int signals = 3'000;
    constexpr Ticks pause = 30 * ticks_per_us;
    in_machine(
        [](Machine& machine) {
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
                if (KeWaitForSingleObject(&semaphore, Executive, KernelMode, FALSE, &interval) ==
                    STATUS_SUCCESS)
                    ++received;
                else
                    early += machine.scheduler().now() - start < pause;
            }
            EXPECT_EQ(early, 0);
            EXPECT_EQ(wait_ms(signaller), STATUS_SUCCESS);
            EXPECT_EQ(KeReadStateSemaphore(&semaphore), 0);
        },
        real);
}

TEST_P(Real_scheduler, A_signal_of_the_host_does_not_end_a_wait)
{
    struct sigaction action = {};
    action.sa_handler = [](int) {};
    sigaction(SIGUSR1, &action, nullptr);
    in_machine(
        [](Machine& machine) {
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
        },
        real);
}

TEST_P(Real_scheduler, Switch_off_parks_blocked_and_running_threads_and_the_next_machine_is_untouched)
{
    static std::atomic<int> steps = 0, unwound = 0;
    static KEVENT never_set;
    static KSPIN_LOCK lock;
    static LIST_ENTRY list{&list, &list};
    struct Frame {
        ~Frame() { ++unwound; }
    };
    in_machine(
        [](Machine& machine) {
            KeInitializeEvent(&never_set, NotificationEvent, FALSE);
            start_thread([] {
                Frame frame;
                wait_ms(&never_set);
            });
            start_thread([] {
                Frame frame;
                for (;; ++steps)
                    ExInterlockedRemoveHeadList(&list, &lock);
            });
            while (steps < 1000)
                machine.sleep_ms(1);
        },
        real);
    const int steps_at_switch_off = steps;
    in_machine([](Machine& next) { next.sleep_ms(20); }, real);
    EXPECT_EQ(steps, steps_at_switch_off);
    EXPECT_EQ(unwound, 0);
}

TEST_P(Real_schedulerDeathTest, A_broken_rule_stops_the_process_with_its_message)
{
    const auto sleep_at_dispatch_level = [](Machine& machine) {
        KeRaiseIrqlToDpcLevel();
        machine.sleep_ms(1);
    };
    EXPECT_DEATH(in_machine(sleep_at_dispatch_level, real), "rule broken: KeDelayExecutionThread at IRQL 2");
}

// One processor is always held; the other one has to see to what becomes ready, to time, and to the host.
TEST_P(Real_scheduler, A_thread_that_never_waits_holds_up_nobody)
{
    constexpr int datagrams = 50;
    int sockets[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK, 0, sockets), 0);
    int received = 0;
    in_machine(
        [&](Machine& machine) {
            std::atomic<bool> done = false;
            PKTHREAD busy = start_thread([&] {
                while (!done)
                    KeGetCurrentIrql();
            });
            PKTHREAD reader = start_thread([&] {
                while (received < datagrams) {
                    char byte;
                    if (recv(sockets[0], &byte, 1, 0) == 1)
                        ++received;
                    else if (errno == EAGAIN && !machine.scheduler().wait_readable(sockets[0]))
                        machine.sleep_ms(1);
                }
            });
            PKTHREAD writer = start_thread([&] {
                for (int sent = 0; sent < datagrams; ++sent) {
                    EXPECT_EQ(send(sockets[1], "x", 1, 0), 1);
                    if (sent % 10 == 0)
                        machine.sleep_ms(1);
                }
            });
            EXPECT_EQ(wait_ms(writer), STATUS_SUCCESS);
            EXPECT_EQ(wait_ms(reader), STATUS_SUCCESS);
            done = true;
            EXPECT_EQ(wait_ms(busy), STATUS_SUCCESS);
        },
        real);
    EXPECT_EQ(received, datagrams);
    close(sockets[0]);
    close(sockets[1]);
}

// The reader of the messages takes the next one only when the thread has run that was just woken.
TEST_P(Real_scheduler, A_thread_that_waits_for_the_host_has_no_wake_up_in_its_hands)
{
    Machine machine(real);
    std::mutex lock;
    std::condition_variable changed;
    bool worked = false, in_time = false;
    machine.log().set_sink([&](const DebugLog::Entry&) {
        std::unique_lock guard(lock);
        in_time = changed.wait_for(guard, std::chrono::seconds(20), [&] { return worked; });
    });
    run_to_end(machine, [&] {
        KSEMAPHORE semaphore;
        KeInitializeSemaphore(&semaphore, 0, 1);
        PKTHREAD sleeper = start_thread([&] {
            wait_ms(&semaphore);
            std::lock_guard guard(lock);
            worked = true;
            changed.notify_all();
        });
        machine.sleep_ms(20);  // for the sleeper to get there; were it late, it would need no waking
        KeReleaseSemaphore(&semaphore, 0, 1, FALSE);
        DbgPrint("a message");
        wait_ms(sleeper);
    });
    EXPECT_TRUE(in_time);
}

}  // namespace
}  // namespace machine::test
