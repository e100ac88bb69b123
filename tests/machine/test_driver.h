// A driver of the tests: one named device whose dispatch routine is a function object.
#pragma once

#include <functional>

#include "tests/machine/kernel_test.h"

namespace machine::test {

class TestDriver {
public:
    using Dispatch = std::function<NTSTATUS(PDEVICE_OBJECT, PIRP)>;

    explicit TestDriver(Dispatch dispatch, const wchar_t* name = L"\\Device\\Test", CCHAR stack_size = 1)
        : dispatch_(std::move(dispatch))
    {
        for (auto& routine : driver_.MajorFunction)
            routine = call;
        UNICODE_STRING counted_name = counted(name);
        EXPECT_EQ(IoCreateDevice(&driver_, sizeof(TestDriver*), &counted_name, FILE_DEVICE_UNKNOWN, 0, FALSE,
                                 &device_),
                  STATUS_SUCCESS);
        *static_cast<TestDriver**>(device_->DeviceExtension) = this;
        device_->StackSize = stack_size;
    }

    PDEVICE_OBJECT device() { return device_; }
    PDRIVER_OBJECT driver() { return &driver_; }

private:
    static NTSTATUS NTAPI call(PDEVICE_OBJECT device, PIRP irp)
    {
        return (*static_cast<TestDriver**>(device->DeviceExtension))->dispatch_(device, irp);
    }

    DRIVER_OBJECT driver_{};
    PDEVICE_OBJECT device_ = nullptr;
    Dispatch dispatch_;
};

inline NTSTATUS complete(PIRP irp, NTSTATUS status, ULONG_PTR information = 0)
{
    irp->IoStatus.Status = status;
    irp->IoStatus.Information = information;
    IoCompleteRequest(irp, IO_NO_INCREMENT);
    return status;
}

}  // namespace machine::test
