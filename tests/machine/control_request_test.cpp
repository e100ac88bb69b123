#include <array>
#include <cstring>

#include "tests/machine/test_driver.h"

namespace machine::test {
namespace {

constexpr ULONG code = CTL_CODE(0x800, 0x40, METHOD_BUFFERED, FILE_ANY_ACCESS);

struct Request {
    std::array<UCHAR, 8> input{1, 2, 3, 4, 5, 6, 7, 8};
    std::array<UCHAR, 6> output{9, 9, 9, 9, 9, 9};
    IO_STATUS_BLOCK result{};
    KEVENT event;

    Request()
    {
        KeInitializeEvent(&event, NotificationEvent, FALSE);
        result.Status = STATUS_MORE_ENTRIES;  // to be seen when nobody writes it
    }

    NTSTATUS send(PDEVICE_OBJECT device)
    {
        PIRP irp = IoBuildDeviceIoControlRequest(code, device, input.data(), input.size(), output.data(),
                                                 output.size(), FALSE, &event, &result);
        return IoCallDriver(device, irp);
    }
};

// Answers with the input's first bytes, each plus 100.
NTSTATUS answer(PIRP irp, NTSTATUS status, ULONG bytes)
{
    const auto& parameters = IoGetCurrentIrpStackLocation(irp)->Parameters.DeviceIoControl;
    EXPECT_EQ(parameters.IoControlCode, code);
    EXPECT_EQ(parameters.InputBufferLength, 8u);
    EXPECT_EQ(parameters.OutputBufferLength, 6u);
    auto* buffer = static_cast<UCHAR*>(irp->AssociatedIrp.SystemBuffer);
    for (ULONG index = 0; index < bytes; ++index)
        buffer[index] = static_cast<UCHAR>(buffer[index] + 100);
    return complete(irp, status, bytes);
}

TEST(Control_request, Completed_at_once_hands_back_as_many_bytes_as_the_device_said)
{
    Machine machine;
    run_to_end(machine, [] {
        TestDriver driver([](PDEVICE_OBJECT, PIRP irp) { return answer(irp, STATUS_SUCCESS, 4); });
        Request request;
        EXPECT_EQ(request.send(driver.device()), STATUS_SUCCESS);
        EXPECT_EQ(request.output, (std::array<UCHAR, 6>{101, 102, 103, 104, 9, 9}));
        EXPECT_EQ(request.input[0], 1);
        EXPECT_EQ(request.result.Status, STATUS_SUCCESS);
        EXPECT_EQ(request.result.Information, 4u);
        EXPECT_EQ(KeReadStateEvent(&request.event), 1);
    });
}

TEST(Control_request, A_pending_one_sets_the_event_when_the_answer_stands)
{
    for (const NTSTATUS status : {STATUS_SUCCESS, STATUS_IO_TIMEOUT}) {
        Machine machine;
        run_to_end(machine, [&] {
            TestDriver driver([&](PDEVICE_OBJECT, PIRP irp) {
                IoMarkIrpPending(irp);
                machine.scheduler().call_at(20 * ticks_per_ms, [=] { answer(irp, status, 6); });
                return STATUS_PENDING;
            });
            Request request;
            EXPECT_EQ(request.send(driver.device()), STATUS_PENDING);
            EXPECT_EQ(request.output[0], 9);
            EXPECT_EQ(wait_ms(&request.event), STATUS_SUCCESS);
            EXPECT_EQ(machine.now_ms(), 20);
            EXPECT_EQ(request.result.Status, status);
            EXPECT_EQ(request.output[5], NT_SUCCESS(status) ? 106 : 9);
        });
    }
}

TEST(Control_request, One_that_fails_at_once_tells_it_by_the_status_alone)
{
    Machine machine;
    run_to_end(machine, [&] {
        TestDriver driver([](PDEVICE_OBJECT, PIRP irp) { return answer(irp, STATUS_IO_TIMEOUT, 6); });
        Request request;
        EXPECT_EQ(request.send(driver.device()), STATUS_IO_TIMEOUT);
        EXPECT_EQ(request.output[0], 9);
        EXPECT_EQ(request.result.Status, STATUS_MORE_ENTRIES);
        EXPECT_EQ(KeReadStateEvent(&request.event), 0);

        machine.faults().fail(Operation::ioctl, "\\Device\\Test");
        EXPECT_EQ(request.send(driver.device()), STATUS_UNSUCCESSFUL);
        machine.faults().fail(Operation::irp_allocate, "IoBuildDeviceIoControlRequest");
        EXPECT_EQ(IoBuildDeviceIoControlRequest(code, driver.device(), nullptr, 0, nullptr, 0, FALSE, nullptr,
                                                nullptr),
                  nullptr);
    });
}

TEST(Control_request, More_bytes_than_the_output_buffer_has_are_reported)
{
    EXPECT_BREAKS(
        [](Machine&) {
            TestDriver driver([](PDEVICE_OBJECT, PIRP irp) { return answer(irp, STATUS_SUCCESS, 7); });
            Request().send(driver.device());
        },
        "more bytes than the output buffer has");
}

}  // namespace
}  // namespace machine::test
