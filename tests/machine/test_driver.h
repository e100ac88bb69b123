// SPDX-License-Identifier: MIT
// A driver for the tests of the machine, and the end of its requests.
#pragma once

#include "tests/machine/kernel_test.h"

namespace machine::test {

// A driver with one named device whose dispatch routine is a function object.
class TestDriver {
public:
    using Dispatch = std::function<NTSTATUS(PDEVICE_OBJECT, PIRP)>;

    explicit TestDriver(Dispatch dispatch, const wchar_t* name = L"\\Device\\Test")
        : dispatch_(std::move(dispatch))
    {
        for (auto& routine : driver_.MajorFunction)
            routine = call;
        UNICODE_STRING counted_name = counted(name);
        EXPECT_EQ(IoCreateDevice(&driver_, sizeof(TestDriver*), &counted_name, FILE_DEVICE_UNKNOWN, 0, FALSE,
                                 &device_),
                  STATUS_SUCCESS);
        device_->Flags &= ~static_cast<ULONG>(DO_DEVICE_INITIALIZING);
        *static_cast<TestDriver**>(device_->DeviceExtension) = this;
    }

    PDEVICE_OBJECT device() { return device_; }
    void replace(Dispatch dispatch) { dispatch_ = std::move(dispatch); }

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
