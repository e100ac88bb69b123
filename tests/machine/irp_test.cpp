// SPDX-License-Identifier: MIT
#include <string>

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
    in_machine([](Machine&) {
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
        IoReuseIrp(irp, STATUS_SUCCESS);

        // A driver that keeps the IRP completes it later from where it stands.
        stack.log.clear();
        stack.middle_level.answer = STATUS_MORE_PROCESSING_REQUIRED;
        stack.send(irp);
        EXPECT_EQ(stack.log, "M");
        IoCompleteRequest(irp, IO_NO_INCREMENT);
        EXPECT_EQ(stack.log, "MTR");
        IoFreeIrp(irp);
    });
}

TEST(Irp, Routines_are_called_only_for_the_ends_they_asked_for)
{
    for (const NTSTATUS status : {STATUS_SUCCESS, STATUS_IO_TIMEOUT})
        in_machine([=](Machine&) {
            Stack stack;
            stack.middle_flags = {.success = false, .error = true};
            stack.bottom_dispatch = [=](PDEVICE_OBJECT, PIRP irp) { return complete(irp, status); };
            PIRP irp = IoAllocateIrp(3, FALSE);
            stack.send(irp);
            EXPECT_EQ(stack.log, NT_SUCCESS(status) ? "TR" : "MTR");
            IoFreeIrp(irp);
        });
}

TEST(Irp, The_mark_of_a_pending_request_reaches_every_level)
{
    in_machine([](Machine& machine) {
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
    // Completes its IRP on a timer.
    const auto later = [](PIRP irp) {
        Scheduler& scheduler = Machine::current().scheduler();
        scheduler.call_at(scheduler.now() + 1, [irp] { complete(irp, STATUS_SUCCESS); });
    };
    const auto wait_long = [](TestDriver&, PIRP) { Machine::current().sleep_ms(1); };
    // Sends an IRP to a driver that handles it so, and does the rest.
    const auto sent = [](TestDriver::Dispatch dispatch, std::function<void(TestDriver&, PIRP)> rest,
                         PIO_COMPLETION_ROUTINE routine = keep) {
        return [=](Machine&) {
            TestDriver driver(dispatch);
            rest(driver, sent_to(driver, routine));
        };
    };
    expect_breaks({
        {"completed twice", sent(finish, [](TestDriver&, PIRP irp) { complete(irp, STATUS_SUCCESS); }),
         "complete already"},
        {"completed when free",
         sent(finish,
              [](TestDriver&, PIRP irp) {
                  IoFreeIrp(irp);
                  complete(irp, STATUS_SUCCESS);
              }),
         "completed and freed before"},
        {"used again", sent(pend, [](TestDriver&, PIRP irp) { IoReuseIrp(irp, STATUS_SUCCESS); }),
         "IoReuseIrp: the IRP is under way"},
        {"sent again", sent(pend, [](TestDriver& driver, PIRP irp) { IoCallDriver(driver.device(), irp); }),
         "under way already"},
        {"freed", sent(pend, [](TestDriver&, PIRP irp) { IoFreeIrp(irp); }),
         "IoFreeIrp: the IRP is under way"},
        {"not kept",
         sent(
             finish, [](TestDriver&, PIRP) {}, nullptr),
         "must return STATUS_MORE_PROCESSING_REQUIRED"},
        {"marked, and not said to be pending",
         sent(
             [](PDEVICE_OBJECT, PIRP irp) {
                 IoMarkIrpPending(irp);
                 return STATUS_SUCCESS;
             },
             [](TestDriver&, PIRP) {}),
         "marked its IRP pending and did not return STATUS_PENDING"},
        {"marked, complete, and not said to be pending",
         sent(
             [](PDEVICE_OBJECT, PIRP irp) {
                 IoMarkIrpPending(irp);
                 return complete(irp, STATUS_SUCCESS);
             },
             [](TestDriver&, PIRP) {}),
         "marked its IRP pending and did not return STATUS_PENDING"},
        {"complete before it is said to be pending without a mark",
         sent(
             [](PDEVICE_OBJECT, PIRP irp) {
                 complete(irp, STATUS_SUCCESS);
                 return STATUS_PENDING;
             },
             [](TestDriver&, PIRP) {}),
         "returned STATUS_PENDING for an IRP that it did not mark pending"},
        {"said to be pending without a mark",
         sent(
             [=](PDEVICE_OBJECT, PIRP irp) {
                 later(irp);
                 return STATUS_PENDING;
             },
             wait_long),
         "returned STATUS_PENDING for an IRP that it did not mark pending"},
        {"a mark that the driver above does not pass on",
         [](Machine&) {
             Stack stack;
             stack.bottom_dispatch = [](PDEVICE_OBJECT, PIRP irp) {
                 IoMarkIrpPending(irp);
                 complete(irp, STATUS_SUCCESS);
                 return STATUS_PENDING;
             };
             stack.top.replace([&](PDEVICE_OBJECT, PIRP irp) {
                 Stack::pass(irp, stack.middle, stack.top_level, Flags());
                 return STATUS_SUCCESS;
             });
             stack.send(IoAllocateIrp(3, FALSE));
         },
         "marked its IRP pending and did not return STATUS_PENDING"},
        {"a thread's own request at raised IRQL",
         [=](Machine&) {
             TestDriver driver(finish);
             KEVENT event;
             IO_STATUS_BLOCK result;
             KeInitializeEvent(&event, NotificationEvent, FALSE);
             PIRP irp = IoBuildDeviceIoControlRequest(CTL_CODE(FILE_DEVICE_UNKNOWN, 1, METHOD_BUFFERED, 0),
                                                      driver.device(), nullptr, 0, nullptr, 0, FALSE, &event,
                                                      &result);
             KfRaiseIrql(APC_LEVEL);
             IoCallDriver(driver.device(), irp);
         },
         "IofCallDriver at IRQL 1 with an IRP that belongs to a thread"},
        {"IRQL",
         sent(
             [](PDEVICE_OBJECT, PIRP irp) {
                 KeRaiseIrqlToDpcLevel();
                 return complete(irp, STATUS_SUCCESS);
             },
             [](TestDriver&, PIRP) {}),
         "a dispatch routine called at IRQL 0 returned at IRQL 2"},
    });
}

}  // namespace
}  // namespace machine::test
