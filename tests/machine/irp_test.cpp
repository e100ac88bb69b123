#include <string>
#include <vector>

#include "tests/machine/test_driver.h"

namespace machine::test {
namespace {

struct Level {  // context of one driver's completion routine
    char name;
    std::string* log;
    NTSTATUS answer = STATUS_CONTINUE_COMPLETION;
    PDEVICE_OBJECT seen_device = nullptr;
    bool seen_pending = false;
};

NTSTATUS NTAPI note(PDEVICE_OBJECT device, PIRP irp, PVOID context)
{
    auto& level = *static_cast<Level*>(context);
    *level.log += level.name;
    level.seen_device = device;
    level.seen_pending = irp->PendingReturned;
    if (irp->PendingReturned && device)
        IoMarkIrpPending(irp);
    return level.answer;
}

NTSTATUS NTAPI keep(PDEVICE_OBJECT, PIRP, PVOID)
{
    return STATUS_MORE_PROCESSING_REQUIRED;
}

struct Flags {
    bool success = true, error = true;
};

// Three devices in a stack: top passes to middle, middle to bottom, bottom does what it is told.
struct Stack {
    std::string log;
    Level requester{'R', &log, STATUS_MORE_PROCESSING_REQUIRED};
    Level top_level{'T', &log}, middle_level{'M', &log};
    Flags middle_flags;
    TestDriver::Dispatch bottom_dispatch;
    TestDriver bottom{[this](PDEVICE_OBJECT device, PIRP irp) { return bottom_dispatch(device, irp); },
                      L"\\Device\\B"};
    TestDriver middle{
        [this](PDEVICE_OBJECT, PIRP irp) { return pass(irp, bottom, middle_level, middle_flags); },
        L"\\Device\\M"};
    TestDriver top{[this](PDEVICE_OBJECT, PIRP irp) { return pass(irp, middle, top_level, Flags()); },
                   L"\\Device\\T"};

    static NTSTATUS pass(PIRP irp, TestDriver& below, Level& level, Flags flags)
    {
        IoCopyCurrentIrpStackLocationToNext(irp);
        IoSetCompletionRoutine(irp, note, &level, flags.success, flags.error, TRUE);
        return IoCallDriver(below.device(), irp);
    }

    NTSTATUS send(PIRP irp)
    {
        IoGetNextIrpStackLocation(irp)->MajorFunction = IRP_MJ_SCSI;
        IoSetCompletionRoutine(irp, note, &requester, TRUE, TRUE, TRUE);
        return IoCallDriver(top.device(), irp);
    }
};

TEST(Irp, Completion_routines_run_from_the_lowest_driver_up_to_the_requester)
{
    Machine machine;
    run_to_end(machine, [] {
        Stack stack;
        stack.bottom_dispatch = [&](PDEVICE_OBJECT device, PIRP irp) {
            EXPECT_EQ(IoGetCurrentIrpStackLocation(irp)->DeviceObject, device);
            EXPECT_EQ(IoGetCurrentIrpStackLocation(irp)->MajorFunction, IRP_MJ_SCSI);
            return complete(irp, STATUS_SUCCESS, 17);
        };
        PIRP irp = IoAllocateIrp(3, FALSE);
        EXPECT_EQ(stack.send(irp), STATUS_SUCCESS);
        EXPECT_EQ(stack.log, "MTR");
        EXPECT_EQ(irp->IoStatus.Information, 17u);
        EXPECT_EQ(stack.middle_level.seen_device, stack.middle.device());
        EXPECT_EQ(stack.top_level.seen_device, stack.top.device());
        EXPECT_EQ(stack.requester.seen_device, nullptr);
        IoFreeIrp(irp);
    });
}

TEST(Irp, A_driver_that_keeps_the_irp_completes_it_later_from_where_it_stands)
{
    Machine machine;
    run_to_end(machine, [] {
        Stack stack;
        stack.middle_level.answer = STATUS_MORE_PROCESSING_REQUIRED;
        stack.bottom_dispatch = [](PDEVICE_OBJECT, PIRP irp) { return complete(irp, STATUS_SUCCESS); };
        PIRP irp = IoAllocateIrp(3, FALSE);
        stack.send(irp);
        EXPECT_EQ(stack.log, "M");
        IoCompleteRequest(irp, IO_NO_INCREMENT);
        EXPECT_EQ(stack.log, "MTR");
        IoFreeIrp(irp);
    });
}

TEST(Irp, Routines_are_called_only_for_the_ends_they_asked_for)
{
    Machine machine;
    run_to_end(machine, [] {
        for (const NTSTATUS status : {STATUS_SUCCESS, STATUS_IO_TIMEOUT}) {
            Stack stack;
            stack.middle_flags = {.success = false, .error = true};
            stack.bottom_dispatch = [=](PDEVICE_OBJECT, PIRP irp) { return complete(irp, status); };
            PIRP irp = IoAllocateIrp(3, FALSE);
            stack.send(irp);
            EXPECT_EQ(stack.log, NT_SUCCESS(status) ? "TR" : "MTR");
            IoFreeIrp(irp);
            IoDeleteDevice(stack.top.device());
            IoDeleteDevice(stack.middle.device());
            IoDeleteDevice(stack.bottom.device());
        }
    });
}

TEST(Irp, The_mark_of_a_pending_request_reaches_every_level)
{
    Machine machine;
    run_to_end(machine, [&] {
        Stack stack;
        stack.middle_flags = {.success = false, .error = false};  // passed over without its routine
        stack.bottom_dispatch = [&](PDEVICE_OBJECT, PIRP irp) {
            IoMarkIrpPending(irp);
            machine.scheduler().call_at(machine.scheduler().now() + 5 * ticks_per_ms,
                                        [irp] { complete(irp, STATUS_SUCCESS); });
            return STATUS_PENDING;
        };
        PIRP irp = IoAllocateIrp(3, FALSE);
        EXPECT_EQ(stack.send(irp), STATUS_PENDING);
        EXPECT_EQ(stack.log, "");
        machine.sleep_ms(10);
        EXPECT_EQ(stack.log, "TR");
        EXPECT_TRUE(stack.top_level.seen_pending);
        EXPECT_TRUE(stack.requester.seen_pending);
        IoFreeIrp(irp);
    });
}

// One IRP that its completion routine makes ready again, as a channel of notices uses it.
NTSTATUS NTAPI reuse(PDEVICE_OBJECT, PIRP irp, PVOID context)
{
    IoReuseIrp(irp, STATUS_UNSUCCESSFUL);
    set(*static_cast<PKEVENT>(context));
    return STATUS_MORE_PROCESSING_REQUIRED;
}

TEST(Irp, One_irp_is_used_again_and_again_by_many_threads)
{
    for (std::uint64_t seed = 1; seed <= 10; ++seed) {
        Machine machine({.seed = seed});
        int served = 0;
        run_to_end(machine, [&] {
            TestDriver driver([&](PDEVICE_OBJECT, PIRP irp) {
                ++served;
                IoMarkIrpPending(irp);
                machine.scheduler().call_at(machine.scheduler().now() + 1,
                                            [irp] { complete(irp, STATUS_SUCCESS); });
                return STATUS_PENDING;
            });
            KEVENT free;
            KeInitializeEvent(&free, SynchronizationEvent, TRUE);
            PIRP irp = IoAllocateIrp(driver.device()->StackSize, FALSE);
            std::vector<PKTHREAD> threads;
            for (int index = 0; index < 4; ++index)
                threads.push_back(start_thread([&] {
                    for (int round = 0; round < 10; ++round) {
                        wait_ms(&free);
                        EXPECT_EQ(irp->IoStatus.Status, served ? STATUS_UNSUCCESSFUL : STATUS_SUCCESS);
                        IoGetNextIrpStackLocation(irp)->MajorFunction = IRP_MJ_SCSI;
                        IoSetCompletionRoutine(irp, reuse, &free, TRUE, TRUE, TRUE);
                        IoCallDriver(driver.device(), irp);
                    }
                }));
            for (PKTHREAD thread : threads)
                wait_ms(thread);
            wait_ms(&free);
            IoFreeIrp(irp);
        });
        EXPECT_EQ(served, 40);
    }
}

PIRP sent_to(TestDriver& driver, PIO_COMPLETION_ROUTINE routine)
{
    PIRP irp = IoAllocateIrp(1, FALSE);
    IoGetNextIrpStackLocation(irp)->MajorFunction = IRP_MJ_SCSI;
    if (routine)
        IoSetCompletionRoutine(irp, routine, nullptr, TRUE, TRUE, TRUE);
    IoCallDriver(driver.device(), irp);
    return irp;
}

TEST(Irp, Misuse_is_reported)
{
    const auto pend = [](PDEVICE_OBJECT, PIRP irp) {
        IoMarkIrpPending(irp);
        return STATUS_PENDING;
    };
    const auto finish = [](PDEVICE_OBJECT, PIRP irp) { return complete(irp, STATUS_SUCCESS); };
    EXPECT_BREAKS(
        [&](Machine&) {
            TestDriver driver(finish);
            complete(sent_to(driver, keep), STATUS_SUCCESS);
        },
        "complete already");
    EXPECT_BREAKS(
        [&](Machine&) {
            TestDriver driver(finish);
            PIRP irp = sent_to(driver, keep);
            IoFreeIrp(irp);
            complete(irp, STATUS_SUCCESS);
        },
        "completed and freed before");
    EXPECT_BREAKS(
        [&](Machine&) {
            TestDriver driver(pend);
            IoReuseIrp(sent_to(driver, keep), STATUS_SUCCESS);
        },
        "IoReuseIrp: the IRP is under way");
    EXPECT_BREAKS(
        [&](Machine&) {
            TestDriver driver(pend);
            IoCallDriver(driver.device(), sent_to(driver, keep));
        },
        "under way already");
    EXPECT_BREAKS(
        [&](Machine&) {
            TestDriver driver(pend);
            IoFreeIrp(sent_to(driver, keep));
        },
        "IoFreeIrp: the IRP is under way");
    EXPECT_BREAKS(
        [&](Machine&) {
            TestDriver driver(finish);
            sent_to(driver, nullptr);
        },
        "must return STATUS_MORE_PROCESSING_REQUIRED");
    EXPECT_BREAKS(
        [&](Machine&) {
            TestDriver driver([](PDEVICE_OBJECT, PIRP irp) {
                KeRaiseIrqlToDpcLevel();
                return complete(irp, STATUS_SUCCESS);
            });
            sent_to(driver, keep);
        },
        "a dispatch routine called at IRQL 0 returned at IRQL 2");
}

}  // namespace
}  // namespace machine::test
